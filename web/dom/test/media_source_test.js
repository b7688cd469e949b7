'use strict';
// Operations of media sources and source buffers: what they refuse, the events, what is left behind.

const assert = require('node:assert');
const { test } = require('node:test');

const { ScriptedParser, append, buffered, ended, frames, init, openSource, plain, segmentEnd } = require('./window');

const videoType = 'video/mp4; codecs="avc1.64001f"';
const audioType = 'audio/mp4; codecs="mp4a.40.2"';

/** The name of what the steps throw; null when nothing. */
function thrown(steps) {
  try {
    steps();
  } catch (error) {
    return error.name;
  }
  return null;
}

/** Resolves when the tasks that are queued now have run. */
function tasks() {
  return new Promise((resolve) => setImmediate(() => setImmediate(resolve)));
}

test('a long append is parsed in slices, and abort() ends it between two', async () => {
  const { mediaSource } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  ScriptedParser.answers.push({ items: [init(['video'])] }, {}, { items: [frames('video', { start: 0, count: 1, duration: 1 }), segmentEnd] });
  sourceBuffer.appendBuffer(new ArrayBuffer(5 << 19));
  assert.ok(sourceBuffer.updating);
  assert.strictEqual(thrown(() => mediaSource.endOfStream()), 'InvalidStateError');
  await ended(sourceBuffer);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 1]], 'three slices');

  sourceBuffer.appendBuffer(new ArrayBuffer(5 << 19));
  const events = ended(sourceBuffer);
  ScriptedParser.answers.push({ state: 'media' }, { state: 'media' }, { state: 'media' });
  await tasks();
  assert.strictEqual(thrown(() => (sourceBuffer.timestampOffset = 1)), 'InvalidStateError');
  sourceBuffer.abort();
  assert.ok(!sourceBuffer.updating);
  sourceBuffer.timestampOffset = 1;
  const seen = await events;
  await tasks();
  assert.deepStrictEqual([seen, ScriptedParser.answers.splice(0).length], [['updatestart', 'abort', 'updateend'], 1]);
});

test('the bytes are those of the call, whatever the page does with them then', async () => {
  const { mediaSource } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  let seen = null;
  const { append: take } = ScriptedParser.prototype;
  ScriptedParser.prototype.append = (bytes) => ((seen = [...bytes]), []);
  const bytes = Uint8Array.of(0, 7, 8, 0);
  sourceBuffer.appendBuffer(new DataView(bytes.buffer, 1, 2));
  bytes.fill(0);
  await ended(sourceBuffer);
  ScriptedParser.prototype.append = take;
  assert.deepStrictEqual(seen, [7, 8]);
});

test('what came before a fault is taken; then the source ends with "decode"', async () => {
  const { mediaSource, control } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  ScriptedParser.answers.push({ items: [init(['video']), frames('video', { start: 0, count: 2, duration: 1 })], fault: 'byte 9: no box' });
  sourceBuffer.appendBuffer(new Uint8Array(10));
  assert.deepStrictEqual(await ended(sourceBuffer), ['updatestart', 'error', 'updateend']);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 2]]);
  assert.deepStrictEqual([mediaSource.readyState, control.events.at(-1)], ['ended', ['failed', 'decode', 'appendBuffer: byte 9: no box']]);
});

const badStreams = {
  'media before an initialization segment': [videoType, [frames('video', { start: 0, count: 1, duration: 1 })]],
  'no track': ['video/mp4', [init([])]],
  'two tracks of one number': [videoType, [init(['video', 'video'])]],
  'a track that the type does not name': [videoType, [init(['video', 'audio'])]],
  'other tracks than at first': ['video/mp4', [init(['video'])], [init(['audio'])]],
};
for (const [what, [type, ...appends]] of Object.entries(badStreams)) {
  test(`an append fails: ${what}`, async () => {
    const { mediaSource } = await openSource();
    const sourceBuffer = mediaSource.addSourceBuffer(type);
    let events;
    for (const items of appends) events = await append(sourceBuffer, ...items);
    assert.deepStrictEqual(events, ['updatestart', 'error', 'updateend']);
  });
}

