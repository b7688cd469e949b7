'use strict';
// What a page sees of a media element - its states, the order of its events, its promises - while the
// player does what a test says.

const assert = require('node:assert');
const fs = require('node:fs');
const { after, test } = require('node:test');
const { fileURLToPath } = require('node:url');

const { JSDOM } = require('jsdom');

const { realmRequire } = require('../realm');
const { FakePlayer } = require('./fake_player');
const { ScriptedParser, append, buffered, frames, init } = require('./window');

const videoType = 'video/mp4; codecs="avc1.64001f"';
/** A player that is open keeps Node running; these are not. */
const alive = setInterval(() => {}, 1000);
after(() => clearInterval(alive));

const patience = 120000; // milliseconds

/** A window with one video element; its events, timeupdate and progress aside, are in `events`. */
function makePage(html = '<video></video>') {
  const native = { SegmentParser: ScriptedParser, Player: FakePlayer, canPlayType: (type) => ({ canPlay: !type.includes('ogg'), reason: '' }) };
  const dom = new JSDOM('', { url: 'http://page.test/', runScripts: 'outside-only' });
  const env = { native, quota: { video: 1e9, audio: 1e9 }, log: () => {}, now: () => performance.now() };
  realmRequire(dom.window, env)('./install.js').install();
  const { window } = dom;
  window.document.body.innerHTML = html;
  const video = window.document.querySelector('video');
  const events = [];
  for (const type of ['loadstart', 'abort', 'emptied', 'error', 'suspend', 'durationchange', 'resize', 'loadedmetadata', 'loadeddata', 'canplay',
    'canplaythrough', 'play', 'pause', 'playing', 'waiting', 'seeking', 'seeked', 'ended', 'ratechange', 'waitingforkey'])
    video.addEventListener(type, () => events.push(type));
  return { window, video, events, env, take: () => events.splice(0), get player() { return FakePlayer.all.at(-1); } };
}

/** ... with a media source and as many seconds of video, whose end is told or not. */
async function makeFedPage({ seconds, isEnded = false, duration = 10 }) {
  const page = makePage();
  const source = new page.window.MediaSource();
  page.video.src = page.window.URL.createObjectURL(source);
  await heard(source, 'sourceopen');
  const buffer = source.addSourceBuffer(videoType);
  await append(buffer, init(['video'], duration), ...video(0, seconds));
  if (isEnded) source.endOfStream();
  return Object.assign(page, { source, buffer });
}

/** Makes the page's clock stand where the test says, in milliseconds. */
function stopClock(page) {
  const start = page.env.now();
  page.env.now = () => start + page.time;
  page.time = 0;
}

/** Video of 25 pictures a second. */
function video(start, seconds) {
  return seconds === 0 ? [] : [frames('video', { start, count: seconds * 25, duration: 0.04, group: 5 })];
}

function heard(target, type) {
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`no event ${type}`)), patience);
    target.addEventListener(type, (event) => {
      clearTimeout(timer);
      resolve(event);
    }, { once: true });
  });
}

/** Resolves when the page's video has raised this event, also before the call, since take(). */
async function told(page, type) {
  while (!page.events.includes(type)) await heard(page.video, type);
}

test('playback starts with data, waits where it ends and goes on with more', async () => {
  const page = await makeFedPage({ seconds: 1 });
  const { video: element, player } = page;
  assert.strictEqual(element.networkState, element.NETWORK_LOADING);
  await element.play();
  assert.deepStrictEqual(page.take(),
    ['loadstart', 'durationchange', 'resize', 'loadedmetadata', 'loadeddata', 'canplay', 'play', 'playing']);
  assert.deepStrictEqual([element.videoWidth, element.duration, element.readyState, player.isPlaying], [320, 10, element.HAVE_FUTURE_DATA, true]);

  player.position = 1.2; // ahead of the last picture
  await told(page, 'waiting');
  assert.deepStrictEqual([element.currentTime, element.readyState, player.isPlaying], [1, element.HAVE_CURRENT_DATA, false]);

  player.position = 1;
  await append(page.buffer, ...video(1, 4));
  await told(page, 'canplaythrough');
  assert.deepStrictEqual(page.take(), ['waiting', 'canplay', 'playing', 'canplaythrough']);
  assert.ok(player.isPlaying);
});

