'use strict';
// HTMLTrackElement (HTML, "sourcing out-of-band text tracks"): its track is in the list of the media
// element that it is a child of. Files of cues are not fetched: nothing here shows them.

const idl = require('./idl.js');
const textTracks = require('./text_track.js');

const trackOf = new WeakMap(); // by element

function track(element) {
  if (!trackOf.has(element)) {
    trackOf.set(element, textTracks.makeTextTrack({
      get id() {
        return element.id;
      },
      get kind() {
        return element.kind;
      },
      get label() {
        return element.label;
      },
      get language() {
        return element.srclang;
      },
    }));
  }
  return trackOf.get(element);
}

const isTrackElement = (node) => node instanceof window.HTMLTrackElement;

/** The tracks of elements come first, in the order of the elements. */
function inserted(list, child) {
  if (!isTrackElement(child)) return;
  const place = [...child.parentNode.children].filter(isTrackElement).indexOf(child);
  textTracks.insertTextTrack(list, track(child), place);
}

function toBeRemoved(list, child) {
  if (isTrackElement(child)) textTracks.removeTextTrack(list, track(child));
}

const members = {
  get kind() {
    const value = this.getAttribute('kind');
    if (value === null) return 'subtitles';
    const known = textTracks.kinds.find((kind) => kind === value.replace(/[A-Z]/g, (letter) => letter.toLowerCase()));
    return known ?? 'metadata';
  },
  set kind(value) {
    this.setAttribute('kind', value);
  },
  get track() {
    return track(this);
  },
};

function install() {
  idl.extend(window.HTMLTrackElement.prototype, members);
}

module.exports = { install, inserted, toBeRemoved };
