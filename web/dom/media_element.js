'use strict';
// HTMLMediaElement, HTMLVideoElement and HTMLAudioElement (HTML; MSE and EME extend them): the
// attributes and operations that jsdom leaves empty, over the state of an element.

const idl = require('./idl.js');
const { fire, queueTask, awaitStableState } = require('./tasks.js');
const { attach, MediaSource } = require('./media_source.js');
const { MediaEncryptedEvent } = require('./encrypted_event.js');
const mediaKeys = require('./media_keys.js');
const { parseMimeType } = require('./mime_type.js');
const ranges = require('./ranges.js');
const { PlaybackControl, readyStates } = require('./playback_control.js');
const { PlayerLink } = require('./player_link.js');
const { ResourceSelection, networkStates } = require('./resource_selection.js');
const textTracks = require('./text_track.js');
const { timeRanges } = require('./time_ranges.js');
const trackElement = require('./track_element.js');
const tracks = require('./track_lists.js');

/** The state of one element, which its parts and its media source share. */
class MediaControl {
  generation = 0; // of the resource: what was queued for an older one is dropped
  link = null; // to the player; null: nothing has been fetched
  source = null; // the attached media source; null: none
  audioTracks = tracks.makeAudioTrackList();
  videoTracks = tracks.makeVideoTrackList();
  textTracks = textTracks.makeTextTrackList(() => this.playback.cuesChanged());
  volume = 1;
  muted = false;
  preservesPitch = true;
  #buffered = null;
  #bufferedList = [];

  constructor(element) {
    this.element = element;
    this.playback = new PlaybackControl(this);
    this.selection = new ResourceSelection(this);
  }

  // ---- "media element event task source"

  queue(steps) {
    const { generation } = this;
    queueTask(() => {
      if (generation === this.generation) steps();
    });
  }
  queueEvent(type, EventClass, init) {
    this.queue(() => {
      env.trace?.(type, this.playback.position);
      fire(this.element, type, EventClass, init);
    });
  }

  // ---- the resource

  /** MSE, Attaching to a media element. False when the source is not closed. */
  attach(mediaSource) {
    this.#connect();
    this.source = attach(mediaSource, this);
    if (this.source === null) this.#disconnect();
    else this.playback.begin();
    return this.source !== null;
  }
  open(url, released) {
    this.#connect();
    this.playback.begin();
    this.link.openUrl(url, released);
  }
  /** MSE, Detaching from a media element; the player goes. */
  detach() {
    const { source } = this;
    this.source = null;
    source?.detach();
    this.#disconnect();
  }
  forgetTracks() {
    tracks.clear(this.audioTracks);
    tracks.clear(this.videoTracks);
  }
  #connect() {
    this.link = new PlayerLink(this.#playerEvents());
    this.applyVolume();
  }
  #disconnect() {
    this.link?.release();
    this.link = null;
  }
  #playerEvents() {
    return {
      opened: () => this.playback.applyRate(),
      metadata: (event) => this.#playerMetadata(event),
      seeked: (succeeded) => this.playback.playerSeeked(succeeded),
      ended: (position) => this.playback.playerEnded(position),
      supplyChanged: () => this.playback.look(),
      keyNeeded: () => this.playback.look(),
      failed: (reason) => this.selection.fail('decode', reason),
      stateChanged: (state) => this.playback.playerStateChanged(state),
      buffered: (ranges) => this.playback.playerBuffered(ranges),
    };
  }
  /** Of a media source, the segments have said how long it is. */
  #playerMetadata({ width, height, duration, pixelAspectRatio }) {
    const size = { width: Math.round(width * (pixelAspectRatio || 1)), height };
    if (this.source === null) this.playback.metadataKnown({ ...size, duration: duration > 0 ? duration : Infinity });
    this.playback.setSize(size.width, size.height);
  }
  /** HTML, "enabled": of audio tracks those alone are heard. A player plays one. */
  applyVolume() {
    const tracksOfSource = [...this.audioTracks];
    const isHeard = tracksOfSource.length === 0 || tracksOfSource.some(({ enabled }) => enabled);
    this.link?.setVolume(this.muted || !isHeard ? 0 : this.volume);
  }

  /** The attribute `buffered`: one object until something changes. */
  get buffered() {
    const list = this.playback.buffered;
    if (this.#buffered === null || !ranges.equal(list, this.#bufferedList)) {
      this.#bufferedList = list;
      this.#buffered = timeRanges(list);
    }
    return this.#buffered;
  }

  // ---- what the media source tells, and asks

  get currentTime() {
    return this.playback.position;
  }
  get error() {
    return this.playback.error;
  }
  get duration() {
    return this.playback.duration;
  }
  metadataKnown(description) {
    this.playback.metadataKnown(description);
  }
  durationChanged(seconds) {
    this.playback.setDuration(seconds);
    if (Number.isFinite(seconds)) this.link?.setDuration(seconds);
  }
  /** Of a media source, some are enabled, selected or there that were not, or the other way round. */
  tracksChanged() {
    this.applyVolume();
    this.buffersChanged();
  }
  buffersChanged() {
    if (this.source === null) return;
    this.link.setEnded(this.source.isEnded);
    this.selection.progressed();
    this.playback.buffersChanged();
  }
  /** The source has; of its page nothing more is known than the kind. */
  failed(kind, reason = kind === 'network' ? 'the page could not fetch the media' : 'the page says that the media cannot be decoded') {
    this.selection.fail(kind, reason);
  }

  // ---- EME

  /** EME, Initialization Data Encountered. */
  encrypted(initDataType, data) {
    const initData = data === null ? null : data.slice().buffer;
    this.queueEvent('encrypted', MediaEncryptedEvent, { initDataType, initData });
  }
  get keySession() {
    return mediaKeys.keysOf(this.element)?.session ?? 0;
  }
  hasKey(id) {
    return mediaKeys.keysOf(this.element)?.hasKey(id) ?? false;
  }
  /** Keys have come or gone, or others are used. */
  keysChanged() {
    this.link?.setKeySession(this.keySession);
    this.playback.keysChanged();
  }
}

