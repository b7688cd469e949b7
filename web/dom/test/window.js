'use strict';
// A window with the modules of this folder, over a parser that takes what a test has made up: the
// native side's typed arrays without its bytes.

const { JSDOM } = require('jsdom');

const { realmRequire } = require('../realm');

/** What the parser is told to answer to the next append, in place of the bytes' meaning. */
class ScriptedParser {
  static answers = [];

  constructor(type) {
    this.type = type;
    this.state = 'waiting';
    this.resets = 0;
  }
  append() {
    const { items = [], state = 'waiting', fault } = ScriptedParser.answers.shift() ?? {};
    this.state = state;
    if (fault !== undefined) throw Object.assign(new Error(fault), { items });
    return items;
  }
  reset() {
    this.state = 'waiting';
    ++this.resets;
  }
}

const descriptions = {
  video: { id: 1, kind: 'video', codec: 'avc1.64001f', mimeType: 'video/x-h264', language: 'eng', label: '', width: 320, height: 180 },
  audio: { id: 2, kind: 'audio', codec: 'mp4a.40.2', mimeType: 'audio/aac', language: 'eng', label: '', sampleRate: 48000, channels: 2 },
};

function init(kinds, duration = Infinity) {
  return { type: 'init', duration, tracks: kinds.map((kind) => ({ ...descriptions[kind] })), initData: [] };
}

/**
 * Frames of a track in decoding order: `count` of them from `start`, each `duration` long, a key frame
 * every `group` of them. `order` gives for the place in a group the place at which it is presented.
 */
function frames(kind, { start, count, duration, group = 1, order = null, size = 100, keyId = null }) {
  const at = (value) => Float64Array.from({ length: count }, (_, i) => value(i));
  const presented = (i) => (order === null ? i : i - (i % group) + order[i % group]);
  return {
    type: 'frames',
    track: descriptions[kind].id,
    pts: at((i) => start + presented(i) * duration),
    dts: at((i) => start + i * duration),
    duration: at(() => duration),
    size: Uint32Array.from({ length: count }, () => size),
    flags: Uint8Array.from({ length: count }, (_, i) => (i % group === 0 ? 1 : 0)),
    keyIds: keyId === null ? null : Array(count).fill(keyId),
    batch: {},
  };
}

const segmentEnd = { type: 'segmentEnd' };

/** The element's side of a media source, as far as a source looks at it; keeps what the player was told. */
class Control {
  constructor(load) {
    const tracks = load('./track_lists.js');
    this.audioTracks = tracks.makeAudioTrackList();
    this.videoTracks = tracks.makeVideoTrackList();
    this.currentTime = 0;
    this.error = null;
    this.keys = new Set();
    this.events = [];
    /** Sequence numbers that the player holds, by its track. */
    this.held = new Map();
    const { held } = this;
    this.link = {
      addTrack: (kind) => (held.set(kind, new Map()), kind),
      removeTrack: (kind) => held.delete(kind),
      remove: (kind, sequences) => sequences.forEach((sequence) => {
        if (!held.get(kind).delete(sequence)) throw new Error(`the player does not hold ${sequence}`);
      }),
      add: (kind, batch, indices, pts, dts, sequences, groups) => sequences.forEach((sequence, i) =>
        held.get(kind).set(sequence, { pts: pts[i], dts: dts[i], group: groups[i] })),
    };
  }
  hasKey(keyId) {
    return this.keys.has(keyId);
  }
  durationChanged(duration) {
    this.events.push(['duration', duration]);
  }
  metadataKnown(description) {
    this.events.push(['metadata', description]);
  }
  buffersChanged() {}
  tracksChanged() {}
  encrypted(type, data) {
    this.events.push(['encrypted', type, data]);
  }
  failed(kind, reason) {
    this.events.push(['failed', kind, reason]);
  }
}

/** An open media source: { window, load, native, control, source (its inner side), mediaSource }. */
async function openSource({ quota = { video: 1e9, audio: 1e9 } } = {}) {
  const dom = new JSDOM('', { url: 'http://page.test/', runScripts: 'outside-only' });
  const native = { SegmentParser: ScriptedParser, canPlayType: () => ({ canPlay: true, reason: '' }) };
  const load = realmRequire(dom.window, { native, quota, log: () => {}, now: () => performance.now() });
  const { MediaSource, attach, install } = load('./media_source.js');
  install();
  const control = new Control(load);
  const mediaSource = new MediaSource();
  const source = attach(mediaSource, control);
  await new Promise((resolve) => (mediaSource.onsourceopen = resolve));
  return { window: dom.window, load, native, control, source, mediaSource };
}

/** Appends in one call what the parser makes of it, and waits until it is done; answers the events. */
async function append(sourceBuffer, ...items) {
  ScriptedParser.answers.push({ items });
  sourceBuffer.appendBuffer(new Uint8Array(1));
  return ended(sourceBuffer);
}

/** Resolves at updateend, with the events since the call. */
function ended(sourceBuffer) {
  const seen = [];
  return new Promise((resolve) => {
    for (const type of ['updatestart', 'update', 'error', 'abort', 'updateend']) {
      sourceBuffer[`on${type}`] = () => {
        seen.push(type);
        if (type === 'updateend') resolve(seen);
      };
    }
  });
}

/** The ranges of something that has `buffered`, to the thousandth. */
function buffered({ buffered: ranges }) {
  return Array.from({ length: ranges.length }, (_, i) => [ranges.start(i), ranges.end(i)].map((time) => Math.round(time * 1000) / 1000));
}

/** Arrays of the window's realm as those of this one, which alone are deeply equal to a test's. */
function plain(value) {
  return structuredClone(value);
}

module.exports = { ScriptedParser, append, buffered, ended, frames, init, openSource, plain, segmentEnd };
