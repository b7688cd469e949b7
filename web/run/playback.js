'use strict';
// One playback from the command line: what is played, what is reported of it, and how it ends.

const { Display, bufferedText } = require('./display');
const { answerRequest } = require('./licence');
const { loadNative } = require('./native');
const { StaticServer } = require('./server');
const { Timeline } = require('./timeline');
const { WebPlayer } = require('./web_player');

const tickSeconds = 0.2;

const observed = [
  'loadstart', 'durationchange', 'loadedmetadata', 'loadeddata', 'canplay', 'canplaythrough', 'playing', 'waiting', 'stalled', 'pause',
  'seeking', 'seeked', 'ended', 'error', 'encrypted', 'waitingforkey', 'resize', 'ratechange',
];

/** The state of a media element, named as uva-host names them. */
function stateOf(video) {
  if (video.error) return 'failed';
  if (video.ended) return 'ended';
  if (video.readyState === video.HAVE_NOTHING) return 'opening';
  if (video.seeking) return 'seeking';
  if (video.paused) return 'paused';
  return video.readyState < video.HAVE_FUTURE_DATA ? 'buffering' : 'playing';
}

class Playback {
  #options;
  #display;
  #timeline;
  #player = null;
  #server = null;
  #timer = null;
  #finish;
  #finished = new Promise(resolve => { this.#finish = resolve; });
  #state = null;
  #seeksLeft;
  #playsFrom = null; // where the element was when it said first that it plays: before anything moves
  #isSeeking = false;
  #playedSeconds = 0;
  #lastTick = performance.now();
  #lastMove = { position: NaN, time: performance.now() };
  #missingKeys = new Set();
  #snapshot = null;

  constructor(options) {
    this.#options = options;
    this.#timeline = new Timeline(loadNative(), options.timeline);
    this.#display = new Display(options);
    this.#seeksLeft = [...options.seeks];
  }