const controls = new WeakMap(); // by element

function controlOf(element) {
  let control = controls.get(element);
  if (control === undefined) {
    if (!(element instanceof window.HTMLMediaElement)) throw new TypeError('Illegal invocation');
    control = new MediaControl(element);
    controls.set(element, control);
  }
  return control;
}

/** Of the documents' changes, what concerns media elements; see element_hooks.js. */
const documentListener = {
  attributeChanged(element, name, value) {
    const isOwn = element.getAttributeNS(null, name) === value; // in no namespace
    if (name !== 'src' || !isOwn) return;
    if (element instanceof window.HTMLTrackElement) trackElement.sourceSet(element);
    else controlOf(element).selection.sourceSet(value);
  },
  /** HTML, the attribute `muted`: what the parser has made begins as it says. */
  parsed(element) {
    if (element.hasAttribute('muted')) controlOf(element).muted = true;
  },
  /** HTML, "when a media element is removed from a document". */
  removed(element) {
    awaitStableState(() => {
      if (!element.isConnected) controlOf(element).playback.removed();
    });
  },
  childInserted(element, child) {
    controlOf(element).selection.childInserted(child);
    trackElement.inserted(controlOf(element).textTracks, child);
  },
  childToBeRemoved(element, child) {
    controlOf(element).selection.childToBeRemoved(child);
    trackElement.toBeRemoved(controlOf(element).textTracks, child);
  },
};

/** HTML, canPlayType(): only with codecs can it be sure. */
function howSurely(type) {
  const parsed = parseMimeType(type);
  if (parsed === null || !env.native.canPlayType(type).canPlay) return '';
  return parsed.codecs?.length > 0 ? 'probably' : 'maybe';
}

const preloads = { none: 'none', metadata: 'metadata', auto: 'auto', '': 'auto' };
const slowest = 1 / 16;
const fastest = 16;

/** HTML: a rate that the backend never plays is refused. */
function checkRate(rate) {
  if (rate !== 0 && (rate < slowest || rate > fastest))
    throw new window.DOMException(`The rate ${rate} is not supported: 0, or ${slowest} to ${fastest}`, 'NotSupportedError');
  return rate;
}

