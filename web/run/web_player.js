'use strict';
// A page with a video element and a player on it.

const fs = require('fs');
const vm = require('vm');

const { Page } = require('./page');
const { players, scriptOf } = require('./players');

const html = '<!DOCTYPE html><html><body><video></video></body></html>';

class WebPlayer {
  /**
   * Loads the player, which begins to load `url`. base: an address of the loopback interface, which
   * becomes the page's. fail(text): playback has ended with an error; note(text): the player tells
   * something else. The other options are those of Page.open.
   */
  static async open(name, url, { base, licenceUrl, keys, at, fail, note, ...options }) {
    const script = scriptOf(name);
    const page = await Page.open({ url: `${base}/`, html, ...options });
    await page.loaded();
    if (script !== null) {
      // The text runs as a script of the page does.
      new vm.Script(fs.readFileSync(script, 'utf8'), { filename: script }).runInContext(page.dom.getInternalVMContext());
    }
    return new WebPlayer(name, url, page, page.document.querySelector('video'), { licenceUrl, keys, at, fail, note });
  }

  constructor(name, url, page, video, { licenceUrl, keys = [], at, fail = () => {}, note = () => {}, autoplay = true }) {
    this.name = name;
    this.page = page;
    this.video = video;
    this.control = players[name].start(page.window, video, { url, licenceUrl, keys, at, autoplay, fail, note }) || { stop() {} };
  }

  /** The same player once more, on an element of its own in the same page; autoplay: false loads only. */
  another(url, options = {}) {
    const video = this.page.document.body.appendChild(this.page.document.createElement('video'));
    return new WebPlayer(this.name, url, this.page, video, options);
  }

  /** Of the native player: { shown, dropped, corrupted, ... }; null while the element has none. */
  counters() {
    return this.page.linkOf(this.video)?.counters() ?? null;
  }
  /** Resolves with the picture on screen, { width, height, rgba }, or null. */
  async capture() {
    return await this.page.linkOf(this.video)?.capture() ?? null;
  }
  /** [[start, end], ...] in seconds. */
  buffered() {
    const { buffered } = this.video;
    return Array.from({ length: buffered.length }, (_, index) => [buffered.start(index), buffered.end(index)]);
  }

  /** Ends the player and its page. Resolves when the backend has been handed back. */
  async close() {
    await this.control.stop();
    await this.page.close();
  }
}

module.exports = { WebPlayer };
