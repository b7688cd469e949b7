'use strict';
// The add-on by itself: what it refuses, what the parser answers, and players that play, with their
// pictures counted. Arguments: the folder of streams that the build makes.

const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');
const { test } = require('node:test');
const { pathToFileURL } = require('node:url');
const { Worker, isMainThread, workerData } = require('node:worker_threads');

/** Where the simulated loudspeaker writes what it plays, a line a buffer; its second word is the length. */
const soundLog = path.join(os.tmpdir(), 'sound-of-add-on.log');
process.env.SOUND_LOG = soundLog;

const native = require(process.env.UVA_NATIVE);

const streams = isMainThread ? path.resolve(process.argv[2]) : workerData;
const patience = 150000; // milliseconds: machines may be slow, and busy with other tests
const pictureSeconds = 1 / 25;

/** Bytes of the DASH stream: 0 and 1 are video, 2 is sound. */
function init(stream) {
  return fs.readFileSync(path.join(streams, 'dash', `init-stream${stream}.m4s`));
}
function segment(stream, number) {
  return fs.readFileSync(path.join(streams, 'dash', `chunk-stream${stream}-${String(number).padStart(5, '0')}.m4s`));
}

/** A player with its events, in the order in which they come. */
class Watched {
  events = [];
  #waiting = [];
  #sequence = 0;

