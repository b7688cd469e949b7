'use strict';
// Each player over clear and encrypted media: storms of seeks, pause, renditions, the end.
// Usage: players_test.js STREAMS CORPUS PLAYER

const { test } = require('node:test');
const { assert, manifests, pictureSeconds, until, withPlayer } = require('./support');

const player = process.argv[4];
const lastPicture = 12 / pictureSeconds - 1;

async function storm({ video }, targets) {
  for (const target of targets) {
    video.currentTime = target;
    await new Promise(resolve => setTimeout(resolve, target * 7 % 60)); // some meet a seek under way, some do not
  }
}

for (const kind of ['clear', 'protected']) {
  test(`${player}, ${kind}: every picture at its time, through seeks, a pause and another rendition to the end`, async () => {
    await withPlayer(player, { manifest: manifests[player][kind], withKeys: kind === 'protected' }, async playing => {
      const { video } = playing;
      await playing.plays();
      await playing.playsEveryPicture(1);

      video.pause();
      await until('paused', () => video.paused && !video.seeking);
      await storm(playing, [5.3, 0.5, 9.9, 3.04, 8]);
      await until('the last seek of the storm has ended', () => !video.seeking);
      await playing.showsItsTime();
      assert.ok(Math.abs(video.currentTime - 8) < 0.1, `at ${video.currentTime}`);

      await video.play();
      await storm(playing, [2, 7.7, 1, 6.5, 3, 8]); // nothing is fetched behind the last one: dash.js jumps there when it stalls
      await playing.plays(0.5);
      assert.ok(video.currentTime > 8 && video.currentTime < 11, `at ${video.currentTime}`);
      await playing.showsItsTime();

      const { width } = await playing.picture();
      playing.web.control.selectHeight(width === 512 ? 144 : 288);
      await until('the other rendition is on screen', async () => ((await playing.picture())?.width ?? width) !== width);
      await playing.plays();
      await playing.showsItsTime();
      await playing.playsEveryPicture(0.5);

      video.currentTime = 10.5;
      await playing.ends();
      await until('the last picture is on screen', async () => Math.abs((await playing.picture())?.number - lastPicture) <= 3); // where the manifest ends a little early
    });
  });
}
