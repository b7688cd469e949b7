'use strict';
// The command `player` as a user runs it, and the list that `wpt` compares with.
// Usage: command_test.js STREAMS CORPUS, in a box

const { spawnSync } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { test } = require('node:test');
const { assert, corpus, keys, streams } = require('./support');

const { Expectations } = require('../../web/run/expectations');

const traceCheck = path.join(__dirname, '..', 'support', 'trace_events.py');
const command = path.join(__dirname, '..', '..', 'web', 'run', 'player');
const run = (...args) => spawnSync(command, args, { encoding: 'utf8', timeout: 300e3 });
/** Pictures of a summary; a busy machine's decoder leaves some out. */
const counted = text => {
  const [, shown, dropped] = /(\d+) pictures shown, (\d+) dropped/.exec(text).map(Number);
  return { shown, dropped };
};
const key = `${keys[0].id}:${keys[0].key}`;

test('plays to the end and writes what was asked for', t => {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'player-'));
  t.after(() => fs.rmSync(folder, { recursive: true }));
  const [snapshot, timeline] = ['picture.png', 'timeline.json'].map(name => path.join(folder, name));
  const done = run('shaka', '--seek', '8,1,0:10', '--key', key, '--snapshot', snapshot, '--timeline', timeline, path.join(streams, 'protected'));
  assert.equal(done.status, 0, done.stdout + done.stderr);
  assert.match(done.stdout, /done {2}.*to the end, \d+x\d+, 12\.\d s long, \d+ pictures shown, \d+ dropped/);
  const { shown, dropped } = counted(done.stdout);
  assert.ok(shown + dropped >= 45, done.stdout);
  assert.deepEqual(fs.readFileSync(snapshot).subarray(1, 4).toString(), 'PNG');
  const traceEvents = JSON.parse(fs.readFileSync(timeline, 'utf8'));
  assert.equal(traceEvents.filter(({ name }) => name === 'seek' ).length >= 3, true);
  assert.ok(traceEvents.some(({ name, ph, dur }) => name === 'playing' && ph === 'X' && dur > 1e6));
  const checked = spawnSync('python3', [traceCheck, timeline, 'page', 'uva', 'event', 'bus', 'feeding', 'decryption', 'seek', 'sink'], { encoding: 'utf8' });
  assert.equal(checked.status, 0, checked.stderr);
});

const failures = {
  'a manifest that is not there': [['dash', '/nosuch.mpd'], 1, /no such file or folder/],
  'segments that are not there': [['shaka', path.join(streams, 'broken.m3u8')], 1, /broken\.m3u8: .*404/],
  'a key that was not named': [['shaka', path.join(streams, 'protected')], 1, /give it with --key 0001/],
  'a wrong key': [['shaka', '--key', '1:2', 'x.mpd'], 2, /32 hexadecimal digits/],
  'a player that there is not': [['flash', 'x.mpd'], 2, /no such player/],
  'a file that the element cannot play': [['element', __filename], 1, /command_test\.js: ./],
};
for (const [what, [args, code, text]] of Object.entries(failures))
  test(`says what is wrong with ${what}`, () => {
    const done = run('--quiet', '--no-progress-timeout', '120', ...args);
    assert.equal(done.status, code, done.stdout + done.stderr);
    assert.equal(done.stdout, '');
    assert.match(done.stderr, text);
    assert.equal(done.stderr.trim().split('\n').length, 1, done.stderr);
  });

test('a player that is not installed is told where to come from', () => {
  const done = spawnSync(command, ['--standalone', 'hls', path.join(streams, 'broken.m3u8')],
    { encoding: 'utf8', env: { ...process.env, UVA_WEB_MODULES: os.tmpdir() } });
  assert.equal(done.status, 1, done.stdout + done.stderr);
  assert.match(done.stderr, /npm install hls\.js.*UVA_WEB_MODULES/);
});

test('the element plays a file by itself', () => {
  const done = run('element', '--start', '1', path.join(streams, 'source.mp4'));
  assert.equal(done.status, 0, done.stdout + done.stderr);
  assert.match(done.stdout, /to the end, 512x288, 12\.\d s long/);
  const { shown, dropped } = counted(done.stdout);
  assert.ok(shown + dropped >= 260 && shown + dropped <= 276, done.stdout);
});

const foreign = { // manifest, below the corpus: player, key
  'dash/cmaf-12-segments/manifest.mpd': ['dash'],
  'dash/clearkey/dash.mpd': ['shaka', '4060a865887842679cbf91ae5bae1e72:fc35340837310cc0fb53de97e22a69e0'],
  'hls/ts/output.m3u8': ['hls'],
};
for (const [manifest, [player, foreignKey]] of Object.entries(foreign))
  test(`${player} plays ${manifest}, which others made`, { skip: !fs.existsSync(path.join(corpus, manifest)) && 'there is no corpus' }, () => {
    const done = run(player, ...(foreignKey ? ['--key', foreignKey, '--seek', '1,18'] : []), path.join(corpus, manifest));
    assert.equal(done.status, 0, done.stdout + done.stderr);
    const { shown, dropped } = counted(done.stdout);
    assert.ok(shown + dropped > 20, done.stdout);
  });

test('the list of expected failures is read as it is written, and its faults are told with their line', () => {
  const list = new Expectations('# why\na/page.html\n    outdated: gone\n        one of  two\n    n/a: no layout\n        *\n', 'list');
  assert.deepEqual(list.of('a/page.html', 'one of\ntwo'), { kind: 'outdated', reason: 'gone' });
  assert.equal(list.of('a/page.html', 'other').kind, 'n/a');
  assert.equal(list.of('b.html', 'one of two'), null);
  assert.deepEqual(list.unseen('a/page.html', []), ['one of two']);
  for (const [text, line] of [['        x\n', 1], ['p\n    because\n', 2], ['p\n    n/a: x\n        s\n        s\n', 4], ['p\np\n', 2]])
    assert.throws(() => new Expectations(text, 'list'), new RegExp(`^Error: list:${line}: `));
});
