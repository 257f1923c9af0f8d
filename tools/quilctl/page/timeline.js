// The timeline: a lane for each kind of event, on a canvas.
"use strict";

const kLanes = ["stage", "request", "frame", "uart", "spi", "gpio", "flash", "shell", "mcu", "probe", "vendor",
  "log", "fault", "other"];
const kLaneOf = {"uart-tx": "uart", "uart-rx": "uart", violation: "fault", power: "other"};
const kMost = 50000, kLaneHeight = 24, kLeft = 74;

class Timeline {
  constructor(canvas, detail) {
    Object.assign(this, {canvas, detail, events: [], offset: 0, last: 0, from: 0, to: 1,
      follows: true, needle: "", chosen: -1, lost: 0, isDue: false});
    canvas.style.height = (kLanes.length + 1) * kLaneHeight + "px";
    new ResizeObserver(() => this.draw()).observe(canvas);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.draw());
    canvas.addEventListener("wheel", event => this.wheel(event), {passive: false});
    canvas.addEventListener("pointerdown", event => this.press(event));
    canvas.addEventListener("pointermove", event => this.drag(event));
    canvas.addEventListener("pointerup", event => this.release(event));
    canvas.addEventListener("keydown", event => this.key(event));
  }

  // Board time starts anew with each power-on: the page goes on from where it was.
  add(event) {
    if (event.kind === "power" && event.text.startsWith("on")) this.offset = this.last;
    event.t = this.offset + event.at;
    event.lane = kLaneOf[event.kind] || event.kind;
    if (!kLanes.includes(event.lane)) event.lane = "other";
    event.until = this.offset + (event.until || event.at);
    if (event.kind === "frame" && event.text.startsWith("answer")) this.pair(event);
    this.last = Math.max(this.last, event.until);
    this.events.push(event);
    if (this.events.length > kMost) {
      this.events.splice(0, kMost / 10);
      this.chosen = -1;
    }
    if (this.follows) this.showAll();
    this.drawSoon();
  }

  // A stage of a start-up, once it has ended.
  addStage({stage, from, took, ok, said}) {
    this.add({at: from, until: from + took, kind: "stage", source: stage,
      text: `${ok ? "ok" : "FAILED"} ${said}`, bytes: [], label: stage, hasFailed: !ok});
  }

  // A request's frame lasts until its answer, which has the same label.
  pair(answer) {
    const label = /label=\d+/.exec(answer.text);
    for (let i = this.events.length - 1; i >= 0 && i > this.events.length - 200; --i) {
      const one = this.events[i];
      if (one.kind !== "frame" || !one.text.startsWith("request") || !label) continue;
      if (one.text.includes(label[0] + " ")) {
        one.until = answer.t;
        one.answer = answer;
        return;
      }
    }
  }

  forget() {
    Object.assign(this, {events: [], chosen: -1, offset: this.offset - this.last, last: 0});
    this.showAll();
    this.draw();
  }

  showAll() {
    this.from = this.events.length ? this.events[0].t : 0;
    this.to = Math.max(this.last, this.from + 1e-3);
  }

  setFollows(follows) {
    this.follows = follows;
    document.getElementById("follow").setAttribute("aria-pressed", String(follows));
    if (follows) this.showAll();
    this.drawSoon();
  }

  zoom(factor, at = (this.from + this.to) / 2) {
    this.setFollows(false);
    const span = Math.max((this.to - this.from) * factor, 1e-6);
    const part = (at - this.from) / (this.to - this.from);
    this.from = at - span * part;
    this.to = this.from + span;
    this.drawSoon();
  }

  pan(part) {
    this.setFollows(false);
    const step = (this.to - this.from) * part;
    this.from += step;
    this.to += step;
    this.drawSoon();
  }

  search(needle) {
    this.needle = needle.trim().toLowerCase();
    this.drawSoon();
  }

  matches(event) {
    return this.needle === "" ||
      `${event.kind} ${event.source} ${event.text}`.toLowerCase().includes(this.needle);
  }

  x(t) { return kLeft + (t - this.from) / (this.to - this.from) * (this.width - kLeft - 8); }
  t(x) { return this.from + (x - kLeft) / (this.width - kLeft - 8) * (this.to - this.from); }

  drawSoon() {
    if (this.isDue) return;
    this.isDue = true;
    requestAnimationFrame(() => { this.isDue = false; this.draw(); });
  }

  draw() {
    const scale = devicePixelRatio || 1, style = getComputedStyle(document.body);
    const colour = name => style.getPropertyValue("--" + name).trim();
    this.width = this.canvas.clientWidth;
    const height = this.canvas.clientHeight, pen = this.canvas.getContext("2d");
    this.canvas.width = this.width * scale;
    this.canvas.height = height * scale;
    pen.scale(scale, scale);
    pen.font = "12px system-ui, sans-serif";
    kLanes.forEach((lane, i) => {
      pen.fillStyle = colour("ink");
      pen.fillText(lane, 6, i * kLaneHeight + 16);
      pen.fillStyle = colour("line");
      pen.fillRect(0, (i + 1) * kLaneHeight - 1, this.width, 1);
    });
    this.drawScale(pen, colour, height);
    pen.save();
    pen.beginPath();
    pen.rect(kLeft, 0, this.width - kLeft, height);
    pen.clip();
    this.events.forEach((event, i) => this.drawEvent(pen, colour, event, i === this.chosen));
    pen.restore();
    const found = this.events.filter(event => this.matches(event)).length;
    document.getElementById("range").textContent = `${this.from.toFixed(6)} s to ` +
      `${this.to.toFixed(6)} s, ${found} of ${this.events.length} events` +
      (this.lost ? `, ${this.lost} lost` : "");
  }

  drawScale(pen, colour, height) {
    pen.fillStyle = colour("faint");
    const steps = Math.max(2, Math.floor((this.width - kLeft) / 130));
    for (let i = 0; i < steps; ++i) {
      const t = this.from + (this.to - this.from) * i / steps;
      pen.fillRect(this.x(t), 0, 1, height);
      pen.fillText(`${t.toFixed(6)} s`, this.x(t) + 3, height - 8);
    }
  }

  drawEvent(pen, colour, event, isChosen) {
    if (event.until < this.from || event.t > this.to) return;
    const y = kLanes.indexOf(event.lane) * kLaneHeight + 4;
    const left = this.x(event.t), wide = Math.max(2, this.x(event.until) - left);
    pen.globalAlpha = this.matches(event) ? 1 : 0.15;
    const isBad = event.lane === "fault" || event.hasFailed;
    pen.fillStyle = colour(isChosen ? "mark" : isBad ? "broken" : "active");
    pen.fillRect(left, y, event.label ? wide - 1 : wide, isChosen ? 17 : 14);
    if (event.label) this.drawLabel(pen, colour, event.label, left, y, wide);
    pen.globalAlpha = 1;
  }

  drawLabel(pen, colour, label, left, y, wide) {
    const from = Math.max(left, kLeft) + 4;
    if (pen.measureText(label).width > left + wide - from - 4) return;
    pen.fillStyle = colour("paper");
    pen.fillText(label, from, y + 11);
  }

  place(event) {
    const box = this.canvas.getBoundingClientRect();
    return {x: event.clientX - box.left, y: event.clientY - box.top};
  }

  wheel(event) {
    event.preventDefault();
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      return this.pan((event.deltaX || event.deltaY) / 1000);
    }
    this.zoom(event.deltaY > 0 ? 1.25 : 0.8, this.t(this.place(event).x));
  }

  press(event) {
    this.pressed = {x: this.place(event).x, from: this.from, to: this.to, hasMoved: false};
    this.canvas.setPointerCapture(event.pointerId);
  }

  drag(event) {
    if (!this.pressed) return;
    const moved = this.place(event).x - this.pressed.x;
    if (Math.abs(moved) < 4 && !this.pressed.hasMoved) return;
    this.pressed.hasMoved = true;
    this.setFollows(false);
    const shift = moved / (this.width - kLeft - 8) * (this.pressed.to - this.pressed.from);
    this.from = this.pressed.from - shift;
    this.to = this.pressed.to - shift;
    this.drawSoon();
  }

  release(event) {
    const pressed = this.pressed;
    this.pressed = null;
    if (!pressed || pressed.hasMoved) return;
    const {x, y} = this.place(event), lane = kLanes[Math.floor(y / kLaneHeight)];
    let nearest = -1, distance = 12;
    this.events.forEach((one, i) => {
      if (one.lane !== lane || !this.matches(one)) return;
      const left = this.x(one.t), right = Math.max(left, this.x(one.until));
      const away = x < left ? left - x : x > right ? x - right : 0;
      if (away <= distance) [nearest, distance] = [i, away];
    });
    if (nearest >= 0) this.choose(nearest);
  }

  key(event) {
    const acts = {
      ArrowLeft: () => this.pan(-0.2), ArrowRight: () => this.pan(0.2),
      "+": () => this.zoom(0.5), "-": () => this.zoom(2),
      Enter: () => this.step(event.shiftKey ? -1 : 1),
    };
    if (!acts[event.key]) return;
    event.preventDefault();
    acts[event.key]();
  }

  // To the next event that the search finds.
  step(by) {
    for (let i = this.chosen + by; i >= 0 && i < this.events.length; i += by) {
      if (!this.matches(this.events[i])) continue;
      const t = this.events[i].t;
      if (t < this.from || t > this.to) this.pan((t - (this.from + this.to) / 2) / (this.to - this.from));
      return this.choose(i);
    }
  }

  choose(i) {
    this.chosen = i;
    const event = this.events[i];
    const near = this.events.filter(one => one.kind === "log" && one.t >= event.t &&
      one.t <= Math.max(event.until, event.t + 1e-3)).slice(0, 20);
    this.detail.replaceChildren(
      make("p", `${event.at.toFixed(6)} s  ${event.kind}  ${event.source}: ${event.text}`));
    const rows = [...fieldsOf(event), ...(event.answer ? fieldsOf(event.answer, "answer: ") : [])];
    const table = make("table");
    for (const [name, bytes, value] of rows) {
      const row = make("tr");
      row.append(make("th", name), make("td", bytes), make("td", value));
      table.append(row);
    }
    this.detail.append(table, ...near.map(one => make("p", `${one.source}: ${one.text}`)));
    this.drawSoon();
  }
}

