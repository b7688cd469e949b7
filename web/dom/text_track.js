'use strict';
// HTML, "timed text tracks": tracks and cues that a page makes itself, and their times.

const idl = require('./idl.js');
const { queueEvent } = require('./tasks.js');
const { TrackList, insert, remove, tracksOf } = require('./track_lists.js');

const kinds = ['subtitles', 'captions', 'descriptions', 'chapters', 'metadata'];
const modes = ['disabled', 'hidden', 'showing'];

/** What cues and their lists let this file alone do. */
let cueOf;
let listOf;

class TextTrackCue extends window.EventTarget {
  #track = null;
  #values;

  constructor(token, startTime, endTime) {
    idl.illegal(token);
    super();
    this.#values = { id: '', startTime, endTime, pauseOnExit: false, isActive: false };
  }
  get track() {
    return this.#track;
  }
  get id() {
    return this.#values.id;
  }
  set id(value) {
    this.#values.id = idl.convert('DOMString', value, 'id');
  }
  get startTime() {
    return this.#values.startTime;
  }
  set startTime(value) {
    this.#values.startTime = idl.convert('double', value, 'startTime');
    this.#sortAgain();
  }
  get endTime() {
    return this.#values.endTime;
  }
  set endTime(value) {
    this.#values.endTime = idl.convert('unrestricted double', value, 'endTime');
    this.#sortAgain();
  }
  get pauseOnExit() {
    return this.#values.pauseOnExit;
  }
  set pauseOnExit(value) {
    this.#values.pauseOnExit = Boolean(value);
  }
  #sortAgain() {
    if (this.#track !== null) listOf.sort(cuesOf(this.#track));
  }
  static {
    cueOf = {
      setTrack: (cue, track) => (cue.#track = track),
      isActive: (cue) => cue.#values.isActive,
      setActive: (cue, isActive) => (cue.#values.isActive = isActive),
    };
  }
}
idl.eventHandlers(TextTrackCue.prototype, ['enter', 'exit']);

/** WebVTT, "the VTTCue interface"; nothing here lays cues out. */
class VTTCue extends TextTrackCue {
  #settings = {
    region: null, vertical: '', snapToLines: true, line: 'auto', lineAlign: 'start', position: 'auto',
    positionAlign: 'auto', size: 100, align: 'center', text: '',
  };

  constructor(startTime, endTime, text) {
    idl.needArguments(arguments, 3, 'VTTCue');
    super(idl.secret, idl.convert('double', startTime, 'startTime'),
      idl.convert('unrestricted double', endTime, 'endTime'));
    this.#settings.text = idl.convert('DOMString', text, 'text');
  }
  getCueAsHTML() {
    const fragment = window.document.createDocumentFragment();
    fragment.append(this.text.replace(/<[^>]*>/g, ''));
    return fragment;
  }
  static {
    const autoOr = (check) => (value) => (value === 'auto' ? value : check(value));
    const percentage = (value) => {
      const number = idl.convert('double', value, 'VTTCue');
      if (number < 0 || number > 100) throw new window.DOMException('a percentage is wanted', 'IndexSizeError');
      return number;
    };
    const conversions = {
      region: (value) => value,
      vertical: ['', 'rl', 'lr'],
      snapToLines: Boolean,
      line: autoOr((value) => idl.convert('double', value, 'line')),
      lineAlign: ['start', 'center', 'end'],
      position: autoOr(percentage),
      positionAlign: ['line-left', 'center', 'line-right', 'auto'],
      size: percentage,
      align: ['start', 'center', 'end', 'left', 'right'],
      text: (value) => idl.convert('DOMString', value, 'text'),
    };
    for (const [name, conversion] of Object.entries(conversions)) {
      Object.defineProperty(this.prototype, name, {
        configurable: true,
        get() {
          return this.#settings[name];
        },
        set(value) {
          if (!Array.isArray(conversion)) this.#settings[name] = conversion(value);
          else if (conversion.includes(String(value))) this.#settings[name] = String(value);
        },
      });
    }
  }
}

class TextTrackCueList {
  #cues = [];

