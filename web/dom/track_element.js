'use strict';
// HTMLTrackElement (HTML, "sourcing out-of-band text tracks"): its track is in the list of the media
// element that it is a child of, and has the cues of the WebVTT file that `src` names.

const { TextDecoder } = require('util');

const idl = require('./idl.js');
const { awaitStableState, fire, queueTask } = require('./tasks.js');
const textTracks = require('./text_track.js');
const { parseWebVtt } = require('./webvtt.js');

const readyStates = { NONE: 0, LOADING: 1, LOADED: 2, ERROR: 3 };
const { NONE, LOADING, LOADED, ERROR } = readyStates;

/** A track element's track, and how it comes to its cues. */
class TrackLoader {
  readyState = NONE;
  #element;
  #isRunning = false; // the "track processing model" of this element
  #url = null; // that is fetched, or was last
  #fetching = null; // AbortController of that

  constructor(element) {
    this.#element = element;
    this.track = textTracks.makeTextTrack({
      element,
      modeChanged: () => this.wanted(),
      get id() {
        return element.id;
      },
      get kind() {
        return element.kind;
      },
      get label() {
        return element.label;
      },
      get language() {
        return element.srclang;
      },
    });
  }

  /** The attribute `src` was set or removed. */
  sourceSet() {
    textTracks.clearCues(this.track);
    if (this.#isWanted()) this.#fetching?.abort();
    this.wanted();
  }

  /** HTML, "start the track processing model": for what is shown to nobody nothing is fetched. */
  wanted() {
    if (this.#isRunning || !this.#isWanted()) return;
    this.#isRunning = true;
    awaitStableState(() => {
      if (this.#isWanted()) this.#load();
      else this.#isRunning = false;
    });
  }
  #isWanted() {
    return this.track.mode !== 'disabled' && isMediaElement(this.#element.parentNode) && this.#trackUrl() !== this.#url;
  }

  /** "Track URL": empty where `src` is missing, empty or no URL. */
  #trackUrl() {
    const text = this.#element.getAttribute('src');
    if (!text) return '';
    try {
      return new window.URL(text, window.document.baseURI).href;
    } catch {
      return '';
    }
  }

  async #load() {
    const url = this.#trackUrl();
    this.#url = url;
    this.readyState = LOADING;
    this.#fetching = new window.AbortController();
    const bytes = await fetchFile(url, this.#element.parentNode.getAttribute('crossorigin'), this.#fetching.signal);
    const cues = bytes === null ? null : parseWebVtt(new TextDecoder().decode(bytes));
    queueTask(() => this.#finish(url === this.#trackUrl() ? cues : null));
  }
  #finish(cues) {
    this.#isRunning = false;
    this.#fetching = null;
    for (const cue of cues ?? []) this.track.addCue(vttCue(cue));
    this.readyState = cues === null ? ERROR : LOADED;
    fire(this.#element, cues === null ? 'error' : 'load');
    this.wanted();
  }
}

/**
 * The bytes behind a URL, or null, also once `signal` aborts. `crossOrigin` is the media element's attribute: without it what is
 * of another origin is not fetched (Fetch, mode "same-origin").
 */
function fetchFile(url, crossOrigin, signal) {
  const isOwn = (address) => address.startsWith('data:') || new window.URL(address).origin === window.location.origin;
  if (!/^(https?|data):/.test(url) || (crossOrigin === null && !isOwn(url))) return Promise.resolve(null);
  return new Promise((resolve) => {
    const request = new window.XMLHttpRequest();
    request.open('GET', url);
    request.responseType = 'arraybuffer';
    request.withCredentials = crossOrigin?.toLowerCase() === 'use-credentials';
    request.onload = () => {
      const isGood = request.status >= 200 && request.status < 300 && (crossOrigin !== null || isOwn(request.responseURL || url));
      resolve(isGood ? request.response : null);
    };
    request.onerror = request.onabort = () => resolve(null);
    signal.addEventListener('abort', () => request.abort());
    request.send();
  });
}

function vttCue({ id, startTime, endTime, text, settings }) {
  return Object.assign(new textTracks.VTTCue(startTime, endTime, text), { id, ...settings });
}

const loaders = new WeakMap(); // by element

function loaderOf(element) {
  if (!loaders.has(element)) {
    if (!isTrackElement(element)) throw new TypeError('Illegal invocation');
    loaders.set(element, new TrackLoader(element));
  }
  return loaders.get(element);
}

const isTrackElement = (node) => node instanceof window.HTMLTrackElement;
const isMediaElement = (node) => node instanceof window.HTMLMediaElement;

/** The tracks of elements come first, in the order of the elements. */
function inserted(list, child) {
  if (!isTrackElement(child)) return;
  const { parentNode } = child;
  const place = [...parentNode.children].filter(isTrackElement).indexOf(child);
  textTracks.insertTextTrack(list, loaderOf(child).track, place);
  loaderOf(child).wanted();
  awaitStableState(() => {
    if (child.parentNode === parentNode) selectAutomatically(parentNode);
  });
}

function toBeRemoved(list, child) {
  if (isTrackElement(child)) textTracks.removeTextTrack(list, loaderOf(child).track);
}

/** The attribute `src` of a track element has changed. */
function sourceSet(element) {
  loaderOf(element).sourceSet();
}

/**
 * HTML, "honor user preferences for automatic text track selection", of a user who has none: what the
 * page marks as default is shown, one track that is read and one that is spoken, and all metadata.
 */
function selectAutomatically(mediaElement) {
  const elements = [...mediaElement.children].filter(isTrackElement);
  for (const kinds of [['subtitles', 'captions'], ['descriptions']]) {
    const ofKind = elements.filter(({ kind }) => kinds.includes(kind));
    const isShown = [...mediaElement.textTracks].some(({ kind, mode }) => kinds.includes(kind) && mode === 'showing');
    const chosen = ofKind.find((element) => element.default && element.track.mode === 'disabled');
    if (!isShown && chosen !== undefined) chosen.track.mode = 'showing';
  }
  for (const element of elements) {
    const isForScripts = ['chapters', 'metadata'].includes(element.kind);
    if (isForScripts && element.default && element.track.mode === 'disabled') element.track.mode = 'hidden';
  }
}

const members = {
  get kind() {
    const value = this.getAttribute('kind');
    if (value === null) return 'subtitles';
    const known = textTracks.kinds.find((kind) => kind === value.replace(/[A-Z]/g, (letter) => letter.toLowerCase()));
    return known ?? 'metadata';
  },
  set kind(value) {
    this.setAttribute('kind', value);
  },
  get readyState() {
    return loaderOf(this).readyState;
  },
  get track() {
    return loaderOf(this).track;
  },
};

function install() {
  idl.extend(window.HTMLTrackElement.prototype, members);
}

module.exports = { install, inserted, sourceSet, toBeRemoved };
