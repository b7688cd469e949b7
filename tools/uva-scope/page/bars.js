// Where playback is, and what is buffered, as bars.
import { bytes, list, make, put, seconds } from "./dom.js";

function bar(from, until, span, position, text) {
  const percent = (value) => `${Math.min(100, Math.max(0, span > 0 ? value / span * 100 : 0))}%`;
  const part = make("div", { class: "part" });
  part.style.left = percent(from);
  part.style.width = percent(until - from);
  const place = make("div", { class: "place" });
  place.style.left = percent(position);
  return make("div", { class: "bar" }, part, place, make("span", {}, text));
}

function ofSource(source, span, position) {
  const end = source.last_end_seconds;
  const ahead = typeof end === "number" ? `${Math.max(0, end - position).toFixed(1)} s ahead` : "nothing buffered";
  const waits = typeof source.waits_for_data_seconds === "number" ? `, waits for data for ${seconds(source.waits_for_data_seconds)}` : "";
  const ended = source.ended ? ", ended" : "";
  const keys = source.decrypted > 0 || source.not_decrypted > 0 ? `, ${source.decrypted} decrypted, ${source.not_decrypted} not` : "";
  return [
    make("h3", {}, `${source.name}: ${source.state}`),
    bar(Math.min(position, end ?? 0), end ?? 0, span, position, `${ahead}, ${source.queued} queued (${bytes(source.bytes)})${waits}${ended}${keys}`),
  ];
}

function ofBackend(backend) {
  const position = backend.position_seconds ?? 0;
  const ends = list(backend.sources).map((source) => source.last_end_seconds ?? 0);
  const span = Math.max(backend.duration_seconds ?? 0, position, ...ends, 0.001);
  const facts = [
    ["wanted", backend.state],
    ["pipeline", backend.pipeline?.pending && backend.pipeline.pending !== "VOID_PENDING" ? `${backend.pipeline.state} → ${backend.pipeline.pending}` : backend.pipeline?.state],
    ["position", seconds(backend.position_seconds)],
    ["duration", seconds(backend.duration_seconds)],
    ["picture", backend.width > 0 ? `${backend.width}×${backend.height}` : "–"],
    ["seeks", `${backend.seek?.succeeded ?? 0} of ${backend.seek?.requested ?? 0}, ${backend.seek?.phase ?? "–"}`],
  ];
  const url = backend.url;
  const percent = backend.buffering?.percent ?? 100;
  return [
    make("div", { class: "pair" }, make("span", { class: "faint" }, backend.address), ...facts.map(([name, value]) => make("span", {}, make("span", { class: "faint" }, `${name} `), value ?? "–"))),
    bar(0, position, span, position, `${seconds(position)} of ${seconds(backend.duration_seconds)}`),
    ...list(backend.sources).flatMap((source) => ofSource(source, span, position)),
    ...(url ? [make("h3", {}, url.address), bar(0, percent, 100, percent, `${bytes(url.bytes_read)} read, queue ${percent} % full`)] : []),
    ...(backend.last_error ? [make("p", { class: "error" }, `${seconds(backend.last_error.seconds_ago)} ago: ${backend.last_error.text}`)] : []),
  ];
}

export function showBars(element, state) {
  const backends = list(state?.media?.backends);
  put(element, ...(backends.length === 0 ? [make("p", { class: "faint" }, "no backend")] : backends.flatMap(ofBackend)));
}
