'use strict';
// HTML, "loading the media resource": the load algorithm, resource selection, and fetching as far
// as it is not the backend's.

// Evaluated in Node's realm: jsdom's own classes are there.
const { delayLoadEvent } = require('../dom/element_hooks.js');
const { blobFile } = require('./blob_file.js');
const { fire, awaitStableState } = require('./tasks.js');
const { mediaError, MEDIA_ERR_NETWORK, MEDIA_ERR_DECODE, MEDIA_ERR_SRC_NOT_SUPPORTED } = require('./media_error.js');
const { resolve } = require('./object_url.js');
const { MediaSource } = require('./media_source.js');

const networkStates = { NETWORK_EMPTY: 0, NETWORK_IDLE: 1, NETWORK_LOADING: 2, NETWORK_NO_SOURCE: 3 };
const { NETWORK_EMPTY, NETWORK_IDLE, NETWORK_LOADING, NETWORK_NO_SOURCE } = networkStates;

const progressInterval = 350; // milliseconds

/** What one element plays, and how it comes to it. `media` is its MediaControl. */
class ResourceSelection {
  #media;
  #networkState = NETWORK_EMPTY;
  #currentSrc = '';
  #provider = null; // "assigned media provider object"
  #source = null; // what `src` named when it was set: { url, object }
  #before = null; // children mode: the node before the pointer; null: it is at the list's start
  #waits = null; // children mode: goes on when a node comes behind the pointer
  #deferred = null; // fetching was put off until the element is to be played
  #failed = null; // what to do when the resource that is fetched cannot be played
  #lastProgress = 0;
  #stopDelaying = null; // "delaying-the-load-event flag": while it is true, what ends that

  constructor(media) {
    this.#media = media;
  }

  get networkState() {
    return this.#networkState;
  }
  get isEmpty() {
    return this.#networkState === NETWORK_EMPTY;
  }
  get currentSrc() {
    return this.#currentSrc;
  }
  get provider() {
    return this.#provider;
  }
  set provider(object) {
    this.#provider = object;
    this.load();
  }

  /** The attribute `src` was set, or removed: null. A blob URL means what it means now. */
  sourceSet(text) {
    this.#source = text === null ? null : describe(text);
    if (text !== null) this.load();
  }

  // ---- HTML, "media element load algorithm"

