'use strict';
// File API, "a URL for Blob and MediaSource reference", for those of this window.

const { randomUUID } = require('crypto');

const idl = require('./idl.js');
const { MediaSource } = require('./media_source.js');

const store = new Map();

const operations = {
  createObjectURL(object) {
    idl.needArguments(arguments, 1, 'URL.createObjectURL');
    if (!(object instanceof MediaSource) && !(object instanceof window.Blob)) {
      throw new TypeError('URL.createObjectURL: the value is neither a Blob nor a MediaSource');
    }
    const url = `blob:${window.location.origin}/${randomUUID()}`;
    store.set(url, object);
    return url;
  },
  revokeObjectURL(url) {
    idl.needArguments(arguments, 1, 'URL.revokeObjectURL');
    store.delete(withoutFragment(idl.convert('DOMString', url, 'URL.revokeObjectURL')));
  },
};

function withoutFragment(url) {
  return url.split('#', 1)[0];
}

/** The Blob or MediaSource behind a URL, or null. To be asked when an attribute is set: a page may revoke the URL right after. */
function resolve(url) {
  return store.get(withoutFragment(url)) ?? null;
}

/** Puts the operations on the window's URL. */
function install() {
  idl.extend(window.URL, operations);
}

module.exports = { install, resolve };
