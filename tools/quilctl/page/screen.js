// The screen partition: the picture of it, its blocks, and what of them went to the FPGA.
"use strict";

class ScreenView {
  // `shown` as the command screen show answers.
  constructor(table, shown) {
    this.rows = [];
    if (shown.svg) byId("screen-picture").append(this.pictureOf(shown.svg));
    for (const block of shown.blocks || []) {
      const row = make("tr"), got = make("td", "not yet");
      row.append(make("td", "0x" + block.address.toString(16)), make("td", block.kind),
        make("td", String(block.length)), make("td", block.sent + (block.remark && `; ${block.remark}`)),
        got);
      table.tBodies[0].append(row);
      this.rows.push({from: block.address, to: block.address + block.length, bytes: 0, got, row});
    }
  }

  // It has numbers of the partition alone; its classes have the page's colours.
  pictureOf(text) {
    this.picture = document.adoptNode(
      new DOMParser().parseFromString(text, "image/svg+xml").documentElement);
    this.picture.setAttribute("role", "img");
    this.picture.setAttribute("aria-label", "Topologies, gamma curves and blocks");
    return this.picture;
  }

  mark(one, isSent) {
    one.row.classList.toggle("sent", isSent);
    const shapes = this.picture.querySelectorAll(`[data-address="${one.from}"]`);
    for (const shape of shapes) shape.classList.toggle("sent", isSent);
  }

  note(event) {
    if (event.kind === "power") {
      for (const one of this.rows) {
        one.bytes = 0;
        one.got.textContent = "not yet";
        this.mark(one, false);
      }
    }
    const write = event.kind === "spi" && /write (0x[0-9a-f]+), (\d+) bytes/.exec(event.name);
    if (!write) return;
    const address = parseInt(write[1], 16);
    for (const one of this.rows) {
      if (address < one.from || address >= one.to) continue;
      if (one.bytes === 0) this.mark(one, true);
      one.bytes += Number(write[2]);
      one.got.textContent = `yes, ${one.bytes} bytes at ${event.from.toFixed(3)} s`;
    }
  }
}
