'use strict';
// Where coded frames land: what a source buffer reports, and what the player is told to hold.

const assert = require('node:assert');
const { test } = require('node:test');

const { append, buffered, ended, frames, init, openSource, plain, segmentEnd } = require('./window');

const videoType = 'video/mp4; codecs="avc1.64001f"';
const audioType = 'audio/mp4; codecs="mp4a.40.2"';
const muxedType = 'video/mp4; codecs="avc1.64001f,mp4a.40.2"';

/** A source with a source buffer of this type whose first initialization segment has come. */
async function openBuffer(type, ...kinds) {
  const opened = await openSource();
  const sourceBuffer = opened.mediaSource.addSourceBuffer(type);
  await append(sourceBuffer, init(kinds));
  return { ...opened, sourceBuffer };
}

/** Presentation times of what the player holds of a kind, to the thousandth. */
function heldTimes(control, kind) {
  return [...control.held.get(kind).values()].map(({ pts }) => Math.round(pts * 1000) / 1000).sort((a, b) => a - b);
}

/** Two groups of four, decoded in another order than presented: [0, 4) and [4, 8). */
const reordered = { start: 0, count: 8, duration: 1, group: 4, order: [0, 3, 1, 2] };

test('frames out of presentation order fill one range, each in the group of its key frame', async () => {
  const { sourceBuffer, control } = await openBuffer(videoType, 'video');
  await append(sourceBuffer, frames('video', reordered), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 8]]);
  const groups = [...control.held.get('video')].map(([sequence, { group }]) => sequence - group);
  assert.deepStrictEqual(groups, [0, 1, 2, 3, 0, 1, 2, 3]);
});

test('what a new group overlaps goes with its dependants, and nothing before or behind it', async () => {
  const { sourceBuffer, control } = await openBuffer(videoType, 'video');
  await append(sourceBuffer, frames('video', { ...reordered, count: 16 }), segmentEnd);
  const third = 1 / 3; // of times that no double has exactly
  await append(sourceBuffer, frames('video', { start: 4 + 1e-8, count: 24, duration: third, group: 24 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 16]]);
  const times = heldTimes(control, 'video');
  assert.strictEqual(times.length, 4 + 24 + 4);
  assert.strictEqual(times.filter((time) => time >= 12).length, 4, 'the next group has lost a frame');
});

test('a group that begins in the middle of another leaves what was decoded before that', async () => {
  const { sourceBuffer, control } = await openBuffer(videoType, 'video');
  await append(sourceBuffer, frames('video', reordered), segmentEnd);
  await append(sourceBuffer, frames('video', { start: 2, count: 1, duration: 1 }), segmentEnd);
  assert.deepStrictEqual(heldTimes(control, 'video'), [0, 1, 2, 3, 4, 5, 6, 7], 'frame 2 was decoded last of its group');
  await append(sourceBuffer, frames('video', { start: 5, count: 1, duration: 1 }), segmentEnd);
  assert.deepStrictEqual(heldTimes(control, 'video'), [0, 1, 2, 3, 4, 5, 7], 'frames 5 and 6 of the second group go');
});

test('what is replaced within one append never comes to the player', async () => {
  const { sourceBuffer, control } = await openBuffer(videoType, 'video');
  const twice = () => [frames('video', { start: 0, count: 4, duration: 1, group: 4 }), segmentEnd];
  await append(sourceBuffer, ...twice(), ...twice());
  assert.deepStrictEqual(heldTimes(control, 'video'), [0, 1, 2, 3]);
});

test('frames of one group do not replace one another, however long they say they are', async () => {
  const { sourceBuffer, control } = await openBuffer(videoType, 'video');
  const odd = frames('video', { start: 0, count: 4, duration: 1, group: 4 });
  odd.duration.set([1, 0, 5, 1]);
  odd.pts.set([0, 1, 1, 2]);
  await append(sourceBuffer, odd, segmentEnd);
  assert.deepStrictEqual([heldTimes(control, 'video'), buffered(sourceBuffer)], [[0, 1, 1, 2], [[0, 6]]]);
});

test('a jump in decoding times begins a group with a random access point', async () => {
  const { sourceBuffer } = await openBuffer(videoType, 'video');
  await append(sourceBuffer, frames('video', { start: 0, count: 4, duration: 1, group: 4 }), segmentEnd);
  const late = frames('video', { start: 10, count: 8, duration: 1, group: 4 });
  late.flags[0] = 0;
  await append(sourceBuffer, late, segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 4], [14, 18]]);
});

test('gaps shorter than playback notices are none', async () => {
  const { sourceBuffer } = await openBuffer(audioType, 'audio');
  for (const start of [0, 1.1, 2.3]) await append(sourceBuffer, frames('audio', { start, count: 50, duration: 0.02 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 2.1], [2.3, 3.3]]);
  await append(sourceBuffer, frames('audio', { start: 10, count: 2, duration: 0.09 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 2.1], [2.3, 3.3], [10, 10.18]]);
  await append(sourceBuffer, frames('audio', { start: 20, count: 2, duration: 0.11 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 3.3], [10, 10.18], [20, 20.22]], 'less than two of the longest frames');
});

