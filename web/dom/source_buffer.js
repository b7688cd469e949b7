'use strict';
// MSE, "SourceBuffer interface".

const idl = require('./idl.js');
const ranges = require('./ranges.js');
const tracks = require('./track_lists.js');
const { processCodedFrames, removeCodedFrames } = require('./coded_frame_processing.js');
const { evict } = require('./eviction.js');
const { StreamError, initializationSegmentReceived } = require('./initialization_segment.js');
const { isTypeSupported, parseMimeType, trackKinds } = require('./mime_type.js');
const { queueEvent, queueTask } = require('./tasks.js');
const { makeTextTrackList } = require('./text_track.js');
const { timeRanges } = require('./time_ranges.js');

/** So much of an append is parsed in one task: a long append does not hold up the page. */
const sliceBytes = 1 << 20;

const isActive = { audio: (track) => track.enabled, video: (track) => track.selected };

function invalidState(text) {
  return new window.DOMException(text, 'InvalidStateError');
}

/** What the interface below is the page's view of. */
class SourceBufferState {
  /** `source`: the MediaSourceState that has it; null once it has been removed. */
  constructor(object, source, type) {
    this.object = object;
    this.source = source;
    this.setType(type);
    this.mode = 'segments';
    this.timestampOffset = 0;
    this.appendWindowStart = 0;
    this.appendWindowEnd = Infinity;
    /** Null is unset. */
    this.groupStartTimestamp = null;
    this.groupEndTimestamp = 0;
    /** TrackBuffer by Track ID. */
    this.trackBuffers = new Map();
    this.trackLists = { audio: tracks.makeAudioTrackList(), video: tracks.makeVideoTrackList(), text: makeTextTrackList() };
    this.hasFirstInitializationSegment = false;
    this.needsInitializationSegment = true;
    /** { kind: 'append' | 'remove', ... } that runs, or null. */
    this.operation = null;
    /** Parsed frames whose turn has not come. */
    this.waiting = [];
    this.reported = { ranges: [], object: timeRanges([]) };
  }

  get updating() {
    return this.operation !== null;
  }

  /** Whether one of its tracks is enabled or selected. */
  get isActive() {
    return Object.entries(isActive).some(([kind, isOn]) => [...this.trackLists[kind]].some(isOn));
  }

  setType(type) {
    this.type = type;
    this.kinds = trackKinds(type);
    this.parser = new env.native.SegmentParser(parseMimeType(type).essence);
  }

  requireAttached(context) {
    if (this.source === null) throw invalidState(`${context}: this source buffer has been removed from its media source`);
  }

  requireIdle(context) {
    this.requireAttached(context);
    if (this.updating) throw invalidState(`${context}: wait for updateend`);
  }

  requireNoSegment(context) {
    if (this.parser.state === 'media') throw invalidState(`${context}: a media segment has not come to its end; append the rest or abort()`);
  }

  /** "buffered", 2 to 4. */
  bufferedRanges() {
    const all = [...this.trackBuffers.values()].map((trackBuffer) => trackBuffer.ranges());
    return all.length === 0 ? [] : ranges.intersectAll(all, this.source.isEnded);
  }

  /** "Prepare Append". */
  prepareAppend(newBytes) {
    const context = 'appendBuffer';
    this.requireIdle(context);
    const { control } = this.source;
    if (control.error !== null) throw invalidState(`${context}: the media element has an error`);
    this.source.reopen();
    const hasRoom = evict(this, newBytes, control.currentTime);
    this.commit();
    if (!hasRoom) throw new window.DOMException(`${context}: the source buffer is full; remove() what is not needed`, 'QuotaExceededError');
  }

  append(bytes) {
    this.prepareAppend(bytes.length);
    this.start({ kind: 'append', bytes: bytes.slice(), offset: 0 }, (operation) => this.bufferAppend(operation));
  }

  /** An operation begins: its steps run in a task, unless it has been aborted before. */
  start(operation, steps) {
    this.operation = operation;
    queueEvent(this.object, 'updatestart');
    this.proceed(operation, steps);
  }

  proceed(operation, steps) {
    queueTask(() => {
      if (this.operation === operation) steps(operation);
    });
  }

  finish() {
    this.operation = null;
    queueEvent(this.object, 'update');
    queueEvent(this.object, 'updateend');
  }

  /** removeSourceBuffer() 2 and abort() 4. */
  abortOperation() {
    if (!this.updating) return;
    this.operation = null;
    queueEvent(this.object, 'abort');
    queueEvent(this.object, 'updateend');
  }

