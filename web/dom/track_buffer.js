'use strict';
// MSE, "Track Buffers": what is known of one track's coded frames. Their payloads are with the
// native player, which holds by sequence number what flush() tells it to.

const { shortGap } = require('./ranges.js');

/** Times that are nearer than this are the same: what is computed by tracks' clocks and by doubles differs by less. */
const microsecond = 1e-6;

const State = Object.freeze({ Pending: 'pending', Held: 'held by the player', Removed: 'removed' });

let lastSequence = 0;

/** A coded frame with its times in the presentation, in seconds. */
class CodedFrame {
  constructor({ pts, dts, duration, size, isKey, keyId }) {
    this.pts = pts;
    this.dts = dts;
    this.end = pts + duration;
    this.size = size;
    this.isKey = isKey;
    /** In hexadecimal digits; null when the frame is clear. */
    this.keyId = keyId;
    this.sequence = ++lastSequence;
    this.state = State.Pending;
    /** The frames from a key frame to the next in decoding order, and where this one is among them. */
    this.group = null;
    this.place = 0;
    /** The range of presentation that this frame is in, as far as this frame. */
    this.rangeStart = pts;
    this.rangeEnd = this.end;
  }
}

class TrackBuffer {
  /** By presentation time, ascending. */
  #frames = [];
  /** So many of them, from the first, have the ranges that hold. */
  #measured = 0;
  #longestDuration = 0;
  #ranges = [];
  #areRangesKnown = true;
  #lastGroup = null;
  /** Sequence numbers from here on are of the current coded frame group. */
  #firstOfGroup = 0;
  /** How many frames each key is needed for. */
  #framesOfKey = new Map();
  /** { frame, batch, index } of what the player has not been given. */
  #pending = [];
  #removedSequences = [];

  /** `description` is of the parser's track; `playerTrack` is the player's, or null when it plays none of it. */
  constructor(description, playerTrack) {
    this.description = description;
    this.playerTrack = playerTrack;
    this.bytes = 0;
    /** MSE, "Track Buffers": what the current coded frame group has come to; null is unset. */
    this.unsetGroup();
  }

  get kind() {
    return this.description.kind;
  }

  /** MSE, "Coded Frame Processing", 6.2 to 6.5 and wherever else these four go together: a coded frame group begins. */
  unsetGroup() {
    this.#firstOfGroup = lastSequence + 1;
    this.lastDecodeTimestamp = null;
    this.lastFrameDuration = null;
    this.highestEndTimestamp = null;
    this.needRandomAccessPoint = true;
  }

  /** The highest presentation timestamp; -Infinity when there is no frame. */
  get highestTimestamp() {
    return this.#frames.at(-1)?.pts ?? -Infinity;
  }

  /** Adds a frame that follows the one added last in decoding order; `index` is its place in the parser's `batch`. */
  add(frame, batch, index) {
    this.#putInGroup(frame);
    const at = this.highestTimestamp <= frame.pts ? this.#frames.length : this.#firstBehind(frame.pts);
    this.#frames.splice(at, 0, frame);
    this.#changedAt(at);
    const duration = frame.end - frame.pts;
    if (duration > this.#longestDuration) {
      this.#longestDuration = duration;
      this.#changedAt(0);
    }
    this.bytes += frame.size;
    if (frame.keyId !== null) this.#countKey(frame.keyId, 1);
    this.#pending.push({ frame, batch, index });
  }

