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

/** Room for sanitizers on a busy machine. */
const patience = 30;

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

/** Resolves with the first value of look() that holds. */
async function until(what, look, seconds = patience) {
  const end = performance.now() + seconds * 1000;
  for (;;) {
    const value = await look();
    if (value) return value;
    if (performance.now() > end) throw new Error(`in ${seconds} s it did not come to this: ${what}`);
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
    await until(`plays on from ${from.toFixed(2)} s${this.#state()}`, () => this.#mustNotFail() && this.video.currentTime >= from + seconds);
  }
  async ends() {
    await until(`ended${this.#state()}`, () => this.#mustNotFail() && this.video.ended);
  }
  #mustNotFail() {
    assert.equal(this.failure, null);
    assert.equal(this.video.error?.message ?? null, null);
    return true;
  }
  #state() {
    const { video } = this;
    return ` (now at ${video.currentTime.toFixed(2)} s, ready state ${video.readyState}, ${video.paused ? 'paused' : 'not paused'})`;
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
    await until(`the picture of the position${this.#state()} is on screen`, isRight).catch(error => {
      throw new Error(`${error.message}; picture ${JSON.stringify(shown)}`);
    });
  }
  /** Watches for so long: no picture is missing and none comes out of its time. */
  async playsEveryPicture(seconds) {
    const { shown, dropped } = this.web.counters();
    const from = this.video.currentTime;
    const heardBefore = soundPlayed().length;
    let last = (await this.picture()).number;
    while (this.video.currentTime < from + seconds) {
      const { number } = await this.picture();
      assert.ok(number >= last, `picture ${number} came behind ${last}`);
      assert.ok(Math.abs(number * pictureSeconds - this.video.currentTime) < 0.2, `picture ${number} stood at ${this.video.currentTime} s`);
      last = number;
      await this.plays(pictureSeconds / 2);
    }
    const expected = (this.video.currentTime - from) / pictureSeconds;
    this.#heard(heardBefore, from, this.video.currentTime);
    const counters = this.web.counters();
    assert.ok(counters.dropped - dropped <= 1, `${counters.dropped - dropped} pictures dropped`); // on a busy machine
    assert.ok(Math.abs(counters.shown - shown - expected) <= 3, `${counters.shown - shown} pictures shown, ${expected.toFixed(1)} were due`);
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
  const web = await WebPlayer.open(name, `${base}/${manifest}`, {
    base,
    licenceUrl: withKeys ? `${base}/licence` : undefined,
    fail: text => { if (playing) playing.failure = text; },
    note: text => playing?.notes.push(text),
    ...options,
  });
  playing = new Playing(web, () => licences);
  try {
    await use(playing, base);
  } finally {
    await web.close();
    await server.close();
  }
}

module.exports = { assert, corpus, keys, manifests, pictureSeconds, streams, until, withPlayer };
