'use strict';
// A native player without a backend: it is where the test says, and keeps what it is told.

/** As the add-on takes them. */
function seconds(value) {
  if (!(value >= 0 && value <= 1e9)) throw new RangeError(`${value} is not 0 to 1e9 seconds`);
  return value;
}

class FakePlayer {
  /** Those of this process, the newest last. */
  static all = [];
  /** What the constructor throws; null: nothing. */
  static fault = null;

  #callback;
  #generation = 0;
  position = 0;
  isPlaying = false;
  isReleased = false;
  calls = [];

  constructor(callback) {
    if (FakePlayer.fault !== null) throw FakePlayer.fault;
    this.#callback = callback;
    FakePlayer.all.push(this);
  }
  addTrack(kind) {
    return kind;
  }
  removeTrack() {}
  add() {}
  remove() {}
  setEnded() {}
  setDuration(duration) {
    this.calls.push(['setDuration', seconds(duration)]);
  }
  setKeySession() {}
  setVolume(volume) {
    this.volume = volume;
  }
  setRate(rate) {
    return rate === 1;
  }
  resume() {}
  open({ start, duration }) {
    this.calls.push(['open', seconds(start)]);
    this.duration = seconds(duration);
    this.position = start;
  }
  openUrl(url) {
    this.calls.push(['openUrl', url]);
  }
  play() {
    this.isPlaying = true;
  }
  pause() {
    this.isPlaying = false;
  }
  /** Answered when the test says so. */
  seek(time) {
    this.calls.push(['seek', seconds(time)]);
    return ++this.#generation;
  }
  answerSeek(position, generation = this.#generation) {
    this.position = position;
    this.tell({ type: 'seek', generation, outcome: 'succeeded', position });
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
