'use strict';
// Gives a window its media: media elements, media sources, and encrypted media.

const encryptedEvent = require('./encrypted_event.js');
const idl = require('./idl.js');
const mediaElement = require('./media_element.js');
const mediaKeys = require('./media_keys.js');
const { MediaError } = require('./media_error.js');
const mediaSource = require('./media_source.js');
const objectUrl = require('./object_url.js');
const { releaseAll } = require('./player_link.js');
const textTrack = require('./text_track.js');
const { TimeRanges } = require('./time_ranges.js');
const trackElement = require('./track_element.js');
const tracks = require('./track_lists.js');
// Evaluated in Node's realm: jsdom's own classes are there.
const { listen } = require('../dom/element_hooks.js');

/** Once a window, before its document is parsed. */
function install() {
  idl.expose(
    MediaError, TimeRanges,
    tracks.AudioTrack, tracks.AudioTrackList, tracks.VideoTrack, tracks.VideoTrackList, tracks.TrackEvent,
    textTrack.TextTrack, textTrack.TextTrackCue, textTrack.TextTrackCueList, textTrack.TextTrackList, textTrack.VTTCue,
  );
  objectUrl.install();
  mediaElement.install();
  trackElement.install();
  mediaSource.install();
  encryptedEvent.install();
  mediaKeys.install();
  listen(window, mediaElement.documentListener);
}

module.exports = { install, releaseAll, controlOf: mediaElement.controlOf };
