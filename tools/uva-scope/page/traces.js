// What the player prints, with a search, and the levels of what it prints.
import { byId, list, make, post } from "./dom.js";

const kept = 3000;
const levels = [[0, "all"], [5, "5 log"], [10, "10 debug"], [20, "20 info"], [30, "30 warning"], [40, "40 error"], [100, "none"]];

export class Traces {
  constructor(player) {
    this.player = player; // gives the id
    this.box = byId("traces");
    this.lines = [];
    this.search = make("input", { type: "search", placeholder: "Search", "aria-label": "Search", oninput: () => this.draw() });
    this.paused = make("button", { "aria-pressed": "false", onclick: () => this.pause() }, "Hold");
    this.unit = make("select", { "aria-label": "Trace unit" });
    this.level = make("select", { "aria-label": "Level" }, ...levels.map(([value, name]) => make("option", { value }, name)));
    this.level.value = "30";
    this.threshold = make("input", { placeholder: "GST_DEBUG, e.g. *:2,uvabackend:5", "aria-label": "GStreamer levels" });
    this.output = make("button", { onclick: () => this.set("output", { on: this.output.getAttribute("aria-pressed") !== "true" }) }, "Print");
    this.say = make("span", { class: "faint" }, "");
    byId("trace-tools").append(this.search, this.paused, this.output, this.unit, this.level,
      make("button", { onclick: () => this.set("trace", { unit: Number(this.unit.value), level: Number(this.level.value) }) }, "Set level"),
      this.threshold,
      make("button", { onclick: () => this.set("threshold", { levels: this.threshold.value.trim() }) }, "Set GStreamer's"),
      this.say);
  }

  async set(path, wish) {
    try {
      const answer = await post(path, { player: this.player(), ...wish });
      this.say.className = "faint";
      this.say.textContent = answer.text.trim().split("\n").pop() || "done";
    } catch (error) {
      this.say.className = "error";
      this.say.textContent = error.message;
    }
  }

  pause() {
    const isHeld = this.paused.getAttribute("aria-pressed") !== "true";
    this.paused.setAttribute("aria-pressed", String(isHeld));
    if (!isHeld) this.draw();
  }

  showUnits(state) {
    const trace = state?.trace ?? {};
    const isOn = trace.to_screen === true;
    this.output.setAttribute("aria-pressed", String(isOn));
    this.isSilent = !isOn && !(trace.to_file === true && trace.direct_print === false);
    const units = list(state?.trace?.units).filter((unit) => unit.name);
    const text = units.map((unit) => `${unit.unit} ${unit.name} (${unit.level})`);
    const have = [...this.unit.options].map((option) => option.textContent);
    if (text.join() === have.join()) return;
    const chosen = this.unit.value;
    this.unit.replaceChildren(...units.map((unit, i) => make("option", { value: unit.unit }, text[i])));
    if (chosen) this.unit.value = chosen;
  }

  show(lines, note) {
    this.note = note;
    const isNew = lines !== this.lines || lines.length !== this.count;
    this.lines = lines;
    this.count = lines.length;
    if (isNew && this.paused.getAttribute("aria-pressed") !== "true") this.draw();
  }

  draw() {
    const wanted = this.search.value.toLowerCase();
    const found = this.lines.filter((line) => line[2].toLowerCase().includes(wanted)).slice(-kept);
    const isAtEnd = this.box.scrollHeight - this.box.scrollTop - this.box.clientHeight < 40;
    const rows = found.map(([, source, text]) => make("div", { class: source }, text));
    if (rows.length === 0) rows.push(make("div", { class: "lost" }, this.note ? `Nothing to show: ${this.note}` :
      this.isSilent ? "The player prints nothing: press Print." : "Nothing has been printed."));
    this.box.replaceChildren(...rows);
    if (isAtEnd) this.box.scrollTop = this.box.scrollHeight;
  }
}
