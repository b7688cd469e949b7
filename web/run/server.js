'use strict';
// Files over HTTP on the loopback interface, for pages and players; with faults on demand.

const fs = require('fs');
const http = require('http');
const path = require('path');
const { pipeline } = require('stream/promises');

const types = {
  '.aac': 'audio/aac',
  '.flac': 'audio/flac',
  '.htm': 'text/html',
  '.html': 'text/html',
  '.jpg': 'image/jpeg',
  '.js': 'text/javascript',
  '.json': 'application/json',
  '.m3u8': 'application/vnd.apple.mpegurl',
  '.m4a': 'audio/mp4',
  '.m4s': 'video/iso.segment',
  '.mkv': 'video/x-matroska',
  '.mp3': 'audio/mpeg',
  '.mp4': 'video/mp4',
  '.mpd': 'application/dash+xml',
  '.oga': 'audio/ogg',
  '.ogg': 'audio/ogg',
  '.ogv': 'video/ogg',
  '.png': 'image/png',
  '.svg': 'image/svg+xml',
  '.ts': 'video/mp2t',
  '.vtt': 'text/vtt',
  '.webm': 'video/webm',
  '.xhtml': 'application/xhtml+xml',
};

/** "bytes=0-99", "bytes=100-" and "bytes=-100" of `size` bytes: { start, end }, end inclusive; null: all; undefined: none. */
function parseRange(header, size) {
  const parts = /^bytes=(\d*)-(\d*)$/.exec(header || '');
  if (!parts || (parts[1] === '' && parts[2] === '')) return null;
  const start = parts[1] === '' ? Math.max(0, size - Number(parts[2])) : Number(parts[1]);
  const end = parts[1] === '' || parts[2] === '' ? size - 1 : Math.min(Number(parts[2]), size - 1);
  return start <= end ? { start, end } : undefined;
}

/** What FILE.headers says, as a Web Platform Tests server reads it: "Name: value" a line. */
function ownHeaders(file) {
  const own = {};
  if (!fs.existsSync(`${file}.headers`)) return own;
  for (const line of fs.readFileSync(`${file}.headers`, 'utf8').split('\n')) {
    const colon = line.indexOf(':');
    if (colon > 0) own[line.slice(0, colon).trim().toLowerCase()] = line.slice(colon + 1).trim();
  }
  return own;
}

/**
 * Answers GET and HEAD with the files of its folders, the first that has one wins. All of it on the
 * loopback interface, on a port of its own.
 */
class StaticServer {
  #server = http.createServer((request, response) => this.#answer(request, response));
  #roots;
  #pages;
  #plan;
  #seen = new Map();
  #timers = new Map();

  /**
   * roots: folders. pages: { '/path': body or (request body) => body }, in front of all files.
   * plan({ path, range, count }): the fault of this answer, or nothing. count: how often the path was
   * asked for before. A fault: { status } instead of the file; { delay }: seconds before the answer, or a
   * promise that it waits for;
   * { rate } bytes a second; { cutAt } bytes after which the connection breaks.
   */
  constructor({ roots = [], pages = {}, plan = () => null } = {}) {
    this.#roots = roots.map(root => path.resolve(root));
    this.#pages = pages;
    this.#plan = plan;
  }

  /** Resolves with the address, "http://127.0.0.1:PORT". */
  async listen() {
    await new Promise((resolve, reject) => {
      this.#server.once('error', reject);
      this.#server.listen(0, '127.0.0.1', resolve);
    });
    return `http://127.0.0.1:${this.#server.address().port}`;
  }

