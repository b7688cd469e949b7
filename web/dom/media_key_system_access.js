'use strict';
// navigator.requestMediaKeySystemAccess and MediaKeySystemAccess (EME), for Clear Key alone.

const clearKey = require('./clear_key.js');
const { dictionary } = require('./encrypted_event.js');
const idl = require('./idl.js');
const { isTypeSupported, parseMimeType, trackKinds } = require('./mime_type.js');
const { queueTask } = require('./tasks.js');

const requirements = ['required', 'optional', 'not-allowed'];
const encryptionSchemes = [null, 'cenc', 'cbcs', 'cbcs-1-9'];

// ---- Web IDL: dictionaries

function sequence(value, convert, context) {
  if (value === null || typeof value !== 'object' || typeof value[Symbol.iterator] !== 'function') throw new TypeError(`${context} is no sequence`);
  return Array.from(value, convert);
}

const text = context => value => idl.convert('DOMString', value, context);

function toCapability(value) {
  const { contentType = '', encryptionScheme = null, robustness = '' } = dictionary(value, 'MediaKeySystemMediaCapability');
  return {
    contentType: text('contentType')(contentType),
    encryptionScheme: encryptionScheme === null ? null : text('encryptionScheme')(encryptionScheme),
    robustness: text('robustness')(robustness),
  };
}

function toConfiguration(value) {
  const {
    label = '', initDataTypes = [], audioCapabilities = [], videoCapabilities = [],
    distinctiveIdentifier = 'optional', persistentState = 'optional', sessionTypes,
  } = dictionary(value, 'MediaKeySystemConfiguration');
  return {
    label: text('label')(label),
    initDataTypes: sequence(initDataTypes, text('initDataTypes'), 'initDataTypes'),
    audioCapabilities: sequence(audioCapabilities, toCapability, 'audioCapabilities'),
    videoCapabilities: sequence(videoCapabilities, toCapability, 'videoCapabilities'),
    distinctiveIdentifier: idl.enumeration(requirements, distinctiveIdentifier, 'distinctiveIdentifier'),
    persistentState: idl.enumeration(requirements, persistentState, 'persistentState'),
    sessionTypes: sessionTypes === undefined ? undefined : sequence(sessionTypes, text('sessionTypes'), 'sessionTypes'),
  };
}

// ---- EME, Get Supported Configuration

/** Steps 4 to 11: Clear Key has no identifier and stores nothing, so what is optional becomes "not-allowed". */
function resolved(requirement) {
  return requirement === 'required' ? null : 'not-allowed';
}

/** EME, Get Supported Capabilities for Audio/Video Type; null: none. */
function supportedCapabilities(kind, capabilities) {
  if (capabilities.some(({ contentType }) => contentType === '')) return null;
  const supported = capabilities.filter(({ contentType, encryptionScheme, robustness }) => {
    const kinds = trackKinds(contentType);
    const isStrictly = kinds !== null && kinds.size === 1 && kinds.has(kind);
    const namesCodecs = Boolean(parseMimeType(contentType)?.codecs?.length); // no container that is encrypted implies them
    return isStrictly && namesCodecs && encryptionSchemes.includes(encryptionScheme) && robustness === '' && isTypeSupported(contentType);
  });
  return supported.length === 0 ? null : supported;
}

/** The accumulated configuration, or null for NotSupported. */
function supportedConfiguration(candidate) {
  const initDataTypes = candidate.initDataTypes.filter(type => clearKey.initDataTypes.includes(type));
  if (candidate.initDataTypes.length > 0 && initDataTypes.length === 0) return null;
  const distinctiveIdentifier = resolved(candidate.distinctiveIdentifier);
  const persistentState = resolved(candidate.persistentState);
  if (distinctiveIdentifier === null || persistentState === null) return null;
  const sessionTypes = candidate.sessionTypes ?? ['temporary'];
  if (sessionTypes.some(type => type !== 'temporary')) return null;
  if (candidate.audioCapabilities.length + candidate.videoCapabilities.length === 0) return null;
  const accumulated = { label: candidate.label, initDataTypes, distinctiveIdentifier, persistentState, sessionTypes };
  for (const [name, kind] of [['videoCapabilities', 'video'], ['audioCapabilities', 'audio']]) {
    accumulated[name] = candidate[name].length === 0 ? [] : supportedCapabilities(kind, candidate[name]);
    if (accumulated[name] === null) return null;
  }
  return accumulated;
}

// ---- the interface

let makeMediaKeys = null; // media_keys.js needs this module too

class MediaKeySystemAccess {
  #keySystem;
  #configuration;

  constructor(token, { keySystem, configuration } = {}) {
    idl.illegal(token);
    this.#keySystem = keySystem;
    this.#configuration = configuration;
  }

  get keySystem() {
    return this.#keySystem;
  }
  getConfiguration() {
    return JSON.parse(JSON.stringify(this.#configuration));
  }
  async createMediaKeys() {
    const { sessionTypes } = this.#configuration;
    return new Promise(resolve => queueTask(() => resolve(makeMediaKeys({ sessionTypes }))));
  }
}

async function requestMediaKeySystemAccess(keySystem, supportedConfigurations) {
  idl.needArguments(arguments, 2, 'requestMediaKeySystemAccess');
  const name = text('keySystem')(keySystem);
  const candidates = sequence(supportedConfigurations, toConfiguration, 'supportedConfigurations');
  if (name === '') throw new TypeError('requestMediaKeySystemAccess: keySystem is empty');
  if (candidates.length === 0) throw new TypeError('requestMediaKeySystemAccess: supportedConfigurations is empty');
  return new Promise((resolve, reject) => queueTask(() => {
    const notSupported = reason => reject(new window.DOMException(`requestMediaKeySystemAccess: ${reason}`, 'NotSupportedError'));
    if (name !== clearKey.keySystem) return notSupported(`the key system "${name}" is not supported; ${clearKey.keySystem} is`);
    const configuration = candidates.reduce((found, candidate) => found ?? supportedConfiguration(candidate), null);
    if (configuration === null) {
      env.log?.(`requestMediaKeySystemAccess refuses ${JSON.stringify(candidates)}`);
      return notSupported('none of the configurations is supported');
    }
    resolve(new MediaKeySystemAccess(idl.secret, { keySystem: name, configuration }));
  }));
}

/** `make`: makes the MediaKeys of a configuration. */
function install(make) {
  makeMediaKeys = make;
  idl.expose(MediaKeySystemAccess);
  idl.extend(window.Navigator.prototype, { requestMediaKeySystemAccess });
}

module.exports = { install };