  constructor(token) {
    idl.illegal(token);
  }
  get length() {
    return this.#cues.length;
  }
  getCueById(id) {
    idl.needArguments(arguments, 1, 'getCueById');
    const wanted = idl.convert('DOMString', id, 'getCueById');
    return (wanted !== '' && this.#cues.find((cue) => cue.id === wanted)) || null;
  }
  [Symbol.iterator]() {
    return this.#cues[Symbol.iterator]();
  }
  #set(cues) {
    cues.forEach((value, index) => Object.defineProperty(this, index, { value, configurable: true, enumerable: true }));
    for (let index = cues.length; index < this.#cues.length; ++index) delete this[index];
    this.#cues = cues;
  }
  static {
    // "Text track cue order": by start, the longer one first.
    const inOrder = (cues) => [...cues].sort((a, b) => a.startTime - b.startTime || b.endTime - a.endTime || 0);
    listOf = {
      cues: (list) => list.#cues,
      put: (list, cues) => list.#set(inOrder(cues)),
      sort: (list) => list.#set(inOrder(list.#cues)),
    };
  }
}

/** The cues of a track, whatever its mode. */
let cuesOf;
let trackOf;

class TextTrack extends window.EventTarget {
  #description;
  #mode;
  #cues = new TextTrackCueList(idl.secret);
  #active = new TextTrackCueList(idl.secret);
  #lists = new Set();

  /** `description` has kind, label, language, id; where it has getters, they are asked each time. */
  constructor(token, description) {
    idl.illegal(token);
    super();
    this.#description = description;
    this.#mode = description.mode ?? 'disabled';
  }
  get kind() {
    return kinds.includes(this.#description.kind) ? this.#description.kind : 'metadata';
  }
  get label() {
    return this.#description.label ?? '';
  }
  get language() {
    return this.#description.language ?? '';
  }
  get id() {
    return this.#description.id ?? '';
  }
  get inBandMetadataTrackDispatchType() {
    return '';
  }
  get sourceBuffer() {
    return null;
  }
  get mode() {
    return this.#mode;
  }
  set mode(value) {
    const mode = String(value);
    if (!modes.includes(mode) || mode === this.#mode) return;
    this.#mode = mode;
    for (const list of this.#lists) queueEvent(list, 'change');
  }
  get cues() {
    return this.#mode === 'disabled' ? null : this.#cues;
  }
  get activeCues() {
    return this.#mode === 'disabled' ? null : this.#active;
  }
  addCue(cue) {
    idl.needArguments(arguments, 1, 'addCue');
    if (!(cue instanceof TextTrackCue)) throw new TypeError('addCue: a TextTrackCue is wanted');
    if (cue.track !== null) cue.track.removeCue(cue);
    cueOf.setTrack(cue, this);
    listOf.put(this.#cues, [...this.#cues, cue]);
  }
  removeCue(cue) {
    idl.needArguments(arguments, 1, 'removeCue');
    if (!(cue instanceof TextTrackCue)) throw new TypeError('removeCue: a TextTrackCue is wanted');
    if (cue.track !== this) throw new window.DOMException('the cue is not in this track', 'NotFoundError');
    cueOf.setTrack(cue, null);
    listOf.put(this.#cues, [...this.#cues].filter((other) => other !== cue));
    listOf.put(this.#active, [...this.#active].filter((other) => other !== cue));
  }

  /** "Time marches on", as far as it concerns cues: events for those that begin and end. Answers
   * whether playback is to pause. */
  #march(time) {
    if (this.#mode === 'disabled') return false;
    const now = [...this.#cues].filter((cue) => cue.startTime <= time && cue.endTime > time);
    const ended = [...this.#cues].filter((cue) => cueOf.isActive(cue) && !now.includes(cue));
    const begun = now.filter((cue) => !cueOf.isActive(cue));
    if (ended.length + begun.length === 0) return false;
    for (const cue of ended) cueOf.setActive(cue, false);
    for (const cue of begun) cueOf.setActive(cue, true);
    listOf.put(this.#active, now);
    for (const cue of ended) queueEvent(cue, 'exit');
    for (const cue of begun) queueEvent(cue, 'enter');
    queueEvent(this, 'cuechange');
    return ended.some((cue) => cue.pauseOnExit);
  }

  static {
    cuesOf = (track) => track.#cues;
    trackOf = {
      lists: (track) => track.#lists,
      march: (track, time) => track.#march(time),
    };
  }
}
idl.eventHandlers(TextTrack.prototype, ['cuechange']);

class TextTrackList extends TrackList {}

function insertTextTrack(list, track, place) {
  trackOf.lists(track).add(list);
  insert(list, track, place);
}

/** Behind those of `<track>` elements. */
function addTextTrack(list, track) {
  insertTextTrack(list, track, tracksOf(list).length);
}

function removeTextTrack(list, track) {
  trackOf.lists(track).delete(list);
  remove(list, track);
}

/** Of all tracks; answers whether playback is to pause. */
function marchOn(list, time) {
  return tracksOf(list).map((track) => trackOf.march(track, time)).includes(true);
}

module.exports = {
  TextTrack, TextTrackCue, TextTrackCueList, TextTrackList, VTTCue,
  addTextTrack, insertTextTrack, removeTextTrack, marchOn, kinds,
  makeTextTrack: (description) => new TextTrack(idl.secret, description),
  makeTextTrackList: () => new TextTrackList(idl.secret),
};