test('a later initialization segment may number its track otherwise; changeType() asks for one', async () => {
  const { mediaSource } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  const first = init(['video']);
  first.tracks[0].language = 'und';
  await append(sourceBuffer, first, frames('video', { start: 0, count: 2, duration: 1, group: 2 }), segmentEnd);
  assert.strictEqual(sourceBuffer.videoTracks[0].language, '');
  const second = init(['video']);
  second.tracks[0].id = 9;
  const later = { ...frames('video', { start: 2, count: 6, duration: 1, group: 3 }), track: 9 };
  later.flags[0] = 0;
  await append(sourceBuffer, second, later, segmentEnd);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 2], [5, 8]], 'frames of another configuration begin with a key frame');
  sourceBuffer.changeType('video/mp4; codecs="hvc1.1.6.L93.B0"');
  assert.deepStrictEqual(await append(sourceBuffer, later), ['updatestart', 'error', 'updateend']);
});

test('a full buffer loses what was played, then what is far ahead, and then refuses without a loss', async () => {
  const { mediaSource, control } = await openSource({ quota: { video: 1000, audio: 0 } });
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  const seconds = (start, count) => frames('video', { start, count, duration: 1, group: 2, size: 100 });
  const full = new Uint8Array(200);
  await append(sourceBuffer, init(['video']), seconds(0, 8), segmentEnd);
  control.currentTime = 5;
  assert.strictEqual(thrown(() => sourceBuffer.appendBuffer(new Uint8Array(1001))), 'QuotaExceededError');
  sourceBuffer.appendBuffer(full);
  await ended(sourceBuffer);
  assert.deepStrictEqual(buffered(sourceBuffer), [[0, 8]], 'there is room');
  await append(sourceBuffer, seconds(20, 2), segmentEnd);
  sourceBuffer.appendBuffer(full);
  await ended(sourceBuffer);
  assert.deepStrictEqual(buffered(sourceBuffer), [[2, 8], [20, 22]]);
  sourceBuffer.appendBuffer(new Uint8Array(600));
  await ended(sourceBuffer);
  assert.deepStrictEqual(buffered(sourceBuffer), [[4, 8]]);
  const held = control.held.get('video').size;
  assert.strictEqual(thrown(() => sourceBuffer.appendBuffer(new Uint8Array(700))), 'QuotaExceededError');
  assert.deepStrictEqual([sourceBuffer.updating, control.held.get('video').size], [false, held]);
});

test('what playback is about to begin with is kept', async () => {
  const { mediaSource, control } = await openSource({ quota: { video: 1000, audio: 0 } });
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  await append(sourceBuffer, init(['video']), frames('video', { start: 0.5, count: 8, duration: 1, group: 2, size: 100 }), segmentEnd);
  assert.strictEqual(thrown(() => sourceBuffer.appendBuffer(new Uint8Array(300))), 'QuotaExceededError');
  assert.strictEqual(control.held.get('video').size, 8);
});

test('the duration follows the frames, and is not set below one', async () => {
  const { mediaSource, control } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  await append(sourceBuffer, init(['video'], 2), frames('video', { start: 0, count: 4, duration: 1, group: 4 }), segmentEnd);
  assert.strictEqual(mediaSource.duration, 4);
  assert.strictEqual(thrown(() => (mediaSource.duration = 2.5)), 'InvalidStateError');
  mediaSource.duration = 3.5;
  assert.strictEqual(mediaSource.duration, 4, 'the last frame is shown until then');
  mediaSource.duration = 60;
  assert.deepStrictEqual(control.events.filter(([what]) => what === 'duration').map(([, value]) => value), [2, 4, 60]);
  for (const value of [NaN, -1]) assert.strictEqual(thrown(() => (mediaSource.duration = value)), 'TypeError');
});

