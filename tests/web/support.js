'use strict';
// What the tests of web players share: a server with the test streams, players on pages, and what is
// on the simulated set's screen.

const assert = require('assert/strict');
const fs = require('fs');
const os = require('os');
const path = require('path');

const { answerRequest } = require('../../web/run/licence');
const { StaticServer } = require('../../web/run/server');
const { WebPlayer } = require('../../web/run/web_player');

const [streams, corpus] = process.argv.slice(2);

const pictureSeconds = 1 / 25;
const keys = [{ id: '000102030405060708090a0b0c0d0e0f', key: '202122232425262728292a2b2c2d2e2f' }]; // of protect_fragments.py

/** By player: the manifest of the clear streams, and of those with Clear Key. */
const manifests = {
  shaka: { clear: 'dash/manifest.mpd', protected: 'protected/manifest.mpd' },
  dash: { clear: 'dash/manifest.mpd', protected: 'protected/manifest.mpd' },
  hls: { clear: 'hls/master.m3u8', protected: 'protected/master.m3u8' },
};

/** Seconds that anything may take: machines may be slow, and busy with other tests. */
const patience = 150;

/** Each process a log of its own; tests of a process play one after the other. */
const soundLog = path.join(os.tmpdir(), `sound-${process.pid}.log`);
process.env.SOUND_LOG = soundLog;

/** What the sound device has played since, [{ time, duration, peak }, ...]. */
function soundPlayed() {
  if (!fs.existsSync(soundLog)) return [];
  return fs.readFileSync(soundLog, 'utf8').trim().split('\n').filter(Boolean).map(line => {
    const [time, duration, peak] = line.split(' ').map(Number);
    return { time, duration, peak };
  });
}

/** Resolves with the first value of look() that holds. what: in words; state() says how it was when it failed. */
async function until(what, look, state = () => '') {
  const end = performance.now() + patience * 1000;
  for (;;) {
    const value = await look();
    if (value) return value;
    if (performance.now() > end) throw new Error(`in ${patience} s it did not come to this: ${what}${state()}`);
    await new Promise(resolve => setTimeout(resolve, 10));
  }
}

/** The number that stands in a picture of make_streams.py. */
function numberIn({ width, height, rgba }) {
  const row = Math.floor(height / 16);
  let number = 0;
  for (let bit = 0; bit < 12; ++bit) {
    const column = Math.floor((bit + 0.5) * width / 12);
    if (rgba[(row * width + column) * 4] > 128) number |= 1 << bit;
  }
  return number;
}

/** A player that plays, with what the tests ask of it. */
class Playing {
  events = [];
  notes = [];
  failure = null;

  /** licences(): how many have been sent. */
  constructor(web, licences = () => 0) {
    this.web = web;
    this.licences = licences;
    this.video = web.video;
    for (const type of ['playing', 'waiting', 'waitingforkey', 'seeked', 'ended', 'error', 'resize', 'encrypted'])
      this.video.addEventListener(type, () => this.events.push(type));
  }

  count(type) {
    return this.events.filter(each => each === type).length;
  }
  /** Resolves when the position has moved by so many seconds. */
  async plays(seconds = 0.3) {
    const from = this.video.currentTime;
    await this.reaches(from + seconds, `plays on from ${from.toFixed(2)} s`);
  }
  async reaches(position, what = `is at ${position} s`) {
    await until(what, () => this.#mustNotFail() && this.video.currentTime >= position, () => this.#state());
  }
  async ends() {
    await until('ended', () => this.#mustNotFail() && this.video.ended, () => this.#state());
  }
  #mustNotFail() {
    assert.equal(this.failure, null);
    assert.equal(this.video.error?.message ?? null, null);
    return true;
  }
  #state() {
    const { video } = this;
    const pictures = JSON.stringify(this.web.counters());
    return ` (now at ${video.currentTime.toFixed(2)} s, ready state ${video.readyState}, ${video.paused ? 'paused' : 'not paused'}, ` +
      `buffered ${JSON.stringify(this.web.buffered())}, pictures ${pictures}, events ${this.events.slice(-12)}; notes: ${this.notes.slice(-5).join('; ')})`;
  }

