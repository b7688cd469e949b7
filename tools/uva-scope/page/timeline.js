// States as spans on tracks, events as marks, over time. Wheel zooms, dragging moves; "live" follows.
import { byId, make } from "./dom.js";

const rowHeight = 24;
const label = 104;

export class Timeline {
  constructor() {
    this.canvas = byId("timeline");
    this.span = 30;
    this.end = null; // null: now
    this.now = 0;
    this.zero = 0; // when what is known begins
    this.records = [];
    this.live = make("button", { "aria-pressed": "true", onclick: () => this.follow() }, "Live");
    const zoom = (factor) => () => this.zoom(factor);
    this.hint = make("span", { class: "faint" }, "");
    byId("timeline-tools").append(this.live,
      make("button", { onclick: zoom(0.5), "aria-label": "Zoom in" }, "+"),
      make("button", { onclick: zoom(2), "aria-label": "Zoom out" }, "−"), this.hint);
    this.canvas.addEventListener("wheel", (event) => {
      event.preventDefault();
      this.zoom(event.deltaY > 0 ? 1.25 : 0.8);
    }, { passive: false });
    this.canvas.addEventListener("pointerdown", (event) => {
      this.canvas.setPointerCapture(event.pointerId);
      this.drag = { x: event.clientX, end: this.end ?? this.now };
    });
    this.canvas.addEventListener("pointermove", (event) => this.move(event));
    this.canvas.addEventListener("pointerup", () => { this.drag = null; });
    addEventListener("resize", () => this.draw());
  }

  follow() {
    this.end = null;
    this.draw();
  }

  zoom(factor) {
    this.span = Math.min(3600, Math.max(1, this.span * factor));
    this.draw();
  }

  move(event) {
    if (this.drag) {
      const width = this.canvas.clientWidth - label;
      const end = this.drag.end - (event.clientX - this.drag.x) / width * this.span;
      this.end = end >= this.now ? null : end;
      this.draw();
      return;
    }
    const hit = this.at(event.offsetX, event.offsetY);
    this.hint.textContent = hit ? `${(hit[0] - this.zero).toFixed(3)} s  ${hit[1]}: ${hit[2]}${hit[3] ? ` – ${hit[3]}` : ""}` : "";
  }

  at(x, y) {
    const track = this.tracks()[Math.floor(y / rowHeight)];
    const width = this.canvas.clientWidth - label;
    const time = (this.end ?? this.now) - this.span + (x - label) / width * this.span;
    const near = this.span / width * 6;
    const own = this.records.filter((record) => record[1] === track);
    if (track === "events" || track === "process") return own.findLast((record) => Math.abs(record[0] - time) < near);
    return own.findLast((record) => record[0] <= time);
  }

  show(records, now) {
    this.records = records;
    this.now = now;
    this.zero = records.reduce((least, record) => Math.min(least, record[0]), now);
    this.draw();
  }

  tracks() {
    const names = [...new Set(this.records.map((record) => record[1]))];
    const first = ["waits for", "process", "events", "wanted", "pipeline"];
    const rank = (name) => (first.includes(name) ? first.indexOf(name) : first.length);
    return names.sort((a, b) => rank(a) - rank(b) || a.localeCompare(b));
  }

  draw() {
    const style = getComputedStyle(document.documentElement);
    const colour = (name) => style.getPropertyValue(name).trim();
    const tracks = this.tracks();
    const height = Math.max(1, tracks.length) * rowHeight + 20;
    const width = this.canvas.clientWidth;
    const scale = window.devicePixelRatio || 1;
    this.canvas.style.height = `${height}px`;
    if (this.canvas.width !== Math.round(width * scale) || this.canvas.height !== Math.round(height * scale)) {
      this.canvas.width = Math.round(width * scale);
      this.canvas.height = Math.round(height * scale);
    }
    this.live.setAttribute("aria-pressed", String(this.end === null));
    const paint = this.canvas.getContext("2d");
    paint.setTransform(scale, 0, 0, scale, 0, 0);
    paint.clearRect(0, 0, width, height);
    paint.font = "12px system-ui, 'DejaVu Sans', sans-serif";
    paint.textBaseline = "middle";
    const end = this.end ?? this.now;
    const start = end - this.span;
    const x = (time) => label + (time - start) / this.span * (width - label);
    this.drawAxis(paint, x, start, end, height, colour);
    tracks.forEach((track, row) => this.drawTrack(paint, track, row * rowHeight, x, width, colour));
  }

  drawAxis(paint, x, start, end, height, colour) {
    const zero = this.zero;
    const steps = [0.1, 0.2, 0.5, 1, 2, 5, 10, 30, 60, 300, 600];
    const step = steps.find((each) => this.span / each <= 8) ?? 1200;
    paint.strokeStyle = colour("--line");
    paint.fillStyle = colour("--faint");
    for (let tick = Math.max(0, Math.ceil((start - zero) / step) * step); tick <= end - zero; tick += step) {
      const at = Math.round(x(zero + tick)) + 0.5;
      if (at < label) continue;
      paint.beginPath();
      paint.moveTo(at, 0);
      paint.lineTo(at, height - 18);
      paint.stroke();
      paint.fillText(`${tick.toFixed(step < 1 ? 1 : 0)} s`, at + 3, height - 8);
    }
  }

  drawTrack(paint, track, top, x, width, colour) {
    const own = this.records.filter((record) => record[1] === track);
    const isEvents = track === "events" || track === "process";
    paint.save();
    paint.beginPath();
    paint.rect(label, top, width - label, rowHeight);
    paint.clip();
    let textEnd = -Infinity;
    own.forEach((record, index) => {
      const from = x(record[0]);
      const until = isEvents ? from : x(own[index + 1]?.[0] ?? this.now);
      if (until < label || from > width) return;
      const isStall = track === "waits for" && record[2] !== "–";
      if (isEvents) {
        paint.fillStyle = record[2] === "ended" || /Error|Revoked/.test(record[2]) ? colour("--bad") : colour("--accent");
        paint.fillRect(from - 1, top + 3, 2, rowHeight - 6);
      } else {
        paint.fillStyle = isStall ? colour("--bad") : colour("--bar");
        paint.fillRect(from, top + 3, Math.max(1, until - from - 1), rowHeight - 6);
      }
      const begin = Math.max(from, label) + 4;
      const needs = paint.measureText(record[2]).width;
      const fits = isEvents ? begin > textEnd && begin + needs < (own[index + 1] ? x(own[index + 1][0]) : width) : needs < until - begin - 4;
      if (!fits) return;
      paint.fillStyle = isStall ? colour("--card") : colour("--text");
      paint.fillText(record[2], begin, top + rowHeight / 2);
      textEnd = begin + needs;
    });
    paint.restore();
    paint.fillStyle = colour("--faint");
    paint.fillText(track, 0, top + rowHeight / 2, label - 8);
  }
}