  close() {
    for (const [timer, wake] of this.#timers) {
      clearTimeout(timer);
      wake();
    }
    this.#server.closeAllConnections();
    return new Promise(resolve => this.#server.close(resolve));
  }

  #answer(request, response) {
    this.#send(request, response).catch(error => {
      if (!response.headersSent) response.writeHead(500, { 'content-type': 'text/plain' }).end(`${error.message}\n`);
      else response.destroy();
    });
  }

  async #send(request, response) {
    const name = this.#pathOf(request.url);
    const count = this.#seen.get(name) || 0;
    this.#seen.set(name, count + 1);
    const fault = this.#plan({ path: name, range: request.headers.range, count }) || {};
    response.setHeader('access-control-allow-origin', '*');
    response.setHeader('access-control-allow-headers', '*');
    response.setHeader('access-control-expose-headers', '*');
    if (fault.delay) await (typeof fault.delay === 'number' ? this.#wait(fault.delay) : fault.delay);
    if (fault.status) return this.#refuse(response, fault.status);
    if (request.method === 'OPTIONS') return void response.writeHead(204).end();
    if (name !== null && name in this.#pages) return this.#sendPage(request, response, name);
    const file = name === null ? null : this.#find(name);
    if (!file) return this.#refuse(response, 404);
    return this.#sendFile(request, response, file, fault);
  }

  #refuse(response, status) {
    response.writeHead(status, { 'content-type': 'text/plain' }).end(`${status} ${http.STATUS_CODES[status]}\n`);
  }

  /** null: a path that cannot be decoded, or one with a zero byte. */
  #pathOf(url) {
    try {
      const name = decodeURIComponent(url.split(/[?#]/)[0]);
      return name.includes('\0') ? null : path.posix.normalize(name);
    } catch {
      return null;
    }
  }

  #find(name) {
    for (const root of this.#roots) {
      const file = path.join(root, name);
      if (!file.startsWith(root + path.sep)) continue;
      if (fs.statSync(file, { throwIfNoEntry: false })?.isFile()) return file;
    }
    return null;
  }

  async #sendPage(request, response, name) {
    let body = this.#pages[name];
    if (typeof body === 'function') {
      const parts = [];
      for await (const part of request) parts.push(part);
      body = await body(Buffer.concat(parts).toString());
    }
    const type = types[path.extname(name)] || 'text/html';
    response.writeHead(200, { 'content-type': `${type}; charset=utf-8`, 'content-length': Buffer.byteLength(body) });
    response.end(body);
  }

  async #sendFile(request, response, file, fault) {
    const { size } = fs.statSync(file);
    const range = parseRange(request.headers.range, size);
    const headers = {
      'content-type': types[path.extname(file).toLowerCase()] || 'application/octet-stream',
      'accept-ranges': 'bytes',
      'cache-control': 'no-cache',
      ...ownHeaders(file),
    };
    if (range === undefined) return void response.writeHead(416, { 'content-range': `bytes */${size}` }).end();
    if (range) headers['content-range'] = `bytes ${range.start}-${range.end}/${size}`;
    headers['content-length'] = range ? range.end - range.start + 1 : size;
    response.writeHead(range ? 206 : 200, headers);
    if (request.method === 'HEAD' || size === 0) return void response.end();
    const source = fs.createReadStream(file, range || {});
    try {
      await pipeline(source, part => this.#withFaults(part, fault), response);
    } catch (error) {
      if (error.code !== 'ERR_STREAM_PREMATURE_CLOSE') throw error; // the reader has gone
    }
  }

  async *#withFaults(parts, { rate, cutAt = Infinity }) {
    const stepSeconds = 0.05;
    let sent = 0;
    for await (const part of parts) {
      const step = rate ? Math.max(1, Math.ceil(rate * stepSeconds)) : part.length;
      for (let from = 0; from < part.length; from += step) {
        const slice = part.subarray(from, Math.min(from + step, part.length, from + cutAt - sent));
        yield slice;
        sent += slice.length;
        if (sent >= cutAt) throw new Error('cut as planned');
        if (rate) await this.#wait(stepSeconds);
      }
    }
  }

  #wait(seconds) {
    return new Promise(resolve => {
      const timer = setTimeout(() => {
        this.#timers.delete(timer);
        resolve();
      }, seconds * 1000);
      this.#timers.set(timer, resolve);
    });
  }
}

module.exports = { StaticServer };
