// The timeline: a lane for each kind of event, on a canvas.
"use strict";

const kMost = 50000, kRowHeight = 24, kLogLinesMost = 50;

class Timeline {
  constructor(canvas, detail) {
    Object.assign(this, {canvas, detail, lanes: [], tracks: [], spans: new Map(), connection: 0,
      offset: 0, last: 0, from: 0, to: 1, follows: true, needle: "", chosen: null, lost: 0, isDue: false});
    new ResizeObserver(() => this.draw()).observe(canvas);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.draw());
    canvas.addEventListener("wheel", event => this.wheel(event), {passive: false});
    canvas.addEventListener("pointerdown", event => this.press(event));
    canvas.addEventListener("pointermove", event => this.drag(event));
    canvas.addEventListener("pointerup", event => this.release(event));
    canvas.addEventListener("keydown", event => this.key(event));
  }

  // The lanes' names. Each connection numbers its spans anew.
  begin(lanes) {
    this.lanes = lanes;
    ++this.connection;
    this.layTracks();
  }

  spanOf(id, connection = this.connection) { return this.spans.get(`${connection}:${id}`); }

  // A row for each line of a lane, and for a lane without one.
  layTracks() {
    const lines = new Map(this.lanes.map((name, i) => [i + "/", {lane: i, line: "", name}]));
    for (const {lane, line} of this.spans.values()) {
      const key = `${lane}/${line}`;
      if (!lines.has(key)) lines.set(key, {lane, line, name: `${this.lanes[lane]} ${line}`});
    }
    const isUsed = new Set([...this.spans.values()].map(one => `${one.lane}/${one.line}`));
    const hasLines = lane => [...lines.values()].some(one => one.lane === lane && one.line);
    this.tracks = [...lines.entries()]
      .filter(([key, one]) => one.line || isUsed.has(key) || !hasLines(one.lane))
      .map(([, one]) => one).sort((a, b) => a.lane - b.lane);
    this.trackOf = new Map(this.tracks.map((one, i) => [`${one.lane}/${one.line}`, i]));
    this.canvas.style.height = (this.tracks.length + 1) * kRowHeight + "px";
    this.drawSoon();
  }

  // A span, or what has changed of one. True if it is new.
  put(row) {
    const known = this.spanOf(row.id);
    if (!known && row.lane === undefined) return false;  // forgotten
    // Board time starts anew with each power-on: the page goes on from where it was.
    if (!known && row.kind === "power" && row.name.startsWith("board: on")) this.offset = this.last;
    const span = known ||
      {line: "", source: "", fields: [], offset: this.offset, connection: this.connection};
    Object.assign(span, {moment: false, open: false, bad: false, parts: []}, row);
    span.t = span.offset + row.from;
    span.until = span.offset + row.to;
    this.last = Math.max(this.last, span.until);
    if (!known) this.add(span);
    if (this.follows) this.showAll();
    this.drawSoon();
    return !known;
  }

  add(span) {
    this.spans.set(`${span.connection}:${span.id}`, span);
    if (!this.trackOf.has(`${span.lane}/${span.line}`)) this.layTracks();
    if (this.spans.size <= kMost) return;
    for (const key of [...this.spans.keys()].slice(0, kMost / 10)) this.spans.delete(key);
  }

  forget() {
    this.spans.clear();
    Object.assign(this, {chosen: null, offset: this.offset - this.last, last: 0});
    this.layTracks();
    this.showAll();
  }

  showAll() {
    const first = this.spans.values().next().value;
    this.from = first ? first.t : 0;
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

  matches(span) {
    return this.needle === "" ||
      `${this.lanes[span.lane]} ${span.line} ${span.kind || ""} ${span.source} ${span.name}`
        .toLowerCase().includes(this.needle);
  }

  // What goes on lasts until now.
  end(span) { return span.open ? Math.max(span.until, this.last) : span.until; }
  get left() { return this.width < 600 ? 90 : 160; }
  get inner() { return this.width - this.left - 8; }
  x(t) { return this.left + (t - this.from) / (this.to - this.from) * this.inner; }
  t(x) { return this.from + (x - this.left) / this.inner * (this.to - this.from); }

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
    this.tracks.forEach((track, i) => {
      pen.fillStyle = colour("ink");
      pen.fillText(this.width < 600 && track.line || track.name, 6, i * kRowHeight + 16, this.left - 12);
      pen.fillStyle = colour("line");
      pen.fillRect(0, (i + 1) * kRowHeight - 1, this.width, 1);
    });
    this.drawScale(pen, colour, height);
    pen.save();
    pen.beginPath();
    pen.rect(this.left, 0, this.width - this.left, height);
    pen.clip();
    const colours = {};
    for (const name of ["mark", "broken", "active", "paper", "field"]) colours[name] = colour(name);
    let found = 0;
    for (const span of this.spans.values()) found += this.drawSpan(pen, colours, span);
    pen.restore();
    document.getElementById("range").textContent = `${this.from.toFixed(6)} s to ` +
      `${this.to.toFixed(6)} s, ${found} of ${this.spans.size} spans` +
      (this.lost ? `, ${this.lost} events lost` : "");
  }

  drawScale(pen, colour, height) {
    pen.fillStyle = colour("faint");
    const steps = Math.max(2, Math.floor(this.inner / 130));
    for (let i = 0; i < steps; ++i) {
      const t = this.from + (this.to - this.from) * i / steps;
      pen.fillRect(this.x(t), 0, 1, height);
      pen.fillText(`${t.toFixed(6)} s`, this.x(t) + 3, height - 8);
    }
  }

  // True if the search finds it.
  drawSpan(pen, colours, span) {
    const isFound = this.matches(span), end = this.end(span), isChosen = span === this.chosen;
    if (end < this.from || span.t > this.to) return isFound;
    const y = this.trackOf.get(`${span.lane}/${span.line}`) * kRowHeight + 4;
    const left = Math.max(this.x(span.t), -4), right = Math.min(this.x(end), this.width + 4);
    const wide = Math.max(2, right - left);
    pen.globalAlpha = isFound ? 1 : 0.15;
    pen.fillStyle = isChosen ? colours.mark : span.bad ? colours.broken : colours.active;
    pen.fillRect(left, y, wide > 4 ? wide - 1 : wide, isChosen ? 17 : 14);
    if (wide > 20) this.drawLabel(pen, colours.paper, span, left, y, wide);
    pen.globalAlpha = 1;
    return isFound;
  }

  // Its name, with its duration where there is room for both.
  drawLabel(pen, colour, span, left, y, wide) {
    const from = Math.max(left, this.left) + 4;
    const label = [`${span.name}  ${(span.to - span.from).toFixed(3)} s`, span.name]
      .find(text => pen.measureText(text).width <= left + wide - from - 4);
    if (label === undefined) return;
    pen.fillStyle = colour;
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
    const shift = moved / this.inner * (this.pressed.to - this.pressed.from);
    this.from = this.pressed.from - shift;
    this.to = this.pressed.to - shift;
    this.drawSoon();
  }

  release(event) {
    const pressed = this.pressed;
    this.pressed = null;
    if (!pressed || pressed.hasMoved) return;
    const {x, y} = this.place(event), track = Math.floor(y / kRowHeight);
    let nearest = null, distance = 12;
    for (const one of this.spans.values()) {
      if (this.trackOf.get(`${one.lane}/${one.line}`) !== track || !this.matches(one)) continue;
      const left = this.x(one.t), right = Math.max(left, this.x(this.end(one)));
      const away = x < left ? left - x : x > right ? x - right : 0;
      if (away <= distance) [nearest, distance] = [one, away];
    }
    if (nearest) this.choose(nearest);
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

  // To the next span that the search finds.
  step(by) {
    const all = [...this.spans.values()];
    for (let i = all.indexOf(this.chosen) + by; i >= 0 && i < all.length; i += by) {
      if (!this.matches(all[i])) continue;
      const t = all[i].t;
      if (t < this.from || t > this.to) this.pan((t - (this.from + this.to) / 2) / (this.to - this.from));
      return this.choose(all[i]);
    }
  }

  nameOf(span) { return `${this.lanes[span.lane]}${span.line && " " + span.line}`; }

  // Its bytes, and those of what it is made of and of what it led to: up to the client's answer.
  rowsOf(span) {
    const parts = span.parts.map(id => this.spanOf(id, span.connection)).filter(one => one);
    const flow = span.flow === undefined ? [] : [...this.spans.values()].filter(one =>
      one.flow === span.flow && one !== span && one.connection === span.connection);
    return [span, ...parts, ...flow].flatMap(one => one.fields.map(([name, bytes, value]) =>
      [one === span ? name : `${this.nameOf(one)}: ${name}`, bytes, value]));
  }

  logLinesOf(span) {
    const until = Math.max(this.end(span), span.t + (span.moment ? 1e-3 : 0));
    return [...this.spans.values()].filter(one => one.kind === "log" && one !== span &&
      one.t >= span.t && one.t <= until);
  }

  choose(span) {
    this.chosen = span;
    const took = span.moment ? "" : span.open ? ", goes on" : `, took ${(span.to - span.from).toFixed(6)} s`;
    const told = span.source && span.source !== span.line ? `${span.source}: ${span.name}` : span.name;
    const table = make("table"), lines = this.logLinesOf(span);
    for (const [name, bytes, value] of this.rowsOf(span)) {
      const row = make("tr");
      row.append(make("th", name), make("td", bytes), make("td", value));
      table.append(row);
    }
    this.detail.replaceChildren(
      make("p", `${span.from.toFixed(6)} s${took}  ${this.nameOf(span)}: ${told}`), table,
      ...lines.slice(0, kLogLinesMost).map(one => make("p", `${one.source}: ${one.name}`)));
    if (lines.length > kLogLinesMost) {
      this.detail.append(make("p", `and ${lines.length - kLogLinesMost} more log lines`));
    }
    this.drawSoon();
  }
}
