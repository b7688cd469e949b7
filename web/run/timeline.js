'use strict';
// The page's part of the time line, which the add-on writes beside the library's own.

const tracks = { operations: 1, events: 2, states: 3 };

/** Microseconds of CLOCK_MONOTONIC. */
function now() {
  return Number(process.hrtime.bigint()) / 1000;
}

const isPlain = value => ['string', 'number', 'boolean'].includes(typeof value);

class Timeline {
  #native;
  #state = null;

  /** Into a new file, or into the one that UVA_TIMELINE names, if it names one. Before the add-on loads the library. */
  constructor({ timeline }, file) {
    const failure = timeline.begin(file);
    if (failure) throw new Error(failure);
    this.#native = timeline;
    for (const [name, number] of Object.entries(tracks)) timeline.nameTrack(number, name);
  }

  operation(name, args) {
    this.#record(tracks.operations, name, args);
  }
  event(name, args) {
    this.#record(tracks.events, name, args);
  }
  position(seconds) {
    this.#record(tracks.operations, 'position', { seconds }, 'counter');
  }
  /** The state that begins; null: none. */
  state(name) {
    if (this.#state) this.#record(tracks.states, this.#state.name, {}, 'span', this.#state.since);
    this.#state = name === null ? null : { name, since: now() };
  }
  /** Why something is missing from the file; empty: nothing is. */
  flush() {
    return this.#native.flush();
  }

  #record(track, name, args, ...how) {
    if (!this.#native.isOn()) return;
    const texts = Object.entries(args).map(([key, value]) => [key, isPlain(value) ? value : JSON.stringify(value) ?? '']);
    this.#native.record(track, name, Object.fromEntries(texts), ...how);
  }
}

module.exports = { Timeline };
