'use strict';
// Where the add-on is.

const fs = require('fs');
const path = require('path');

const projectRoot = path.resolve(__dirname, '..', '..');

/** The add-on: UVA_NATIVE names it, else it is installed beside this folder, else the folder build has it. */
function loadNative() {
  const installed = path.join(__dirname, '..', 'native', 'uva_native.node');
  const built = path.join(projectRoot, 'build', 'web', 'native', 'uva_native.node');
  const file = process.env.UVA_NATIVE || (fs.existsSync(installed) ? installed : built);
  if (!fs.existsSync(file)) throw new Error(`${file} is not there; build it with ./play --web, or name another with UVA_NATIVE`);
  return require(file);
}

module.exports = { loadNative, projectRoot };
