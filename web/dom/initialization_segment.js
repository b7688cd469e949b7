'use strict';
// MSE, "Initialization Segment Received". `buffer` is a SourceBufferState (source_buffer.js).

const { isTypeSupported, parseMimeType } = require('./mime_type.js');
const tracks = require('./track_lists.js');
const { TrackBuffer } = require('./track_buffer.js');

/** Why an append fails, for the log: "Append Error" follows. */
class StreamError extends Error {}

const makeTrack = {
  audio: (properties, isFirst) => tracks.makeAudioTrack({ ...properties, enabled: isFirst }),
  video: (properties, isFirst) => tracks.makeVideoTrack({ ...properties, selected: isFirst }),
};

let lastTrackId = 0;

/** The section's steps 1 to 9 for an item of type 'init'. Throws StreamError. */
function initializationSegmentReceived(buffer, segment) {
  const { source } = buffer;
  if (Number.isNaN(source.duration)) source.changeDuration(Number.isFinite(segment.duration) ? segment.duration : Infinity);
  if (segment.tracks.length === 0) throw new StreamError('the initialization segment has no track');
  checkKinds(buffer, segment.tracks);
  checkCodecs(buffer, segment.tracks);
  if (buffer.hasFirstInitializationSegment) replaceDescriptions(buffer, segment.tracks);
  else addTracks(buffer, segment.tracks);
  buffer.needsInitializationSegment = false;
  source.initializationSegmentReceived(segment);
}

/** The tracks are of all the kinds that the type's codecs are of. Of a type that names none, audio has no video. */
function checkKinds({ kinds, type }, descriptions) {
  const found = new Set(descriptions.map(({ kind }) => kind));
  const isNamed = parseMimeType(type).codecs !== null;
  const fits = isNamed
    ? found.size === kinds.size && [...found].every((kind) => kinds.has(kind))
    : kinds.has('video') || !found.has('video');
  if (!fits) throw new StreamError(`the initialization segment has ${[...found].join(' and ')}, the type is ${type}`);
}

/** Each track once, and the library plays it. */
function checkCodecs({ type }, descriptions) {
  const { subtype } = parseMimeType(type);
  if (new Set(descriptions.map(({ id }) => id)).size !== descriptions.length) throw new StreamError('two tracks have one Track ID');
  for (const { id, kind, codec } of descriptions) {
    if (!isTypeSupported(`${kind}/${subtype}; codecs="${codec}"`)) throw new StreamError(`track ${id} is of a codec that is not played, ${codec}`);
  }
}

/** 3: the tracks are those of the first initialization segment; frames begin with a random access point. */
function replaceDescriptions(buffer, descriptions) {
  const before = [...buffer.trackBuffers.values()];
  if (descriptions.length !== before.length) throw new StreamError(`${descriptions.length} tracks, first there were ${before.length}`);
  const trackBuffers = descriptions.map((description) => {
    const ofKind = before.filter(({ kind }) => kind === description.kind);
    const known = ofKind.length === 1 ? ofKind[0] : ofKind.find((each) => each.description.id === description.id);
    if (known === undefined) throw new StreamError(`track ${description.id} was not in the first initialization segment`);
    return [known, description];
  });
  buffer.trackBuffers.clear();
  for (const [trackBuffer, description] of trackBuffers) {
    trackBuffer.description = description;
    trackBuffer.needRandomAccessPoint = true;
    buffer.trackBuffers.set(description.id, trackBuffer);
  }
}

/** 5: tracks for the page and for frames. The player plays the first of a kind, which begins enabled or selected. */
function addTracks(buffer, descriptions) {
  const { link } = buffer.source.control;
  for (const description of descriptions) {
    const { kind, language, label } = description;
    const list = buffer.trackLists[kind];
    const isFirst = list.length === 0;
    const id = String(++lastTrackId);
    const track = makeTrack[kind]({
      id, kind: isFirst ? 'main' : 'alternative', label, language: language === 'und' ? '' : language, sourceBuffer: buffer.object,
    }, isFirst);
    tracks.onChanged(track, () => buffer.source?.updateActiveSourceBuffers());
    tracks.add(list, track);
    tracks.add(buffer.source.trackLists[kind], track);
    buffer.trackBuffers.set(description.id, new TrackBuffer(description, isFirst ? link.addTrack(kind, description.mimeType) : null));
  }
  buffer.hasFirstInitializationSegment = true;
}

module.exports = { StreamError, initializationSegmentReceived };
