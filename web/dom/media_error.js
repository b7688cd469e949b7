'use strict';
// HTML, "error codes": MediaError.

const idl = require('./idl.js');

class MediaError {
  #code;
  #message;
  constructor(token, code, message) {
    idl.illegal(token);
    this.#code = code;
    this.#message = message;
  }
  get code() {
    return this.#code;
  }
  get message() {
    return this.#message;
  }
}

const codes = {
  MEDIA_ERR_ABORTED: 1,
  MEDIA_ERR_NETWORK: 2,
  MEDIA_ERR_DECODE: 3,
  MEDIA_ERR_SRC_NOT_SUPPORTED: 4,
};
idl.constants(MediaError, codes);

/** `message` says to a person what went wrong; it may be empty. */
function mediaError(code, message = '') {
  return new MediaError(idl.secret, code, message);
}

module.exports = { MediaError, mediaError, ...codes };
