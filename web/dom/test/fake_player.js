'use strict';
// A native player without a backend: its position runs by the clock while it is told to play, its
// seeks are answered in a later task, and it keeps what it is told.

class FakePlayer {
  static all = [];
  /** Whether seeks are answered by themselves. */
  static answersSeeks = true;

  #callback;
  #position = 0;
  #since = null; // when it began to play
  #generation = 0;
  calls = [];
  isReleased = false;

  constructor(callback) {
    this.#callback = callback;
    FakePlayer.all.push(this);
  }
  addTrack(kind) {
    return kind;
  }
  removeTrack() {}
  add() {}
  remove() {}
  setEnded(isEnded) {
    this.isEnded = isEnded;
  }
  setDuration() {}
  setKeySession() {}
  setVolume(volume) {
    this.calls.push(['volume', volume]);
  }
  setRate(rate) {
    this.calls.push(['rate', rate]);
    return rate === 1;
  }
  resume() {}
  open({ start }) {
    this.calls.push(['open', start]);
    this.#position = start;
  }
  openUrl(url) {
    this.calls.push(['openUrl', url]);
  }
  play() {
    this.calls.push(['play']);
    this.#since = performance.now();
  }
  pause() {
    this.calls.push(['pause']);
    this.#position = this.position;
    this.#since = null;
  }
  get position() {
    return this.#since === null ? this.#position : this.#position + (performance.now() - this.#since) / 1000;
  }
  seek(seconds) {
    this.calls.push(['seek', seconds]);
    this.#position = seconds;
    if (this.#since !== null) this.#since = performance.now();
    const generation = ++this.#generation;
    if (FakePlayer.answersSeeks) setImmediate(() => this.answer(generation));
    return generation;
  }
  answer(generation = this.#generation) {
    this.tell({ type: 'seek', generation, outcome: 'succeeded', position: this.#position });
  }
  tell(event) {
    if (!this.isReleased) this.#callback(event);
  }
  counters() {
    return { shown: 10, dropped: 2, corrupted: 1 };
  }
  async release() {
    this.isReleased = true;
  }
}

module.exports = { FakePlayer };
