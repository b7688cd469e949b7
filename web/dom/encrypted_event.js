'use strict';
// MediaEncryptedEvent and MediaKeyMessageEvent (EME).

const idl = require('./idl.js');

function arrayBuffer(value, context) {
  if (Object.prototype.toString.call(value) !== '[object ArrayBuffer]') throw new TypeError(`${context} is no ArrayBuffer`);
  return value;
}

/** A dictionary argument of Web IDL: an object, or nothing. */
function dictionary(value, context) {
  if (value === undefined || value === null) return {};
  if (typeof value !== 'object' && typeof value !== 'function') throw new TypeError(`${context}: the init is no object`);
  return value;
}

class MediaEncryptedEvent extends window.Event {
  #initDataType;
  #initData;

  constructor(type, init = {}) {
    idl.needArguments(arguments, 1, 'MediaEncryptedEvent');
    const { initDataType = '', initData = null } = dictionary(init, 'MediaEncryptedEvent');
    super(type, init);
    this.#initDataType = idl.convert('DOMString', initDataType, 'initDataType');
    this.#initData = initData === null ? null : arrayBuffer(initData, 'initData');
  }

  get initDataType() {
    return this.#initDataType;
  }
  get initData() {
    return this.#initData;
  }
}

const messageTypes = ['license-request', 'license-renewal', 'license-release', 'individualization-request'];

class MediaKeyMessageEvent extends window.Event {
  #messageType;
  #message;

  constructor(type, init) {
    idl.needArguments(arguments, 2, 'MediaKeyMessageEvent');
    const { messageType, message } = dictionary(init, 'MediaKeyMessageEvent');
    if (messageType === undefined || message === undefined) throw new TypeError('MediaKeyMessageEvent: messageType and message are required');
    super(type, init);
    this.#messageType = idl.enumeration(messageTypes, messageType, 'messageType');
    this.#message = arrayBuffer(message, 'message');
  }

  get messageType() {
    return this.#messageType;
  }
  get message() {
    return this.#message;
  }
}

function install() {
  idl.expose(MediaEncryptedEvent, MediaKeyMessageEvent);
}

module.exports = { MediaEncryptedEvent, MediaKeyMessageEvent, dictionary, install };
