'use strict';
// Arithmetic on time ranges. Ranges are arrays of [start, end] in seconds, ascending, and neither
// touch nor overlap (a "normalized TimeRanges object"). Nothing here changes what it is given.

/** What is in either. */
function union(a, b) {
  const all = [...a, ...b].sort((x, y) => x[0] - y[0]);
  const result = [];
  for (const [start, end] of all) {
    const last = result.at(-1);
    if (last !== undefined && start <= last[1]) last[1] = Math.max(last[1], end);
    else result.push([start, end]);
  }
  return result;
}

/** What is in both. */
function intersect(a, b) {
  const result = [];
  for (let i = 0, j = 0; i < a.length && j < b.length; ) {
    const start = Math.max(a[i][0], b[j][0]);
    const end = Math.min(a[i][1], b[j][1]);
    if (start < end) result.push([start, end]);
    if (a[i][1] < b[j][1]) ++i;
    else ++j;
  }
  return result;
}

/** The last end; 0 when there is none. */
function highestEnd(ranges) {
  return ranges.length === 0 ? 0 : ranges.at(-1)[1];
}

/** With the last end moved. */
function withLastEnd(ranges, end) {
  return ranges.map((range, index) => (index === ranges.length - 1 ? [range[0], end] : range));
}

/** Seconds from 0, where a presentation starts, within which the first range may begin that is played from there. */
const startAllowance = 1;
/** Seconds between frames that playback gets over (MSE, "Track Buffers", lets an implementation choose). */
const shortGap = 0.15;

/**
 * The range that playback at this time plays, its end included, or undefined: the one that the time is
 * in, or is a short gap before; before the first range that one, if it begins soon enough (MSE,
 * "Presentation Start Time").
 */
function playableAt(ranges, time) {
  const isFirstSoon = ranges.length > 0 && ranges[0][0] <= startAllowance;
  return ranges.find(([start, end], index) => (start <= time + shortGap || (index === 0 && isFirstSoon)) && time <= end);
}

function equal(a, b) {
  return a.length === b.length && a.every(([start, end], index) => start === b[index][0] && end === b[index][1]);
}

/**
 * MSE, the intersection that "buffered" is of a source buffer and of an element: what all of them, one
 * at least, have of the time from 0 to the highest end. Once the source has ended, the last range of
 * each reaches that far.
 */
function intersectAll(list, isEnded) {
  const end = Math.max(0, ...list.map(highestEnd));
  return list.reduce((common, ranges) => intersect(common, isEnded ? withLastEnd(ranges, end) : ranges), [[0, end]]);
}

module.exports = { equal, highestEnd, intersect, intersectAll, playableAt, shortGap, union };
