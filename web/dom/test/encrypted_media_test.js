'use strict';
// Encrypted media with Clear Key: what is granted, what is read from outside, whose keys the player has.

const assert = require('node:assert');
const { test } = require('node:test');
const { JSDOM } = require('jsdom');

const { realmRequire } = require('../realm');

/** A window with keys, and what its player was told of them: "session id" → key, hexadecimal. */
function open() {
  const { window } = new JSDOM('<video></video><video></video>', { runScripts: 'dangerously', url: 'http://127.0.0.1/' });
  const held = new Map();
  const hex = (bytes) => Buffer.from(bytes).toString('hex');
  const native = {
    canPlayType: (type) => ({ canPlay: !type.includes('vp09') }),
    addKey: (session, id, key) => held.set(`${session} ${hex(id)}`, hex(key)),
    removeKeys: (session, id) => assert.ok(held.delete(`${session} ${hex(id)}`)),
  };
  let sessions = 0;
  const load = realmRequire(window, { native, newKeySession: () => ++sessions });
  load('./encrypted_event.js').install();
  load('./media_keys.js').install();
  return { window, held };
}

const video = [{ contentType: 'video/mp4; codecs="avc1.64001f"' }];
const access = (window, ...configurations) => window.navigator.requestMediaKeySystemAccess('org.w3.clearkey', configurations);
const mediaKeys = async (window) => (await access(window, { videoCapabilities: video })).createMediaKeys();
const nameOf = (promise) => promise.then(() => null, (error) => error.name);
const utf8 = (text) => new TextEncoder().encode(text);
const base64Url = (hex) => Buffer.from(hex, 'hex').toString('base64url');

const [idA, idB] = ['a', 'b'].map((digit) => digit.repeat(32));
const [key1, key2] = ['1', '2'].map((digit) => digit.repeat(32));
const jwk = (id, key, more) => ({ kty: 'oct', kid: base64Url(id), k: base64Url(key), ...more });
const licence = (...keys) => utf8(JSON.stringify({ keys }));

async function session(keys) {
  const made = keys.createSession();
  const message = new Promise((resolve) => made.addEventListener('message', resolve, { once: true }));
  await made.generateRequest('keyids', utf8(`{"kids":["${base64Url(idA)}"]}`));
  await message;
  return made;
}

test('a configuration is granted with what is supported of it, or not at all', async () => {
  const { window } = open();
  const granted = {
    capabilities: [{ videoCapabilities: [{ contentType: 'video/mp4; codecs="vp09.00.10.08"' }, ...video, { ...video[0], robustness: 'HW' }] },
      { videoCapabilities: [{ ...video[0], encryptionScheme: null, robustness: '' }], audioCapabilities: [], persistentState: 'not-allowed' }],
    'types of initialization data': [{ label: 'mine', initDataTypes: ['sinf', 'cenc'], videoCapabilities: video }, { label: 'mine', initDataTypes: ['cenc'], sessionTypes: ['temporary'] }],
    schemes: [{ videoCapabilities: ['cbcs', 'cbc1', ''].map((encryptionScheme) => ({ ...video[0], encryptionScheme })) },
      { videoCapabilities: [{ ...video[0], encryptionScheme: 'cbcs', robustness: '' }] }],
  };
  for (const [what, [wanted, expected]] of Object.entries(granted)) {
    const configuration = JSON.parse(JSON.stringify((await access(window, wanted)).getConfiguration()));
    assert.deepStrictEqual({ ...configuration, ...expected }, configuration, what);
  }
  const refused = {
    'nothing asked for': {},
    'no content type': { videoCapabilities: [...video, { contentType: '' }] },
    'sound as video': { videoCapabilities: [{ contentType: 'video/mp4; codecs="mp4a.40.2"' }] },
    'no codecs': { videoCapabilities: [{ contentType: 'video/mp4' }] },
    'an identifier': { videoCapabilities: video, distinctiveIdentifier: 'required' },
    'a licence to keep': { videoCapabilities: video, sessionTypes: ['persistent-license'] },
    'initialization data of others': { videoCapabilities: video, initDataTypes: ['sinf'] },
  };
  for (const [what, wanted] of Object.entries(refused)) assert.strictEqual(await nameOf(access(window, wanted)), 'NotSupportedError', what);
  assert.strictEqual(await nameOf(access(window)), 'TypeError');
  assert.strictEqual(await nameOf(access(window, { persistentState: 'perhaps' })), 'TypeError');
});

/** A 'pssh' box for all key systems, or another. */
function box(version, ids, { system = '1077efecc0b24d02ace33c1e52e2fb4b', count = ids.length, size } = {}) {
  const body = Buffer.concat([Buffer.from([version, 0, 0, 0]), Buffer.from(system, 'hex'), ...(version > 0 ? [Buffer.from([0, 0, 0, count])] : []),
    ...ids.map((id) => Buffer.from(id, 'hex')), Buffer.alloc(4)]);
  const head = Buffer.alloc(8);
  head.writeUInt32BE(size ?? body.length + 8);
  head.write('pssh', 4);
  return Buffer.concat([head, body]);
}

