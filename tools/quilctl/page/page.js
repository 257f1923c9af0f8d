// The page begins: on a served board, or with what a report has in it.
"use strict";

const workbench = {};  // what is on the page

function take(event) {
  for (const member of ["source", "text"]) event[member] = textOf(event[member]);
  workbench.timeline.add(event);
  workbench.screen.note(event);
}

function watch() {
  const stream = new EventSource("/events");
  stream.addEventListener("message", message => {
    const line = JSON.parse(message.data);
    if (line.lost) workbench.timeline.lost += line.lost;
    if (!line.event) return;
    take(line.event);
    light(line.event);
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

const bytesOf = hex => hex === "" ? [] : hex.split(" ").map(byte => parseInt(byte, 16));

function addStages(stages) {
  for (const stage of stages || []) workbench.timeline.addStage(stage);
}

function startReport(report) {
  byId("controls-section").remove();
  byId("configuration-section").remove();
  document.title = report.command;
  byId("title").textContent = report.command;
  byId("result").textContent = report.text;
  workbench.timeline.setFollows(false);
  workbench.timeline.lost = report.lost;
  workbench.screen = new ScreenView(byId("screen"), report.screen);
  for (const [at, kind, source, text, bytes, until] of report.events) {
    take({at, kind, source, text, bytes: bytesOf(bytes), until});
  }
  addStages(report.result.stages);
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
