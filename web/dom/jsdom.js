'use strict';
// What of jsdom and its companions is not the same in all versions: those of package-lock.json, and
// Debian's (node-jsdom 20).

const fs = require('fs');
const path = require('path');
const vm = require('vm');

const lib = path.join(path.dirname(require.resolve('jsdom')), '..', 'lib');
const utils = ['generated/idl/utils.js', 'jsdom/living/generated/utils.js'].map(name => path.join(lib, name)).find(fs.existsSync);

/** The way between an object as pages see it and jsdom's own: { implForWrapper, wrapperForImpl }. */
const { implForWrapper, wrapperForImpl } = require(utils);

const mimeTypes = require('whatwg-mimetype');

/** The class of MIME types (the standard MIME Sniffing's). */
const MIMEType = mimeTypes.MIMEType ?? mimeTypes;

/** The context in which a window's scripts run, though the window is not all there yet. */
function contextOf(window) {
  return vm.isContext(window) ? window : implForWrapper(window.document)._globalObject;
}

module.exports = { MIMEType, contextOf, implForWrapper, wrapperForImpl };
