'use strict';
// MSE, "MediaSource interface".

const idl = require('./idl.js');
const ranges = require('./ranges.js');
const { SourceBuffer, makeSourceBuffer } = require('./source_buffer.js');
const { SourceBufferList, clear, makeSourceBufferList, update } = require('./source_buffer_list.js');
const { isTypeSupported, trackKinds } = require('./mime_type.js');
const { queueEvent, queueTask } = require('./tasks.js');

function invalidState(text) {
  return new window.DOMException(text, 'InvalidStateError');
}

/** What the interface below is the page's view of; the media element it is attached to calls it too. */
class MediaSourceState {
  #duration = NaN;

  constructor(object) {
    this.object = object;
    this.readyState = 'closed';
    /** SourceBufferState in the order of sourceBuffers. */
    this.buffers = [];
    this.active = [];
    this.sourceBuffers = makeSourceBufferList();
    this.activeSourceBuffers = makeSourceBufferList();
    this.liveSeekableRange = [];
    /** The media element's side while it is attached, else null. */
    this.control = null;
  }

  /** NaN while it is closed, and until the page or an initialization segment tells it. */
  get duration() {
    return this.#duration;
  }

  get isEnded() {
    return this.readyState === 'ended';
  }

  /** The element's lists of tracks, by kind. */
  get trackLists() {
    return { audio: this.control.audioTracks, video: this.control.videoTracks };
  }

  get trackBuffers() {
    return this.buffers.flatMap(({ trackBuffers }) => [...trackBuffers.values()]);
  }

  get highestEnd() {
    return Math.max(0, ...this.trackBuffers.map((trackBuffer) => ranges.highestEnd(trackBuffer.ranges())));
  }

  /** "Attaching to a media element". It opens behind what is queued: a page sees it closed in between. */
  attach(control) {
    this.control = control;
    queueTask(() => {
      if (this.control === control && this.readyState === 'closed') this.setReadyState('open');
    });
  }

  /** "Detaching from a media element". */
  detach() {
    const wasOpen = this.readyState !== 'closed';
    this.readyState = 'closed';
    this.#duration = NaN;
    for (const buffer of this.buffers) buffer.destroy();
    this.buffers = [];
    this.active = [];
    this.control = null;
    if (!wasOpen) return;
    clear(this.activeSourceBuffers);
    clear(this.sourceBuffers);
    queueEvent(this.object, 'sourceclose');
  }

  setReadyState(readyState) {
    this.readyState = readyState;
    queueEvent(this.object, readyState === 'open' ? 'sourceopen' : 'sourceended');
  }

  requireOpen(context) {
    if (this.readyState !== 'open') throw invalidState(`${context}: the media source is ${this.readyState}, not open`);
  }

  requireIdle(context) {
    this.requireOpen(context);
    if (this.buffers.some(({ updating }) => updating)) throw invalidState(`${context}: a source buffer is updating; wait for updateend`);
  }

  /** What is appended or removed behind the end of the stream opens it again. */
  reopen() {
    if (!this.isEnded) return;
    this.setReadyState('open');
    this.control.buffersChanged();
  }

  addSourceBuffer(type) {
    if (type === '') throw new TypeError('addSourceBuffer: the type is empty');
    if (!isTypeSupported(type)) throw new window.DOMException(`addSourceBuffer: ${type}`, 'NotSupportedError');
    this.requireDecoders(type);
    this.requireOpen('addSourceBuffer');
    const buffer = makeSourceBuffer(this, type);
    this.buffers.push(buffer);
    this.updateLists();
    return buffer.object;
  }

  /** A media element has one decoder for video and one for audio. */
  requireDecoders(type) {
    const kinds = trackKinds(type);
    const taken = this.buffers.flatMap((buffer) => [...buffer.kinds]).find((kind) => kinds.has(kind));
    if (taken !== undefined) throw new window.DOMException(`addSourceBuffer: there is a source buffer for ${taken}; remove it first`, 'QuotaExceededError');
  }

  removeSourceBuffer(object) {
    const buffer = this.buffers.find((each) => each.object === object);
    if (buffer === undefined) throw new window.DOMException('removeSourceBuffer: it is none of sourceBuffers', 'NotFoundError');
    buffer.abortOperation();
    buffer.destroy();
    this.buffers = this.buffers.filter((each) => each !== buffer);
    this.active = this.active.filter((each) => each !== buffer);
    this.updateLists();
    this.control.buffersChanged();
  }

  /** "Changes to selected/enabled track state". */
  updateActiveSourceBuffers() {
    this.active = this.buffers.filter(({ isActive }) => isActive);
    this.updateLists();
    this.control.tracksChanged();
  }

  updateLists() {
    const objects = (buffers) => buffers.map(({ object }) => object);
    update(this.activeSourceBuffers, objects(this.active));
    update(this.sourceBuffers, objects(this.buffers));
  }

  /** "Initialization Segment Received", 5.5 and 7 to 9. */
  initializationSegmentReceived({ tracks }) {
    this.updateActiveSourceBuffers();
    if (!this.buffers.every((buffer) => buffer.hasFirstInitializationSegment)) return;
    const videos = this.trackBuffers.filter(({ kind }) => kind === 'video').map(({ description }) => description);
    const { width, height } = tracks.find(({ kind }) => kind === 'video') ?? videos[0] ?? { width: 0, height: 0 };
    this.control.metadataKnown({ width, height, duration: this.duration });
  }