  /** { number, width } of the picture on screen; null: there is none. */
  async picture() {
    const picture = await this.web.capture();
    return picture && { number: numberIn(picture), width: picture.width };
  }
  /** The picture on screen is that of the position. */
  async showsItsTime(tolerance = 3 * pictureSeconds) {
    let shown = null;
    const isRight = async () => {
      const before = this.video.currentTime;
      shown = await this.picture();
      return shown && shown.number * pictureSeconds > before - tolerance && shown.number * pictureSeconds < this.video.currentTime + tolerance;
    };
    await until('the picture of the position is on screen', isRight, () => `, but ${JSON.stringify(shown)}${this.#state()}`);
  }
  /** Pictures that have left the decoder or were late for it: on a busy machine it leaves some out. */
  pictures() {
    const { shown = 0, dropped = 0 } = this.web.counters() ?? {};
    return shown + dropped;
  }
  /** { number, least, most, dropped }: of the picture on screen, of pictures() around it, and of those that never will be on screen. */
  async counted() {
    const least = this.pictures();
    const { number } = await this.picture();
    return { number, least, most: this.pictures(), dropped: this.web.counters()?.dropped ?? 0 };
  }
  /** Watches for so long: each picture comes once, in its order and not before its time, and the sound has no gap. */
  async playsEveryPicture(seconds) {
    const from = this.video.currentTime;
    const heardBefore = soundPlayed().length;
    const first = await this.counted();
    let last = first;
    while (this.video.currentTime < from + seconds) {
      const next = await this.counted();
      assert.ok(next.number >= last.number, `picture ${next.number} came behind ${last.number}`);
      assert.ok(next.number * pictureSeconds < this.video.currentTime + 0.2, `picture ${next.number} stood at ${this.video.currentTime} s`);
      last = next;
      await this.plays(pictureSeconds / 2);
    }
    mustCount(last.number - first.number, last.least - first.most, last.most - first.least, last.dropped);
    const to = this.video.currentTime;
    await until('the sound is played too', () => soundPlayed().slice(heardBefore).some(({ time }) => time >= to), () => this.#state());
    this.#heard(heardBefore, from, to);
  }
  /** Nothing but the decoder has kept pictures from the screen since the first of the stream. */
  async showedEveryPicture() {
    const { number, least, most, dropped } = await this.counted();
    mustCount(number + 1, least, most, dropped);
  }
  /** The tone was played all the way between these times, without a gap. */
  #heard(before, from, to) {
    const sounds = soundPlayed().slice(before).filter(({ time }) => time > from - 0.1 && time < to);
    const silent = sounds.filter(({ peak }) => peak < 0.05);
    assert.deepEqual(silent, [], 'silence was played');
    const seconds = sounds.reduce((sum, { duration }) => sum + duration, 0);
    assert.ok(Math.abs(seconds - (to - from)) < 0.2, `${seconds.toFixed(2)} s of sound between ${from} and ${to}`);
  }
}

/** Each picture once, as counted at most and at least around a look at the screen; one may be on its way there, and a dropped one may be a later one. */
function mustCount(pictures, least, most, dropped) {
  const open = 2 + dropped;
  assert.ok(least - open <= pictures && pictures <= most + open, `${least} to ${most} pictures were shown or dropped of ${pictures}, ${dropped} dropped in all`);
}

/**
 * A player on a page, from a server of its own, for as long as use(playing, server's base) takes.
 * manifest: below the test streams. plan: faults of the server. licenceDelay: seconds.
 */
async function withPlayer(name, { manifest, withKeys = false, plan = () => null, licenceDelay = 0, ...options }, use) {
  let licences = 0;
  const server = new StaticServer({
    roots: [streams],
    pages: { '/licence': body => (++licences, answerRequest(body, keys)), ...options.pages },
    plan: request => (request.path === '/licence' ? { delay: licenceDelay } : plan(request)),
  });
  const base = await server.listen();
  let playing = null;
  let failure = null; // may come while the player is started
  const web = await WebPlayer.open(name, `${base}/${manifest}`, {
    base,
    licenceUrl: withKeys ? `${base}/licence` : undefined,
    fail: text => { failure = text; if (playing) playing.failure = text; },
    note: text => playing?.notes.push(text),
    ...options,
  });
  playing = new Playing(web, () => licences);
  playing.failure = failure;
  try {
    await use(playing, base);
  } finally {
    await web.close();
    await server.close();
  }
}

module.exports = { assert, corpus, keys, manifests, pictureSeconds, streams, until, withPlayer };