test('initialization data: the key ids of a request, or why there are none', async () => {
  const { window } = open();
  const keys = await mediaKeys(window);
  const rows = {
    'one box': ['cenc', box(1, [idA, idB]), [idA, idB]],
    'the first of all systems\' boxes': ['cenc', Buffer.concat([box(0, [], { system: idB }), box(0, []), box(1, [idB]), box(1, [idA])]), [idB]],
    'boxes of others': ['cenc', box(1, [idA], { system: idB }), 'NotSupportedError'],
    'a box that is cut off': ['cenc', box(1, [idA]).subarray(0, 50), 'TypeError'],
    'more key ids than fit': ['cenc', box(1, [idA], { count: 3 }), 'TypeError'],
    'a size of 0': ['cenc', box(1, [idA], { size: 0 }), 'TypeError'],
    'bytes behind a box': ['cenc', Buffer.concat([box(1, [idA]), Buffer.alloc(3)]), 'TypeError'],
    'key ids': ['keyids', utf8(`{"kids":["${base64Url(idA)}"]}`), [idA]],
    'a key id that is none': ['keyids', utf8('{"kids":["+"]}'), 'TypeError'],
    'no object': ['keyids', utf8('[]'), 'TypeError'],
    'no text': ['keyids', Buffer.from([0xff, 0xfe]), 'TypeError'],
    WebM: ['webm', Buffer.from('0102', 'hex'), ['0102']],
    'another type': ['sinf', Buffer.alloc(4), 'NotSupportedError'],
    'too much': ['webm', Buffer.alloc(70000), 'TypeError'],
  };
  for (const [what, [type, data, expected]] of Object.entries(rows)) {
    const made = keys.createSession();
    const message = new Promise((resolve) => made.addEventListener('message', resolve));
    if (typeof expected === 'string') {
      assert.strictEqual(await nameOf(made.generateRequest(type, data)), expected, what);
      continue;
    }
    await made.generateRequest(type, data);
    assert.strictEqual(await nameOf(made.generateRequest(type, data)), 'InvalidStateError', 'a session is used once');
    const request = JSON.parse(Buffer.from((await message).message).toString());
    assert.deepStrictEqual(request, { kids: expected.map(base64Url), type: 'temporary' }, what);
  }
});

test('licences: keys that are valid count, none is an error', async () => {
  const { window, held } = open();
  const made = await session(await mediaKeys(window));
  for (const [what, bytes] of Object.entries({
    'no JSON': utf8('x'),
    'no keys': licence(),
    'a short key': licence(jwk(idA, '11')),
    'of another type': licence(jwk(idA, key1, { kty: 'RSA' })),
    'padded': licence(jwk(idA, key1, { k: `${base64Url(key1)}==` })),
    'for another session type': utf8(JSON.stringify({ keys: [jwk(idA, key1)], type: 'persistent-license' })),
    'too long': utf8(JSON.stringify({ keys: [jwk(idA, key1)], more: 'x'.repeat(70000) })),
  })) assert.strictEqual(await nameOf(made.update(bytes)), 'TypeError', what);
  assert.strictEqual(held.size, 0);
  await made.update(licence(jwk(idB, key2), null, jwk(idA, '11'), jwk(idA, key1)));
  assert.deepStrictEqual([...made.keyStatuses].map(([id, status]) => [Buffer.from(id).toString('hex'), status]), [[idA, 'usable'], [idB, 'usable']]);
  assert.strictEqual(made.keyStatuses.get(Buffer.from(idA, 'hex')), 'usable');
  assert.deepStrictEqual([...held], [[`1 ${idB}`, key2], [`1 ${idA}`, key1]]);
});

test('a session takes back its own keys alone, and tells why it was closed', async () => {
  const { window, held } = open();
  const keys = await mediaKeys(window);
  const [first, second] = [await session(keys), await session(keys)];
  await first.update(licence(jwk(idA, key1)));
  await second.update(licence(jwk(idA, key2), jwk(idB, key2)));
  let changes = 0;
  second.onkeystatuseschange = () => { ++changes; };
  await second.close();
  assert.strictEqual(await second.closed, 'closed-by-application');
  assert.deepStrictEqual([...held], [[`1 ${idA}`, key1]]);
  assert.strictEqual(second.keyStatuses.size, 0);
  await first.remove();
  assert.strictEqual(held.size, 0);
  assert.ok(changes >= 1);
  assert.strictEqual(await nameOf(second.update(licence(jwk(idA, key1)))), 'InvalidStateError');
  assert.strictEqual(await nameOf(second.close()), null, 'once more');
});

test('keys serve one element at a time', async () => {
  const { window } = open();
  const [one, other] = window.document.querySelectorAll('video');
  const [keys, more] = [await mediaKeys(window), await mediaKeys(window)];
  const under = one.setMediaKeys(keys);
  assert.strictEqual(await nameOf(one.setMediaKeys(more)), 'InvalidStateError');
  await under;
  assert.strictEqual(one.mediaKeys, keys);
  assert.strictEqual(await nameOf(other.setMediaKeys(keys)), 'QuotaExceededError');
  Object.defineProperty(one, 'readyState', { value: 1, configurable: true });
  assert.strictEqual(await nameOf(one.setMediaKeys(null)), 'InvalidStateError', 'media are loaded');
  delete one.readyState;
  await one.setMediaKeys(null);
  await other.setMediaKeys(keys);
  assert.deepStrictEqual([one.mediaKeys, other.mediaKeys], [null, keys]);
  assert.strictEqual(await nameOf(one.setMediaKeys({})), 'TypeError');
});