  /** "Coded Frame Processing", 2 to 5, and the same for frames that have been removed. */
  framesChanged() {
    if (this.highestEnd > this.duration) this.changeDuration(this.highestEnd);
    this.control.buffersChanged();
  }

  /** "Duration change". */
  changeDuration(wanted) {
    if (wanted === this.#duration) return;
    const highestTimestamp = Math.max(-Infinity, ...this.trackBuffers.map((trackBuffer) => trackBuffer.highestTimestamp));
    if (wanted < highestTimestamp) throw invalidState(`duration: frames are buffered until ${highestTimestamp}; remove() them first`);
    const duration = Math.max(wanted, this.highestEnd);
    if (duration === this.#duration) return;
    this.#duration = duration;
    this.control.durationChanged(duration);
  }

  /** "End of stream"; `error` is undefined, 'network' or 'decode', `reason` what is known of it. */
  endOfStream(error, reason) {
    this.setReadyState('ended');
    if (error !== undefined) {
      this.control.failed(error, reason);
      return;
    }
    this.changeDuration(this.highestEnd);
    this.control.buffersChanged();
  }

  /** HTMLMediaElement extensions: "buffered". */
  buffered() {
    return this.active.length === 0 ? [] : ranges.intersectAll(this.active.map((buffer) => buffer.bufferedRanges()), this.isEnded);
  }

  /** HTMLMediaElement extensions: "seekable". */
  seekable() {
    if (Number.isNaN(this.duration)) return [];
    if (this.duration !== Infinity) return [[0, this.duration]];
    const buffered = this.buffered();
    const [live] = this.liveSeekableRange;
    if (live === undefined) return buffered.length === 0 ? [] : [[0, ranges.highestEnd(buffered)]];
    const all = ranges.union([live], buffered);
    return [[all[0][0], ranges.highestEnd(all)]];
  }

  /** When the first frame that playback comes to from `time` on starts whose key is missing; Infinity when none does. */
  nextBlocked(time) {
    const trackBuffers = this.active.flatMap((buffer) => [...buffer.trackBuffers.values()]);
    return Math.min(Infinity, ...trackBuffers.map((trackBuffer) => trackBuffer.nextBlocked(time, (keyId) => this.control.hasKey(keyId))));
  }
}

let stateOf;

class MediaSource extends window.EventTarget {
  #state = new MediaSourceState(this);

  get sourceBuffers() {
    return this.#state.sourceBuffers;
  }
  get activeSourceBuffers() {
    return this.#state.activeSourceBuffers;
  }
  get readyState() {
    return this.#state.readyState;
  }

  get duration() {
    return this.#state.duration;
  }
  set duration(value) {
    const duration = idl.convert('unrestricted double', value, 'MediaSource.duration');
    if (Number.isNaN(duration) || duration < 0) throw new TypeError(`duration: ${duration} is no duration`);
    this.#state.requireIdle('duration');
    this.#state.changeDuration(duration);
  }

  addSourceBuffer(type) {
    idl.needArguments(arguments, 1, 'MediaSource.addSourceBuffer');
    return this.#state.addSourceBuffer(idl.convert('DOMString', type, 'MediaSource.addSourceBuffer'));
  }

  removeSourceBuffer(sourceBuffer) {
    idl.needArguments(arguments, 1, 'MediaSource.removeSourceBuffer');
    if (!(sourceBuffer instanceof SourceBuffer)) throw new TypeError('MediaSource.removeSourceBuffer: the value is no SourceBuffer');
    this.#state.removeSourceBuffer(sourceBuffer);
  }

  endOfStream(error = undefined) {
    const reason = error === undefined ? undefined : idl.enumeration(['network', 'decode'], error, 'MediaSource.endOfStream');
    this.#state.requireIdle('endOfStream');
    this.#state.endOfStream(reason);
  }

  setLiveSeekableRange(start, end) {
    idl.needArguments(arguments, 2, 'MediaSource.setLiveSeekableRange');
    const range = [start, end].map((value) => idl.convert('double', value, 'MediaSource.setLiveSeekableRange'));
    this.#state.requireOpen('setLiveSeekableRange');
    if (range[0] < 0 || range[0] > range[1]) throw new TypeError(`setLiveSeekableRange: ${range.join(' to ')} is no range`);
    this.#state.liveSeekableRange = [range];
  }

  clearLiveSeekableRange() {
    this.#state.requireOpen('clearLiveSeekableRange');
    this.#state.liveSeekableRange = [];
  }

  static isTypeSupported(type) {
    idl.needArguments(arguments, 1, 'MediaSource.isTypeSupported');
    return isTypeSupported(idl.convert('DOMString', type, 'MediaSource.isTypeSupported'));
  }

  static get canConstructInDedicatedWorker() {
    return false;
  }

  static {
    stateOf = (object) => object.#state;
  }
}
idl.eventHandlers(MediaSource.prototype, ['sourceopen', 'sourceended', 'sourceclose']);

/** Attaches a source to the control of a media element; answers its inner side, or null when it is not "closed" or about to open. */
function attach(mediaSource, control) {
  const source = stateOf(mediaSource);
  if (source.control !== null) return null;
  source.attach(control);
  return source;
}

/** Puts the interfaces on the window. */
function install() {
  idl.expose(MediaSource, SourceBuffer, SourceBufferList);
}

module.exports = { MediaSource, attach, install };