// ---- Bytes, field by field

const hexOf = bytes => bytes.map(byte => byte.toString(16).padStart(2, "0")).join(" ");
const kFrameFields = [["magic", 0, 2], ["reserved", 2, 2], ["fixed", 4, 2], ["label", 6, 2],
  ["length", 8, 2], ["flags", 10, 1], ["field a", 11, 2], ["reserved", 13, 1], ["field b", 14, 4],
  ["field c", 18, 4], ["command", 22, 4], ["reserved", 26, 4]];
const kPayloadAt = 30;

function fieldsOf(event, prefix = "") {
  const bytes = event.bytes;
  const row = (name, from, to, value = "") => [prefix + name, hexOf(bytes.slice(from, to)), value];
  if (event.kind === "frame" && bytes.length >= kPayloadAt + 2) {
    const little = (at, size) => "0x" + bytes.slice(at, at + size).reverse()
      .map(byte => byte.toString(16).padStart(2, "0")).join("");
    const end = bytes.length - 2, payload = bytes.slice(kPayloadAt, end);
    const text = payload.every(byte => byte >= 32 && byte < 127) ? String.fromCharCode(...payload) : "";
    return [...kFrameFields.map(([name, at, size]) => row(name, at, at + size, little(at, size))),
      row("payload", kPayloadAt, end, text && `"${text}"`), row("checksum", end, end + 2, little(end, 2))];
  }
  if (event.kind === "spi" && bytes.length > 5) {
    return [row("direction", 0, 1, bytes[0] === 2 ? "write" : ""), row("address", 1, 5),
      row("data", 5, bytes.length)];
  }
  return bytes.length ? [row("bytes", 0, bytes.length)] : [];
}
