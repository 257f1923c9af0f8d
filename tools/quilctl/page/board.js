// What all parts of the page use, and the block picture. What comes from the board is only ever put
// into text nodes.
"use strict";

const byId = id => document.getElementById(id);

function make(tag, text, attributes = {}) {
  const element = document.createElement(tag);
  if (text !== undefined) element.textContent = text;
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  return element;
}

// Where they stand: column and row, on a wide page and on a narrow one.
const kParts = [
  {id: "probes", name: "probed parts", wide: [0, 0], narrow: [1, 0]},
  {id: "mcu", name: "MCU", wide: [1, 0], narrow: [1, 1]},
  {id: "mcuflash", name: "boot loader", wide: [2, 0], narrow: [1, 2]},
  {id: "service", name: "service", wide: [0, 1], narrow: [0, 1]},
  {id: "fpga", name: "FPGA", wide: [1, 1], narrow: [0, 2]},
  {id: "flash", name: "flash", wide: [2, 1], narrow: [1, 3]},
  {id: "screen", name: "screen partition", wide: [0, 2], narrow: [0, 0]},
  {id: "phy", name: "PHY", wide: [1, 2], narrow: [0, 3]},
  {id: "network", name: "network", wide: [2, 2], narrow: [0, 4]},
];
const kWires = [["service", "probes"], ["service", "mcu"], ["service", "fpga"], ["service", "screen"],
  ["mcu", "mcuflash"], ["fpga", "flash"], ["fpga", "phy"], ["phy", "network"]];
const kSizes = {wide: "0 0 720 310", narrow: "0 0 440 510"};
const kColumn = 240, kRow = 100, kWide = 190, kHigh = 70;
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

function placeBoard(layout) {
  byId("board").setAttribute("viewBox", kSizes[layout]);
  const at = {};
  for (const part of kParts) {
    const [column, row] = part[layout];
    at[part.id] = {x: 10 + column * kColumn, y: 10 + row * kRow};
    shapes[part.id].setAttribute("transform", `translate(${at[part.id].x} ${at[part.id].y})`);
  }
  for (const [a, b] of kWires) {
    const ends = {x1: at[a].x + kWide / 2, y1: at[a].y + kHigh / 2, x2: at[b].x + kWide / 2,
      y2: at[b].y + kHigh / 2};
    for (const [name, value] of Object.entries(ends)) shapes[a + "-" + b].setAttribute(name, value);
  }
}

function drawBoard() {
  for (const [a, b] of kWires) byId("board").append(shapes[a + "-" + b] = svg("line", {}));
  for (const part of kParts) {
    const group = shapes[part.id] = svg("g", {id: "part-" + part.id});
    const name = svg("text", {x: 12, y: 28}), state = svg("text", {x: 12, y: 52, class: "state"});
    name.textContent = part.name;
    group.append(svg("rect", {width: kWide, height: kHigh, rx: 6}), name, state);
    byId("board").append(group);
  }
  const isNarrow = matchMedia("(max-width: 600px)");
  const place = () => placeBoard(isNarrow.matches ? "narrow" : "wide");
  isNarrow.addEventListener("change", place);
  place();
}

function setPart(id, state, isOff, broken) {
  shapes[id].querySelector(".state").textContent = broken.length ? "broken: " + broken.join(" ") : state;
  shapes[id].classList.toggle("off", isOff);
  shapes[id].classList.toggle("broken", broken.length > 0);
}

const kActive = {
  frame: ["service-mcu", "mcu"], request: ["service"], mcu: ["mcu"], "uart-tx": ["service-mcu"],
  "uart-rx": ["service-mcu"], spi: ["service-fpga", "fpga"], flash: ["fpga-flash", "flash"],
  probe: ["service-probes", "probes"], vendor: ["fpga"],
};

function light(event) {
  for (const id of kActive[event.kind] || []) {
    shapes[id].classList.add("active");
    clearTimeout(quietAt[id]);
    quietAt[id] = setTimeout(() => shapes[id].classList.remove("active"), 600);
  }
}

// `status` as the command of that name answers.
function showStatus(status) {
  const of = id => status.broken.filter(name => (kPartOfFault[name] || "probes") === id);
  const isOff = status.power !== "on";
  const off = text => isOff ? "no power" : text;
  byId("summary").textContent = `power ${status.power}, board time ` +
    `${status.board_seconds.toFixed(3)} s` + (status.command ? `, ${status.command}` : "") +
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
}
