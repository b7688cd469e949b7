// Decoders, threads, queues and timers.
import { bytes, list, make, put, seconds } from "./dom.js";

function table(columns, rows, none) {
  if (rows.length === 0) return make("p", { class: "faint" }, none);
  const cell = (tag, column, text) => make(tag, { class: column.kind }, text);
  return make("table", {},
    make("thead", {}, make("tr", {}, ...columns.map((column) => cell("th", column, column.title)))),
    make("tbody", {}, ...rows.map((row) =>
      make("tr", {}, ...columns.map((column) => cell("td", column, String(column.of(row) ?? "–")))))));
}

const isIn = (mask, bit) => typeof mask === "number" && (mask & bit) !== 0;

/// Both sides of the link, a row a kind.
export function showDecoders(element, state, mainSystem) {
  const link = state?.media?.decoder_link;
  const backends = list(state?.media?.backends);
  const player = (kind, bit) => {
    const waits = backends.flatMap((backend) => list(backend.decoder_requests)).filter((wait) => wait.kind === kind);
    if (waits.length > 0) return waits.map((wait) => `${wait.sink} waits for ${wait.waits_for}, ${seconds(wait.seconds)}`).join("; ");
    if (!link) return "no link";
    if (isIn(link.asked_back, bit)) return "asked back";
    if (isIn(link.used, bit)) return "in use";
    return isIn(link.available, bit) ? "granted, not used" : "none";
  };
  const owner = (kind) => {
    if (!mainSystem) return "cannot be seen";
    if (list(mainSystem.lent).includes(kind)) return "another application";
    if (list(mainSystem.granted).includes(kind)) return "the player";
    return list(mainSystem.decoders).includes(kind) ? "nobody" : "there is none";
  };
  const asked = (kind) => (list(mainSystem?.not_answered).includes(kind) ? "not answered" : "");
  const rows = [["video", 2], ["audio", 1]].map(([kind, bit]) => ({ kind, player: player(kind, bit), owner: owner(kind), asked: asked(kind) }));
  put(element,
    table([
      { title: "Decoder", of: (row) => row.kind },
      { title: "In the player", of: (row) => row.player, kind: "wrap" },
      { title: "Main system's owner", of: (row) => row.owner, kind: "wrap" },
      { title: "Request", of: (row) => row.asked, kind: "wrap" },
    ], rows, ""),
    make("p", { class: "faint" }, mainSystem ? `The main system answers by "${mainSystem.mode}".` :
      "The main system is not seen: none runs here, or it is not zant-mainsys."));
}

export function showThreads(element, state, before, elapsed) {
  const earlier = new Map(list(before?.threads).map((thread) => [thread.id, thread.cpu_seconds]));
  const load = (thread) => (elapsed > 0 && earlier.has(thread.id) ? Math.max(0, (thread.cpu_seconds - earlier.get(thread.id)) / elapsed * 100) : 0);
  const rows = list(state?.threads).map((thread) => ({ ...thread, load: load(thread) }))
    .sort((a, b) => b.cpu_seconds - a.cpu_seconds);
  put(element, table([
    { title: "Thread", of: (row) => row.name, kind: "grow" },
    { title: "Id", of: (row) => row.id, kind: "number" },
    { title: "State", of: (row) => row.state },
    { title: "Core", of: (row) => `${row.load.toFixed(0)} %`, kind: "number" },
    { title: "Time", of: (row) => `${Number(row.cpu_seconds).toFixed(2)} s`, kind: "number" },
    { title: "Messages", of: (row) => row.messages ?? "", kind: "number" },
  ], rows, "none known"));
}

export function showQueues(element, state) {
  put(element, table([
    { title: "Queue", of: (row) => row.name, kind: "grow" },
    { title: "Fill", of: (row) => `${row.waiting} of ${row.maximum}`, kind: "number" },
    { title: "Most", of: (row) => row.max_used, kind: "number" },
    { title: "Read", of: (row) => row.read, kind: "number" },
    { title: "Last signal", of: (row) => row.last_signal, kind: "number" },
  ], list(state?.queues), "none"));
}

export function showTimers(element, state) {
  put(element, table([
    { title: "Signal", of: (row) => row.signal, kind: "grow" },
    { title: "Queue", of: (row) => row.queue, kind: "number" },
    { title: "Period", of: (row) => `${row.milliseconds} ms`, kind: "number" },
    { title: "Remains", of: (row) => `${row.remaining_milliseconds} ms`, kind: "number" },
  ], list(state?.timers), "none is running"));
}

export function memory(state) {
  return bytes(state?.process?.resident_bytes);
}
