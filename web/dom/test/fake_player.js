'use strict';
// A native player without a backend: it is where the test says, and keeps what it is told.

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
  setDuration() {}
  setKeySession() {}
  setVolume(volume) {
    this.volume = volume;
  }
  setRate(rate) {
    return rate === 1;
  }
  resume() {}
  open({ start }) {
    this.calls.push(['open', start]);
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
  seek(seconds) {
    this.calls.push(['seek', seconds]);
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
