'use strict';
// Players under a main system that refuses, is late or dies; two elements at once; release at any time.
// Usage: main_system_test.js STREAMS CORPUS ZANT_MAINSYS, in a box

const { spawn } = require('child_process');
const { once } = require('events');
const { test } = require('node:test');
const { assert, manifests, until, withPlayer } = require('./support');

const program = process.argv[4];

/** A main system that obeys the commands, for as long as use() takes. */
async function withMainSystem(commands, use) {
  const child = spawn(program, [], { stdio: ['pipe', 'pipe', 'inherit'] });
  let text = '';
  child.stdout.on('data', part => { text += part; });
  const ended = once(child, 'exit');
  await until('the main system is up', () => text.includes('main system is up'));
  child.stdin.write(commands.map(command => `${command}\n`).join(''));
  try {
    await use({ order: command => child.stdin.write(`${command}\n`), heard: () => text });
  } finally {
    child.stdin.end('quit\n');
    await ended;
  }
}

test('a refused decoder is the element\'s error, and the player\'s', async () => {
  await withMainSystem(['refuse'], () => withPlayer('shaka', { manifest: manifests.shaka.clear }, async playing => {
    await until('the player has failed', () => playing.failure);
    assert.equal(playing.video.error.code, 3);
    assert.match(playing.video.error.message, /decoder/);
  }));
});

test('a main system that answers late is waited for, from the first picture on', async () => {
  await withMainSystem(['delay 1.5'], () => withPlayer('dash', { manifest: manifests.dash.clear }, async playing => {
    await playing.plays(1);
    await playing.showsItsTime();
  }));
});

test('a main system that dies takes no picture away', async () => {
  await withMainSystem([], ({ order }) => withPlayer('hls', { manifest: manifests.hls.clear }, async playing => {
    await playing.plays();
    order('crash');
    await playing.playsEveryPicture(1);
  }));
});

test('an advertisement that was loaded before plays in between, and the film goes on where it was', async () => {
  await withMainSystem([], () => withPlayer('shaka', { manifest: manifests.shaka.clear }, async (film, base) => {
    await film.plays();
    const ad = new film.constructor(film.web.another(`${base}/${manifests.shaka.clear}`, { autoplay: false }));
    await until('the advertisement is loaded', () => ad.video.readyState >= ad.video.HAVE_FUTURE_DATA);
    await film.plays();
    film.video.pause();
    await ad.video.play();
    const pausedAt = film.video.currentTime;
    await ad.plays(1);
    await ad.showsItsTime();
    ad.video.currentTime = 11;
    await ad.ends();
    await ad.web.control.stop();
    ad.video.remove();
    assert.ok(Math.abs(film.video.currentTime - pausedAt) < 0.2, `is at ${film.video.currentTime}, paused at ${pausedAt}`);
    await film.video.play();
    await film.plays();
    await film.playsEveryPicture(0.5);
  }));
});

/** Where playback is when the page goes. */
const moments = {
  'while it loads': async () => {},
  'at its metadata': ({ video }) => until('metadata', () => video.readyState >= 1),
  'while it plays': playing => playing.plays(),
  'in a seek': async playing => {
    await playing.plays();
    playing.video.currentTime = 9;
  },
  'while a decoder is asked for': ({ video }) => until('metadata', () => video.readyState >= 1),
  'while it waits for its key': ({ video }) => until('data', () => video.buffered.length > 0),
};
for (const [moment, reach] of Object.entries(moments)) {
  test(`a page that goes ${moment} gives the backend back`, async () => {
    const commands = moment.includes('decoder') ? ['ignore'] : [];
    const isProtected = moment.includes('key');
    const options = { manifest: manifests.dash[isProtected ? 'protected' : 'clear'], withKeys: isProtected, licenceDelay: 3600 };
    await withMainSystem(commands, async ({ heard }) => {
      await withPlayer('dash', options, reach);
      assert.doesNotMatch(heard(), /never freed/);
    });
  });
}