test('a player that holds for want of data makes the element wait', async () => {
  const page = await makeFedPage({ seconds: 8 });
  await page.video.play();
  page.take();
  page.player.tell({ type: 'starved', track: 'video' });
  await told(page, 'waiting');
  assert.strictEqual(page.video.readyState, page.video.HAVE_CURRENT_DATA);
  page.player.tell({ type: 'filled', track: 'video' });
  await told(page, 'canplaythrough');
  assert.deepStrictEqual(page.take(), ['waiting', 'canplay', 'playing', 'canplaythrough']);
});

test('a seek keeps its very target, and the last of several is the one that counts', async () => {
  const page = await makeFedPage({ seconds: 8 });
  const { video: element, player } = page;
  await element.play();
  page.take();
  element.currentTime = 2;
  const target = 5.123456789012345;
  element.currentTime = target;
  player.answerSeek(2, 1); // the one that was replaced
  assert.ok(element.seeking);
  player.answerSeek(5.1234567); // nanoseconds are cut off
  await told(page, 'seeked');
  assert.strictEqual(element.currentTime, target);
  await told(page, 'canplaythrough');
  assert.deepStrictEqual(page.take(), ['seeking', 'waiting', 'seeking', 'seeked', 'canplay', 'playing', 'canplaythrough']);
  player.position = 5.2;
  await heard(element, 'timeupdate');
  assert.strictEqual(element.currentTime, 5.2);
});

test('times that no player takes are the page\'s, and the player is as far as it can be', async () => {
  const page = makePage();
  const source = new page.window.MediaSource();
  page.video.src = page.window.URL.createObjectURL(source);
  await heard(source, 'sourceopen');
  const buffer = source.addSourceBuffer(videoType);
  page.video.currentTime = 1e10; // "to the end", of a page that does not know it
  await append(buffer, init(['video'], Infinity), ...video(0, 1));
  assert.deepStrictEqual([page.player.calls.pop(), page.video.currentTime], [['open', 1e9], 1e10]);
  source.duration = 1e300;
  page.video.currentTime = 1e15;
  assert.deepStrictEqual([page.player.calls.splice(0), page.video.duration, page.video.currentTime],
    [[['setDuration', 1e9], ['seek', 1e9]], 1e300, 1e15]);
  buffer.timestampOffset = 4e9;
  await append(buffer, ...video(0, 1));
  source.endOfStream();
  assert.deepStrictEqual([source.readyState, page.video.duration], ['ended', 4e9 + 1]);
  page.video.currentTime = 0.5;
  page.player.answerSeek(0.5);
  await told(page, 'seeked');
});

test('the size is that of what is played, not of what has been appended for later', async () => {
  const page = await makeFedPage({ seconds: 2 });
  await page.video.play();
  page.take();
  const smaller = init(['video'], 10);
  Object.assign(smaller.tracks[0], { width: 160, height: 90 });
  await append(page.buffer, smaller, ...video(2, 2));
  assert.deepStrictEqual([page.video.videoWidth, page.take().includes('resize')], [320, false]);
  page.player.tell({ type: 'metadata', width: 160, height: 90, pixelAspectRatio: 1, duration: 10 });
  await told(page, 'resize');
  assert.deepStrictEqual([page.video.videoWidth, page.video.videoHeight], [160, 90]);
});

test('a seek to where nothing is buffered ends when data has come', async () => {
  const page = await makeFedPage({ seconds: 1 });
  const { video: element, player } = page;
  await told(page, 'canplay');
  page.take();
  element.currentTime = 5;
  player.answerSeek(5);
  await told(page, 'seeking');
  assert.deepStrictEqual([element.seeking, element.readyState], [true, element.HAVE_METADATA]);
  await append(page.buffer, ...video(5, 1));
  await told(page, 'canplay');
  assert.deepStrictEqual(buffered(element), [[0, 1], [5, 6]]);
  assert.deepStrictEqual(page.take(), ['seeking', 'seeked', 'canplay']);
});

