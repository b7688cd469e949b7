'use strict';
// A Blob as a file, so that the backend, which plays URLs, can play it.

const { randomUUID } = require('crypto');
const { rm, writeFile } = require('fs/promises');
const { tmpdir } = require('os');
const path = require('path');
const { pathToFileURL } = require('url');

/** Resolves with { url, remove() }; rejects when the file cannot be written. */
async function blobFile(blob) {
  const file = path.join(tmpdir(), `uva-media-${randomUUID()}`);
  const remove = () => rm(file, { force: true });
  try {
    await writeFile(file, new Uint8Array(await blob.arrayBuffer()), { mode: 0o600 });
  } catch (error) {
    await remove();
    throw error;
  }
  return { url: pathToFileURL(file).href, remove };
}

module.exports = { blobFile };
