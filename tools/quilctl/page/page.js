// The workbench page. What comes from the board is only ever put into text nodes.
"use strict";

const workbench = {};  // what is on the page
const byId = id => document.getElementById(id);

function make(tag, text, attributes = {}) {
  const element = document.createElement(tag);
  if (text !== undefined) element.textContent = text;
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  return element;
}

// ---- Commands

function say(text) {
  const said = byId("said");
  said.textContent = (said.textContent + text + "\n").slice(-20000);
  said.scrollTop = said.scrollHeight;
}

async function run(...words) {
  const response = await fetch("/run", {
    method: "POST", headers: {"Content-Type": "application/json"}, body: JSON.stringify({words}),
  });
  if (!response.ok) throw new Error(await response.text());
  return response.json();
}

function told(words, answer) {
  let result = {};
  try { result = JSON.parse(answer.out).result || {}; } catch { /* it said why on its error stream */ }
  const shown = {...result};
  for (const long of ["items", "stages", "steps"]) delete shown[long];
  const hex = Array.isArray(result.answer)
    ? result.answer.map(b => b.toString(16).padStart(2, "0")).join(" ") : JSON.stringify(shown);
  say(`> ${words.join(" ")}\n${answer.err}${answer.exit === 0 ? hex : "exit code " + answer.exit}`);
  return result;
}

async function act(...words) {
  say(`.. ${words.join(" ")}`);
  try {
    return told(words, await run(...words));
  } catch (error) {
    say(`quilctl: ${error.message}`);
    return {};
  } finally {
    refresh();
  }
}

// ---- The block picture

const kParts = [
  {id: "service", name: "service", x: 20, y: 20}, {id: "mcu", name: "MCU", x: 270, y: 20},
  {id: "mcuflash", name: "boot loader", x: 520, y: 20},
  {id: "fpga", name: "FPGA", x: 270, y: 130}, {id: "flash", name: "flash", x: 520, y: 130},
  {id: "screen", name: "screen partition", x: 20, y: 130},
  {id: "phy", name: "PHY", x: 270, y: 240}, {id: "network", name: "network", x: 520, y: 240},
  {id: "probes", name: "probed parts", x: 20, y: 240},
];
const kWires = [["service", "mcu"], ["mcu", "mcuflash"], ["service", "screen"], ["screen", "fpga"],
  ["fpga", "flash"], ["fpga", "phy"], ["phy", "network"], ["screen", "probes"]];
// Which part a name of a fault stands for; what is not listed is a probed part.
const kPartOfFault = {
  page: "flash", erase: "flash", program: "flash", done: "fpga", ddr: "fpga", "ddr-late": "fpga",
  clock: "phy", negotiation: "phy", phy: "phy", link: "network", "link-late": "network",
  spi: "fpga", screen: "screen", udp: "network", driver: "fpga", "screen-udp": "network",
  update: "flash", parameters: "screen", mcu: "mcu",
};
const shapes = {}, quietAt = {};

function svg(tag, attributes) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  return element;
}

function drawBoard() {
  const place = Object.fromEntries(kParts.map(part => [part.id, part]));
  for (const [a, b] of kWires) {
    const wire = svg("line", {x1: place[a].x + 90, y1: place[a].y + 35, x2: place[b].x + 90,
      y2: place[b].y + 35});
    shapes[a + "-" + b] = wire;
    byId("board").append(wire);
  }
  for (const part of kParts) {
    const group = svg("g", {id: "part-" + part.id, tabindex: "0"});
    group.append(svg("rect", {x: part.x, y: part.y, width: 180, height: 70, rx: 6}));
    const name = svg("text", {x: part.x + 12, y: part.y + 28});
    name.textContent = part.name;
    const state = svg("text", {x: part.x + 12, y: part.y + 52, class: "state"});
    group.append(name, state);
    shapes[part.id] = group;
    byId("board").append(group);
  }
}

function setPart(id, state, isOff, broken) {
  shapes[id].querySelector(".state").textContent = broken.length ? "broken: " + broken.join(" ") : state;
  shapes[id].classList.toggle("off", isOff);
  shapes[id].classList.toggle("broken", broken.length > 0);
}

const kActive = {
  frame: ["service-mcu", "mcu"], request: ["service"], mcu: ["mcu"], "uart-tx": ["service-mcu"],
  "uart-rx": ["service-mcu"], spi: ["screen-fpga", "fpga"], flash: ["fpga-flash", "flash"],
  probe: ["screen-probes", "probes"], vendor: ["fpga"],
};

function light(event) {
  for (const id of kActive[event.kind] || []) {
    shapes[id].classList.add("active");
    clearTimeout(quietAt[id]);
    quietAt[id] = setTimeout(() => shapes[id].classList.remove("active"), 600);
  }
}

let broken = new Set(), asked = 0;

async function refresh() {
  const mine = ++asked;
  let status;
  try {
    status = JSON.parse((await run("status")).out).result;
  } catch (error) {
    byId("summary").textContent = "no answer: " + error.message;
    return;
  }
  if (mine !== asked || !status) return;
  broken = new Set(status.broken);
  const of = id => status.broken.filter(name => (kPartOfFault[name] || "probes") === id);
  const isOff = status.power !== "on";
  const off = text => isOff ? "no power" : text;
  byId("summary").textContent = `power ${status.power}, board time ` +
    `${status.board_seconds.toFixed(3)} s, ${status.command || "waits for a command"}` +
    (status.violations.length ? `, ${status.violations.length} violations` : "");
  setPart("service", off(status.command ? "at work" : "waits"), isOff, of("service"));
  setPart("mcu", off(`${status.mcu.state} ${status.mcu.version}`), isOff, of("mcu"));
  setPart("mcuflash", off(status.mcu.state === "boot loader" ? "runs" : "waits"), isOff, []);
  setPart("fpga", off(status.fpga.configured ? status.fpga.version : "not configured"),
    isOff || !status.fpga.configured, of("fpga"));
  setPart("flash", off(""), isOff, of("flash"));
  setPart("phy", off(""), isOff, of("phy"));
  setPart("network", off("link " + status.link), isOff || status.link !== "up", of("network"));
  setPart("screen", off(""), isOff, of("screen"));
  setPart("probes", off(""), isOff, of("probes"));
  for (const box of document.querySelectorAll("#faults input")) box.checked = broken.has(box.name);
}