test('active source buffers follow the tracks, in their order', async () => {
  const { mediaSource, source, control } = await openSource();
  const [video, audio] = [videoType, audioType].map((type) => mediaSource.addSourceBuffer(type));
  await append(audio, init(['audio']));
  assert.ok(!control.events.some(([what]) => what === 'metadata'), 'there is a source buffer that has none');
  await append(video, init(['video']));
  assert.ok(control.events.some(([what]) => what === 'metadata'));
  assert.deepStrictEqual([...mediaSource.activeSourceBuffers], [video, audio]);
  const events = [];
  mediaSource.activeSourceBuffers.onremovesourcebuffer = () => events.push('removed');
  audio.audioTracks[0].enabled = false;
  await append(video, frames('video', { start: 0, count: 1, duration: 1 }), segmentEnd);
  assert.deepStrictEqual([[...mediaSource.activeSourceBuffers], plain(source.buffered()), events], [[video], [[0, 1]], ['removed']]);
});

test('an ended source reaches as far as its longest, opens again once, and lets a source buffer go in the middle', async () => {
  const { mediaSource, source } = await openSource();
  const [video, audio] = [videoType, audioType].map((type) => mediaSource.addSourceBuffer(type));
  await append(video, init(['video']), frames('video', { start: 0, count: 4, duration: 1, group: 4 }), segmentEnd);
  await append(audio, init(['audio']), frames('audio', { start: 0, count: 5, duration: 1 }), segmentEnd);
  assert.deepStrictEqual(plain(source.buffered()), [[0, 4]]);
  mediaSource.endOfStream();
  assert.deepStrictEqual(plain(source.buffered()), [[0, 5]]);
  const opened = [];
  mediaSource.onsourceopen = () => opened.push(mediaSource.readyState);
  await append(video);
  audio.appendBuffer(new Uint8Array(1));
  const events = ended(audio);
  mediaSource.removeSourceBuffer(audio);
  assert.deepStrictEqual(await events, ['updatestart', 'abort', 'updateend']);
  assert.deepStrictEqual([opened, plain(source.buffered()), mediaSource.sourceBuffers[1]], [['open'], [[0, 4]], undefined]);
  ScriptedParser.answers.length = 0;
});

test('live: seekable joins the live range and what is buffered', async () => {
  const { mediaSource, source } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  await append(sourceBuffer, init(['video']), frames('video', { start: 10, count: 5, duration: 1, group: 5 }), segmentEnd);
  assert.deepStrictEqual(plain(source.seekable()), [[0, 15]]);
  mediaSource.setLiveSeekableRange(12, 40);
  assert.deepStrictEqual(plain(source.seekable()), [[10, 40]]);
  assert.strictEqual(thrown(() => mediaSource.setLiveSeekableRange(2, 1)), 'TypeError');
});

test('detaching leaves nothing, and is seen before the source opens again', async () => {
  const { mediaSource, source, control, load } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  await append(sourceBuffer, init(['video']), frames('video', { start: 0, count: 1, duration: 1 }), segmentEnd);
  const [track] = sourceBuffer.videoTracks;
  const events = [];
  mediaSource.onsourceclose = () => events.push(mediaSource.readyState);
  control.videoTracks.onremovetrack = () => events.push('removetrack');
  control.videoTracks.onchange = () => events.push('change');
  sourceBuffer.appendBuffer(new Uint8Array(1));
  source.detach();
  const { attach } = load('./media_source.js');
  assert.notStrictEqual(attach(mediaSource, control), null);
  assert.strictEqual(attach(mediaSource, control), null, 'it is about to open');
  await tasks();
  assert.deepStrictEqual([events, mediaSource.readyState], [['removetrack', 'change', 'closed'], 'open']);
  assert.deepStrictEqual([mediaSource.sourceBuffers.length, control.videoTracks.length, track.sourceBuffer, control.held.size], [0, 0, null, 0]);
  assert.strictEqual(thrown(() => sourceBuffer.buffered), 'InvalidStateError');
  ScriptedParser.answers.length = 0;
});