const mediaElementMembers = {
  get error() {
    return controlOf(this).playback.error;
  },
  get currentSrc() {
    return controlOf(this).selection.currentSrc;
  },
  get srcObject() {
    return controlOf(this).selection.provider;
  },
  set srcObject(value) {
    const provider = value ?? null;
    if (provider !== null && !(provider instanceof MediaSource) && !(provider instanceof window.Blob))
      throw new TypeError('srcObject: a MediaSource, a Blob or null is wanted');
    controlOf(this).selection.provider = provider;
  },
  get networkState() {
    return controlOf(this).selection.networkState;
  },
  get readyState() {
    return controlOf(this).playback.readyState;
  },
  get preload() {
    return preloads[this.getAttribute('preload')?.toLowerCase() ?? 'metadata'] ?? 'metadata';
  },
  set preload(value) {
    this.setAttribute('preload', value);
  },
  get buffered() {
    return controlOf(this).buffered;
  },
  get seekable() {
    return timeRanges(controlOf(this).playback.seekable);
  },
  get played() {
    return timeRanges(controlOf(this).playback.played);
  },
  get seeking() {
    return controlOf(this).playback.seeking;
  },
  get currentTime() {
    return controlOf(this).playback.position;
  },
  set currentTime(value) {
    controlOf(this).playback.setPosition(idl.convert('double', value, 'currentTime'));
  },
  fastSeek(time) {
    idl.needArguments(arguments, 1, 'fastSeek');
    controlOf(this).playback.seek(idl.convert('double', time, 'fastSeek'));
  },
  get duration() {
    return controlOf(this).playback.duration;
  },
  getStartDate() {
    return new Date(NaN);
  },
  get paused() {
    return controlOf(this).playback.paused;
  },
  get ended() {
    return controlOf(this).playback.ended;
  },
  get defaultPlaybackRate() {
    return controlOf(this).playback.defaultPlaybackRate;
  },
  set defaultPlaybackRate(value) {
    const { playback } = controlOf(this);
    const rate = checkRate(idl.convert('double', value, 'defaultPlaybackRate'));
    if (rate === playback.defaultPlaybackRate) return;
    playback.defaultPlaybackRate = rate;
    controlOf(this).queueEvent('ratechange');
  },
  get playbackRate() {
    return controlOf(this).playback.playbackRate;
  },
  set playbackRate(value) {
    controlOf(this).playback.setPlaybackRate(checkRate(idl.convert('double', value, 'playbackRate')));
  },
  get preservesPitch() {
    return controlOf(this).preservesPitch;
  },
  set preservesPitch(value) {
    controlOf(this).preservesPitch = Boolean(value);
  },
  get volume() {
    return controlOf(this).volume;
  },
  set volume(value) {
    const volume = idl.convert('double', value, 'volume');
    if (volume < 0 || volume > 1) throw new window.DOMException('The volume is 0 to 1', 'IndexSizeError');
    setSound(controlOf(this), { volume });
  },
  get muted() {
    return controlOf(this).muted;
  },
  set muted(value) {
    setSound(controlOf(this), { muted: Boolean(value) });
  },
  get audioTracks() {
    return controlOf(this).audioTracks;
  },
  get videoTracks() {
    return controlOf(this).videoTracks;
  },
  get textTracks() {
    return controlOf(this).textTracks;
  },
  addTextTrack(kind, label = '', language = '') {
    idl.needArguments(arguments, 1, 'addTextTrack');
    const track = textTracks.makeTextTrack({
      kind: idl.enumeration(textTracks.kinds, kind, 'addTextTrack'),
      label: idl.convert('DOMString', label, 'addTextTrack'),
      language: idl.convert('DOMString', language, 'addTextTrack'),
      mode: 'hidden',
    });
    textTracks.addTextTrack(controlOf(this).textTracks, track);
    return track;
  },
  canPlayType(type) {
    idl.needArguments(arguments, 1, 'canPlayType');
    return howSurely(idl.convert('DOMString', type, 'canPlayType'));
  },
  load() {
    controlOf(this).selection.load();
  },
  play() {
    try {
      return controlOf(this).playback.play();
    } catch (error) {
      return Promise.reject(error);
    }
  },
  pause() {
    controlOf(this).playback.pause();
  },
};

function setSound(control, { volume = control.volume, muted = control.muted }) {
  if (volume === control.volume && muted === control.muted) return;
  Object.assign(control, { volume, muted });
  control.applyVolume();
  control.queueEvent('volumechange');
}

const videoElementMembers = {
  get videoWidth() {
    return controlOf(this).playback.size.width;
  },
  get videoHeight() {
    return controlOf(this).playback.size.height;
  },
  /** Media Playback Quality. */
  getVideoPlaybackQuality() {
    const { shown, dropped, corrupted } = controlOf(this).link?.counters() ?? { shown: 0, dropped: 0, corrupted: 0 };
    return new VideoPlaybackQuality(idl.secret, {
      creationTime: window.performance.now(),
      totalVideoFrames: shown + dropped,
      droppedVideoFrames: dropped,
      corruptedVideoFrames: corrupted,
    });
  },
};

class VideoPlaybackQuality {
  #values;
  constructor(token, values) {
    idl.illegal(token);
    this.#values = values;
  }
  get creationTime() {
    return this.#values.creationTime;
  }
  get totalVideoFrames() {
    return this.#values.totalVideoFrames;
  }
  get droppedVideoFrames() {
    return this.#values.droppedVideoFrames;
  }
  get corruptedVideoFrames() {
    return this.#values.corruptedVideoFrames;
  }
}

/** Puts all of it on the window's prototypes. */
function install() {
  const { HTMLMediaElement, HTMLVideoElement } = window;
  idl.extend(HTMLMediaElement.prototype, mediaElementMembers);
  idl.extend(HTMLVideoElement.prototype, videoElementMembers);
  idl.eventHandlers(HTMLMediaElement.prototype, ['encrypted', 'waitingforkey']);
  idl.expose(VideoPlaybackQuality);
}

module.exports = { controlOf, documentListener, install, networkStates, readyStates };
