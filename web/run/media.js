'use strict';
// What a command line names: a URL, a manifest, or a folder that has one.

const fs = require('fs');
const path = require('path');
const { fileURLToPath } = require('url');

const { players } = require('./players');

/** Of several manifests in a folder the one that leads to the others. */
const mainName = /^(main|master|manifest|index|playlist|stream|dash|output)\./;

function manifestIn(folder, player) {
  const names = fs.readdirSync(folder);
  for (const extension of players[player].manifests) {
    const found = names.filter(name => path.extname(name) === extension);
    const main = found.length === 1 ? found : found.filter(name => mainName.test(name));
    if (main.length === 1) return main[0];
    if (found.length > 0) throw new Error(`there are several manifests in it: name one of ${found.join(', ')}`);
  }
  throw new Error(`there is no manifest for ${player} (*${players[player].manifests.join(', *')}) in it`);
}

/** { url } of what is somewhere else, or { root, name } of a file that is to be served. Throws an Error that says what is wrong. */
function findMedia(text, player) {
  if (/^file:/i.test(text)) return findMedia(fileURLToPath(text), player);
  if (/^[a-z][a-z0-9+.-]*:\/\//i.test(text)) {
    if (!/^https?:/i.test(text)) throw new Error('only http, https and files are played');
    return { url: new URL(text).href };
  }
  const status = fs.statSync(text, { throwIfNoEntry: false });
  if (!status) throw new Error('no such file or folder');
  const file = path.resolve(status.isDirectory() ? path.join(text, manifestIn(text, player)) : text);
  return { root: path.dirname(file), name: path.basename(file) };
}

module.exports = { findMedia };
