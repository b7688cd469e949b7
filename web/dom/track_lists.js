'use strict';
// HTML, "media resources with multiple media tracks", with MSE's SourceBuffer extensions of tracks.

const idl = require('./idl.js');
const { queueEvent } = require('./tasks.js');

/** A list's tracks change by these functions alone; pages only look. */
let operations;

class TrackEvent extends window.Event {
  #track;
  constructor(type, init = {}) {
    super(type, init);
    this.#track = init.track ?? null;
  }
  get track() {
    return this.#track;
  }
}

/** What AudioTrackList and VideoTrackList (and, in text_track.js, TextTrackList) have in common. */
class TrackList extends window.EventTarget {
  #tracks = [];

  constructor(token) {
    idl.illegal(token);
    super();
  }
  get length() {
    return this.#tracks.length;
  }
  getTrackById(id) {
    idl.needArguments(arguments, 1, 'getTrackById');
    const wanted = idl.convert('DOMString', id, 'getTrackById');
    return this.#tracks.find((track) => track.id === wanted) ?? null;
  }
  [Symbol.iterator]() {
    return this.#tracks[Symbol.iterator]();
  }

  #set(tracks) {
    tracks.forEach((value, index) =>
      Object.defineProperty(this, index, { value, configurable: true, enumerable: true }));
    for (let index = tracks.length; index < this.#tracks.length; ++index) delete this[index];
    this.#tracks = tracks;
  }

  static {
    operations = {
      tracks: (list) => list.#tracks,
      /** Appends; raises addtrack. */
      add(list, track) {
        list.#set([...list.#tracks, track]);
        queueEvent(list, 'addtrack', TrackEvent, { track });
      },
      /** Raises removetrack. */
      remove(list, track) {
        if (!list.#tracks.includes(track)) return;
        list.#set(list.#tracks.filter((other) => other !== track));
        queueEvent(list, 'removetrack', TrackEvent, { track });
      },
      /** Without events: the media resource is forgotten. */
      clear: (list) => list.#set([]),
      /** Puts it where `before` (an index) says; raises addtrack. */
      insert(list, track, before) {
        list.#set([...list.#tracks.slice(0, before), track, ...list.#tracks.slice(before)]);
        queueEvent(list, 'addtrack', TrackEvent, { track });
      },
    };
  }
}
idl.eventHandlers(TrackList.prototype, ['change', 'addtrack', 'removetrack']);

class AudioTrackList extends TrackList {}

class VideoTrackList extends TrackList {
  get selectedIndex() {
    return operations.tracks(this).findIndex((track) => track.selected);
  }
}

/** What audio and video tracks have in common. `lists` are those that a track is in. */
let switchTrack;
class MediaTrack {
  #description;
  #isOn;
  #lists = new Set();
  #listeners = [];

  constructor(token, description, isOn) {
    idl.illegal(token);
    this.#description = { kind: '', label: '', language: '', sourceBuffer: null, ...description };
    this.#isOn = isOn;
  }
  get id() {
    return this.#description.id;
  }
  get kind() {
    return this.#description.kind;
  }
  get label() {
    return this.#description.label;
  }
  get language() {
    return this.#description.language;
  }
  get sourceBuffer() {
    return this.#description.sourceBuffer;
  }

  static {
    switchTrack = {
      isOn: (track) => track.#isOn,
      lists: (track) => track.#lists,
      /** Answers whether that is a change. */
      put(track, isOn) {
        const isChange = track.#isOn !== isOn;
        track.#isOn = isOn;
        return isChange;
      },
      tell(track) {
        for (const list of track.#lists) queueEvent(list, 'change');
        for (const listener of track.#listeners) listener(track);
      },
      listen: (track, listener) => track.#listeners.push(listener),
      setSourceBuffer: (track, sourceBuffer) => (track.#description.sourceBuffer = sourceBuffer),
    };
  }
}

class AudioTrack extends MediaTrack {
  get enabled() {
    return switchTrack.isOn(this);
  }
  set enabled(value) {
    if (switchTrack.put(this, Boolean(value))) switchTrack.tell(this);
  }
}

class VideoTrack extends MediaTrack {
  get selected() {
    return switchTrack.isOn(this);
  }
  /** At most one of a list is selected. */
  set selected(value) {
    if (!switchTrack.put(this, Boolean(value))) return;
    if (this.selected) {
      for (const list of switchTrack.lists(this))
        for (const other of list) if (other !== this) switchTrack.put(other, false);
    }
    switchTrack.tell(this);
  }
}

const isMediaTrack = (track) => track instanceof MediaTrack;

function add(list, track) {
  if (isMediaTrack(track)) switchTrack.lists(track).add(list);
  operations.add(list, track);
}

function remove(list, track) {
  if (isMediaTrack(track)) switchTrack.lists(track).delete(list);
  operations.remove(list, track);
}

function clear(list) {
  for (const track of list) if (isMediaTrack(track)) switchTrack.lists(track).delete(list);
  operations.clear(list);
}

module.exports = {
  AudioTrack, AudioTrackList, TrackEvent, TrackList, VideoTrack, VideoTrackList,
  add, remove, clear, insert: operations.insert, tracksOf: operations.tracks,
  onChanged: switchTrack.listen,
  setSourceBuffer: switchTrack.setSourceBuffer,
  makeAudioTrackList: () => new AudioTrackList(idl.secret),
  makeVideoTrackList: () => new VideoTrackList(idl.secret),
  makeAudioTrack: ({ enabled = false, ...description }) => new AudioTrack(idl.secret, description, enabled),
  makeVideoTrack: ({ selected = false, ...description }) => new VideoTrack(idl.secret, description, selected),
};