test('the end: pause and ended, a loop begins anew, play() goes back', async () => {
  const page = await makeFedPage({ seconds: 2, isEnded: true });
  const { video: element, player } = page;
  await element.play();
  await told(page, 'canplaythrough');
  page.take();
  player.position = 1.99;
  player.tell({ type: 'ended', position: 1.99 });
  await told(page, 'ended');
  assert.deepStrictEqual(page.take(), ['pause', 'ended']);
  assert.deepStrictEqual([element.ended, element.paused, element.currentTime], [true, true, 2]);

  const playing = element.play();
  player.answerSeek(0);
  await playing;
  assert.deepStrictEqual([element.ended, element.currentTime], [false, 0]);
  page.take();

  element.loop = true;
  player.position = 2;
  player.tell({ type: 'ended', position: 2 });
  player.answerSeek(0);
  await told(page, 'seeked');
  assert.ok(!page.take().includes('ended'));
  assert.deepStrictEqual([element.paused, player.calls.at(-1)], [false, ['seek', 0]]);
});

test('a seek to the end is over before playback has ended', async () => {
  const page = await makeFedPage({ seconds: 2 });
  const { video: element, player } = page;
  await element.play();
  element.currentTime = 10;
  await told(page, 'seeking');
  page.take();
  page.source.endOfStream();
  await new Promise((resolve) => setTimeout(resolve, 50)); // some looks
  assert.ok(!page.take().includes('ended'));
  player.answerSeek(2);
  await told(page, 'ended');
  assert.deepStrictEqual(page.take().filter((type) => ['seeked', 'ended'].includes(type)), ['seeked', 'ended']);
});

test('what begins soon behind 0 is played from 0, what begins later is not', async () => {
  for (const [start, readyState] of [[0.9, 3], [1.1, 1]]) {
    const page = await makeFedPage({ seconds: 0 });
    await append(page.buffer, ...video(start, 1));
    await new Promise((resolve) => setTimeout(resolve, 50)); // some looks
    assert.deepStrictEqual([page.video.readyState, page.video.buffered.start(0)], [readyState, start]);
  }
});

test('what is buffered ahead is enough once it has lasted, the rest of a source at once', async () => {
  const page = await makeFedPage({ seconds: 0 });
  stopClock(page);
  await append(page.buffer, ...video(0, 5));
  await told(page, 'canplay');
  await new Promise((resolve) => setTimeout(resolve, 50)); // some looks
  assert.strictEqual(page.video.readyState, page.video.HAVE_FUTURE_DATA);
  page.source.endOfStream();
  await told(page, 'canplaythrough');
  assert.strictEqual(page.video.readyState, page.video.HAVE_ENOUGH_DATA);
});

test('an audio track that is disabled is not heard', async () => {
  const page = makePage();
  const source = new page.window.MediaSource();
  page.video.src = page.window.URL.createObjectURL(source);
  await heard(source, 'sourceopen');
  await append(source.addSourceBuffer('audio/mp4; codecs="mp4a.40.2"'), init(['audio'], 10), frames('audio', { start: 0, count: 100, duration: 0.02 }));
  page.video.volume = 0.5;
  const [track] = page.video.audioTracks;
  track.enabled = false;
  assert.strictEqual(page.player.volume, 0);
  track.enabled = true;
  assert.strictEqual(page.player.volume, 0.5);
});

test('cues begin and end with playback, also those between two looks, and can pause it', async () => {
  const page = await makeFedPage({ seconds: 8 });
  const { video: element, player, window } = page;
  const track = element.addTextTrack('metadata');
  const seen = [];
  for (const [id, start, end] of [['first', 0, 1], ['brief', 1.1, 1.2], ['last', 2, 3]]) {
    const cue = Object.assign(new window.VTTCue(start, end, ''), { id, pauseOnExit: id === 'last' });
    for (const type of ['enter', 'exit']) cue.addEventListener(type, () => seen.push(`${type} ${id}`));
    track.addCue(cue);
  }
  await element.play();
  assert.deepStrictEqual([...track.activeCues].map(({ id }) => id), ['first']);
  await heard(track, 'cuechange');
  player.position = 2.5;
  await heard(track, 'cuechange');
  assert.deepStrictEqual(seen.splice(0), ['enter first', 'exit first', 'enter brief', 'exit brief', 'enter last']);
  const late = new window.VTTCue(2, Infinity, '');
  track.addCue(late);
  await heard(late, 'enter');
  assert.strictEqual(track.activeCues.length, 2);
  assert.throws(() => { track.cues[5] = late; }, { name: 'TypeError' });
  player.position = 3.5;
  await told(page, 'pause');
  element.currentTime = 0.5;
  player.answerSeek(0.5);
  await told(page, 'seeked');
  assert.deepStrictEqual([seen.splice(0), track.activeCues[0].id], [['exit last', 'enter first'], 'first']);
  track.mode = 'disabled';
  track.mode = 'hidden';
  assert.strictEqual(track.activeCues.length, 0);
});

