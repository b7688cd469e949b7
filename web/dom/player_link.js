'use strict';
// The only place that talks to the native player: one of them for each media resource that an
// element loads. Media's payloads do not pass here.

/** Players that have not been released; the page's end releases them. */
const living = new Set();

/** A page may name any time; a player is as far as it can be. */
const mostSeconds = 1e9;
const atMost = (seconds) => Math.min(seconds, mostSeconds);

class PlayerLink {
  #player;
  #client;
  #hasOpened = false;
  #isRunning = false;
  #generation = null; // of the seek that has not been answered
  #rate = 1;
  #released = () => {};
  #starved = new Set(); // tracks for want of whose data the player holds

  /**
   * The client is told, on Node's loop: opened(), metadata({ width, height, duration, pixelAspectRatio }),
   * seeked(succeeded), ended(position), supplyChanged(), keyNeeded(), failed(reason),
   * stateChanged(state), and, of URLs, buffered(ranges).
   */
  constructor(client) {
    this.#client = client;
    this.#player = new env.native.Player((event) => this.#take(event));
    living.add(this);
  }

  // ---- of a media source

  addTrack(kind, mimeType) {
    return this.#player.addTrack(kind, mimeType);
  }
  removeTrack(track) {
    this.#starved.delete(track);
    this.#player?.removeTrack(track);
  }
  add(track, batch, indices, pts, dts, sequence, group) {
    this.#player?.add(track, batch, indices, pts, dts, sequence, group);
  }
  remove(track, sequences) {
    this.#player?.remove(track, sequences);
  }
  setEnded(isEnded) {
    this.#player?.setEnded(isEnded);
  }
  setDuration(seconds) {
    this.#player?.setDuration(atMost(seconds));
  }

  // ---- of the element

  get hasOpened() {
    return this.#hasOpened;
  }
  /** Whether the player is where it was last told to be. */
  get isSettled() {
    return this.#generation === null;
  }
  /** Whether the player holds, or will at once, because it has not got enough to go on. */
  get isStarved() {
    return this.#starved.size > 0;
  }
  /** Seconds; what it was when the player looked last. */
  get position() {
    return this.#player === null ? 0 : this.#player.position;
  }
  /** Plays what the source's tracks are fed. `session`: of the key system, 0 for none. */
  open({ start, duration, session }) {
    this.#hasOpened = true;
    this.#player.open({ start: atMost(start), duration: atMost(duration), session });
  }
  /** `released()` is called once the player needs it no more. */
  openUrl(url, released = () => {}) {
    this.#released = released;
    this.#hasOpened = true;
    this.#player.openUrl(url);
    this.#player.pause(); // looks into it without playing it
  }
  setKeySession(session) {
    this.#player?.setKeySession(session);
  }
  keysChanged() {
    this.#player?.resume();
  }
  run(isRunning) {
    if (this.#player === null || !this.#hasOpened || isRunning === this.#isRunning) return;
    this.#isRunning = isRunning;
    env.trace?.(isRunning ? '> play' : '> pause', this.position);
    if (isRunning) this.#player.play();
    else this.#player.pause();
  }
  seek(seconds) {
    env.trace?.('> seek', seconds);
    this.#generation = this.#player.seek(atMost(seconds));
  }
  /** Answers whether the player plays at this rate; if not it stays at the one it had. */
  setRate(rate) {
    if (this.#player === null || rate === this.#rate) return true;
    const isTaken = this.#player.setRate(rate);
    if (isTaken) this.#rate = rate;
    return isTaken;
  }
  setVolume(volume) {
    this.#player?.setVolume(volume);
  }
  counters() {
    return this.#player === null ? { shown: 0, dropped: 0, corrupted: 0 } : this.#player.counters();
  }
  capture() {
    return this.#player === null ? Promise.resolve(null) : this.#player.capture();
  }
  describe() {
    return this.#player === null ? 'released' : this.#player.describe();
  }
  /** Nothing is told any more. Resolves when the backend has been handed back. */
  release() {
    if (this.#player === null) return Promise.resolve();
    const player = this.#player;
    this.#player = null;
    this.#client = null;
    const released = player.release();
    return released.then(() => this.#released()).finally(() => living.delete(this));
  }

  #take(event) {
    if (this.#client === null) return;
    env.trace?.(`< ${event.type}`, event);
    PlayerLink.#events[event.type]?.(this.#client, event, this);
  }
  #supply(client, track, isStarved) {
    if (isStarved) this.#starved.add(track);
    else this.#starved.delete(track);
    client.supplyChanged();
  }
  #answered(client, { generation, outcome }) {
    if (generation !== this.#generation) return; // a newer one is under way
    this.#generation = null;
    client.seeked(outcome === 'succeeded');
  }

  /** What becomes of the player's events. */
  static #events = {
    opened: (client) => client.opened(),
    metadata: (client, event) => client.metadata(event),
    ended: (client, { position }) => client.ended(position),
    starved: (client, { track }, link) => link.#supply(client, track, true),
    filled: (client, { track }, link) => link.#supply(client, track, false),
    keyNeeded: (client) => client.keyNeeded(),
    error: (client, { reason }) => client.failed(reason),
    state: (client, { state }) => client.stateChanged(state),
    buffered: (client, { ranges }) => client.buffered(ranges),
    seek: (client, event, link) => link.#answered(client, event),
  };
}

/** Hands back every backend that the page still has. */
function releaseAll() {
  return Promise.all([...living].map((link) => link.release()));
}

module.exports = { PlayerLink, releaseAll };
