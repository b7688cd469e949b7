'use strict';
// Modules whose code runs inside a window's realm, so that their classes are the page's own: what a
// page makes is an instance of the window's EventTarget, and its errors are the window's TypeError.

const fs = require('fs');
const path = require('path');
const vm = require('vm');

const { contextOf } = require('./jsdom');

/**
 * Answers a `require` for modules of this folder, evaluated once for this window. A module is
 * written as for Node and sees `window` and `env` besides; what is no file of this folder (an npm
 * package of pure functions) comes from Node itself.
 */
function realmRequire(window, env) {
  const context = contextOf(window);
  const loaded = new Map();
  function load(name) {
    if (!name.startsWith('./')) return require(name);
    const file = path.join(__dirname, name.endsWith('.js') ? name : `${name}.js`);
    if (!loaded.has(file)) {
      const module = { exports: {} };
      loaded.set(file, module);
      const source = fs.readFileSync(file, 'utf8');
      const wrapped = `(function (module, exports, require, window, env) {${source}\n})`;
      vm.runInContext(wrapped, context, { filename: file })(module, module.exports, load, window, env);
    }
    return loaded.get(file).exports;
  }
  return load;
}

module.exports = { realmRequire };
