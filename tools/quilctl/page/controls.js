// Commands, and the controls that give them.
"use strict";

const kProbed = ["rtc", "es8316", "wifi-ap", "wifi-sta", "idt6965", "sdcard"];
const kWithLog = ["get", "set", "self-test", "boot", "mcu", "fpga"];

function say(text) {
  const said = byId("said");
  said.textContent = (said.textContent + text + "\n").slice(-20000);
  said.scrollTop = said.scrollHeight;
}

// What is no text is an array of bytes.
const textOf = value => Array.isArray(value) ? String.fromCharCode(...value) : value || "";

// The lines of a response as they come.
async function* linesOf(response) {
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  let rest = "";
  for (let part = await reader.read(); !part.done; part = await reader.read()) {
    const lines = (rest + part.value).split("\n");
    rest = lines.pop();
    yield* lines;
  }
}

// Runs a command; `onProgress` gets the objects of its progress.
async function run(words, onProgress = () => {}) {
  const response = await fetch("/run", {
    method: "POST", headers: {"Content-Type": "application/json"}, body: JSON.stringify({words}),
  });
  if (!response.ok) throw new Error(await response.text());
  const answer = {out: "", exit: -1};
  let rest = "";
  for await (const line of linesOf(response)) {
    if (line === "") continue;  // the server is still there
    const said = JSON.parse(line);
    if (said.error) throw new Error(textOf(said.error));
    answer.out += textOf(said.out);
    if (said.exit !== undefined) answer.exit = said.exit;
    const lines = (rest + textOf(said.err)).split("\n");
    rest = lines.pop();
    lines.forEach(one => onProgress(JSON.parse(one)));
  }
  if (answer.exit < 0) throw new Error("the board's server has ended in the middle of the command");
  return answer;
}

async function resultOf(...words) { return JSON.parse((await run(words)).out).result; }

function told(words, answer) {
  let result = {};
  try { result = JSON.parse(answer.out).result || {}; } catch { /* it said why before */ }
  const shown = {...result};
  for (const long of ["items", "stages", "steps"]) delete shown[long];
  const hex = Array.isArray(result.answer)
    ? result.answer.map(b => b.toString(16).padStart(2, "0")).join(" ") : JSON.stringify(shown);
  const end = answer.exit !== 0 ? `exit code ${answer.exit}` : hex === "{}" ? "done" : hex;
  say(`> ${words.join(" ")}\n${end}`);
  return result;
}

// ---- Progress

function setBar(label, done) {
  byId("progress-text").textContent = label;
  const bar = byId("progress");
  if (done === undefined) bar.removeAttribute("value"); else bar.value = done;
}

function showProgress(one) {
  switch (one.event) {
    case "stage":
      say(`${one.from.toFixed(3)} s  ${one.stage}  ${one.ok ? "ok" : "FAILED"}  ${one.said}`);
      if (one.cause) say(`  cause: ${one.cause}\n  remedy: ${one.remedy}`);
      return setBar("after: " + one.stage);
    case "bytes":
      return setBar(`${one.done} of ${one.total} bytes`, one.done / one.total);
    case "phase": return setBar(one.phase, one.percent / 100);
    case "step": return say(`${one.at.toFixed(3)} s  ${one.step}: ${one.said}`);
    case "log": return say(`${one.level}/${one.tag}: ${one.text}`);
    case "note": return say(one.text);
    case "error": return say(one.message + (one.remedy ? `\n  remedy: ${one.remedy}` : ""));
  }
}

let atWork = 0;

async function act(...words) {
  const level = byId("log-level").value;
  const given = level && kWithLog.includes(words[0]) ? [...words, "--log-level", level] : words;
  say(`.. ${given.join(" ")}`);
  ++atWork;
  setBar(words.join(" "));
  byId("working").hidden = false;
  try {
    return told(given, await run(given, showProgress));
  } catch (error) {
    say(`quilctl: ${error.message}`);
    return {};
  } finally {
    byId("working").hidden = --atWork === 0;
    refresh();
  }
}

// ---- What the board is like

let asked = 0, refreshTimer = 0;

async function refresh() {
  const mine = ++asked;
  let status;
  try {
    status = await resultOf("status");
  } catch (error) {
    byId("summary").textContent = "no answer: " + error.message;
    return;
  }
  if (mine !== asked || !status) return;
  showStatus(status);
  for (const box of document.querySelectorAll("#faults input")) {
    box.checked = status.broken.includes(box.name);
  }
}

function refreshSoon() {
  if (refreshTimer) return;
  refreshTimer = setTimeout(() => { refreshTimer = 0; refresh(); }, 300);
}

// ---- The controls

const kButtons = {
  jobs: [["boot", "boot"], ["MCU update", "mcu", "update"], ["FPGA update", "boot", "--update-fpga"],
    ["FPGA load", "fpga", "load"], ["FPGA status", "fpga", "status"]],
  power: [["cut the power", "power", "cut"], ["power on", "power", "on"],
    ["low power", "power", "low"], ["normal power", "power", "normal"]],
};

function button(parent, text, pressed) {
  const one = make("button", text, {type: "button"});
  one.addEventListener("click", pressed);
  byId(parent).append(one);
}

function checkbox(parent, name, changed) {
  const label = make("label"), box = make("input", undefined, {type: "checkbox", name});
  if (changed) box.addEventListener("change", () => changed(box.checked));
  label.append(box, " " + name);
  byId(parent).append(label);
}

function sendRequest(event) {
  event.preventDefault();
  const form = new FormData(event.target), data = form.get("data").trim();
  const verb = event.submitter ? event.submitter.value : "get";
  act(verb, form.get("command"), ...(data === "" ? [] : verb === "get" ? ["--data", data] : [data]));
}

async function testItself() {
  const names = [...document.querySelectorAll("#self-test input:checked")].map(box => box.name);
  const result = await act("self-test", ...names.flatMap(name => ["--break", name]));
  for (const item of result.items || []) say(`${item.item} ${item.verdict} ${item.probe}`);
}

function addControls() {
  byId("request").addEventListener("submit", sendRequest);
  for (const [parent, rows] of Object.entries(kButtons)) {
    for (const [text, ...words] of rows) button(parent, text, () => act(...words));
  }
  button("power", "reset to factory", () => {
    if (confirm("All that this board keeps is lost. Reset it?")) act("board", "reset");
  });
  for (const name of Object.keys(kPartOfFault).concat(kProbed)) {
    checkbox("faults", name, isBroken => act("fault", isBroken ? "add" : "clear", name));
  }
  button("faults", "mend all", () => act("fault", "clear"));
  kProbed.forEach(name => checkbox("self-test", name));
  button("self-test", "run the self-test", testItself);
}

async function addCommandNames() {
  for (const row of (await resultOf("commands", "list")).commands) {
    byId("commands").append(make("option", undefined, {value: row.name}));
  }
}

// The product's configuration, as the library has read it.
async function addConfiguration() {
  const body = byId("configuration").tBodies[0];
  for (const [section, keys] of Object.entries(await resultOf("config", "show"))) {
    for (const [key, value] of keys instanceof Object ? Object.entries(keys) : [["", keys]]) {
      const row = make("tr");
      row.append(make("td", section), make("td", key), make("td", String(value)));
      body.append(row);
    }
  }
}
