'use strict';
// How each player is started on a page's media element. A row added is a player added.

const fs = require('fs');
const path = require('path');

/**
 * script: its file, of an npm package; the build with texts for logs; null: none. manifests: the files
 * it plays.
 * start(window, video, { url, licenceUrl, keys, at, autoplay, fail, note }): begins to load, and to play
 * unless autoplay is false. Keys, [{ id, key }], serve in place of licences where the manifest does not
 * name Clear Key, and the player can do with that; fail(text) tells of what ends playback, note(text) of the rest; `at`: seconds to start
 * at, or undefined. Answers { player, stop(), which may answer a promise, selectHeight(pixels): goes over
 * to that rendition, in place of what is buffered }.
 */
const players = {
  shaka: {
    script: 'shaka-player/dist/shaka-player.compiled.debug.js',
    manifests: ['.mpd', '.m3u8'],
    start(window, video, { url, licenceUrl, keys, at, autoplay, fail, note }) {
      const { shaka } = window;
      const codes = Object.fromEntries(Object.entries(shaka.util.Error.Code).map(([name, code]) => [code, name]));
      const tell = error => {
        if (!(error instanceof shaka.util.Error)) return fail(error.message);
        const details = error.data.filter(each => typeof each !== 'object' || each instanceof window.Error);
        const text = `${codes[error.code] || 'error'} (${error.code}): ${details.map(String).join(', ')}`;
        (error.severity === shaka.util.Error.Severity.CRITICAL ? fail : note)(text);
      };
      shaka.polyfill.installAll();
      if (!shaka.Player.isBrowserSupported()) return fail('the page lacks what the player needs');
      const player = new shaka.Player();
      player.addEventListener('error', event => tell(event.detail));
      player.addEventListener('adaptation', event => note(`rendition ${event.newTrack?.width}x${event.newTrack?.height}`));
      if (keys.length > 0) player.configure(own(window, { drm: { clearKeys: Object.fromEntries(keys.map(({ id, key }) => [id, key])) } }));
      else if (licenceUrl) player.configure(own(window, { drm: { servers: { 'org.w3.clearkey': licenceUrl } } }));
      const load = async () => {
        await player.attach(video);
        await player.load(url, at);
        if (autoplay) await play(video);
      };
      load().catch(error => { if (error.code !== shaka.util.Error.Code.LOAD_INTERRUPTED) tell(error); });
      return {
        player,
        stop: () => player.destroy(),
        selectHeight(pixels) {
          player.configure('abr.enabled', false);
          const track = player.getVariantTracks().find(({ height }) => height === pixels);
          if (track) player.selectVariantTrack(track, true, 1);
        },
      };
    },
  },

  dash: {
    script: 'dashjs/dist/modern/umd/dash.all.debug.js',
    manifests: ['.mpd'],
    start(window, video, { url, licenceUrl, at, autoplay, fail, note }) {
      const { dashjs } = window;
      const player = dashjs.MediaPlayer().create();
      player.on('error', ({ error }) => fail(typeof error === 'object' ? `${error.message} (${error.code})` : String(error)));
      player.on('qualityChangeRendered', ({ newRepresentation, mediaType }) => {
        if (mediaType === 'video' && newRepresentation) note(`rendition ${newRepresentation.width}x${newRepresentation.height}`);
      });
      if (licenceUrl) player.setProtectionData(own(window, { 'org.w3.clearkey': { serverURL: licenceUrl } }));
      player.updateSettings(own(window, { debug: { logLevel: dashjs.Debug.LOG_LEVEL_WARNING } }));
      player.initialize(video, url, autoplay, at);
      return {
        player,
        stop: () => player.destroy(),
        selectHeight(pixels) {
          player.updateSettings(own(window, { streaming: { abr: { autoSwitchBitrate: { video: false } } } }));
          const found = player.getRepresentationsByType('video').find(({ height }) => height === pixels);
          if (found) player.setRepresentationForTypeById('video', found.id, true);
        },
      };
    },
  },

  hls: {
    script: 'hls.js/dist/hls.js',
    manifests: ['.m3u8'],
    start(window, video, { url, licenceUrl, at, autoplay, fail, note }) {
      const { Hls } = window;
      if (!Hls.isSupported()) return fail('the page lacks what the player needs');
      const player = new Hls(own(window, {
        enableWorker: false, // a page in jsdom has no workers
        startPosition: at ?? -1,
        ...(licenceUrl && { emeEnabled: true, drmSystems: { 'org.w3.clearkey': { licenseUrl: licenceUrl } } }),
      }));
      player.on(Hls.Events.ERROR, (event, { type, details, fatal, error, response, url: what }) => {
        const text = `${type}, ${details}: ${[error?.message, response?.code && `HTTP ${response.code}`, what].filter(Boolean).join(', ')}`;
        (fatal ? fail : note)(text);
      });
      player.on(Hls.Events.LEVEL_SWITCHED, (event, { level }) => {
        const { width, height } = player.levels[level];
        note(`rendition ${width}x${height}`);
      });
      if (autoplay) player.on(Hls.Events.MANIFEST_PARSED, () => play(video));
      player.loadSource(url);
      player.attachMedia(video);
      return {
        player,
        stop: () => player.destroy(),
        selectHeight(pixels) {
          player.nextLevel = player.levels.findIndex(({ height }) => height === pixels);
        },
      };
    },
  },

  // The page's element by itself, for a file that it plays as it is.
  element: {
    script: null,
    manifests: ['.mp4', '.webm'],
    start(window, video, { url, at, autoplay, fail }) {
      video.addEventListener('error', () => fail(video.error.message));
      if (at !== undefined) video.addEventListener('loadedmetadata', () => { video.currentTime = at; }, { once: true });
      video.src = url;
      if (autoplay) play(video);
      return { player: null, stop() {}, selectHeight() {} };
    },
  },
};

/** Options of the page's realm: players tell objects by their constructor. */
function own(window, options) {
  return window.JSON.parse(JSON.stringify(options));
}

/** What comes in between, a pause or an error, is told by the element's events. */
function play(video) {
  return video.play().catch(() => {});
}

/** Where npm's packages may be: where the user says, beside this folder, and where the user stands. */
function moduleFolders() {
  const named = process.env.UVA_WEB_MODULES;
  return named ? [named] : [path.join(__dirname, '..', 'node_modules'), path.resolve('node_modules')];
}

/** The file of a player's script, null when it has none. Throws an Error that says how to have it. */
function scriptOf(name) {
  const { script } = players[name];
  if (script === null) return null;
  const folders = moduleFolders();
  const file = folders.map(folder => path.join(folder, script)).find(fs.existsSync);
  if (file === undefined) {
    throw new Error(`the player's script ${script} is not in ${folders.join(' or ')}: run npm install ${script.split('/')[0]}, ` +
      'and name its node_modules with UVA_WEB_MODULES if that is somewhere else');
  }
  return file;
}

module.exports = { players, scriptOf };