test('the attribute muted counts for what a parser makes', () => {
  const page = makePage('<video muted></video>');
  const scripted = page.window.document.createElement('video');
  scripted.setAttribute('muted', '');
  assert.deepStrictEqual([page.video.muted, scripted.muted], [true, false]);
});

test('media whose length was estimated are as long as they were in the end', async () => {
  const page = makePage('<video autoplay src="a.mp3"></video>');
  await told(page, 'loadstart');
  page.player.tell({ type: 'metadata', width: 0, height: 0, pixelAspectRatio: 1, duration: 4 });
  page.player.tell({ type: 'state', state: 'playing' });
  await told(page, 'playing');
  page.player.tell({ type: 'ended', position: 5 });
  await told(page, 'ended');
  assert.deepStrictEqual([page.video.duration, page.video.currentTime], [5, 5]);
});

test('an end that the source has not told is none', async () => {
  const page = await makeFedPage({ seconds: 2 });
  await page.video.play();
  page.player.tell({ type: 'ended', position: 2 });
  assert.ok(!page.video.ended);
});

test('promises of play() are kept: paused, loaded anew, no source', async () => {
  const page = await makeFedPage({ seconds: 0 });
  const { video: element } = page;
  const paused = element.play();
  element.pause();
  await assert.rejects(paused, { name: 'AbortError' });
  const interrupted = element.play();
  element.load();
  await assert.rejects(interrupted, { name: 'AbortError' });
  assert.strictEqual(page.source.readyState, 'closed');
  element.src = 'nowhere:else';
  await assert.rejects(element.play(), { name: 'NotSupportedError' });
  assert.strictEqual(element.error.code, element.error.MEDIA_ERR_SRC_NOT_SUPPORTED);
});

test('a load forgets the old source: its player goes and none of its events come', async () => {
  const page = await makeFedPage({ seconds: 2 });
  const { video: element, player } = page;
  await element.play();
  page.take();
  element.currentTime = 1;
  element.removeAttribute('src');
  element.load();
  await told(page, 'emptied');
  assert.deepStrictEqual(page.take(), ['abort', 'emptied']);
  assert.ok(player.isReleased);
  assert.deepStrictEqual(
    [element.networkState, element.readyState, element.paused, element.currentTime, element.duration, element.videoWidth, element.seeking],
    [element.NETWORK_EMPTY, element.HAVE_NOTHING, true, 0, NaN, 0, false]);
});

test('a media source can be given as an object; without a library there is an error, not an exception', async () => {
  const page = makePage();
  const source = new page.window.MediaSource();
  page.video.srcObject = source;
  await heard(source, 'sourceopen');
  assert.deepStrictEqual([page.video.currentSrc, page.video.srcObject], ['', source]);
  assert.throws(() => { page.video.srcObject = {}; }, { name: 'TypeError' });
  FakePlayer.fault = new Error('there is no library');
  page.video.src = 'http://page.test/movie.mp4';
  page.video.srcObject = null;
  await told(page, 'error');
  FakePlayer.fault = null;
  assert.deepStrictEqual([page.video.error.code, page.video.error.message], [4, 'there is no library']);
});

test('an error of the player is one of decoding behind the metadata, else of the source', async () => {
  const page = await makeFedPage({ seconds: 2 });
  await page.video.play();
  page.player.tell({ type: 'error', reason: 'the decoder is gone' });
  await heard(page.video, 'error');
  assert.deepStrictEqual([page.video.error.code, page.video.error.message, page.player.isPlaying], [3, 'the decoder is gone', false]);

  page.video.src = 'http://page.test/movie.mp4';
  await told(page, 'loadstart');
  page.player.tell({ type: 'error', reason: 'no such file' });
  await heard(page.video, 'error');
  assert.deepStrictEqual([page.video.error.code, page.video.error.message, page.video.networkState], [4, 'no such file', page.video.NETWORK_NO_SOURCE]);
});

