'use strict';
// MSE, "Coded Frame Eviction". `buffer` is a SourceBufferState (source_buffer.js).

const ranges = require('./ranges.js');
const { removeCodedFrames } = require('./coded_frame_processing.js');

/** Bytes that a buffer with tracks of these kinds may hold. */
function quotaOf(kinds) {
  return [...kinds].reduce((sum, kind) => sum + env.quota[kind], 0);
}

function bytesOf(buffer) {
  return [...buffer.trackBuffers.values()].reduce((sum, { bytes }) => sum + bytes, 0);
}

/**
 * Makes room for so many bytes, if that is needed and possible: first what has been played, from the
 * oldest group of pictures on; then what is farthest ahead, unless playback comes to it without a gap.
 * Answers whether there is room: the "buffer full flag" is its contrary.
 */
function evict(buffer, newBytes, currentTime) {
  const limit = quotaOf(buffer.kinds);
  const missing = () => bytesOf(buffer) + newBytes - limit;
  if (missing() <= 0) return true;
  if (newBytes > limit) return false;
  const guide = guideTrack(buffer);
  if (guide === null) return false;
  evictPlayed(buffer, guide, currentTime, missing());
  if (missing() > 0) evictAhead(buffer, guide, currentTime, missing);
  return missing() <= 0;
}

/** The track whose random access points bound what is removed: the one that is decoded in the longest groups. */
function guideTrack(buffer) {
  const trackBuffers = [...buffer.trackBuffers.values()];
  return trackBuffers.find(({ kind }) => kind === 'video') ?? trackBuffers[0] ?? null;
}

function evictPlayed(buffer, guide, currentTime, missing) {
  const keep = guide.randomAccessPointBefore(currentTime)?.pts ?? 0;
  let end = 0;
  for (let freed = 0; freed < missing && end < keep; ) {
    const next = Math.min(keep, guide.randomAccessPointFrom(nextTime(end))?.pts ?? keep);
    for (const trackBuffer of buffer.trackBuffers.values()) freed += trackBuffer.bytesBetween(end, next);
    end = next;
  }
  if (end > 0) removeCodedFrames(buffer, 0, end);
}

function evictAhead(buffer, guide, currentTime, missing) {
  const played = ranges.playableAt(guide.ranges(), currentTime);
  const keep = played?.[1] ?? currentTime;
  while (missing() > 0) {
    const last = guide.randomAccessPointBefore(Infinity);
    if (last === null || last.pts < keep) return;
    removeCodedFrames(buffer, last.pts, Infinity);
  }
}

/** Just behind a time, beyond what counts as the same. */
function nextTime(time) {
  return time + 1e-5;
}

module.exports = { evict };
