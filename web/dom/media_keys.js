'use strict';
// MediaKeys, and what EME adds to HTMLMediaElement.

const clearKey = require('./clear_key.js');
const { dictionary } = require('./encrypted_event.js');
const idl = require('./idl.js');
const { MediaKeySession, makeSession } = require('./media_key_session.js');
const access = require('./media_key_system_access.js');
const { MediaKeyStatusMap } = require('./media_key_status_map.js');
const { queueTask } = require('./tasks.js');

const { HTMLMediaElement } = window;

const sessionTypes = ['temporary', 'persistent-license'];
const attached = new WeakMap(); // element → MediaKeys
const attaching = new WeakSet(); // elements

const instanceOf = Symbol('instance');
const userOf = Symbol('user');

class MediaKeys {
  /** The CDM instance. */
  [instanceOf] = new clearKey.ClearKeyInstance();
  /** The element that uses it, or null. */
  [userOf] = null;
  #sessionTypes;

  constructor(token, { sessionTypes: supported = [] } = {}) {
    idl.illegal(token);
    this.#sessionTypes = supported;
  }

  createSession(sessionType = 'temporary') {
    const type = idl.enumeration(sessionTypes, sessionType, 'createSession');
    if (!this.#sessionTypes.includes(type)) throw new window.DOMException(`createSession: sessions of type "${type}" have not been asked for`, 'NotSupportedError');
    return makeSession({ instance: this[instanceOf], type, keysChanged: () => tellUser(this) });
  }

  /** Clear Key restricts no output. */
  async getStatusForPolicy(policy = {}) {
    const { minHdcpVersion } = dictionary(policy, 'getStatusForPolicy');
    if (minHdcpVersion === undefined) throw new TypeError('getStatusForPolicy: the policy has no member');
    idl.convert('DOMString', minHdcpVersion, 'minHdcpVersion');
    return new Promise(resolve => queueTask(() => resolve('usable')));
  }

  /** Clear Key has no use for one. An empty one is none all the same. */
  async setServerCertificate(serverCertificate) {
    idl.needArguments(arguments, 1, 'setServerCertificate');
    const certificate = idl.bufferSource(serverCertificate, 'setServerCertificate');
    if (certificate.length === 0) throw new TypeError('setServerCertificate: the certificate is empty');
    return false;
  }
}

function tellUser(mediaKeys) {
  if (mediaKeys[userOf] !== null) tell(mediaKeys[userOf]);
}

/** The element looks again for keys: EME, Attempt to Resume Playback If Necessary. */
function tell(element) {
  require('./media_element.js').controlOf(element).keysChanged();
}

/** Of the element's MediaKeys, { session: its number for the player, hasKey(id in hexadecimal) }; null without. */
function keysOf(element) {
  const mediaKeys = attached.get(element);
  if (mediaKeys === undefined) return null;
  const instance = mediaKeys[instanceOf];
  return { session: instance.number, hasKey: id => instance.hasKey(id) };
}

/** Why the element cannot have these keys now, as an exception, or null. */
function obstacle(element, mediaKeys) {
  const { HAVE_NOTHING } = HTMLMediaElement;
  if (mediaKeys !== null && ![null, element].includes(mediaKeys[userOf]))
    return new window.DOMException('setMediaKeys: another element uses these keys', 'QuotaExceededError');
  if (attached.has(element) && element.readyState !== HAVE_NOTHING)
    return new window.DOMException('setMediaKeys: the keys are in use; remove the media first', 'InvalidStateError');
  return null;
}

function attach(element, mediaKeys) {
  const current = attached.get(element);
  if (current !== undefined) current[userOf] = null;
  attached.delete(element);
  if (mediaKeys === null) return;
  attached.set(element, mediaKeys);
  mediaKeys[userOf] = element;
}

function needElement(value) {
  if (!(value instanceof HTMLMediaElement) || value === HTMLMediaElement.prototype) throw new TypeError('Illegal invocation');
}

const extension = {
  get mediaKeys() {
    needElement(this);
    return attached.get(this) ?? null;
  },

  async setMediaKeys(mediaKeys) {
    idl.needArguments(arguments, 1, 'setMediaKeys');
    const wanted = mediaKeys ?? null;
    if (wanted !== null && !(wanted instanceof MediaKeys)) throw new TypeError('setMediaKeys: the argument is no MediaKeys');
    needElement(this);
    if (attaching.has(this)) throw new window.DOMException('setMediaKeys: an earlier call is under way', 'InvalidStateError');
    if (wanted === this.mediaKeys) return;
    attaching.add(this);
    await new Promise((resolve, reject) => queueTask(() => {
      attaching.delete(this);
      const reason = obstacle(this, wanted);
      if (reason !== null) return reject(reason);
      attach(this, wanted);
      resolve();
      queueTask(() => tell(this));
    }));
  },
};

function install() {
  idl.expose(MediaKeys, MediaKeySession, MediaKeyStatusMap);
  idl.extend(HTMLMediaElement.prototype, extension);
  access.install(options => new MediaKeys(idl.secret, options));
}

module.exports = { install, keysOf };