test('of several <source>, the first that can be played is', async () => {
  const page = makePage(`<video><source><source src="a.ogv" type="video/ogg"><source src="b.mp4"><source src="c.mp4"></video>`);
  const errors = [];
  page.window.document.querySelectorAll('source').forEach((each, i) => each.addEventListener('error', () => errors.push(i)));
  await told(page, 'loadstart');
  const sourceFails = heard(page.window.document.querySelectorAll('source')[2], 'error');
  while (page.player.calls.at(-1)?.[1] !== 'http://page.test/b.mp4') await new Promise(setImmediate);
  page.player.tell({ type: 'error', reason: 'not there' });
  await sourceFails;
  while (page.player.calls.at(-1)?.[1] !== 'http://page.test/c.mp4') await new Promise(setImmediate);
  page.player.tell({ type: 'metadata', width: 64, height: 48, pixelAspectRatio: 2, duration: 3 });
  page.player.tell({ type: 'state', state: 'paused' });
  await told(page, 'canplaythrough');
  assert.deepStrictEqual(errors, [0, 1, 2]);
  assert.deepStrictEqual([page.video.currentSrc, page.video.videoWidth, page.video.duration], ['http://page.test/c.mp4', 128, 3]);
});

test('what has not been played is sought at once, and what has when the player is there', async () => {
  const page = makePage('<video src="a.mp4"></video>');
  const { video: element } = page;
  await told(page, 'loadstart');
  page.player.tell({ type: 'metadata', width: 64, height: 48, pixelAspectRatio: 1, duration: 30 });
  page.player.tell({ type: 'state', state: 'paused' });
  await told(page, 'canplaythrough');
  element.currentTime = 1e9;
  await told(page, 'seeked');
  assert.deepStrictEqual([element.currentTime, element.seeking, page.player.calls.at(-1)], [30, false, ['seek', 30]]);
  element.currentTime = 20;
  element.play();
  page.player.tell({ type: 'state', state: 'playing' });
  page.player.answerSeek(20);
  await told(page, 'playing');
  page.take();
  element.currentTime = 5;
  await told(page, 'seeking');
  await new Promise(setImmediate);
  assert.ok(element.seeking);
  page.player.answerSeek(5);
  await told(page, 'seeked');
  assert.strictEqual(element.currentTime, 5);
});

test('a Blob is played from a file, which goes with it', async () => {
  const page = makePage();
  page.video.src = page.window.URL.createObjectURL(new page.window.Blob(['media']));
  const before = FakePlayer.all.length;
  while (FakePlayer.all.length === before) await new Promise(setImmediate);
  const file = fileURLToPath(page.player.calls.at(-1)[1]);
  assert.strictEqual(fs.readFileSync(file, 'utf8'), 'media');
  page.video.removeAttribute('src');
  page.video.load();
  while (fs.existsSync(file)) await new Promise(setImmediate);
});

test('preload="none" waits for play()', async () => {
  const page = makePage('<video preload="none" src="a.mp4"></video>');
  const before = FakePlayer.all.length;
  await told(page, 'suspend');
  assert.deepStrictEqual([page.video.networkState, FakePlayer.all.length], [page.video.NETWORK_IDLE, before]);
  page.video.play();
  assert.deepStrictEqual([page.video.networkState, FakePlayer.all.length], [page.video.NETWORK_LOADING, before + 1]);
  page.player.tell({ type: 'metadata', width: 64, height: 48, pixelAspectRatio: 1, duration: 3 });
  page.player.tell({ type: 'state', state: 'playing' });
  await told(page, 'playing');
});

test('rate 0 halts the player; one that the backend lacks is the attribute\'s alone', async () => {
  const page = await makeFedPage({ seconds: 2 });
  await page.video.play();
  page.video.playbackRate = 0;
  assert.deepStrictEqual([page.player.isPlaying, page.video.paused], [false, false]);
  page.video.playbackRate = 1.5;
  assert.deepStrictEqual([page.player.isPlaying, page.video.playbackRate], [true, 1.5]);
  assert.throws(() => { page.video.playbackRate = -1; }, { name: 'NotSupportedError' });
  page.video.muted = true;
  assert.strictEqual(page.player.volume, 0);
});
