'use strict';
// Chrome trace events for ui.perfetto.dev. Times are microseconds of CLOCK_MONOTONIC, as those of the
// other programs of this machine: their files load side by side.

const tracks = { operations: 1, events: 2, states: 3 };

/** Microseconds of CLOCK_MONOTONIC. */
function now() {
  return Number(process.hrtime.bigint()) / 1000;
}

class Timeline {
  #rows = [];
  #state = null;

  constructor() {
    this.#rows.push({ ph: 'M', name: 'process_name', pid: process.pid, tid: 0, args: { name: 'player' } });
    for (const [name, tid] of Object.entries(tracks)) this.#rows.push({ ph: 'M', name: 'thread_name', pid: process.pid, tid, args: { name } });
  }

  operation(name, args) {
    this.#instant(tracks.operations, name, args);
  }
  event(name, args) {
    this.#instant(tracks.events, name, args);
  }
  position(seconds) {
    this.#rows.push({ ph: 'C', name: 'position', pid: process.pid, tid: tracks.operations, ts: now(), args: { seconds } });
  }
  /** The state that begins; null: none. */
  state(name) {
    const time = now();
    if (this.#state) this.#rows.push({ ph: 'X', name: this.#state.name, pid: process.pid, tid: tracks.states, ts: this.#state.since, dur: time - this.#state.since });
    this.#state = name === null ? null : { name, since: time };
  }
  #instant(tid, name, args) {
    this.#rows.push({ ph: 'i', s: 't', name, pid: process.pid, tid, ts: now(), ...(args && { args }) });
  }

  text() {
    return `{"displayTimeUnit": "ms", "traceEvents": [\n${this.#rows.map(row => JSON.stringify(row)).join(',\n')}\n]}\n`;
  }
}

module.exports = { Timeline };
