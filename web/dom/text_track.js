'use strict';
// HTML, "timed text tracks": tracks, their cues, and when those begin and end.

const idl = require('./idl.js');
const { queueEvent } = require('./tasks.js');
const { TrackList, insert, remove, tracksOf } = require('./track_lists.js');

const kinds = ['subtitles', 'captions', 'descriptions', 'chapters', 'metadata'];
const modes = ['disabled', 'hidden', 'showing'];

/** What cues and their lists let this file alone do. */
let cueOf;
let listOf;

/** A cue may end with the media, at Infinity. */
function toEndTime(value) {
  const time = idl.convert('unrestricted double', value, 'endTime');
  if (Number.isNaN(time) || time === -Infinity) throw new TypeError(`endTime: ${time} is no time`);
  return time;
}

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
    this.#timesChanged();
  }
  get endTime() {
    return this.#values.endTime;
  }
  set endTime(value) {
    this.#values.endTime = toEndTime(value);
    this.#timesChanged();
  }
  get pauseOnExit() {
    return this.#values.pauseOnExit;
  }
  set pauseOnExit(value) {
    this.#values.pauseOnExit = Boolean(value);
  }
  #timesChanged() {
    if (this.#track === null) return;
    listOf.sort(cuesOf(this.#track));
    trackOf.cuesChanged(this.#track);
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
    super(idl.secret, idl.convert('double', startTime, 'startTime'), toEndTime(endTime));
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

/** "Text track cue order": by start, the longer one first. */
function inOrder(a, b) {
  return a.startTime - b.startTime || b.endTime - a.endTime || 0;
}

class TextTrackCueList extends idl.Indexed {
  #cues = [];

  constructor(token) {
    idl.illegal(token);
    super();
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
    listOf = {
      put: (list, cues) => list.#set([...cues].sort(inOrder)),
      sort: (list) => list.#set([...list.#cues].sort(inOrder)),
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
    if (mode === 'disabled') this.#deactivate(() => true);
    for (const list of this.#lists) queueEvent(list, 'change');
    this.#description.modeChanged?.();
    this.#tellOfCues();
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
    this.#tellOfCues();
  }
  removeCue(cue) {
    idl.needArguments(arguments, 1, 'removeCue');
    if (!(cue instanceof TextTrackCue)) throw new TypeError('removeCue: a TextTrackCue is wanted');
    if (cue.track !== this) throw new window.DOMException('the cue is not in this track', 'NotFoundError');
    this.#remove((other) => other === cue);
  }

  #remove(isIt) {
    this.#deactivate(isIt);
    for (const cue of [...this.#cues].filter(isIt)) cueOf.setTrack(cue, null);
    listOf.put(this.#cues, [...this.#cues].filter((cue) => !isIt(cue)));
    this.#tellOfCues();
  }
  /** Without events: a cue that is in no list, or of a track that is disabled, is not active. */
  #deactivate(isIt) {
    for (const cue of [...this.#active].filter(isIt)) cueOf.setActive(cue, false);
    listOf.put(this.#active, [...this.#active].filter((cue) => !isIt(cue)));
  }
  #tellOfCues() {
    for (const list of this.#lists) listenerOf(list)();
  }

  /**
   * "Time marches on" to `time`, as far as it concerns this track's cues: what begins and ends, as
   * { cue, type, time } of an event. Cues that lie between `since` and `time` do both; null: no such time.
   */
  #march(time, since) {
    if (this.#mode === 'disabled') return [];
    const all = [...this.#cues];
    const now = all.filter((cue) => cue.startTime <= time && cue.endTime > time);
    const missed = since === null ? [] : all.filter((cue) =>
      !now.includes(cue) && !cueOf.isActive(cue) && cue.startTime >= since && cue.endTime <= time);
    const begun = [...now.filter((cue) => !cueOf.isActive(cue)), ...missed];
    const ended = [...all.filter((cue) => cueOf.isActive(cue) && !now.includes(cue)), ...missed];
    for (const cue of all) cueOf.setActive(cue, now.includes(cue));
    listOf.put(this.#active, now);
    return [
      ...begun.map((cue) => ({ cue, type: 'enter', time: cue.startTime })),
      ...ended.map((cue) => ({ cue, type: 'exit', time: Math.max(cue.startTime, cue.endTime) })),
    ];
  }

  static {
    cuesOf = (track) => track.#cues;
    trackOf = {
      lists: (track) => track.#lists,
      march: (track, time, since) => track.#march(time, since),
      clear: (track) => track.#remove(() => true),
      cuesChanged: (track) => track.#tellOfCues(),
      deactivate: (track) => track.#deactivate(() => true),
      element: (track) => track.#description.element ?? null,
    };
  }
}
idl.eventHandlers(TextTrack.prototype, ['cuechange']);

/** Who wants to know that cues of a list's tracks come, go or move. */
let listenerOf;

class TextTrackList extends TrackList {
  #cuesChanged;
  constructor(token, cuesChanged) {
    super(token);
    this.#cuesChanged = cuesChanged;
  }
  static {
    listenerOf = (list) => list.#cuesChanged;
  }
}

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
  trackOf.deactivate(track);
  remove(list, track);
}

/**
 * HTML, "time marches on", for all tracks: playback is at `time`. `since`: where it was when it was
 * looked at last, unless it came here by a seek: null. Answers whether playback is to pause.
 */
function marchOn(list, time, since = null) {
  const tracks = tracksOf(list);
  const events = tracks.flatMap((track) => trackOf.march(track, time, since));
  const change = (track) => events.some(({ cue }) => cue.track === track);
  events.sort((a, b) => a.time - b.time || inOrder(a.cue, b.cue) || a.type.localeCompare(b.type));
  for (const { cue, type } of events) queueEvent(cue, type);
  for (const track of tracks.filter(change)) {
    queueEvent(track, 'cuechange');
    const element = trackOf.element(track);
    if (element !== null) queueEvent(element, 'cuechange');
  }
  return since !== null && events.some(({ cue, type }) => type === 'exit' && cue.pauseOnExit);
}

module.exports = {
  TextTrack, TextTrackCue, TextTrackCueList, TextTrackList, VTTCue,
  addTextTrack, insertTextTrack, removeTextTrack, marchOn, kinds,
  clearCues: trackOf.clear,
  /** `description`: kind, label, language, id, mode; where it has getters, they are asked each time.
   * `modeChanged()` is called; `element`: the <track> that it is of. */
  makeTextTrack: (description) => new TextTrack(idl.secret, description),
  makeTextTrackList: (cuesChanged = () => {}) => new TextTrackList(idl.secret, cuesChanged),
};