  load() {
    const media = this.#media;
    media.playback.settlePromisesNow();
    media.generation += 1; // pending tasks are dropped, and a selection that runs ends
    this.#waits = this.#deferred = null;
    if (this.#networkState === NETWORK_LOADING || this.#networkState === NETWORK_IDLE) media.queueEvent('abort');
    if (this.#networkState !== NETWORK_EMPTY) {
      media.queueEvent('emptied');
      media.detach();
      media.forgetTracks();
      media.playback.forget();
    }
    media.playback.beginLoad();
    this.select();
  }

  // ---- HTML, "resource selection algorithm"

  select() {
    this.#networkState = NETWORK_NO_SOURCE;
    this.#delayLoadEvent();
    this.#stable(() => {
      const mode = this.#mode();
      if (mode === null) {
        this.#networkState = NETWORK_EMPTY;
        this.loadEventMayCome();
        return;
      }
      this.#networkState = NETWORK_LOADING;
      this.#media.queueEvent('loadstart');
      mode.call(this);
    });
  }
  #mode() {
    const { element } = this.#media;
    if (this.#provider !== null) return this.#selectObject;
    if (element.hasAttribute('src')) return this.#selectAttribute;
    if ([...element.children].some(isSource)) return this.#selectChildren;
    return null;
  }
  #selectObject() {
    this.#currentSrc = '';
    this.#fetch({ object: this.#provider }, (message) => this.#failForGood(message));
  }
  #selectAttribute() {
    const failed = (message) => this.#failForGood(message);
    this.#source ??= describe(this.#media.element.getAttribute('src'));
    if (this.#source.url === null) return failed('src is no URL');
    this.#currentSrc = this.#source.url;
    this.#fetch(this.#source, failed);
  }
  #selectChildren() {
    this.#before = null;
    this.#findCandidate();
  }

  /** "Find next candidate": the pointer passes what is no source. */
  #findCandidate() {
    const node = this.#nodeBehindPointer();
    if (node === null) return this.#waitForNode();
    this.#before = node;
    if (isSource(node)) this.#process(node);
    else this.#findCandidate();
  }
  #nodeBehindPointer() {
    return this.#before === null ? this.#media.element.firstChild : this.#before.nextSibling;
  }
  #process(candidate) {
    const failed = () => {
      this.#media.queue(() => fire(candidate, 'error'));
      this.#stable(() => {
        this.#media.forgetTracks();
        this.#findCandidate();
      });
    };
    const text = candidate.getAttribute('src');
    const source = text === null ? null : describe(text);
    if (source === null || source.url === null) return failed();
    const type = candidate.getAttribute('type');
    if (type && this.#media.element.canPlayType(type) === '') return failed();
    this.#currentSrc = source.url;
    this.#fetch(source, failed);
  }
  #waitForNode() {
    this.#networkState = NETWORK_NO_SOURCE;
    this.#media.queue(() => this.loadEventMayCome());
    this.#waits = () => {
      this.#waits = null;
      this.#stable(() => {
        this.#delayLoadEvent();
        this.#networkState = NETWORK_LOADING;
        this.#findCandidate();
      });
    };
  }

  /** A child was inserted: what waits for one goes on, or selection begins. */
  childInserted(child) {
    if (this.#waits !== null && this.#nodeBehindPointer() !== null) this.#waits();
    else if (isSource(child) && !this.#media.element.hasAttribute('src') && this.isEmpty) this.select();
  }
  /** A child is about to go: the pointer keeps its place. */
  childToBeRemoved(child) {
    if (child === this.#before) this.#before = child.previousSibling;
  }

  // ---- HTML, "resource fetch algorithm"

  /** `failed` is called with a text when there is nothing that can be played. */
  #fetch(source, failed) {
    this.#failed = failed;
    const message = this.#begin(source);
    if (message !== null) this.#media.queue(() => failed(message));
  }
  /** Answers why it cannot be played, or null. */
  #begin({ url = '', object }) {
    try {
      if (object instanceof MediaSource) {
        this.loadEventMayCome();
        return this.#media.attach(object) ? null : 'the media source is in use';
      }
      if (!object && !/^(https?|file|rtsp):/.test(url)) return 'no such resource';
      this.#openWhenWanted(() => (object ? this.#openBlob(object) : this.#media.open(url)));
      return null;
    } catch (error) {
      return error.message; // the add-on's: there is no library, or the URL is none for it
    }
  }

  /** "If the preload attribute is none": then not before the page wants to play. */
  #openWhenWanted(open) {
    const { element, playback } = this.#media;
    if (element.preload !== 'none' || !playback.paused || (element.autoplay && playback.isAutoplaying)) return open();
    this.#networkState = NETWORK_IDLE;
    this.#media.queueEvent('suspend');
    this.#media.queue(() => this.loadEventMayCome());
    this.#deferred = () => {
      this.#networkState = NETWORK_LOADING;
      open();
    };
  }
  async #openBlob(blob) {
    const { generation } = this.#media;
    const isWanted = () => generation === this.#media.generation;
    try {
      const { url, remove } = await blobFile(blob);
      if (isWanted()) this.#media.open(url, remove);
      else await remove();
    } catch (error) {
      if (isWanted()) this.fail('network', error.message);
    }
  }
  /** The page plays, or wants to. */
  wanted() {
    const open = this.#deferred;
    this.#deferred = null;
    open?.();
  }

  /** What is being fetched cannot go on, `kind` 'network' or 'decode'. */
  fail(kind, message) {
    const { playback } = this.#media;
    if (this.#networkState === NETWORK_NO_SOURCE || this.isEmpty || playback.error !== null) return;
    if (playback.readyState === 0) {
      this.#media.detach();
      this.#failed?.(message);
      return;
    }
    this.#networkState = NETWORK_IDLE;
    playback.fail(kind === 'network' ? MEDIA_ERR_NETWORK : MEDIA_ERR_DECODE, message);
  }

  /** "Dedicated media source failure steps." */
  #failForGood(message) {
    const media = this.#media;
    const promises = media.playback.takePromises();
    media.queue(() => {
      media.detach();
      media.playback.error = mediaError(MEDIA_ERR_SRC_NOT_SUPPORTED, message);
      media.forgetTracks();
      this.#networkState = NETWORK_NO_SOURCE;
      fire(media.element, 'error');
      this.loadEventMayCome();
      for (const { reject } of promises) reject(new window.DOMException(message, 'NotSupportedError'));
      media.playback.rejectPromises('NotSupportedError', message);
    });
  }

  #delayLoadEvent() {
    if (this.#stopDelaying !== null) return;
    delayLoadEvent(this.#media.element, new Promise((resolve) => (this.#stopDelaying = resolve)));
  }
  /** There is a first picture, or there will be none for now. */
  loadEventMayCome() {
    this.#stopDelaying?.();
    this.#stopDelaying = null;
  }

  /** Data has come. */
  progressed() {
    const now = env.now();
    if (this.#networkState !== NETWORK_LOADING || now - this.#lastProgress < progressInterval) return;
    this.#lastProgress = now;
    this.#media.queueEvent('progress');
  }
  /** The whole resource is here; or, false, it is not. */
  completed(isComplete) {
    const state = isComplete ? NETWORK_IDLE : NETWORK_LOADING;
    if (this.#networkState === state || ![NETWORK_IDLE, NETWORK_LOADING].includes(this.#networkState)) return;
    this.#networkState = state;
    if (isComplete) {
      this.#media.queueEvent('progress');
      this.#media.queueEvent('suspend');
    }
  }

  /** Steps of this selection; they fall away when a newer one begins. */
  #stable(steps) {
    const { generation } = this.#media;
    awaitStableState(() => {
      if (generation === this.#media.generation) steps();
    });
  }
}

function isSource(node) {
  return node instanceof window.HTMLSourceElement;
}

/** Of an attribute's text: the URL (null: it is none) and what a blob URL stands for now. */
function describe(text) {
  let url = null;
  try {
    if (text !== '') url = new window.URL(text, window.document.baseURI).href;
  } catch {
    return { url: null, object: null };
  }
  return { url, object: url !== null && url.startsWith('blob:') ? resolve(url) : null };
}

module.exports = { ResourceSelection, networkStates };
