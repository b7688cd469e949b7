'use strict';
// The key system org.w3.clearkey (EME, Clear Key): what initialization data, licence requests and
// licences say, and the keys of one instance of it.

const { TextDecoder, TextEncoder } = require('util');

const keySystem = 'org.w3.clearkey';

/** Beyond these nothing is read: no media and no licence server has more to say. */
const longestMessage = 65536;
const longestKeyId = 512;

const keyLength = 16; // AES-128, of both schemes

// ---- texts

function toBase64Url(bytes) {
  return window.btoa(String.fromCharCode(...bytes)).replace(/=+$/, '').replace(/\+/g, '-').replace(/\//g, '_');
}

function fromBase64Url(text) {
  if (typeof text !== 'string' || !/^[\w-]*$/.test(text) || text.length % 4 === 1) throw new TypeError('a value is no base64url without padding');
  const binary = window.atob(text.replace(/-/g, '+').replace(/_/g, '/'));
  return Uint8Array.from(binary, character => character.charCodeAt(0));
}

function toHex(bytes) {
  return Array.from(bytes, byte => byte.toString(16).padStart(2, '0')).join('');
}

function utf8(text) {
  return Uint8Array.from(new TextEncoder().encode(text));
}

/** The JSON object that the bytes are; throws TypeError when they are none. */
function parseObject(bytes, what) {
  if (bytes.length > longestMessage) throw new TypeError(`${what}: longer than ${longestMessage} bytes`);
  let value;
  try {
    value = JSON.parse(new TextDecoder('utf-8', { fatal: true }).decode(bytes));
  } catch (error) {
    throw new TypeError(`${what}: no JSON in UTF-8: ${error.message}`);
  }
  if (value === null || typeof value !== 'object' || Array.isArray(value)) throw new TypeError(`${what}: no JSON object`);
  return value;
}

// ---- initialization data

const commonSystemId = '1077efecc0b24d02ace33c1e52e2fb4b';
const boxType = 0x70737368; // pssh

/** "cenc" Initialization Data Format: the key ids of the first box for all key systems. */
function keyIdsOfBoxes(bytes) {
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  const smallestBox = 32;
  let keyIds = null;
  for (let at = 0; at < bytes.length;) {
    const size = bytes.length - at < smallestBox ? 0 : view.getUint32(at);
    if (size < smallestBox || size > bytes.length - at || view.getUint32(at + 4) !== boxType) throw new TypeError(`initialization data: no 'pssh' box at byte ${at}`);
    const version = view.getUint8(at + 8);
    const isCommon = toHex(bytes.subarray(at + 12, at + 28)) === commonSystemId;
    if (isCommon && version === 1 && keyIds === null) keyIds = keyIdsOfBox(view, at, size);
    at += size;
  }
  return keyIds || [];
}

function keyIdsOfBox(view, at, size) {
  const count = view.getUint32(at + 28);
  const first = 32;
  if (first + count * keyLength + 4 > size) throw new TypeError(`initialization data: a 'pssh' box of ${size} bytes has no room for ${count} key ids`);
  return Array.from({ length: count }, (_, index) => new Uint8Array(view.buffer, view.byteOffset + at + first + index * keyLength, keyLength).slice());
}

/** "keyids" Initialization Data Format. */
function keyIdsOfObject(bytes) {
  const { kids } = parseObject(bytes, 'initialization data');
  if (!Array.isArray(kids)) throw new TypeError('initialization data: "kids" is no array');
  return kids.map(fromBase64Url);
}

/** How the key ids are found, by initialization data type. */
const initDataTypes = {
  cenc: keyIdsOfBoxes,
  keyids: keyIdsOfObject,
  webm: bytes => [bytes.slice()],
};

/** The key ids that initialization data name, none when there is nothing for this key system. Throws TypeError when they are invalid. */
function keyIdsOf(initDataType, bytes) {
  if (bytes.length > longestMessage) throw new TypeError(`initialization data: longer than ${longestMessage} bytes`);
  const keyIds = initDataTypes[initDataType](bytes);
  for (const keyId of keyIds)
    if (keyId.length < 1 || keyId.length > longestKeyId) throw new TypeError(`initialization data: a key id of ${keyId.length} bytes; 1 to ${longestKeyId} are allowed`);
  return keyIds;
}

// ---- requests and licences

/** EME, License Request Format. */
function licenseRequest(keyIds, sessionType) {
  return utf8(JSON.stringify({ kids: keyIds.map(toBase64Url), type: sessionType }));
}

/** One key of a JWK Set, or null when it is none of ours (RFC 7517, 5: such are to be ignored). */
function parseKey(entry) {
  if (entry === null || typeof entry !== 'object' || entry.kty !== 'oct') return null;
  try {
    const id = fromBase64Url(entry.kid);
    const key = fromBase64Url(entry.k);
    return key.length === keyLength && id.length >= 1 && id.length <= longestKeyId ? { id, key } : null;
  } catch {
    return null;
  }
}

/** EME, License Format: the keys, one at least. Throws TypeError when there is none, or for another type of session. */
function parseLicense(bytes, sessionType) {
  const { keys, type = 'temporary' } = parseObject(bytes, 'licence');
  if (!Array.isArray(keys)) throw new TypeError('licence: "keys" is no array');
  if (type !== sessionType) throw new TypeError(`licence: its type is ${JSON.stringify(type)}, the session's "${sessionType}"`);
  const parsed = keys.map(parseKey).filter(key => key !== null);
  if (parsed.length === 0) throw new TypeError('licence: no key of type "oct" with a "kid" and a "k" of 16 bytes');
  return parsed;
}

// ---- the key system

/**
 * The keys that one MediaKeys object has, by session. The player knows them by the instance's number;
 * keys of the same id in several sessions stand for each other, and one is left until the last goes.
 */
class ClearKeyInstance {
  #holders = new Map(); // key id, hexadecimal → Map(session → key)

  constructor() {
    /** The player's name for it: among all instances of the process, from 1. */
    this.number = env.newKeySession();
  }

  hasKey(idHex) {
    return this.#holders.has(idHex);
  }

  add(session, { id, key }) {
    const name = toHex(id);
    const holders = this.#holders.get(name) || new Map();
    holders.set(session, key);
    this.#holders.set(name, holders);
    this.#hand(id, key);
  }

  /** Takes back what the session has; what others have as well stays. */
  removeSession(session) {
    for (const [name, holders] of [...this.#holders]) {
      if (!holders.delete(session)) continue;
      const id = Uint8Array.from(name.match(/../g), digits => parseInt(digits, 16));
      if (holders.size > 0) {
        this.#hand(id, [...holders.values()].pop());
      } else {
        this.#holders.delete(name);
        if (id.length === keyLength) env.native.removeKeys(this.number, id);
      }
    }
  }

  /** Frames are encrypted with keys whose ids have 16 bytes; WebM alone may have others. */
  #hand(id, key) {
    if (id.length === keyLength) env.native.addKey(this.number, id, key);
  }
}

module.exports = { ClearKeyInstance, initDataTypes: Object.keys(initDataTypes), keyIdsOf, keySystem, licenseRequest, parseLicense, toHex, longestMessage };
