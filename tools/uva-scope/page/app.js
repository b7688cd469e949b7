// Takes what the server sends, keeps it by player, and shows the chosen one.
import { showBars } from "./bars.js";
import { byId, list, make, post, put, seconds } from "./dom.js";
import { Graph } from "./graph.js";
import { memory, showDecoders, showQueues, showThreads, showTimers } from "./tables.js";
import { Timeline } from "./timeline.js";
import { Traces } from "./traces.js";

const kept = 5000;
const players = new Map(); // by id: {latest, timeline, lines, before}
let chosen = null;
let time = 0;
let where = "";

const timeline = new Timeline();
const graph = new Graph(() => ({ player: chosen, backend: stalled()?.address ?? "" }));
const traces = new Traces(() => chosen);

const picture = { say: make("span", { class: "faint" }, "") };
byId("picture-tools").append(make("button", { id: "snap", onclick: snap }, "Take"), picture.say);

/// The backend that is of most interest.
function stalled() {
  const whys = list(players.get(chosen)?.latest.why);
  return whys.find((why) => why.waits_for) ?? whys[whys.length - 1];
}

async function snap() {
  try {
    const blob = await post("picture", { player: chosen });
    const image = make("img", { alt: "What the player shows" });
    image.src = URL.createObjectURL(blob);
    image.onload = () => URL.revokeObjectURL(image.src);
    byId("picture").replaceChildren(image);
    picture.say.className = "faint";
    picture.say.textContent = new Date().toLocaleTimeString();
  } catch (error) {
    picture.say.className = "error";
    picture.say.textContent = error.message;
  }
}

function take(update) {
  time = update.time;
  where = update.where;
  const present = new Set();
  for (const latest of update.players) {
    present.add(latest.id);
    const player = players.get(latest.id) ?? { timeline: [], lines: [], threadsAt: 0 };
    player.timeline.push(...latest.timeline);
    player.lines.push(...latest.lines);
    player.timeline.splice(0, player.timeline.length - kept);
    player.lines.splice(0, player.lines.length - kept);
    player.latest = latest;
    players.set(latest.id, player);
  }
  for (const id of players.keys()) if (!present.has(id)) players.delete(id);
  if (!players.has(chosen)) choose(best());
  show();
}

/// One that answers, the newest.
function best() {
  const ids = [...players.keys()];
  return ids.findLast((id) => players.get(id).latest.status === "answers") ?? ids.find((id) => players.get(id).latest.status !== "waiting") ?? ids[0] ?? null;
}

function choose(id) {
  if (id === chosen) return;
  chosen = id;
  graph.forget();
  byId("picture").replaceChildren();
  picture.say.textContent = "";
}

function showPlayers() {
  const kinds = { answers: "good", ended: "bad", silent: "warn", waiting: "" };
  const buttons = [...players.values()].map(({ latest }) => {
    const process = latest.state?.process;
    const name = process ? `${process.name} ${process.id}` : "no player yet";
    return make("button", { "aria-pressed": String(latest.id === chosen), "data-id": latest.id },
      `${latest.box ? `${latest.box}: ` : ""}${name} `, make("span", { class: `chip ${kinds[latest.status]}` }, latest.status));
  });
  put(byId("players"), ...buttons);
}
byId("players").addEventListener("click", (event) => {
  const button = event.target.closest("button");
  if (!button) return;
  isChosenByHand = true;
  choose(button.dataset.id);
  show();
});
let isChosenByHand = false;

const isAnyKnown = () => [...players.values()].some(({ latest }) => latest.status !== "waiting");

/// What keeps each place, and what to do.
function nobody(line) {
  const places = [...players.values()].map(({ latest }) => latest);
  const inBox = places[0].box ? `--name ${places[0].box} ` : "";
  return [...places.map(({ box, reason }) => line(box ? `${box}: ` : "", reason)),
    make("p", { class: "faint" }, `It is looked for all the time, and shows here by itself. Start one, such as: tvbox ${inBox}-- uva-host --standalone FILE`)];
}

function showWhy(latest) {
  const section = byId("why");
  const whys = list(latest.why);
  const isStalled = latest.status === "answers" && whys.some((why) => why.waits_for);
  section.className = isStalled || latest.status === "ended" ? "stalled" : latest.status === "answers" ? "" : "unknown";
  const line = (who, text) => make("p", {}, make("span", { class: "who" }, who), text);
  const head = make("h2", {}, "Why is nothing moving?");
  if (!isAnyKnown()) return put(section, head, line("No player answers", ` at ${where}`), ...nobody(line));
  if (latest.status === "ended") return put(section, head, line("The player has ended", `, ${seconds(time - latest.since)} ago: ${latest.reason}`));
  if (latest.status !== "answers") return put(section, head, line(latest.status === "silent" ? "The shell does not answer: " : "No player: ", latest.reason));
  if (whys.length === 0) return put(section, head, line("Nothing is loaded", ": the player has no backend"));
  put(section, head, ...whys.map((why) => why.waits_for
    ? line(`${why.waits_for}, for ${seconds(why.seconds)}`, `: ${why.sentence}`)
    : line("It is not stalled", `: ${why.sentence}`)));
}

function show() {
  const player = players.get(chosen);
  if (!isChosenByHand && player?.latest.status === "waiting") choose(best());
  showPlayers();
  const now = players.get(chosen);
  if (!now) return;
  const { latest } = now;
  showWhy(latest);
  timeline.show(now.timeline, time);
  showBars(byId("bars"), latest.state);
  showDecoders(byId("decoders"), latest.state, latest.main_system);
  if (time - now.threadsAt >= 1) {
    showThreads(byId("threads"), latest.state, now.before, now.threadsAt > 0 ? time - now.threadsAt : 0);
    now.before = latest.state;
    now.threadsAt = time;
  }
  showQueues(byId("queues"), latest.state);
  showTimers(byId("timers"), latest.state);
  traces.showUnits(latest.state);
  traces.show(now.lines, latest.note);
  byId("bundle").href = `bundle?player=${encodeURIComponent(chosen)}`;
  document.title = `uva-scope – ${stalled()?.waits_for || latest.status} (${memory(latest.state)})`;
}

function connect() {
  const stream = new EventSource("events");
  const link = byId("link");
  stream.onmessage = (event) => {
    link.textContent = "live";
    link.className = "chip good";
    take(JSON.parse(event.data));
  };
  stream.onerror = () => {
    link.textContent = "uva-scope has gone";
    link.className = "chip bad";
  };
  // A stream that begins anew sends all that is kept once more.
  stream.onopen = () => players.clear();
}
connect();