  /** "Buffer Append", a slice of it. */
  bufferAppend(operation) {
    const piece = operation.bytes.subarray(operation.offset, operation.offset + sliceBytes);
    operation.offset += piece.length;
    try {
      this.segmentParserLoop(piece);
    } catch (error) {
      if (!(error instanceof StreamError)) throw error;
      const reason = `appendBuffer: ${error.message}`;
      env.log(reason);
      this.appendError(reason);
      return;
    }
    if (operation.offset < operation.bytes.length) this.proceed(operation, (same) => this.bufferAppend(same));
    else this.finish();
  }

  /** "Segment Parser Loop". Throws StreamError; what came before the fault has been taken. */
  segmentParserLoop(piece) {
    try {
      const { items, fault } = this.parse(piece);
      for (const item of items) this.takeItem(item);
      if (fault !== null) throw new StreamError(fault);
      if (this.parser.state === 'media') this.requireInitializationSegment();
    } finally {
      this.processWaiting(false);
      this.commit();
    }
  }

  parse(piece) {
    try {
      return { items: this.parser.append(piece), fault: null };
    } catch (error) {
      return { items: error.items ?? [], fault: error.message };
    }
  }

  takeItem(item) {
    switch (item.type) {
      case 'init':
        this.processWaiting(true);
        initializationSegmentReceived(this, item);
        this.tellInitData(item);
        break;
      case 'initData':
        this.tellInitData(item);
        break;
      case 'frames':
        this.requireInitializationSegment();
        this.waiting.push(item);
        break;
      case 'segmentEnd':
        this.processWaiting(true);
        break;
    }
  }

  /** EME, "Initialization Data Encountered", of which the element knows the rest. */
  tellInitData({ initData }) {
    for (const { type, data } of initData) this.source.control.encrypted(type, data);
  }

  requireInitializationSegment() {
    if (this.needsInitializationSegment) throw new StreamError('a media segment came before an initialization segment');
  }

  /**
   * "Coded Frame Processing" of the frames that wait, at the latest when their segment has ended. In
   * mode "sequence" a group begins with its earliest frame: until then it waits for one of each track.
   */
  processWaiting(isSegmentEnd) {
    const beginsGroup = this.mode === 'sequence' && this.groupStartTimestamp !== null;
    const seen = new Set(this.waiting.map(({ track }) => track));
    if (beginsGroup && !isSegmentEnd && seen.size < this.trackBuffers.size) return;
    const items = this.waiting;
    this.waiting = [];
    processCodedFrames(this, items);
  }

  /** Passes on what has come and gone: to the player, and to whom buffered and duration matter. */
  commit() {
    const changed = [...this.trackBuffers.values()].filter((trackBuffer) => trackBuffer.hasChanged);
    for (const trackBuffer of changed) trackBuffer.flush(this.source.control.link);
    if (changed.length > 0) this.source.framesChanged();
  }

  /** "Reset Parser State". */
  resetParserState() {
    this.processWaiting(true);
    this.commit();
    for (const trackBuffer of this.trackBuffers.values()) trackBuffer.unsetGroup();
    if (this.mode === 'sequence') this.groupStartTimestamp = this.groupEndTimestamp;
    this.parser.reset();
  }

  /** "Append Error"; `reason` is for a person. */
  appendError(reason) {
    this.resetParserState();
    this.operation = null;
    queueEvent(this.object, 'error');
    queueEvent(this.object, 'updateend');
    this.source.endOfStream('decode', reason);
  }

  abort() {
    this.requireAttached('abort');
    if (this.source.readyState !== 'open') throw invalidState('abort: the media source is not open');
    if (this.operation?.kind === 'remove') throw invalidState('abort: a removal runs; wait for updateend');
    this.abortOperation();
    this.resetParserState();
    this.appendWindowStart = 0;
    this.appendWindowEnd = Infinity;
  }

  changeType(type) {
    if (type === '') throw new TypeError('changeType: the type is empty');
    this.requireIdle('changeType');
    if (!isTypeSupported(type)) throw new window.DOMException(`changeType: ${type}`, 'NotSupportedError');
    this.source.reopen();
    this.resetParserState();
    this.setType(type);
    this.needsInitializationSegment = true;
  }

  remove(start, end) {
    this.requireIdle('remove');
    const { duration } = this.source;
    if (Number.isNaN(duration)) throw new TypeError('remove: the duration is not known');
    if (start < 0 || start > duration) throw new TypeError(`remove: the start is not between 0 and the duration, ${duration}`);
    if (!(end > start)) throw new TypeError('remove: the end is not behind the start');
    this.source.reopen();
    this.rangeRemoval(start, end);
  }

  /** "Range Removal". */
  rangeRemoval(start, end) {
    this.start({ kind: 'remove' }, () => {
      removeCodedFrames(this, start, end);
      this.commit();
      this.finish();
    });
  }

