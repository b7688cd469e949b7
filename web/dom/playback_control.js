'use strict';
// HTML, "ready states", "playing the media resource" and "seeking", over a player and, where a page
// feeds it, a media source.

const { clearInterval, setInterval } = require('timers');

const { awaitStableState, fire, isClosed, queueTask } = require('./tasks.js');
const { mediaError, MEDIA_ERR_SRC_NOT_SUPPORTED } = require('./media_error.js');
const { marchOn } = require('./text_track.js');
const ranges = require('./ranges.js');

const readyStates = { HAVE_NOTHING: 0, HAVE_METADATA: 1, HAVE_CURRENT_DATA: 2, HAVE_FUTURE_DATA: 3, HAVE_ENOUGH_DATA: 4 };
const { HAVE_NOTHING, HAVE_METADATA, HAVE_CURRENT_DATA, HAVE_FUTURE_DATA, HAVE_ENOUGH_DATA } = readyStates;

// Seconds.
const tooLittle = 0.05; // buffered ahead: playback waits
const future = 0.3; // ... may go on
const enough = 2; // ... goes on to the end, presumably
const lasting = 0.1; // ... once it has been that much for so long, as the rest of a source is at once
const atOnce = 0.06; // what is so near is reached between two looks
const held = 0.5; // ... is why the player holds, when it does
const jitter = 0.1; // a position may fall back so much without a seek

// Milliseconds.
const lookInterval = 15;
const timeupdateInterval = 250;

/** Where playback of one element is, and what is wanted of it. `media` is its MediaControl. */
class PlaybackControl {
  #media;
  #readyState = HAVE_NOTHING;
  #duration = NaN;
  #paused = true;
  #seeking = false;
  #isAutoplaying = true;
  #wasLoaded = false; // loadeddata has been raised for this resource
  #hasEnded = false; // the position has reached the end
  #position = 0; // "current playback position"
  #isFresh = false; // the position was read in this task
  #hasStarted = false; // the player has passed the position where it began
  #defaultStart = 0; // "default playback start position"
  #played = [];
  #buffered = []; // the source's, or the player's
  #blockedAt = Infinity; // the first frame from here whose key is missing
  #enoughSince = null; // when so much came to be buffered ahead; null: it is not
  #waitsForKey = false;
  #size = { width: 0, height: 0 };
  #promises = []; // "pending play promises"
  #settlements = new Set(); // queued tasks that settle play promises
  #isLookDue = false;
  #areCuesDue = false;
  #wasPlayed = false; // a URL's player goes where it is sought only then, and begins there
  #playerState = null; // 'playing', 'paused' or 'buffering', once it has said so
  #timer = null;
  #lastUpdate = 0; // when timeupdate was raised last, and for which position
  #updatedAt = 0;
  #marchedTo = null; // where the text tracks are; null: playback has not begun

  playbackRate = 1;
  defaultPlaybackRate = 1;
  error = null;

  constructor(media) {
    this.#media = media;
  }

