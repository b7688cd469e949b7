'use strict';
// MediaKeyStatusMap (EME): the keys that a session knows, by key id.

const clearKey = require('./clear_key.js');
const idl = require('./idl.js');

const replaceIn = Symbol('replace');

class MediaKeyStatusMap {
  #entries = new Map(); // key id, hexadecimal → { id, status }, sorted

  constructor(token) {
    idl.illegal(token);
  }

  get size() {
    return this.#entries.size;
  }
  has(keyId) {
    idl.needArguments(arguments, 1, 'MediaKeyStatusMap.has');
    return this.#entries.has(this.#name(keyId));
  }
  get(keyId) {
    idl.needArguments(arguments, 1, 'MediaKeyStatusMap.get');
    return this.#entries.get(this.#name(keyId))?.status;
  }

  *entries() {
    for (const { id, status } of [...this.#entries.values()]) yield [id.slice().buffer, status];
  }
  *keys() {
    for (const [id] of this.entries()) yield id;
  }
  *values() {
    for (const [, status] of this.entries()) yield status;
  }
  forEach(callback, thisValue) {
    if (typeof callback !== 'function') throw new TypeError('MediaKeyStatusMap.forEach: the callback is no function');
    for (const [id, status] of this.entries()) callback.call(thisValue, status, id, this);
  }

  /** EME, Update Key Statuses, step 4: atomic for scripts. `statuses`: [{ id, status }]. */
  [replaceIn](statuses) {
    const named = statuses.map(entry => [clearKey.toHex(entry.id), entry]);
    // Of two key ids of which one begins the other the shorter comes first, as in texts.
    this.#entries = new Map(named.sort(([a], [b]) => (a < b ? -1 : Number(a > b))));
  }

  #name(keyId) {
    return clearKey.toHex(idl.bufferSource(keyId, 'MediaKeyStatusMap'));
  }
}
Object.defineProperty(MediaKeyStatusMap.prototype, Symbol.iterator, { value: MediaKeyStatusMap.prototype.entries, writable: true, configurable: true });

const makeStatusMap = () => new MediaKeyStatusMap(idl.secret);
const replaceStatuses = (map, statuses) => map[replaceIn](statuses);

module.exports = { MediaKeyStatusMap, makeStatusMap, replaceStatuses };