test('refusals', async () => {
  const { window, mediaSource } = await openSource();
  mediaSource.addSourceBuffer(videoType);
  const refused = {
    TypeError: [() => mediaSource.addSourceBuffer(), () => mediaSource.addSourceBuffer(''), () => mediaSource.removeSourceBuffer({}),
      () => mediaSource.endOfStream('bad'), () => new window.SourceBuffer(), () => mediaSource.sourceBuffers[0].appendBuffer('text'),
      () => mediaSource.sourceBuffers[0].remove(0, 1), () => window.MediaSource.prototype.duration],
    NotSupportedError: [() => mediaSource.addSourceBuffer('video/mp2t; codecs="avc1.64001f"'), () => mediaSource.sourceBuffers[0].changeType('text/vtt')],
    IndexSizeError: [() => mediaSource.sourceBuffers[0].buffered.start(0)],
    QuotaExceededError: [() => mediaSource.addSourceBuffer(videoType)],
    InvalidStateError: [() => new window.MediaSource().endOfStream(), () => new window.MediaSource().addSourceBuffer(audioType)],
  };
  for (const [name, calls] of Object.entries(refused)) for (const call of calls) assert.strictEqual(thrown(call), name, String(call));
});

test('the interfaces have the shape that Web IDL gives them', async () => {
  const { window, mediaSource } = await openSource();
  const sourceBuffer = mediaSource.addSourceBuffer(videoType);
  assert.ok(sourceBuffer instanceof window.EventTarget);
  assert.strictEqual(String(mediaSource.sourceBuffers), '[object SourceBufferList]');
  assert.deepStrictEqual([sourceBuffer.remove.length, mediaSource.endOfStream.length], [2, 0]);
  const members = [];
  for (const name in sourceBuffer) members.push(name);
  for (const name of ['mode', 'updating', 'buffered', 'appendBuffer', 'onupdateend']) assert.ok(members.includes(name), name);
  assert.deepStrictEqual([window.MediaSource.canConstructInDedicatedWorker, window.ManagedMediaSource], [false, undefined]);
  sourceBuffer.mode = 'no mode';
  assert.strictEqual(sourceBuffer.mode, 'segments');
});

test('content types', async () => {
  const { window, native } = await openSource();
  const answers = {
    true: ['video/mp4;codecs="avc1.4d001e,mp4a.40.2"', 'VIDEO/MP4; CODECS="mp4a.40.2 , avc1.4D401E "', 'video/mp4;codecs=avc1.4d001e', 'video/mp4', 'audio/mp4;codecs="mp4a.67"',
      'video/webm; codecs="vp8, vorbis"', 'video/webm;codecs="vp09.00.10.08"', 'video/mp4;codecs="hev1.2.4.L120.B0, ec-3"', 'audio/mp4; codecs="opus"; x="y"'],
    false: ['', 'video', 'video/', 'video/mp4;codecs=""', 'video/webm', 'video/webm;codecs', 'video/webm;codecs=', 'video/webm;codecs="', 'video/webm;codecs=","', 'text/mp4;codecs="avc1.4d001e"',
      'audio/mp4;codecs="avc1.4d001e"', 'video/mp4;codecs="vp8"', 'video/webm;codecs="mp4a.40.2"', 'audio/mp4;codecs="mp4a"', 'audio/mp4;codecs="mp4a.40."', 'audio/mp4;codecs="mp4a.67.3"', 'video/mp4;codecs="avc1"', 'video/mp4; codecs="av01.0.04M.08"', 'audio/mp4; codecs="flac"'],
  };
  const asked = [];
  native.canPlayType = (type) => ({ canPlay: asked.push(type) > 0 });
  assert.ok(window.MediaSource.isTypeSupported('VIDEO/WebM; codecs="vp9, opus"; width=3840'));
  assert.deepStrictEqual(asked, ['video/webm;codecs=vp9;width=3840', 'audio/x-opus'], 'the library is asked by the names it has');
  for (const [expected, types] of Object.entries(answers)) for (const type of types) assert.strictEqual(String(window.MediaSource.isTypeSupported(type)), expected, type);
});

test('object URLs', async () => {
  const { window, load, mediaSource } = await openSource();
  const { install, resolve } = load('./object_url.js');
  install();
  const url = window.URL.createObjectURL(mediaSource);
  assert.ok(url.startsWith('blob:http://page.test/'));
  assert.strictEqual(resolve(`${url}#t=3`), mediaSource);
  window.URL.revokeObjectURL(url);
  assert.strictEqual(resolve(url), null);
  assert.strictEqual(thrown(() => window.URL.createObjectURL(null)), 'TypeError');
});
