// The page begins: on a served board, or with what a report has in it.
"use strict";

const workbench = {};  // what is on the page

// What is new lights a part up; the rest changes a span that is there.
function take(row) {
  const isNew = workbench.timeline.put(row);
  if (isNew) workbench.screen.note(row);
  return isNew;
}

function watch() {
  const stream = new EventSource("/events");
  stream.addEventListener("message", message => {
    const said = JSON.parse(message.data);
    if (said.lanes) workbench.timeline.begin(said.lanes);
    if (said.error) say(said.error);
    if (said.lost) workbench.timeline.lost += said.lost;
    if (!said.spans) return;
    said.spans.filter(take).forEach(light);
    refreshSoon();
  });
  stream.addEventListener("error", () => {
    byId("summary").textContent = "the board's server does not answer";
  });
  stream.addEventListener("open", refresh);
}

async function startServed() {
  addControls();
  byId("result-section").remove();
  const shown = await fetch("/screen").then(response => response.ok ? response.json() : {});
  workbench.screen = new ScreenView(byId("screen"), shown);
  watch();
  await addCommandNames();
  await addConfiguration();
}

// ---- A report: the same page, with everything in it

function startReport(report) {
  byId("controls-section").remove();
  byId("configuration-section").remove();
  document.title = report.command;
  byId("title").textContent = report.command;
  byId("result").textContent = report.text;
  workbench.timeline.setFollows(false);
  workbench.timeline.lost = report.lost;
  workbench.screen = new ScreenView(byId("screen"), report.screen);
  workbench.timeline.begin(report.lanes);
  report.spans.sort((a, b) => a.from - b.from).forEach(take);
  workbench.timeline.showAll();
  showStatus(report.status);
}

function addTimeline() {
  const timeline = workbench.timeline = new Timeline(byId("timeline"), byId("detail"));
  byId("search").addEventListener("input", event => timeline.search(event.target.value));
  const acts = {
    earlier: () => timeline.pan(-0.3), later: () => timeline.pan(0.3),
    closer: () => timeline.zoom(0.5), wider: () => timeline.zoom(2),
    all: () => { timeline.setFollows(false); timeline.showAll(); timeline.draw(); },
    follow: () => timeline.setFollows(!timeline.follows), forget: () => timeline.forget(),
  };
  for (const [id, does] of Object.entries(acts)) byId(id).addEventListener("click", does);
}

document.addEventListener("DOMContentLoaded", () => {
  drawBoard();
  addTimeline();
  const report = byId("report");
  if (report) return startReport(JSON.parse(report.textContent));
  startServed().catch(error => say(error.message));
});