  constructor() {
    this.player = new native.Player((event) => {
      this.events.push(event);
      for (const look of [...this.#waiting]) look();
    });
  }

  /** Adds whole segments of a stream, with their own times. */
  feed(stream, numbers) {
    const parser = new native.SegmentParser(stream === 2 ? 'audio/mp4' : 'video/mp4');
    const [{ tracks: [track] }] = parser.append(init(stream));
    const id = this.player.addTrack(track.kind, track.mimeType);
    for (const number of numbers) for (const item of parser.append(segment(stream, number))) if (item.type === 'frames') this.add(id, item);
    return id;
  }
  add(track, { pts, dts, flags, batch }) {
    const indices = Uint32Array.from(pts, (_, i) => i);
    const sequence = Float64Array.from(pts, () => ++this.#sequence);
    let group = sequence[0];
    const groups = Float64Array.from(sequence, (number, i) => (group = flags[i] & 1 ? number : group));
    this.player.add(track, batch, indices, pts, dts, sequence, groups);
  }

  /** Resolves when the predicate holds; it is asked after every event, and every 10 ms. */
  until(what, predicate) {
    return new Promise((resolve, reject) => {
      const end = (settle, value) => {
        clearTimeout(timer);
        clearInterval(poll);
        this.#waiting.splice(this.#waiting.indexOf(look), 1);
        settle(value);
      };
      const look = () => {
        const found = predicate();
        if (found) end(resolve, found);
      };
      const timer = setTimeout(() => end(reject, new Error(`not in time: ${what}; ${this.player.describe()}; ${JSON.stringify(this.events)}`)), patience);
      const poll = setInterval(look, 10);
      this.#waiting.push(look);
      look();
    });
  }
  event(type, from = 0) {
    return this.until(type, () => this.events.slice(from).find((event) => event.type === type));
  }
}

const start = { start: 0, duration: 12, session: 0 };
const four = [1, 2, 3, 4];

if (!isMainThread) {
  // The worker of the last test: it ends while its player plays.
  const watched = new Watched();
  watched.feed(0, four);
  watched.player.open(start);
  watched.player.play();
  watched.event('metadata').then(() => process.exit(0));
} else {
  test('arguments that are none are refused, with operation and name in the text', async () => {
    const player = new native.Player(() => {});
    const track = player.addTrack('video', 'video/x-h264');
    const parser = new native.SegmentParser('video/mp4');
    parser.append(init(0));
    const { batch, pts } = parser.append(segment(0, 1)).find(({ type }) => type === 'frames');
    const one = new Float64Array([1]);
    const first = new Uint32Array([0]);
    const detached = new Uint8Array(8);
    structuredClone(detached.buffer, { transfer: [detached.buffer] });
    const refusals = [
      [() => new native.Player(), TypeError, /callback/],
      [() => new native.Player({}), TypeError, /callback/],
      [() => native.Player(() => {}), TypeError, /./],
      [() => new native.SegmentParser(), TypeError, /type/],
      [() => new native.SegmentParser('video/mp2t'), TypeError, /no parser/],
      [() => new native.SegmentParser('x'.repeat(1e6)), RangeError, /longer/],
      [() => parser.append(), TypeError, /bytes/],
      [() => parser.append([0]), TypeError, /Uint8Array/],
      [() => parser.append(detached), TypeError, /detached/],
      [() => parser.append.call({}, new Uint8Array(1)), TypeError, /./],
      [() => native.canPlayType(), TypeError, /type/],
      [() => native.canPlayType('video/mp4\0'), RangeError, /null/],
      [() => native.addKey(1, new Uint8Array(15), new Uint8Array(16)), RangeError, /id/],
      [() => native.addKey(-1, new Uint8Array(16), new Uint8Array(16)), RangeError, /session/],
      [() => native.addKey(1.5, new Uint8Array(16), new Uint8Array(16)), RangeError, /session/],
      [() => native.hasKey(1, 'zz'), RangeError, /32 hexadecimal/],
      [() => player.addTrack('text', 'text/vtt'), TypeError, /kind/],
      [() => player.addTrack('video', ''), TypeError, /mimeType/],
      [() => player.removeTrack(77), RangeError, /no track 77/],
      [() => player.removeTrack(2 ** 32 + track), RangeError, /no track/],
      [() => player.open(), TypeError, /options/],
      [() => player.open({ start: -1, duration: 0, session: 0 }), RangeError, /start/],
      [() => player.open({ start: 0, duration: Infinity, session: 0 }), RangeError, /duration/],
      [() => player.open({ start: 0, duration: 0, get session() { throw new RangeError('session mine'); } }), RangeError, /mine/],
      [() => player.openUrl(''), TypeError, /url/],
      [() => player.seek(NaN), RangeError, /time/],
      [() => player.seek(1e300), RangeError, /time/],
      [() => player.seek('1'), TypeError, /time/],
      [() => player.setRate(Infinity), RangeError, /rate/],
      [() => player.setVolume(1.1), RangeError, /volume/],
      [() => player.setEnded(1), TypeError, /ended/],
      [() => player.add(track, {}, first, one, one, one, one), TypeError, /batch/],
      [() => player.add(track, batch, new Uint32Array([pts.length]), one, one, one, one), RangeError, /no frame/],
      [() => player.add(track, batch, new Uint32Array(2), one, one, one, one), RangeError, /length/],
      [() => player.add(track, batch, new Uint32Array([0, 0]), new Float64Array(2), new Float64Array(2), new Float64Array(2), new Float64Array(2)), RangeError, /before/],
      [() => player.add(track, batch, first, new Float64Array([NaN]), one, one, one), RangeError, /finite/],
      [() => player.add(track, batch, first, one, one, new Float64Array([-1]), one), RangeError, /sequence/],
      [() => player.remove(track, new Float64Array([0.5])), RangeError, /sequence/],
    ];
    for (const [call, name, message] of refusals) assert.throws(call, (error) => error instanceof name && message.test(error.message), String(call));
    player.add(track, batch, first, one, one, one, one); // nothing had been taken
    assert.throws(() => player.add(track, batch, first, one, one, one, one), RangeError);
    assert.strictEqual(await player.release(), true);
    assert.strictEqual(await player.release(), true, 'twice');
    for (const call of ['play', 'pause', 'resume', 'counters', 'describe', 'capture']) assert.throws(() => player[call](), /released/);
    assert.throws(() => player.position, /released/);
  });

  test('what is no media fails its own player alone, also while it is paused', async () => {
    const file = path.join(os.tmpdir(), 'no-media-of-add-on');
    fs.writeFileSync(file, 'FAIL');
    const sockets = [];
    const silent = net.createServer((socket) => sockets.push(socket.on('error', () => {})));
    await new Promise((resolve) => silent.listen(0, '127.0.0.1', resolve));
    const opened = (url) => {
      const watched = new Watched();
      watched.player.openUrl(url);
      watched.player.pause();
      return watched;
    };
    const errorOf = ({ events }) => events.find(({ type }) => type === 'error');
    const waiting = opened(`http://127.0.0.1:${silent.address().port}/movie.mp4`);
    for (let i = 0; i < 2; ++i) { // behind the second one the first has had its time, too
      const broken = opened(pathToFileURL(file).href);
      const { reason } = await broken.until('an error', () => errorOf(broken));
      assert.match(reason, /type of stream/);
      await broken.player.release();
    }
    assert.strictEqual(errorOf(waiting), undefined);
    for (const socket of sockets) socket.destroy();
    await waiting.player.release();
    silent.close();
    fs.rmSync(file);
  });

  test('the parser gives the same frames in any split, and what came before a fault', () => {
    const all = Buffer.concat([init(0), segment(0, 1), segment(0, 2)]);
    const times = (split) => {
      const parser = new native.SegmentParser('video/mp4; codecs="avc1.4d401e"');
      const found = [];
      for (let at = 0; at < all.length; at += split) for (const item of parser.append(all.subarray(at, at + split))) if (item.type === 'frames') found.push(...item.dts);
      return found;
    };
    assert.strictEqual(times(all.length).length, 50);
    for (const split of [1 << 16, 4096, 333]) assert.deepStrictEqual(times(split), times(all.length));

    const parser = new native.SegmentParser('video/mp4');
    const damaged = Buffer.concat([init(0), segment(0, 1), Buffer.from([0, 0, 0, 3, 0x6d, 0x6f, 0x6f, 0x66])]);
    assert.throws(() => parser.append(damaged), ({ items }) => items.filter(({ type }) => type === 'frames').reduce((sum, { pts }) => sum + pts.length, 0) === 25);
    parser.reset();
    assert.ok(parser.append(segment(0, 2)).some(({ type }) => type === 'frames'));
  });

  test('keys are a session\'s own', () => {
    const [id, key] = [new Uint8Array(16).fill(7), new Uint8Array(16).fill(9)];
    native.addKey(41, id, key);
    assert.deepStrictEqual([native.hasKey(41, '07'.repeat(16)), native.hasKey(42, '07'.repeat(16))], [true, false]);
    native.removeKeys(41);
    assert.ok(!native.hasKey(41, '07'.repeat(16)));
  });

  test('a player plays what it is fed to its end: every picture, and a seek to the one that was meant', async () => {
    const watched = new Watched();
    const { player } = watched;
    watched.feed(0, four);
    watched.feed(2, four);
    player.setEnded(true);
    player.open({ ...start, duration: 4 });
    player.play();
    const { position } = await watched.event('ended');
    assert.ok(Math.abs(position - 4) < 0.1, `it ended at ${position}`);
    const { shown, dropped } = player.counters(); // a busy machine's decoder leaves some out
    assert.ok(shown + dropped >= 98 && shown + dropped <= 100, `pictures: ${JSON.stringify(player.counters())}`);
    const sound = soundSeconds();
    assert.ok(Math.abs(sound - 4) < 0.1, `${sound} s of sound`);

    player.pause();
    const from = watched.events.length;
    const before = player.counters().shown;
    const generation = player.seek(2);
    const seek = await watched.event('seek', from);
    assert.deepStrictEqual([seek.generation, seek.outcome, seek.target], [generation, 'succeeded', 2]);
    await watched.until('a picture', () => player.counters().shown > before);
    assert.strictEqual(numberOf(await player.capture()), 50);
    await player.release();
  });

  test('two players at once count their own pictures; one goes in the middle', async () => {
    const [a, b] = [new Watched(), new Watched()];
    for (const each of [a, b]) {
      each.feed(0, four);
      each.player.open(start);
      each.player.play();
    }
    await a.until('pictures of the one', () => a.player.counters().shown > 10);
    assert.strictEqual(await a.player.release(), true);
    const told = a.events.length;
    const shown = b.player.counters().shown;
    await b.until('pictures of the other', () => b.player.counters().shown > shown + 25);
    assert.strictEqual(a.events.length, told, 'nothing is told behind the release');
    await b.player.release();
  });

  test('a player whose data ends is starved, and is filled by more', async () => {
    const watched = new Watched();
    watched.feed(0, [1]);
    watched.player.open(start);
    watched.player.play();
    await watched.event('starved');
    assert.ok(watched.player.position <= 1 + pictureSeconds);
    const parser = new native.SegmentParser('video/mp4');
    parser.append(init(0));
    for (const item of [2, 3, 4].flatMap((number) => parser.append(segment(0, number)))) if (item.type === 'frames') watched.add(1, item);
    await watched.event('filled');
    await watched.until('it goes on', () => watched.player.position > 2);
    await watched.player.release();
  });

  test('a worker, and a process, may end while a player plays', async () => {
    const worker = new Worker(__filename, { workerData: streams });
    assert.strictEqual(await new Promise((resolve) => worker.once('exit', resolve)), 0);
    for (const ending of ['process.exit(0)', 'player.release(); process.exit(0)', 'throw 1']) {
      const script = `const native = require(process.env.UVA_NATIVE); const player = new native.Player(() => { ${ending} });
        player.addTrack('video', 'video/x-h264'); player.open({ start: 0, duration: 0, session: 0 }); player.play();`;
      const { status, signal } = spawnSync(process.execPath, ['-e', script], { timeout: patience });
      assert.deepStrictEqual([status, signal], [ending === 'throw 1' ? 1 : 0, null], ending);
    }
  });
}

function soundSeconds() {
  const lines = fs.readFileSync(soundLog, 'utf8').trim().split('\n');
  return lines.reduce((sum, line) => sum + Number(line.split(' ')[1]), 0);
}

/** The number that stands across the top of a picture, in 12 blocks, the lowest bit first. */
function numberOf(picture) {
  if (picture === null) return null;
  const { width, height, rgba } = picture;
  const row = Math.floor(height / 16);
  let number = 0;
  for (let bit = 0; bit < 12; ++bit) {
    const at = (row * width + Math.floor(((bit + 0.5) * width) / 12)) * 4;
    if (rgba[at] > 127) number |= 1 << bit;
  }
  return number;
}
