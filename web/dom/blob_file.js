'use strict';
// A Blob as a file, so that the backend, which plays URLs, can play it.

const { randomUUID } = require('crypto');
const { rm, writeFile } = require('fs/promises');
const { tmpdir } = require('os');
const path = require('path');
const { pathToFileURL } = require('url');

/** Its bytes, in a way that Blobs of all versions of jsdom have. */
function bytesOf(blob) {
  return new Promise((resolve, reject) => {
    const reader = new window.FileReader();
    reader.onload = () => resolve(reader.result);
    reader.onerror = () => reject(reader.error);
    reader.readAsArrayBuffer(blob);
  });
}

/** Resolves with { url, remove() }; rejects when the file cannot be written. */
async function blobFile(blob) {
  const file = path.join(tmpdir(), `uva-media-${randomUUID()}`);
  const remove = () => rm(file, { force: true });
  try {
    await writeFile(file, new Uint8Array(await bytesOf(blob)), { mode: 0o600 });
  } catch (error) {
    await remove();
    throw error;
  }
  return { url: pathToFileURL(file).href, remove };
}

module.exports = { blobFile };
