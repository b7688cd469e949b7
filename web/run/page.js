'use strict';
// A page in jsdom whose media elements play through libuvagstbackend.so.

const { JSDOM, VirtualConsole } = require('jsdom');

const { realmRequire } = require('../dom/realm');
const { loadNative } = require('./native');

/** What a page's scripts expect of a window and jsdom does not have, or has otherwise. */
const amendments = {
  // A player takes the renditions that the screen can show; jsdom's screen is 0x0.
  screen(window, { screen }) {
    for (const [name, value] of [['width', screen.width], ['height', screen.height], ['availWidth', screen.width], ['availHeight', screen.height]])
      Object.defineProperty(window.screen, name, { value, configurable: true });
  },
  // jsdom says "Apple Computer, Inc.": players then expect that browser's own key system and bugs.
  vendor(window) {
    Object.defineProperty(window.navigator, 'vendor', { value: '', configurable: true });
  },
  // Encrypted media are for secure contexts; a loopback address is one (Secure Contexts, 3.1). jsdom does not tell.
  secureContext(window) {
    const loopback = /^(127\.|localhost$|\[::1\]$)/.test(window.location.hostname);
    Object.defineProperty(window, 'isSecureContext', { value: loopback || window.location.protocol === 'https:', configurable: true });
  },
};

const consoles = new Set(); // of the pages that are open

/** A promise of a page that nobody handles is told on its console, as in a browser; one of ours is a fault. */
process.on('unhandledRejection', reason => {
  if (reason instanceof Error) throw reason;
  for (const print of consoles) print('error', `unhandled rejection: ${asText(reason)}`);
});

let keySessions = 0; // of the process: the add-on's keys are everybody's

/** Bytes that a source buffer holds, as browsers allow. */
const defaultQuota = { video: 150e6, audio: 12e6 };

class Page {
  #native;
  #console;
  #keySessions = [];

  /**
   * The page at `url`, or the text `html` as if it came from there; it is being parsed when this
   * resolves. Its media element is the backend's.
   *
   * quota: bytes that a source buffer holds, { video, audio }. log(text): a line of the media
   * element's. trace(name, detail): "> operation" of the player, "< event" of the player, or an event
   * of the element. console(level, text): what scripts of the page print; level 'error' also when one
   * throws. before(window): called before the page's first script.
   */
  static async open({ url, html, native = loadNative(), screen = { width: 1920, height: 1080 }, quota = defaultQuota,
    log = () => {}, trace = () => {}, console = () => {}, before = () => {} }) {
    const page = new Page();
    const env = { native, quota, log, trace, now: () => performance.now(), newKeySession: () => page.#newKeySession() };
    page.#native = native;
    page.#console = console;
    consoles.add(console);
    const options = {
      runScripts: 'dangerously',
      resources: 'usable',
      pretendToBeVisual: true,
      virtualConsole: forwarded(console),
      beforeParse(window) {
        for (const amend of Object.values(amendments)) amend(window, { screen });
        page.media = realmRequire(window, env)('./install.js');
        page.media.install();
        before(window);
      },
    };
    page.dom = html === undefined ? await JSDOM.fromURL(url, options) : new JSDOM(html, { url, ...options });
    page.window = page.dom.window;
    page.document = page.window.document;
    return page;
  }

  /** Resolves when the page and what it loads are there. */
  async loaded() {
    if (this.document.readyState !== 'complete') await new Promise(resolve => this.window.addEventListener('load', resolve, { once: true }));
  }

  /** The link of a media element to its player: position, counters(), capture(), describe(); null: it has none. */
  linkOf(element) {
    return this.media.controlOf(element)?.link ?? null;
  }

  /** Ends the page's scripts and gives its players back. Resolves when all are. */
  async close() {
    this.window.close();
    await this.media.releaseAll();
    consoles.delete(this.#console);
    for (const session of this.#keySessions.splice(0)) this.#native.removeKeys(session);
  }

  #newKeySession() {
    this.#keySessions.push(++keySessions);
    return keySessions;
  }
}

function forwarded(print) {
  const virtualConsole = new VirtualConsole();
  for (const level of ['error', 'warn', 'info', 'log', 'debug'])
    virtualConsole.on(level, (...parts) => print(level, parts.map(asText).join(' ')));
  virtualConsole.on('jsdomError', error => print('error', asText(error.cause || error.detail || error)));
  return virtualConsole;
}

function asText(value) {
  if (value === null || typeof value !== 'object') return String(value);
  if (typeof value.stack === 'string') return value.stack;
  if (value.message) return `${value.name || 'error'}: ${value.message}`;
  try {
    return JSON.stringify(value);
  } catch {
    return String(value);
  }
}

module.exports = { Page };