  #putInGroup(frame) {
    if (frame.isKey) this.#lastGroup = [];
    frame.group = this.#lastGroup;
    frame.place = frame.group.length;
    frame.group.push(frame);
  }

  /** The frame whose presentation interval the time is in, or null. */
  frameAt(time) {
    const frame = this.#frames[this.#firstBehind(time) - 1];
    return frame !== undefined && time < frame.end - microsecond ? frame : null;
  }

  /** Removes what starts in [from, to) and what depends on it. Answers what has been removed. */
  removeBetween(from, to) {
    return this.remove(this.#frames.slice(this.#firstNotBefore(from), this.#firstNotBefore(to)));
  }

  /** The same for what a frame of the current coded frame group replaces: its own group stays as it is. */
  replaceBetween(from, to) {
    const frames = this.#frames.slice(this.#firstNotBefore(from), this.#firstNotBefore(to));
    this.remove(frames.filter(({ sequence }) => sequence < this.#firstOfGroup));
  }

  /** Removes frames with those that depend on them: all that are decoded after them until the next random access point. */
  remove(frames) {
    const removed = [];
    for (const frame of frames) {
      if (frame.state === State.Removed) continue;
      for (const dependant of frame.group.splice(frame.place)) {
        this.#forget(dependant);
        removed.push(dependant);
      }
    }
    if (removed.length > 0) this.#takeOutRemoved(removed);
    return removed;
  }

  #forget(frame) {
    if (frame.state === State.Held) this.#removedSequences.push(frame.sequence);
    frame.state = State.Removed;
    this.bytes -= frame.size;
    if (frame.keyId !== null) this.#countKey(frame.keyId, -1);
  }

  #takeOutRemoved(removed) {
    let [lowest, highest] = [Infinity, -Infinity];
    for (const { pts } of removed) {
      lowest = Math.min(lowest, pts);
      highest = Math.max(highest, pts);
    }
    const first = this.#firstNotBefore(lowest);
    const behind = this.#firstBehind(highest);
    let kept = first;
    for (let i = first; i < behind; ++i) {
      if (this.#frames[i].state !== State.Removed) this.#frames[kept++] = this.#frames[i];
    }
    this.#frames.splice(kept, behind - kept);
    this.#changedAt(first);
  }

  /** The first random access point at or behind a time, or null. */
  randomAccessPointFrom(time) {
    for (let i = this.#firstNotBefore(time); i < this.#frames.length; ++i) {
      if (this.#frames[i].isKey) return this.#frames[i];
    }
    return null;
  }

  /** The last random access point before a time, or null. */
  randomAccessPointBefore(time) {
    for (let i = this.#firstNotBefore(time) - 1; i >= 0; --i) {
      if (this.#frames[i].isKey) return this.#frames[i];
    }
    return null;
  }

  /** Bytes of the frames that start in [from, to). */
  bytesBetween(from, to) {
    let bytes = 0;
    for (let i = this.#firstNotBefore(from); i < this.#frames.length && this.#frames[i].pts < to; ++i) bytes += this.#frames[i].size;
    return bytes;
  }

  /**
   * The track buffer ranges, as ranges.js has them; not to be changed. Frames that are nearer than
   * twice the longest frame, or than a gap that playback gets over, are in one range.
   */
  ranges() {
    if (this.#areRangesKnown) return this.#ranges;
    this.#measure();
    const ranges = [];
    for (let i = this.#frames.length - 1; i >= 0; i = this.#firstNotBefore(ranges.at(-1)[0]) - 1) {
      ranges.push([this.#frames[i].rangeStart, this.#frames[i].rangeEnd]);
    }
    this.#ranges = ranges.reverse();
    this.#areRangesKnown = true;
    return this.#ranges;
  }

  #measure() {
    const gap = Math.max(shortGap, 2 * this.#longestDuration) + microsecond;
    for (; this.#measured < this.#frames.length; ++this.#measured) {
      const frame = this.#frames[this.#measured];
      const before = this.#frames[this.#measured - 1];
      const isJoined = before !== undefined && frame.pts <= before.rangeEnd + gap;
      frame.rangeStart = isJoined ? before.rangeStart : frame.pts;
      frame.rangeEnd = isJoined ? Math.max(before.rangeEnd, frame.end) : frame.end;
    }
  }

  /** When the first frame at or behind `time` starts that needs a key which hasKey(keyId) denies; Infinity when none does. */
  nextBlocked(time, hasKey) {
    const missing = new Set([...this.#framesOfKey.keys()].filter((keyId) => !hasKey(keyId)));
    if (missing.size === 0) return Infinity;
    for (let i = Math.max(0, this.#firstBehind(time) - 1); i < this.#frames.length; ++i) {
      const { keyId, pts, end } = this.#frames[i];
      if (end > time && missing.has(keyId)) return pts;
    }
    return Infinity;
  }

  /** Whether flush() has something to tell. */
  get hasChanged() {
    return this.#pending.length > 0 || this.#removedSequences.length > 0;
  }

  /** Tells the player, through its link, what came and went since the last time. */
  flush(link) {
    const added = this.#pending.filter(({ frame }) => frame.state === State.Pending);
    const removed = this.#removedSequences;
    this.#pending = [];
    this.#removedSequences = [];
    for (const { frame } of added) frame.state = State.Held;
    if (this.playerTrack === null) return;
    if (removed.length > 0) link.remove(this.playerTrack, Float64Array.from(removed));
    for (const part of inBatches(added)) {
      const column = (Type, value) => Type.from(part, value);
      link.add(this.playerTrack, part[0].batch,
        column(Uint32Array, ({ index }) => index),
        column(Float64Array, ({ frame }) => frame.pts),
        column(Float64Array, ({ frame }) => frame.dts),
        column(Float64Array, ({ frame }) => frame.sequence),
        column(Float64Array, ({ frame }) => frame.group[0].sequence));
    }
  }

  #countKey(keyId, change) {
    const count = (this.#framesOfKey.get(keyId) ?? 0) + change;
    if (count > 0) this.#framesOfKey.set(keyId, count);
    else this.#framesOfKey.delete(keyId);
  }

  #changedAt(index) {
    this.#measured = Math.min(this.#measured, index);
    this.#areRangesKnown = false;
  }

  /** Index of the first frame that starts at the time, by the microsecond, or later. */
  #firstNotBefore(time) {
    return this.#search((frame) => frame.pts < time - microsecond);
  }

  /** Index of the first frame that starts later than the time. */
  #firstBehind(time) {
    return this.#search((frame) => frame.pts <= time);
  }

  /** Index of the first frame that `isBefore` does not hold of. */
  #search(isBefore) {
    let low = 0;
    for (let high = this.#frames.length; low < high; ) {
      const middle = (low + high) >>> 1;
      if (isBefore(this.#frames[middle])) low = middle + 1;
      else high = middle;
    }
    return low;
  }
}

/** Consecutive entries of one batch together. */
function inBatches(entries) {
  const parts = [];
  for (const entry of entries) {
    if (parts.at(-1)?.[0].batch === entry.batch) parts.at(-1).push(entry);
    else parts.push([entry]);
  }
  return parts;
}

module.exports = { CodedFrame, TrackBuffer, microsecond };
