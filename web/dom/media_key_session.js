'use strict';
// MediaKeySession (EME), with Clear Key as the CDM.

const clearKey = require('./clear_key.js');
const { MediaKeyMessageEvent } = require('./encrypted_event.js');
const idl = require('./idl.js');
const { makeStatusMap, replaceStatuses } = require('./media_key_status_map.js');
const { queueEvent, queueTask } = require('./tasks.js');

let lastSessionId = 0;

class MediaKeySession extends window.EventTarget {
  #instance;
  #keysChanged;
  #type;
  #sessionId = '';
  #expiration = NaN;
  #keyStatuses = makeStatusMap();
  #known = new Map(); // key id, hexadecimal → { id, status }
  #isUninitialized = true;
  #isCallable = false;
  #isClosing = false;
  #isClosed = false;
  #closed;
  #resolveClosed;

  /** keysChanged(): the elements that use these keys are to look again. */
  constructor(token, { instance, type, keysChanged } = {}) {
    idl.illegal(token);
    super();
    this.#instance = instance;
    this.#type = type;
    this.#keysChanged = keysChanged;
    this.#closed = new Promise(resolve => { this.#resolveClosed = resolve; });
  }

  get sessionId() {
    return this.#sessionId;
  }
  get expiration() {
    return this.#expiration;
  }
  get closed() {
    return this.#closed;
  }
  get keyStatuses() {
    return this.#keyStatuses;
  }

  async generateRequest(initDataType, initData) {
    idl.needArguments(arguments, 2, 'generateRequest');
    const type = idl.convert('DOMString', initDataType, 'generateRequest: initDataType');
    const source = idl.bufferSource(initData, 'generateRequest: initData');
    this.#begin();
    if (type === '') throw new TypeError('generateRequest: initDataType is empty');
    if (source.length === 0) throw new TypeError('generateRequest: initData is empty');
    if (!clearKey.initDataTypes.includes(type)) throw new window.DOMException(`generateRequest: initialization data of type "${type}" are not supported`, 'NotSupportedError');
    const keyIds = clearKey.keyIdsOf(type, source.slice());
    if (keyIds.length === 0) throw new window.DOMException('generateRequest: the initialization data name no key for this key system', 'NotSupportedError');
    const message = clearKey.licenseRequest(keyIds, this.#type);
    await this.#inTask(() => {
      this.#sessionId = String(++lastSessionId);
      this.#isCallable = true;
    });
    this.#queueMessage('license-request', message);
  }

  async load(sessionId) {
    idl.needArguments(arguments, 1, 'load');
    const id = idl.convert('DOMString', sessionId, 'load: sessionId');
    this.#begin();
    if (id === '') throw new TypeError('load: sessionId is empty');
    throw new TypeError('load: a temporary session is not stored'); // there are no others
  }

  async update(response) {
    idl.needArguments(arguments, 1, 'update');
    const source = idl.bufferSource(response, 'update: response');
    this.#needOpen('update');
    if (source.length === 0) throw new TypeError('update: response is empty');
    const keys = clearKey.parseLicense(source.slice(), this.#type);
    await this.#inTask(() => {
      if (this.#isClosed) throw new window.DOMException('update: the session has been closed', 'InvalidStateError');
      const isNew = keys.some(({ id }) => !this.#known.has(clearKey.toHex(id)));
      for (const key of keys) {
        this.#instance.add(this, key);
        this.#known.set(clearKey.toHex(key.id), { id: key.id, status: 'usable' });
      }
      if (isNew) this.#updateKeyStatuses();
    });
  }

  /** Its promise is resolved before `closed`, and pages see that. */
  close() {
    return new Promise((resolve) => {
      if (this.#isClosing) return resolve();
      if (!this.#isCallable) throw new window.DOMException('close: the session has not been initialized', 'InvalidStateError');
      this.#isClosing = true;
      queueTask(() => {
        resolve();
        this.#sessionClosed('closed-by-application');
      });
    });
  }

  async remove() {
    this.#needOpen('remove');
    await this.#inTask(() => {
      this.#forgetKeys();
      this.#updateKeyStatuses();
    });
  }

  /** What generateRequest() and load() begin with: a session is used once. */
  #begin() {
    if (this.#isClosing || !this.#isUninitialized) throw new window.DOMException('the session has already been used', 'InvalidStateError');
    this.#isUninitialized = false;
  }
  #needOpen(operation) {
    if (this.#isClosing) throw new window.DOMException(`${operation}: the session is closed`, 'InvalidStateError');
    if (!this.#isCallable) throw new window.DOMException(`${operation}: the session has not been initialized`, 'InvalidStateError');
  }
  /** The steps that an algorithm queues a task for; resolves, or rejects, with them. */
  #inTask(steps) {
    return new Promise((resolve, reject) => queueTask(() => {
      try {
        resolve(steps());
      } catch (error) {
        reject(error);
      }
    }));
  }

  /** EME, Queue a "message" Event. */
  #queueMessage(messageType, message) {
    queueEvent(this, 'message', MediaKeyMessageEvent, { messageType, message: message.buffer });
  }
  /** EME, Update Key Statuses. */
  #updateKeyStatuses() {
    replaceStatuses(this.#keyStatuses, [...this.#known.values()]);
    queueEvent(this, 'keystatuseschange');
    queueTask(this.#keysChanged);
  }
  /** EME, Session Closed. */
  #sessionClosed(reason) {
    if (this.#isClosed) return;
    this.#isClosing = this.#isClosed = true;
    this.#forgetKeys();
    this.#updateKeyStatuses();
    this.#expiration = NaN;
    this.#resolveClosed(reason);
  }
  #forgetKeys() {
    this.#instance.removeSession(this);
    this.#known.clear();
  }
}
idl.eventHandlers(MediaKeySession.prototype, ['keystatuseschange', 'message']);

const makeSession = options => new MediaKeySession(idl.secret, options);

module.exports = { MediaKeySession, makeSession };
