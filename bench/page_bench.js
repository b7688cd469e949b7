'use strict';
// A page's player from its start to the first picture, on the library, against the same player on a
// stand-in that plays nothing and has its first picture as soon as it has been fed.
//
// node page_bench.js PERCENT MANIFEST, in the environment of the build

const path = require('path');

const { FakePlayer } = require('../web/dom/test/fake_player');
const { loadNative } = require('../web/run/native');
const { StaticServer } = require('../web/run/server');
const { WebPlayer } = require('../web/run/web_player');

const [percent, manifest] = process.argv.slice(2);
const turns = Math.max(Math.floor(41 * percent / 100), 1);
const limitSeconds = 120;

/** Has something to show once it plays and each of its tracks has frames. */
class StandIn extends FakePlayer {
  #tracks = new Map();

  addTrack(kind) {
    this.#tracks.set(kind, false);
    return kind;
  }
  add(track) {
    this.#tracks.set(track, true);
  }
  counters() {
    const fed = this.#tracks.size > 0 && [...this.#tracks.values()].every(Boolean);
    return { shown: fed && this.isPlaying ? 1 : 0, dropped: 0, corrupted: 0 };
  }
}

/** Milliseconds from the player's start to its first picture. */
async function firstPicture(native, base, url) {
  const began = performance.now();
  const player = await WebPlayer.open('dash', url, { base, native, keys: [], fail: text => { throw new Error(text); }, note: () => {} });
  while (!(player.counters()?.shown > 0)) {
    if (performance.now() - began > limitSeconds * 1000) throw new Error('no picture was shown');
    await new Promise(resolve => setTimeout(resolve, 1));
  }
  const taken = performance.now() - began;
  await player.close();
  return taken;
}

async function main() {
  const server = new StaticServer({ roots: [path.dirname(manifest)], pages: {}, plan: () => null });
  const base = await server.listen();
  const url = `${base}/${encodeURIComponent(path.basename(manifest))}`;
  const native = loadNative();
  const sides = [['ours', native], ['peer', { ...native, Player: StandIn }]];
  const figures = { row: 'page_start', ours: [], peer: [] };
  for (let turn = percent < 10 ? 1 : 0; turn <= turns; ++turn)
    for (const [side, used] of turn % 2 === 0 ? sides : [...sides].reverse()) {
      const taken = await firstPicture(used, base, url);
      if (turn > 0) figures[side].push(taken); // the first warms up
    }
  await server.close();
  process.stdout.write(`${JSON.stringify(figures)}\n`);
}

main().then(() => process.exit(0), error => {
  process.stderr.write(`page_bench: ${error.stack}\n`);
  process.exit(1);
});