  /** Resolves with { error: text or null, signal, snapshot } when it is over and the backend is back. */
  async run({ url, root, name }) {
    const { keyDelay } = this.#options;
    const licencePath = '/licence';
    this.#server = new StaticServer({
      roots: root ? [root] : [],
      pages: { [licencePath]: body => this.#licence(body) },
      plan: ({ path }) => (path === licencePath && keyDelay ? { delay: keyDelay } : null),
    });
    const base = await this.#server.listen();
    this.#display.log(`media ${this.#options.media}`);
    this.#timeline.state('opening');
    await this.#start(url ?? `${base}/${encodeURIComponent(name)}`, base, base + licencePath);
    const { reason, error = null, signal } = await this.#finished;
    clearInterval(this.#timer);
    const failure = await this.#end(reason, error);
    return { error: failure, signal, snapshot: this.#snapshot };
  }

  /** The user ends it. */
  interrupt(signal) {
    this.#finish({ reason: 'until interrupted', signal });
  }

  async #start(url, base, licenceUrl) {
    const verbose = text => this.#options.verbose && this.#display.log(text);
    this.#player = await WebPlayer.open(this.#options.player, url, {
      base,
      licenceUrl,
      keys: this.#options.keyDelay ? [] : this.#options.keys,
      at: this.#options.start,
      fail: text => this.#finish({ error: this.#explain(text) }),
      note: text => this.#display.log(`${this.#options.player} ${text}`),
      log: text => this.#display.log(`element ${text}`),
      trace: (what, detail) => this.#trace(what, detail),
      console: (level, text) => (level === 'error' || level === 'warn' ? verbose : () => {})(`page ${level}: ${text}`),
    });
    const { video } = this.#player;
    for (const type of observed) video.addEventListener(type, () => this.#took(type));
    this.#timer = setInterval(() => this.#tick(), tickSeconds * 1000);
  }

  /** A failure of the key exchange has its reason here. */
  #explain(text) {
    const [missing] = this.#missingKeys;
    return missing ? `no key for key id ${missing}; give it with --key ${missing}:KEY (${text})` : text;
  }

  #licence(body) {
    this.#display.log(`event licence request ${body}`);
    const licence = answerRequest(body, this.#options.keys, id => this.#missingKeys.add(id));
    this.#timeline.event('licence', { request: body });
    return licence;
  }

  // ---- what is reported

  #trace(what, detail) {
    const args = detail !== null && typeof detail === 'object' ? { ...detail } : { value: detail };
    if (what.startsWith('> ')) this.#timeline.operation(what.slice(2), args);
    else if (what.startsWith('< ')) this.#timeline.event(what.slice(2), args);
    if (what === '< keyNeeded') this.#needKey(detail.keyId);
    if (this.#options.verbose && /^[<>]/.test(what)) this.#display.log(`${what.startsWith('>') ? 'call ' : 'event'} ${what.slice(2)} ${JSON.stringify(args)}`);
  }

  /** One that nobody named will not come. */
  #needKey(id) {
    if (this.#options.keys.some(key => key.id === id)) return;
    this.#missingKeys.add(id);
    this.#finish({ error: this.#explain('the media wait for it') });
  }

  #status() {
    const { video } = this.#player;
    return {
      state: stateOf(video), position: video.currentTime, duration: video.duration,
      width: video.videoWidth, height: video.videoHeight, buffered: this.#player.buffered(),
    };
  }

  #took(type) {
    const { video } = this.#player;
    const details = {
      durationchange: () => ` ${video.duration}`,
      loadedmetadata: () => ` duration=${video.duration} ${video.videoWidth}x${video.videoHeight}`,
      resize: () => ` ${video.videoWidth}x${video.videoHeight}`,
      error: () => ` ${video.error?.code} ${video.error?.message}`,
    };
    this.#display.log(`event ${type} at ${video.currentTime.toFixed(3)}${details[type]?.() ?? ''}`);
    this.#timeline.event(type, { position: video.currentTime });
    if (type === 'playing') this.#playsFrom ??= video.currentTime;
    if (type === 'seeked') this.#isSeeking = false;
    this.#look();
    if (type === 'error') this.#finish({ error: this.#explain(`the media element: ${video.error?.message || `error ${video.error?.code}`}`) });
    if (type === 'ended' && this.#seeksLeft.length === 0) this.#finish({ reason: 'to the end' });
  }

  /** Tells of a new state, and takes the next step of what was asked for. */
  #look() {
    const status = this.#status();
    if (status.state !== this.#state) {
      this.#state = status.state;
      this.#display.state(status);
      this.#timeline.state(status.state);
    }
    this.#display.status(status);
    if (this.#hasPlayed() && !this.#isSeeking && this.#seeksLeft.length > 0 && ['playing', 'paused', 'ended'].includes(status.state)) this.#nextSeek();
  }

  #hasPlayed() {
    const { video } = this.#player;
    return this.#playsFrom !== null && (video.currentTime !== this.#playsFrom || video.ended);
  }

  #nextSeek() {
    const { video } = this.#player;
    this.#isSeeking = true;
    const target = this.#seeksLeft.shift();
    this.#display.log(`call  seek target=${target}`);
    video.currentTime = target;
    if (video.ended || video.paused) video.play().catch(() => {}); // a failure is the element's error
  }

  #tick() {
    const { video } = this.#player;
    const time = performance.now();
    const passed = (time - this.#lastTick) / 1000;
    this.#lastTick = time;
    this.#look();
    this.#timeline.position(video.currentTime);
    if (this.#state === 'playing') this.#playedSeconds += passed;
    if (this.#playedSeconds >= this.#options.duration) return this.#finish({ reason: 'as long as asked' });
    if (video.currentTime !== this.#lastMove.position) this.#lastMove = { position: video.currentTime, time };
    if ((time - this.#lastMove.time) / 1000 >= this.#options.noProgress) this.#finish({ error: this.#stuck() });
  }

  /** Why nothing moves, as far as the element knows. */
  #stuck() {
    const { video } = this.#player;
    const where = `nothing has moved for ${this.#options.noProgress} s: ${this.#state} at ${video.currentTime.toFixed(3)} s,${bufferedText(this.#player.buffered())}`;
    const [missing] = this.#missingKeys;
    if (missing) return `${where}; no key for key id ${missing}: give it with --key ${missing}:KEY`;
    return `${where}, ready state ${video.readyState}; run again with --verbose to see what passes between the page and the library`;
  }

  // ---- the end

  /** Answers the error, or null. */
  async #end(reason, error) {
    const counters = this.#player?.counters();
    const summary = reason && this.#summary(reason, counters);
    let failure = error;
    if (this.#options.snapshot && !error) {
      this.#snapshot = await this.#player.capture();
      if (!this.#snapshot) failure = 'no snapshot: nothing was on screen';
    }
    this.#timeline.state(null);
    this.#display.clear();
    await this.#player?.close();
    await this.#server.close();
    failure ||= this.#timeline.flush() || null;
    if (!failure) this.#display.summary(summary);
    return failure;
  }

  #summary(reason, counters) {
    const { video } = this.#player;
    let text = `${this.#options.media}: played ${this.#playedSeconds.toFixed(1)} s ${reason}`;
    if (video.videoWidth > 0) text += `, ${video.videoWidth}x${video.videoHeight}`;
    if (Number.isFinite(video.duration)) text += `, ${video.duration.toFixed(1)} s long`;
    if (counters) text += `, ${counters.shown} pictures shown, ${counters.dropped} dropped`;
    if (counters?.sound !== undefined) text += `, ${counters.sound.toFixed(1)} s of sound`;
    return text;
  }
}

module.exports = { Playback };