  get readyState() {
    return this.#readyState;
  }
  get duration() {
    return this.#duration;
  }
  get paused() {
    return this.#paused;
  }
  get seeking() {
    return this.#seeking;
  }
  get isAutoplaying() {
    return this.#isAutoplaying;
  }
  get size() {
    return this.#size;
  }
  get played() {
    return this.#played;
  }
  get buffered() {
    return this.#media.source === null ? this.#buffered : this.#media.source.buffered();
  }
  get seekable() {
    if (this.#media.source !== null) return this.#media.source.seekable();
    return this.#readyState === HAVE_NOTHING || !Number.isFinite(this.#duration) ? [] : [[0, this.#duration]];
  }
  /** "Ended playback", forwards. */
  get ended() {
    return this.#hasEnded && this.#readyState >= HAVE_METADATA && !this.#media.element.loop;
  }
  /** "Official playback position": one value while a script runs. */
  get position() {
    if (this.#readyState === HAVE_NOTHING) return this.#defaultStart;
    this.#readPosition();
    return this.#position;
  }

  // ---- the resource comes and goes

  /** "Media element load algorithm", as far as it concerns playback. */
  settlePromisesNow() {
    for (const settle of this.#settlements) settle();
    this.#settlements.clear();
  }
  forget() {
    this.#stopLooking();
    this.#readyState = HAVE_NOTHING;
    if (!this.#paused) {
      this.#paused = true;
      this.rejectPromises('AbortError', 'a new load began');
    }
    this.#seeking = this.#hasEnded = this.#wasLoaded = this.#wasPlayed = this.#waitsForKey = false;
    this.#playerState = null;
    this.#buffered = [];
    this.#played = [];
    this.#blockedAt = Infinity;
    this.#marchedTo = null;
    this.#duration = NaN;
    this.#size = { width: 0, height: 0 };
    if (this.#position !== 0) {
      this.#position = 0;
      this.#media.queueEvent('timeupdate');
    }
  }
  beginLoad() {
    this.error = null;
    this.#isAutoplaying = true;
    this.setPlaybackRate(this.defaultPlaybackRate);
  }

  /** The player begins with the resource: from now on it is looked after. */
  begin() {
    this.#startLooking();
  }

  /** HTML, "once enough of the media data has been fetched to determine the duration and the
   * dimensions"; MSE, Initialization Segment Received. Later ones are of what is not played yet. */
  metadataKnown({ width = 0, height = 0, duration }) {
    if (this.#readyState !== HAVE_NOTHING) return;
    if (duration !== undefined) this.setDuration(duration);
    this.setSize(width, height);
    const start = this.#defaultStart;
    this.#defaultStart = 0;
    this.#setReadyState(HAVE_METADATA);
    const { link, source } = this.#media;
    if (source === null) {
      if (start > 0) this.seek(start);
      this.#followPlayer();
    } else {
      if (start > 0) this.#beginSeek(start);
      link.open({
        start: this.#position,
        duration: Number.isFinite(this.#duration) ? this.#duration : 0,
        session: this.#media.keySession,
      });
    }
    this.look();
  }

  /** Of the picture that is played. */
  setSize(width, height) {
    if (!(width > 0 && height > 0) || (width === this.#size.width && height === this.#size.height)) return;
    this.#size = { width, height };
    this.#media.queueEvent('resize');
  }

  /** HTML, "when the length of the media resource changes". */
  setDuration(seconds) {
    if (Object.is(seconds, this.#duration)) return;
    const isLonger = seconds > this.#duration;
    this.#duration = seconds;
    if (isLonger) this.#hasEnded = false;
    this.#media.queueEvent('durationchange');
    if (this.#position > seconds) this.seek(seconds);
  }

  /** HTML, "if the media data is corrupted" and "fatal network error": what has begun fails. */
  fail(code, message) {
    this.error = mediaError(code, message);
    this.#media.link?.run(false);
    this.#stopLooking();
    this.#media.queueEvent('error');
  }

  // ---- what the page wants

  /** HTML, "internal play steps" with a promise; `selectResource` begins what is to be played. */
  play() {
    return new Promise((resolve, reject) => {
      if (this.error?.code === MEDIA_ERR_SRC_NOT_SUPPORTED)
        return reject(new window.DOMException('The element has no supported source.', 'NotSupportedError'));
      this.#promises.push({ resolve, reject });
      if (this.#media.selection.isEmpty) this.#media.selection.select();
      if (this.ended) this.seek(0);
      if (this.#paused) {
        this.#paused = false;
        this.#media.queueEvent('play');
        if (this.#readyState <= HAVE_CURRENT_DATA) this.#media.queueEvent('waiting');
        else this.#notifyAboutPlaying();
      } else if (this.#readyState >= HAVE_FUTURE_DATA) {
        this.#settle(this.#takePromises(), (promise) => promise.resolve());
      }
      this.#isAutoplaying = false;
      this.#media.selection.wanted();
      this.look();
    });
  }

  pause() {
    if (this.#media.selection.isEmpty) this.#media.selection.select();
    this.removed();
  }
  /** "Internal pause steps", also when the element has left its document. */
  removed() {
    this.#isAutoplaying = false;
    if (this.#paused) return;
    this.#readPosition();
    this.#paused = true;
    const promises = this.#takePromises();
    this.#queueSettlement(() => {
      fire(this.#media.element, 'timeupdate');
      fire(this.#media.element, 'pause');
    }, () => this.#rejectAll(promises, 'AbortError', 'playback was paused'));
    this.#steer();
  }

  /** The attribute `currentTime` is set. */
  setPosition(seconds) {
    if (this.#readyState === HAVE_NOTHING) this.#defaultStart = seconds;
    else this.seek(seconds);
  }

  /** HTML, "seeking". MSE, Seeking: the buffers say when it has come to its end. */
  seek(seconds) {
    if (this.#readyState === HAVE_NOTHING || this.error !== null) return;
    const seekable = this.seekable;
    if (seekable.length === 0) return;
    const target = nearest(seekable, Math.max(0, Math.min(seconds, Number.isNaN(this.#duration) ? seconds : this.#duration)));
    const { link, source } = this.#media;
    this.#beginSeek(target);
    const isThere = source === null && link.position === target;
    if (link.hasOpened && !isThere) link.seek(target);
    if (isThere || (source === null && !this.#wasPlayed)) this.#media.queue(() => this.playerSeeked(true));
    this.look();
  }
  #beginSeek(target) {
    this.#seeking = true;
    this.#hasEnded = false;
    this.#media.queueEvent('seeking');
    this.#position = target;
    this.#findBlocked();
  }

  /** Also of the default, when a resource is loaded. */
  setPlaybackRate(rate) {
    if (rate === this.playbackRate) return;
    this.playbackRate = rate;
    this.#media.queueEvent('ratechange');
    this.applyRate();
    this.#steer();
  }
  /** 0 is a pause; what the backend cannot play at is the attribute's alone. */
  applyRate() {
    if (this.playbackRate === 0 || this.#media.link === null || !this.#media.link.hasOpened) return;
    if (!this.#media.link.setRate(this.playbackRate)) env.log(`the backend does not play at rate ${this.playbackRate}`);
  }

  rejectPromises(name, message) {
    this.#rejectAll(this.#takePromises(), name, message);
  }
  takePromises() {
    return this.#takePromises();
  }

  // ---- what the source and the player tell

  /** Looked at once for all changes of a task. */
  buffersChanged() {
    if (this.#isLookDue) return;
    this.#isLookDue = true;
    queueTask(() => {
      if (this.#isLookDue) this.look();
    });
  }
  keysChanged() {
    this.#media.link?.keysChanged();
    this.buffersChanged();
  }
  playerSeeked(succeeded) {
    if (!succeeded) env.log(`the seek to ${this.#position} failed`);
    if (this.#seeking && this.#media.source === null) this.#finishSeek();
    this.#followPlayer();
    this.look();
  }
  playerBuffered(buffered) {
    this.#buffered = buffered;
    this.look();
  }
  playerStateChanged(state) {
    const isInterruption = state === 'buffering' && this.#playerState === 'playing';
    if (state === 'playing' || state === 'paused' || isInterruption) this.#playerState = state;
    this.#wasPlayed ||= state === 'playing';
    this.#followPlayer();
  }
  /** Of a URL, the player alone knows what data it has. */
  #followPlayer() {
    if (this.#media.source !== null || this.#readyState === HAVE_NOTHING || this.#playerState === null) return;
    const hasAll = this.#playerState !== 'buffering';
    if (!this.#seeking) this.#setReadyState(hasAll ? HAVE_ENOUGH_DATA : HAVE_CURRENT_DATA);
    this.#media.selection.progressed();
    if (hasAll) this.#media.selection.completed(true);
    this.#steer();
  }
  /** The player has played all that it was given. */
  playerEnded(position) {
    const { source } = this.#media;
    if (this.#seeking || this.#readyState === HAVE_NOTHING) return;
    if (source !== null && !source.isEnded) return env.log(`the player ended at ${position}, the source has not`);
    if (source === null && position > this.#duration) this.setDuration(position); // it was estimated
    this.#reachEnd();
  }

  // ---- looking after playback

  #startLooking() {
    this.#timer ??= setInterval(() => (isClosed() ? this.#stopLooking() : this.look()), lookInterval);
    this.#timer.unref();
  }
  #stopLooking() {
    clearInterval(this.#timer);
    this.#timer = null;
  }

  /** "Time marches on", and MSE, SourceBuffer Monitoring. */
  look() {
    const { source } = this.#media;
    if (this.#readyState === HAVE_NOTHING || this.error !== null) return;
    if (this.#isLookDue) this.#findBlocked();
    this.#isLookDue = false;
    this.#readPosition();
    this.#marchOn();
    if (source !== null) this.#monitor(source);
    this.#steer();
  }

  #readPosition() {
    const { link, source } = this.#media;
    if (this.#isFresh || link === null || !link.hasOpened || !link.isSettled || this.#seeking || this.#hasEnded) return;
    this.#isFresh = true;
    window.queueMicrotask(() => (this.#isFresh = false));
    let position = link.position;
    if (position < this.#position && (!this.#hasStarted || position > this.#position - jitter)) return;
    if (Number.isFinite(this.#duration)) position = Math.min(position, this.#duration);
    if (source !== null) position = Math.min(position, this.#endOfData(source));
    this.#hasStarted ||= position > this.#position;
    if (!this.#paused && position > this.#position) this.#played = ranges.union(this.#played, [[this.#position, position]]);
    this.#position = Math.max(0, position);
  }

  #marchOn() {
    const position = this.#position;
    if (this.#paused || this.#seeking) return;
    if (position !== this.#marchedTo) this.#marchTracks(this.#marchedTo);
    const now = env.now();
    if (position === this.#updatedAt || now - this.#lastUpdate < timeupdateInterval) return;
    this.#lastUpdate = now;
    this.#updatedAt = position;
    this.#media.queueEvent('timeupdate');
  }

  /** `since`: where playback came from, or null when it was not by playing. */
  #marchTracks(since) {
    this.#marchedTo = this.#position;
    if (marchOn(this.#media.textTracks, this.#position, since)) this.pause();
  }
  /** Of the tracks that the element has. They stand still while it has not been played or sought. */
  cuesChanged() {
    if (this.#paused || this.#areCuesDue) return;
    this.#areCuesDue = true;
    awaitStableState(() => {
      this.#areCuesDue = false;
      if (!this.#paused && !this.#seeking) this.#marchTracks(null);
    });
  }

  #monitor(source) {
    const data = this.#dataAt(source);
    const isBlocked = this.#blockedAt <= this.#position + (this.#media.link.isStarved ? held : atOnce);
    const withoutKey = this.#blockedAt > this.#position ? HAVE_CURRENT_DATA : HAVE_METADATA;
    const state = isBlocked ? Math.min(data.state, withoutKey) : data.state;
    const isThere = state >= HAVE_CURRENT_DATA && this.#media.link.isSettled;
    if (this.#seeking && isThere) this.#finishSeek();
    this.#setReadyState(this.#seeking ? Math.min(this.#readyState, HAVE_METADATA) : state);
    if (isBlocked && data.isThere && !this.#waitsForKey) this.#media.queueEvent('waitingforkey'); // EME, Wait for Key
    this.#waitsForKey = isBlocked && (data.isThere || this.#waitsForKey);
    const isAtEnd = source.isEnded && !this.#seeking && this.#position >= this.#duration - 0.001;
    if (isAtEnd && !this.#hasEnded) this.#reachEnd();
  }

  /** What is buffered at the position: whether anything is, and the ready state that it allows. */
  #dataAt(source) {
    const buffered = source.buffered();
    const last = buffered[buffered.length - 1];
    const range = this.#rangeAt(buffered);
    if (range === undefined) {
      const isEnd = source.isEnded && (last === undefined || this.#position >= last[1]);
      return { isThere: isEnd, state: isEnd ? HAVE_ENOUGH_DATA : HAVE_METADATA };
    }
    const isRest = source.isEnded && range === last && this.#blockedAt >= range[1];
    const ahead = Math.min(range[1], this.#blockedAt) - this.#position;
    return { isThere: true, state: isRest ? HAVE_ENOUGH_DATA : this.#stateFor(ahead) };
  }
  #stateFor(ahead) {
    const now = env.now();
    this.#enoughSince = ahead >= enough ? this.#enoughSince ?? now : null;
    if (this.#media.link.isStarved) return HAVE_CURRENT_DATA;
    if (this.#enoughSince !== null && now - this.#enoughSince >= lasting * 1000) return HAVE_ENOUGH_DATA;
    const wanted = this.#readyState >= HAVE_FUTURE_DATA ? tooLittle : future;
    return ahead > wanted ? HAVE_FUTURE_DATA : HAVE_CURRENT_DATA;
  }
  #rangeAt(buffered) {
    return ranges.playableAt(buffered, this.#position);
  }
  #endOfData(source) {
    return this.#rangeAt(source.buffered())?.[1] ?? Infinity;
  }

  #findBlocked() {
    const { source } = this.#media;
    this.#blockedAt = source === null ? Infinity : source.nextBlocked(this.#position);
  }

  /** HTML, "ready states": the events of a change. */
  #setReadyState(state) {
    const before = this.#readyState;
    if (state === before) return;
    this.#readyState = state;
    if (before === HAVE_NOTHING) this.#media.queueEvent('loadedmetadata');
    if (before < HAVE_CURRENT_DATA && state >= HAVE_CURRENT_DATA && !this.#wasLoaded) {
      this.#wasLoaded = true;
      this.#media.queueEvent('loadeddata');
      this.#media.queue(() => this.#media.selection.loadEventMayCome());
    }
    if (before >= HAVE_FUTURE_DATA && state <= HAVE_CURRENT_DATA && !this.#paused && !this.ended && this.error === null) {
      this.#media.queueEvent('timeupdate');
      this.#media.queueEvent('waiting');
    }
    if (before <= HAVE_CURRENT_DATA && state >= HAVE_FUTURE_DATA) {
      this.#media.queueEvent('canplay');
      if (!this.#paused) this.#notifyAboutPlaying();
    }
    if (state === HAVE_ENOUGH_DATA) {
      if (this.#isAutoplaying && this.#paused && this.#media.element.autoplay) this.#autoplay();
      this.#media.queueEvent('canplaythrough');
    }
  }
  #autoplay() {
    this.#paused = false;
    this.#media.queueEvent('play');
    this.#notifyAboutPlaying();
  }

  #finishSeek() {
    this.#seeking = false;
    this.#hasStarted = false;
    this.#marchTracks(null);
    this.#media.queueEvent('timeupdate');
    this.#media.queueEvent('seeked');
  }

  /** HTML, "when the current playback position reaches the end of the media resource". */
  #reachEnd() {
    if (this.#hasEnded) return;
    if (Number.isFinite(this.#duration)) {
      if (this.#duration > this.#position && !this.#paused)
        this.#played = ranges.union(this.#played, [[this.#position, this.#duration]]);
      this.#position = this.#duration;
    }
    if (this.#media.element.loop) return this.seek(0);
    this.#hasEnded = true;
    this.#marchTracks(this.#marchedTo);
    this.#media.queue(() => {
      fire(this.#media.element, 'timeupdate');
      if (!this.ended) return;
      if (!this.#paused) {
        this.#paused = true;
        fire(this.#media.element, 'pause');
        this.rejectPromises('AbortError', 'playback has ended');
      }
      fire(this.#media.element, 'ended');
    });
  }

  /** Lets the player play exactly while the element does. */
  #steer() {
    const { link, source } = this.#media;
    if (link === null) return;
    const hasData = source === null || this.#readyState >= HAVE_FUTURE_DATA;
    link.run(!this.#paused && hasData && this.playbackRate !== 0 && !this.#hasEnded && this.error === null);
  }

  // ---- promises of play()

  #takePromises() {
    return this.#promises.splice(0);
  }
  #rejectAll(promises, name, message) {
    for (const promise of promises) promise.reject(new window.DOMException(message, name));
  }
  /** HTML, "notify about playing". */
  #notifyAboutPlaying() {
    this.#lastUpdate = env.now(); // the first timeupdate is an interval away
    const promises = this.#takePromises();
    this.#queueSettlement(() => fire(this.#media.element, 'playing'), () => promises.forEach((promise) => promise.resolve()));
  }
  #settle(promises, how) {
    this.#queueSettlement(() => {}, () => promises.forEach(how));
  }
  /** A load in between settles them without the events. */
  #queueSettlement(events, settle) {
    this.#settlements.add(settle);
    const wasCurrent = this.#media.generation;
    queueTask(() => {
      if (wasCurrent !== this.#media.generation) return;
      events();
      this.#settlements.delete(settle);
      settle();
    });
  }
}

/** Of the times in these ranges, the one nearest to `time`. */
function nearest(list, time) {
  let best = Infinity;
  for (const [start, end] of list) {
    const candidate = Math.min(Math.max(time, start), end);
    if (Math.abs(candidate - time) < Math.abs(best - time)) best = candidate;
  }
  return best;
}

module.exports = { PlaybackControl, readyStates };