let refreshTimer = 0;
function refreshSoon() {
  if (refreshTimer) return;
  refreshTimer = setTimeout(() => { refreshTimer = 0; refresh(); }, 300);
}

// ---- The controls

function button(parent, text, ...words) {
  const one = make("button", text, {type: "button"});
  one.addEventListener("click", () => act(...words));
  byId(parent).append(one);
}

function checkbox(parent, name, changed) {
  const label = make("label"), box = make("input", undefined, {type: "checkbox", name});
  if (changed) box.addEventListener("change", () => changed(box.checked));
  label.append(box, " " + name);
  byId(parent).append(label);
}

function addControls() {
  byId("request").addEventListener("submit", event => {
    event.preventDefault();
    const form = new FormData(event.target), data = form.get("data").trim();
    const verb = event.submitter ? event.submitter.value : "get";
    act(verb, form.get("command"), ...(data === "" ? [] : verb === "get" ? ["--data", data] : [data]));
  });
  button("jobs", "boot", "boot");
  button("jobs", "MCU update", "mcu", "update");
  button("jobs", "FPGA update", "boot", "--update-fpga");
  button("jobs", "FPGA load", "fpga", "load");
  button("jobs", "FPGA status", "fpga", "status");
  button("power", "cut the power", "power", "cut");
  button("power", "power on", "power", "on");
  button("power", "low power", "power", "low");
  button("power", "normal power", "power", "normal");
  for (const name of Object.keys(kPartOfFault).concat("rtc", "es8316", "wifi-ap", "wifi-sta", "idt6965", "sdcard")) {
    checkbox("faults", name, isBroken => act("fault", isBroken ? "add" : "clear", name));
  }
  for (const name of ["rtc", "es8316", "wifi-ap", "wifi-sta", "idt6965", "sdcard"]) checkbox("self-test", name);
  const test = make("button", "run the self-test", {type: "button"});
  test.addEventListener("click", async () => {
    const names = [...document.querySelectorAll("#self-test input:checked")].map(box => box.name);
    const result = await act("self-test", ...names.flatMap(name => ["--break", name]));
    for (const item of result.items || []) say(`${item.item} ${item.verdict} ${item.probe}`);
  });
  byId("self-test").append(test);
}

async function addCommandNames() {
  const commands = JSON.parse((await run("commands", "list")).out).result.commands;
  for (const row of commands) byId("commands").append(make("option", undefined, {value: row.name}));
}

// ---- The screen partition, and what of it went to the FPGA

let screenRows = [];

async function addScreen() {
  const response = await fetch("/screen");
  const blocks = response.ok ? (await response.json()).result.blocks : [];
  for (const block of blocks) {
    const row = make("tr"), got = make("td", "not yet");
    row.append(make("td", "0x" + block.address.toString(16)), make("td", block.kind),
      make("td", String(block.length)), got);
    byId("screen").tBodies[0].append(row);
    screenRows.push({from: block.address, to: block.address + block.length, bytes: 0, got});
  }
}

function noteScreen(event) {
  if (event.kind === "power") {
    for (const row of screenRows) { row.bytes = 0; row.got.textContent = "not yet"; }
  }
  const write = event.kind === "spi" && /write (0x[0-9a-f]+), (\d+) bytes/.exec(event.text);
  if (!write) return;
  const address = parseInt(write[1], 16);
  for (const row of screenRows) {
    if (address < row.from || address >= row.to) continue;
    row.bytes += Number(write[2]);
    row.got.textContent = `yes, ${row.bytes} bytes at ${event.at.toFixed(3)} s`;
  }
}

// ---- What happens

function watch(timeline) {
  const stream = new EventSource("/events");
  stream.addEventListener("message", message => {
    const line = JSON.parse(message.data);
    if (line.lost) timeline.lost += line.lost;
    if (!line.event) return;
    const event = line.event;
    for (const member of ["source", "text"]) {
      if (Array.isArray(event[member])) event[member] = String.fromCharCode(...event[member]);
    }
    timeline.add(event);
    light(event);
    noteScreen(event);
    refreshSoon();
  });
  stream.addEventListener("error", () => {
    byId("summary").textContent = "the board's server does not answer";
  });
  stream.addEventListener("open", refresh);
}

function start() {
  drawBoard();
  addControls();
  const timeline = workbench.timeline = new Timeline(byId("timeline"), byId("detail"));
  byId("search").addEventListener("input", event => timeline.search(event.target.value));
  const acts = {
    earlier: () => timeline.pan(-0.3), later: () => timeline.pan(0.3),
    closer: () => timeline.zoom(0.5), wider: () => timeline.zoom(2),
    all: () => { timeline.setFollows(false); timeline.showAll(); timeline.draw(); },
    follow: () => timeline.setFollows(!timeline.follows), forget: () => timeline.forget(),
  };
  for (const [id, does] of Object.entries(acts)) byId(id).addEventListener("click", does);
  watch(timeline);
  addCommandNames().catch(error => say(error.message));
  addScreen().catch(error => say(error.message));
}

document.addEventListener("DOMContentLoaded", start);
