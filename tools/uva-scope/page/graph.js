// The pipeline's graph, with what has changed since the last one. Wheel zooms, dragging moves.
import { byId, make, post } from "./dom.js";

const safeTags = new Set(["svg", "g", "title", "path", "polygon", "polyline", "ellipse", "text", "tspan"]);

/// The drawing without anything that would do more than be seen.
function clean(svg) {
  const root = new DOMParser().parseFromString(svg, "image/svg+xml").documentElement;
  if (root.localName !== "svg") throw new Error("the drawing cannot be read");
  for (const element of root.querySelectorAll("*")) {
    if (!safeTags.has(element.localName)) {
      element.replaceWith(...(element.localName === "a" ? element.childNodes : []));
      continue;
    }
    for (const { name } of [...element.attributes])
      if (/^on|href$|^style$/.test(name)) element.removeAttribute(name);
  }
  return document.importNode(root, true);
}

/// What each element, pad or link shows, by its name.
function parts(svg) {
  const found = new Map();
  for (const group of svg.querySelectorAll("g.cluster, g.node, g.edge")) {
    const name = group.querySelector("title")?.textContent ?? "";
    const texts = [...group.querySelectorAll(":scope > text")].map((text) => text.textContent).join("\n");
    found.set(name, { group, texts });
  }
  return found;
}

export class Graph {
  constructor(player) {
    this.player = player; // gives {player, backend}
    this.box = byId("graph");
    this.seen = null;
    this.say = make("span", { class: "faint" }, "");
    this.auto = make("input", { type: "checkbox", id: "graph-auto" });
    byId("graph-tools").append(
      make("button", { id: "draw", onclick: () => this.draw() }, "Draw"),
      make("label", {}, this.auto, " every 2 s"),
      make("button", { onclick: () => this.zoom(1.25), "aria-label": "Zoom in" }, "+"),
      make("button", { onclick: () => this.zoom(0.8), "aria-label": "Zoom out" }, "−"),
      make("button", { onclick: () => this.fit() }, "Fit"), this.say);
    this.box.append(make("p", { class: "faint" }, "Not drawn yet."));
    this.at = { x: 0, y: 0, scale: 1 };
    this.box.addEventListener("wheel", (event) => {
      event.preventDefault();
      const frame = this.box.getBoundingClientRect();
      this.zoom(event.deltaY > 0 ? 0.87 : 1.15, event.clientX - frame.left, event.clientY - frame.top);
    }, { passive: false });
    this.box.addEventListener("pointerdown", (event) => {
      this.box.setPointerCapture(event.pointerId);
      this.drag = { x: event.clientX - this.at.x, y: event.clientY - this.at.y };
    });
    this.box.addEventListener("pointermove", (event) => {
      if (!this.drag) return;
      this.at.x = event.clientX - this.drag.x;
      this.at.y = event.clientY - this.drag.y;
      this.place();
    });
    this.box.addEventListener("pointerup", () => { this.drag = null; });
    setInterval(() => { if (this.auto.checked && !document.hidden) this.draw(); }, 2000);
  }

  /// Another player's graph has nothing to be compared with.
  forget() {
    this.seen = null;
    this.svg = null;
    this.say.textContent = "";
    this.box.replaceChildren(make("p", { class: "faint" }, "Not drawn yet."));
  }

  async draw() {
    if (this.isAsking) return;
    this.isAsking = true;
    try {
      this.show((await post("graph", this.player())).svg);
    } catch (error) {
      this.say.textContent = error.message;
      this.say.className = "error";
    } finally {
      this.isAsking = false;
    }
  }

  show(text) {
    const svg = clean(text);
    const now = parts(svg);
    let changed = 0;
    for (const [name, part] of now) {
      const before = this.seen?.get(name);
      if (this.seen && before?.texts !== part.texts) {
        part.group.classList.add("changed");
        ++changed;
      }
    }
    const gone = this.seen ? [...this.seen.keys()].filter((name) => !now.has(name)).length : 0;
    this.say.className = "faint";
    this.say.textContent = this.seen ? `${changed} changed (red), ${gone} gone since the drawing before` : `${now.size} parts`;
    const isFirst = !this.svg;
    this.seen = now;
    this.svg = svg;
    this.size = { width: svg.width.baseVal.value, height: svg.height.baseVal.value };
    svg.setAttribute("width", this.size.width);
    svg.setAttribute("height", this.size.height);
    this.box.replaceChildren(svg);
    if (isFirst) this.fit();
    else this.place();
  }

  fit() {
    if (!this.svg) return;
    const inner = { width: this.box.clientWidth - 16, height: this.box.clientHeight - 16 };
    const scale = Math.min(1.5, inner.width / this.size.width, inner.height / this.size.height);
    this.at = { x: (inner.width - this.size.width * scale) / 2, y: (inner.height - this.size.height * scale) / 2, scale };
    this.place();
  }

  zoom(factor, x = this.box.clientWidth / 2, y = this.box.clientHeight / 2) {
    const scale = Math.min(8, Math.max(0.02, this.at.scale * factor));
    const real = scale / this.at.scale;
    this.at = { x: x - (x - this.at.x) * real, y: y - (y - this.at.y) * real, scale };
    this.place();
  }

  place() {
    if (this.svg) this.svg.style.transform = `translate(${this.at.x}px, ${this.at.y}px) scale(${this.at.scale})`;
  }
}
