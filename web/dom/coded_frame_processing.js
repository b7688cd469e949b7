'use strict';
// What a source buffer does with coded frames. `buffer` is a SourceBufferState (source_buffer.js).

const { CodedFrame, microsecond } = require('./track_buffer.js');

const isKeyFrame = 1;

/**
 * MSE, "Coded Frame Processing", 1, for what a parser made of a piece of one media segment: its items
 * of type 'frames'. Of a track they are in decoding order; of the tracks the one that is presented
 * first comes first, so that in mode "sequence" a group begins with its earliest frame.
 */
function processCodedFrames(buffer, items) {
  const cursors = perTrack(items);
  while (cursors.length > 0) {
    const cursor = cursors.reduce((first, other) => (other.pts < first.pts ? other : first));
    processCodedFrame(buffer, cursor);
    if (!cursor.advance()) cursors.splice(cursors.indexOf(cursor), 1);
  }
}

/** Walks through the frames of one track's items: stands at the frame `index` of `item`. */
class Cursor {
  #items;
  #place = 0;
  index = 0;

  constructor(items) {
    this.#items = items;
  }
  get item() {
    return this.#items[this.#place];
  }
  get pts() {
    return this.item.pts[this.index];
  }
  /** Answers whether there is a frame. */
  advance() {
    if (++this.index === this.item.pts.length) {
      this.index = 0;
      ++this.#place;
    }
    return this.#place < this.#items.length;
  }
}

function perTrack(items) {
  const tracks = new Map();
  for (const item of items) {
    if (item.pts.length === 0) continue;
    if (!tracks.has(item.track)) tracks.set(item.track, []);
    tracks.get(item.track).push(item);
  }
  return [...tracks.values()].map((ofTrack) => new Cursor(ofTrack));
}

/** The steps of "Loop Top" for one frame. Frames of tracks that no initialization segment has are skipped. */
function processCodedFrame(buffer, { item, index }) {
  const trackBuffer = buffer.trackBuffers.get(item.track);
  if (trackBuffer === undefined) return;
  let times = timesOf(buffer, item, index);
  if (isDiscontinuity(trackBuffer, times)) {
    beginGroup(buffer, times);
    times = timesOf(buffer, item, index);
  }
  if (isOutsideAppendWindow(buffer, times)) {
    trackBuffer.needRandomAccessPoint = true;
    return;
  }
  times.pts = Math.max(times.pts, buffer.appendWindowStart);
  const isKey = (item.flags[index] & isKeyFrame) !== 0;
  if (trackBuffer.needRandomAccessPoint && !isKey) return;
  trackBuffer.needRandomAccessPoint = false;
  makeRoom(trackBuffer, times);
  const frame = new CodedFrame({ ...times, size: item.size[index], isKey, keyId: item.keyIds?.[index] ?? null });
  trackBuffer.add(frame, item.batch, index);
  noteAdded(buffer, trackBuffer, times);
}

/** 1.1 to 1.4: the frame's times in the presentation. */
function timesOf(buffer, item, index) {
  const pts = item.pts[index];
  if (buffer.mode === 'sequence' && buffer.groupStartTimestamp !== null) {
    buffer.timestampOffset = buffer.groupStartTimestamp - pts;
    buffer.groupEndTimestamp = buffer.groupStartTimestamp;
    for (const trackBuffer of buffer.trackBuffers.values()) trackBuffer.needRandomAccessPoint = true;
    buffer.groupStartTimestamp = null;
  }
  return { pts: pts + buffer.timestampOffset, dts: item.dts[index] + buffer.timestampOffset, duration: item.duration[index] };
}

/** 1.6, the condition. */
function isDiscontinuity({ lastDecodeTimestamp, lastFrameDuration }, { dts }) {
  if (lastDecodeTimestamp === null) return false;
  const step = dts - lastDecodeTimestamp;
  return step < -microsecond || step > 2 * (lastFrameDuration ?? Infinity) + microsecond;
}

/** 1.6.1 to 1.6.5. */
function beginGroup(buffer, { pts }) {
  if (buffer.mode === 'segments') buffer.groupEndTimestamp = pts;
  else buffer.groupStartTimestamp = buffer.groupEndTimestamp;
  for (const trackBuffer of buffer.trackBuffers.values()) trackBuffer.unsetGroup();
}

/** 1.7 to 1.9. */
function isOutsideAppendWindow({ appendWindowStart, appendWindowEnd }, { pts, duration }) {
  return pts < appendWindowStart - microsecond || pts + duration > appendWindowEnd + microsecond;
}

/**
 * 1.13 to 1.15: removes what the frame replaces, with what depends on that. What starts within a
 * microsecond of a frame starts with it, which is what 1.13 asks of video.
 */
function makeRoom(trackBuffer, times) {
  if (trackBuffer.lastDecodeTimestamp === null && trackBuffer.kind === 'audio') spliceAudio(trackBuffer, times);
  const { highestEndTimestamp: highest } = trackBuffer;
  const frameEnd = times.pts + times.duration;
  if (highest === null) trackBuffer.replaceBetween(times.pts, frameEnd);
  else if (highest <= times.pts + microsecond) trackBuffer.replaceBetween(highest, frameEnd);
}

/**
 * MSE, "Audio Splice Frame", without crossfading: the first frame of a group takes the place of the one
 * it overlaps. The gap that remains is shorter than that, and is played as the silence that the text
 * puts there.
 */
function spliceAudio(trackBuffer, times) {
  const overlapped = trackBuffer.frameAt(times.pts);
  if (overlapped === null) return;
  const { sampleRate } = trackBuffer.description;
  const samples = (times.pts - overlapped.pts) * sampleRate;
  const start = sampleRate > 0 ? overlapped.pts + Math.floor(samples + 0.5) / sampleRate : times.pts;
  times.dts += start - times.pts;
  times.pts = start;
  if (start < overlapped.end - microsecond) trackBuffer.remove([overlapped]);
}

/** 1.17 to 1.20. A frame that does not say how long it is says nothing of the next one's time. */
function noteAdded(buffer, trackBuffer, { pts, dts, duration }) {
  const frameEnd = pts + duration;
  trackBuffer.lastDecodeTimestamp = dts;
  trackBuffer.lastFrameDuration = duration > 0 ? duration : trackBuffer.lastFrameDuration;
  trackBuffer.highestEndTimestamp = Math.max(trackBuffer.highestEndTimestamp ?? -Infinity, frameEnd);
  buffer.groupEndTimestamp = Math.max(buffer.groupEndTimestamp, frameEnd);
}

/**
 * MSE, "Coded Frame Removal", 1 to 3.4. A group goes on unless its last frame is among what is removed:
 * media that is appended in pieces of a group of pictures survives the eviction of what is old.
 */
function removeCodedFrames(buffer, start, end) {
  for (const trackBuffer of buffer.trackBuffers.values()) {
    const removeEnd = trackBuffer.randomAccessPointFrom(end)?.pts ?? Infinity;
    const removed = trackBuffer.removeBetween(start, removeEnd);
    const last = removed.find(({ dts }) => dts === trackBuffer.lastDecodeTimestamp);
    if (last !== undefined) beginGroup(buffer, last);
  }
}

module.exports = { processCodedFrames, removeCodedFrames };