  /** Forgets the player's tracks and the element's; there is no way back. */
  destroy() {
    const { control, trackLists } = this.source;
    for (const { playerTrack } of this.trackBuffers.values()) if (playerTrack !== null) control.link.removeTrack(playerTrack);
    for (const [kind, isOn] of Object.entries(isActive)) {
      for (const track of [...this.trackLists[kind]]) {
        tracks.setSourceBuffer(track, null);
        for (const list of [this.trackLists[kind], trackLists[kind]]) {
          tracks.remove(list, track);
          if (isOn(track)) queueEvent(list, 'change');
        }
      }
    }
    this.trackBuffers.clear();
    this.waiting = [];
    this.operation = null;
    this.source = null;
  }
}

let stateOf;

class SourceBuffer extends window.EventTarget {
  #state;

  constructor(token, source, type) {
    idl.illegal(token);
    super();
    this.#state = new SourceBufferState(this, source, type);
  }

  get mode() {
    return this.#state.mode;
  }
  /** A value that is no AppendMode is ignored (Web IDL). */
  set mode(value) {
    const mode = idl.convert('DOMString', value, 'SourceBuffer.mode');
    if (!['segments', 'sequence'].includes(mode)) return;
    const state = this.#state;
    state.requireIdle('mode');
    state.source.reopen();
    state.requireNoSegment('mode');
    if (mode === 'sequence') state.groupStartTimestamp = state.groupEndTimestamp;
    state.mode = mode;
  }

  get updating() {
    return this.#state.updating;
  }

  get buffered() {
    const state = this.#state;
    state.requireAttached('buffered');
    const now = state.bufferedRanges();
    if (!ranges.equal(now, state.reported.ranges)) state.reported = { ranges: now, object: timeRanges(now) };
    return state.reported.object;
  }

  get timestampOffset() {
    return this.#state.timestampOffset;
  }
  set timestampOffset(value) {
    const offset = idl.convert('double', value, 'SourceBuffer.timestampOffset');
    const state = this.#state;
    state.requireIdle('timestampOffset');
    state.source.reopen();
    state.requireNoSegment('timestampOffset');
    if (state.mode === 'sequence') state.groupStartTimestamp = offset;
    state.timestampOffset = offset;
  }

  get audioTracks() {
    return this.#state.trackLists.audio;
  }
  get videoTracks() {
    return this.#state.trackLists.video;
  }
  get textTracks() {
    return this.#state.trackLists.text;
  }

  get appendWindowStart() {
    return this.#state.appendWindowStart;
  }
  set appendWindowStart(value) {
    const start = idl.convert('double', value, 'SourceBuffer.appendWindowStart');
    const state = this.#state;
    state.requireIdle('appendWindowStart');
    if (start < 0 || start >= state.appendWindowEnd) {
      throw new TypeError(`appendWindowStart: ${start} is not between 0 and the window's end, ${state.appendWindowEnd}`);
    }
    state.appendWindowStart = start;
  }

  get appendWindowEnd() {
    return this.#state.appendWindowEnd;
  }
  set appendWindowEnd(value) {
    const end = idl.convert('unrestricted double', value, 'SourceBuffer.appendWindowEnd');
    const state = this.#state;
    state.requireIdle('appendWindowEnd');
    if (!(end > state.appendWindowStart)) {
      throw new TypeError(`appendWindowEnd: ${end} is not behind the window's start, ${state.appendWindowStart}`);
    }
    state.appendWindowEnd = end;
  }

  appendBuffer(data) {
    idl.needArguments(arguments, 1, 'SourceBuffer.appendBuffer');
    this.#state.append(idl.bufferSource(data, 'SourceBuffer.appendBuffer'));
  }

  abort() {
    this.#state.abort();
  }

  changeType(type) {
    idl.needArguments(arguments, 1, 'SourceBuffer.changeType');
    this.#state.changeType(idl.convert('DOMString', type, 'SourceBuffer.changeType'));
  }

  remove(start, end) {
    idl.needArguments(arguments, 2, 'SourceBuffer.remove');
    this.#state.remove(idl.convert('double', start, 'SourceBuffer.remove'), idl.convert('unrestricted double', end, 'SourceBuffer.remove'));
  }

  static {
    stateOf = (object) => object.#state;
  }
}
idl.eventHandlers(SourceBuffer.prototype, ['updatestart', 'update', 'updateend', 'error', 'abort']);

/** A source buffer of this MediaSourceState; answers its SourceBufferState. */
function makeSourceBuffer(source, type) {
  return stateOf(new SourceBuffer(idl.secret, source, type));
}

module.exports = { SourceBuffer, makeSourceBuffer };
