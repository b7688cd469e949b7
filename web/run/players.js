'use strict';
// How each player is started on a page's media element. A row added is a player added.

const path = require('path');

/**
 * script: its file, of an npm package; the build with texts for logs. manifests: the files it plays.
 * start(window, video, { url, licenceUrl, at, fail, note }): begins to load; fail(text) tells of what
 * ends playback, note(text) of the rest; `at`: seconds to start at, or undefined. Answers
 * { stop(), selectHeight(pixels): goes over to that rendition, log(level) }; stop() may answer a promise.
 */
const players = {
  shaka: {
    script: 'shaka-player/dist/shaka-player.compiled.debug.js',
    manifests: ['.mpd', '.m3u8'],
    start(window, video, { url, licenceUrl, at, fail, note }) {
      const { shaka } = window;
      const codes = Object.fromEntries(Object.entries(shaka.util.Error.Code).map(([name, code]) => [code, name]));
      const describe = ({ code, severity, category, data = [], message }) => (code === undefined ? message
        : `${codes[code] || 'error'} (${code}, category ${category}, severity ${severity}): ${data.map(asText).join(', ')}`);
      const isCritical = ({ severity }) => severity === undefined || severity === shaka.util.Error.Severity.CRITICAL;
      const tell = error => (isCritical(error) ? fail : note)(describe(error));
      shaka.polyfill.installAll();
      if (!shaka.Player.isBrowserSupported()) return fail('the page lacks what the player needs');
      const player = new shaka.Player();
      player.addEventListener('error', event => tell(event.detail));
      player.addEventListener('adaptation', event => note(`rendition ${event.newTrack?.width}x${event.newTrack?.height}`));
      if (licenceUrl) player.configure({ drm: { servers: { 'org.w3.clearkey': licenceUrl } } });
      const load = async () => {
        await player.attach(video);
        await player.load(url, at);
        await video.play();
      };
      load().catch(error => { if (error.code !== shaka.util.Error.Code.LOAD_INTERRUPTED) tell(error); });
      return {
        player,
        stop: () => player.destroy(),
        selectHeight(pixels) {
          player.configure('abr.enabled', false);
          const track = player.getVariantTracks().find(({ height }) => height === pixels);
          if (track) player.selectVariantTrack(track, false);
        },
      };
    },
  },

  dash: {
    script: 'dashjs/dist/modern/umd/dash.all.debug.js',
    manifests: ['.mpd'],
    start(window, video, { url, licenceUrl, at, fail, note }) {
      const { dashjs } = window;
      const player = dashjs.MediaPlayer().create();
      player.on('error', ({ error }) => fail(typeof error === 'object' ? `${error.message} (${error.code})` : String(error)));
      player.on('qualityChangeRendered', ({ newRepresentation, mediaType }) => {
        if (mediaType === 'video' && newRepresentation) note(`rendition ${newRepresentation.width}x${newRepresentation.height}`);
      });
      if (licenceUrl) player.setProtectionData({ 'org.w3.clearkey': { serverURL: licenceUrl } });
      player.updateSettings({ debug: { logLevel: dashjs.Debug.LOG_LEVEL_WARNING } });
      player.initialize(video, url, true, at);
      return {
        player,
        stop: () => player.destroy(),
        selectHeight(pixels) {
          player.updateSettings({ streaming: { abr: { autoSwitchBitrate: { video: false } } } });
          const found = player.getRepresentationsByType('video').find(({ height }) => height === pixels);
          if (found) player.setRepresentationForTypeById('video', found.id, false);
        },
      };
    },
  },

  hls: {
    script: 'hls.js/dist/hls.js',
    manifests: ['.m3u8'],
    start(window, video, { url, licenceUrl, at, fail, note }) {
      const { Hls } = window;
      if (!Hls.isSupported()) return fail('the page lacks what the player needs');
      const player = new Hls({
        enableWorker: false, // a page in jsdom has no workers
        startPosition: at ?? -1,
        ...(licenceUrl && { emeEnabled: true, drmSystems: { 'org.w3.clearkey': { licenseUrl: licenceUrl } } }),
      });
      player.on(Hls.Events.ERROR, (event, { type, details, fatal, error, response, url: what }) => {
        const text = `${type}, ${details}: ${[error?.message, response?.code && `HTTP ${response.code}`, what].filter(Boolean).join(', ')}`;
        (fatal ? fail : note)(text);
      });
      player.on(Hls.Events.LEVEL_SWITCHED, (event, { level }) => {
        const { width, height } = player.levels[level];
        note(`rendition ${width}x${height}`);
      });
      player.on(Hls.Events.MANIFEST_PARSED, () => video.play().catch(() => {})); // a pause in between is none of ours
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
};

function asText(value) {
  return typeof value === 'object' && value !== null ? value.message || JSON.stringify(value) : String(value);
}

/** The file of a player's script. */
function scriptOf(name) {
  return path.join(__dirname, '..', 'node_modules', players[name].script);
}

module.exports = { players, scriptOf };