test('the append window drops what is not wholly in it, and what then lacks its key frame', async () => {
  const { sourceBuffer } = await openBuffer(videoType, 'video');
  sourceBuffer.appendWindowEnd = 9.5;
  sourceBuffer.appendWindowStart = 1;
  await append(sourceBuffer, frames('video', { start: 0, count: 12, duration: 1, group: 4 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[4, 9]]);
  sourceBuffer.appendWindowEnd = 23;
  await append(sourceBuffer, frames('video', { ...reordered, start: 20, count: 4 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[4, 9], [20, 21]], 'what is between depends on the last');
});

test('the append window forgives what doubles do to a time', async () => {
  const { sourceBuffer } = await openBuffer(videoType, 'video');
  sourceBuffer.timestampOffset = 0.3;
  sourceBuffer.appendWindowEnd = 2.3;
  sourceBuffer.appendWindowStart = 0.1 + 0.2;
  await append(sourceBuffer, frames('video', { start: 0, count: 2, duration: 1, group: 2 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0.3, 2.3]]);
  assert.strictEqual(sourceBuffer.buffered.start(0), sourceBuffer.appendWindowStart);
});

test('mode "sequence" puts segments behind one another by their earliest frames', async () => {
  const { sourceBuffer } = await openBuffer(muxedType, 'video', 'audio');
  sourceBuffer.mode = 'sequence';
  const segment = (start) => [
    frames('video', { start: start + 0.01, count: 10, duration: 0.1, group: 10 }),
    frames('audio', { start, count: 10, duration: 0.1 }),
  ];
  const [video, audio] = segment(5);
  await append(sourceBuffer, video);
  assert.deepStrictEqual(buffered(sourceBuffer), [], 'the other track may begin earlier');
  await append(sourceBuffer, audio, segmentEnd);
  assert.deepStrictEqual([sourceBuffer.timestampOffset, buffered(sourceBuffer)], [-5, [[0.01, 1]]]);
  await append(sourceBuffer, ...segment(0), segmentEnd);
  assert.deepStrictEqual([Math.round(sourceBuffer.timestampOffset * 100), buffered(sourceBuffer)], [101, [[0.01, 2.01]]]);
  for (const offset of [10, 5]) {
    sourceBuffer.timestampOffset = offset;
    await append(sourceBuffer, ...segment(0), segmentEnd);
  }
  sourceBuffer.abort();
  await append(sourceBuffer, ...segment(0), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0.01, 2.01], [5.01, 7.01], [10.01, 11]], 'behind what came last');
});

test('audio that begins within a frame replaces it; audio that abuts on one does not', async () => {
  const { sourceBuffer, control } = await openBuffer(audioType, 'audio');
  await append(sourceBuffer, frames('audio', { start: 0, count: 5, duration: 0.02 }), segmentEnd);
  sourceBuffer.abort();
  await append(sourceBuffer, frames('audio', { start: 0.1 - 1e-5, count: 5, duration: 0.02 }), segmentEnd);
  assert.strictEqual(control.held.get('audio').size, 10);
  sourceBuffer.abort();
  await append(sourceBuffer, frames('audio', { start: 0.19, count: 5, duration: 0.02 }), segmentEnd);
  assert.strictEqual(control.held.get('audio').size, 14);
});

test('remove() takes until the next random access point, and a group that lost its last frame ends', async () => {
  const { sourceBuffer, mediaSource } = await openBuffer(videoType, 'video');
  mediaSource.duration = 100;
  await append(sourceBuffer, frames('video', { start: 0, count: 10, duration: 1, group: 4 }), segmentEnd);
  sourceBuffer.remove(1, 3);
  assert.deepStrictEqual(await ended(sourceBuffer), ['updatestart', 'update', 'updateend']);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 1], [4, 10]]);
  const rest = frames('video', { start: 10, count: 2, duration: 1, group: 2 });
  rest.flags[0] = 0;
  await append(sourceBuffer, rest, segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 1], [4, 12]], 'the group at 8 goes on');
  sourceBuffer.remove(11, 100);
  await ended(sourceBuffer);
  rest.pts.set([12, 13]);
  rest.dts.set([12, 13]);
  await append(sourceBuffer, rest, segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 1], [4, 11]], 'its frames have lost what they depend on');
});

test('tracks that only touch have nothing in common', async () => {
  const { sourceBuffer } = await openBuffer(muxedType, 'video', 'audio');
  await append(sourceBuffer, frames('video', { start: 0, count: 1, duration: 1 }), frames('audio', { start: 1, count: 1, duration: 1 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), []);
});

test('buffered is what all tracks have; once ended it reaches as far as the longest', async () => {
  const { sourceBuffer, mediaSource, source, control } = await openBuffer(muxedType, 'video', 'audio');
  await append(sourceBuffer, frames('video', { start: 1, count: 3, duration: 1, group: 3 }), frames('audio', { start: 0, count: 5, duration: 1 }), segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[1, 4]]);
  assert.strictEqual(sourceBuffer.buffered, sourceBuffer.buffered);
  mediaSource.endOfStream();
  assert.deepStrictEqual([buffered(sourceBuffer), plain(source.buffered()), mediaSource.duration], [[[1, 5]], [[1, 5]], 5]);
  assert.deepStrictEqual(control.events.at(-1), ['duration', 5]);
});

test('the first frame whose key is missing is told, from the one that is presented on', async () => {
  const { sourceBuffer, source, control } = await openBuffer(videoType, 'video');
  await append(sourceBuffer, frames('video', { start: 0, count: 4, duration: 1, group: 4 }), frames('video', { start: 4, count: 8, duration: 1, group: 4, keyId: 'aa' }), segmentEnd);
  assert.deepStrictEqual([source.nextBlocked(0), source.nextBlocked(5.5)], [4, 5]);
  control.keys.add('aa');
  assert.strictEqual(source.nextBlocked(0), Infinity);
});
