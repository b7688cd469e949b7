'use strict';
// A page's session is recorded like any host's, and plays again without the page.
// Usage: record_test.js STREAMS CORPUS UVA_REPLAY, in a box

const { spawnSync } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { test } = require('node:test');
const { assert, keys, streams } = require('./support');

const replay = process.argv[4];
const key = `${keys[0].id}:${keys[0].key}`;

test('what a web player does comes again from its record', t => {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'record-'));
  t.after(() => fs.rmSync(folder, { recursive: true }));
  const record = path.join(folder, 'page.uvarec');
  const run = (command, ...args) => {
    const done = spawnSync(command, args, { encoding: 'utf8', timeout: 300e3, maxBuffer: 1 << 28 });
    assert.equal(done.status, 0, done.stdout + done.stderr);
    return done.stdout;
  };
  process.env.UVA_RECORD = record;
  run(path.join(__dirname, '..', '..', 'web', 'run', 'player'), 'shaka', '--quiet', '--seek', '8', '--key', key, path.join(streams, 'protected'));
  delete process.env.UVA_RECORD;

  const listed = run(replay, '--list', record);
  assert.match(listed, /call +setPosition\(8\)/);
  assert.match(listed, /ask +createDecrypter\(/);
  assert.match(listed, /event +PlaybackFinished/);
  assert.match(listed, /call +UVA_ReleaseBackend\(\)/);
  const count = kind => listed.split(new RegExp(` ${kind} `)).length - 1;
  assert.ok(count('sample') > 100, `${count('sample')} samples`);
  assert.equal(count('freed'), count('sample'));
  assert.equal(count('return'), count('call'));
  run(replay, '--quiet', '--key', key, '--bound', '10000', record); // a busy machine began later then, or now
});
