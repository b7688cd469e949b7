'use strict';
// Content types (RFC 2045) with codecs (RFC 6381), and those that a source buffer takes.

const { MIMEType } = require('../dom/jsdom.js');

/**
 * Codecs by the container that has them. `kind` is that of their tracks; the pattern is of the whole
 * identifier. `stream` is how the library calls what its list of codecs does not name, or not so. None
 * of the byte streams has its timestamps generated (MSE byte stream registry). AV1 and FLAC are not
 * here: samples that are pushed have no name for them (UVAStreamConfig).
 */
const codecs = [
  { kind: 'video', containers: ['mp4'], pattern: /^avc[13]\.[0-9A-Fa-f]{6}$/ },
  { kind: 'video', containers: ['mp4'], pattern: /^(hvc1|hev1)\.[A-C]?\d{1,2}\.[0-9A-Fa-f]{1,8}\.[LH]\d{1,3}(\.[0-9A-Fa-f]{1,2}){0,6}$/ },
  { kind: 'video', containers: ['mp4', 'webm'], pattern: /^vp09(\.\d\d){3}((\.\d\d){5})?$/ },
  { kind: 'video', containers: ['webm'], pattern: /^vp9(\.0)?$/ },
  { kind: 'video', containers: ['webm'], pattern: /^(vp8(\.0)?|vp08(\.\d\d){3}((\.\d\d){5})?)$/, stream: 'video/x-vp8' },
  { kind: 'audio', containers: ['mp4'], pattern: /^mp4a\.40\.0?(2|5|29)$/ },
  { kind: 'audio', containers: ['mp4'], pattern: /^mp4a\.6[678]$/ },
  { kind: 'audio', containers: ['mp4'], pattern: /^(ac-3|ec-3|mp4a\.[aA][56])$/ },
  { kind: 'audio', containers: ['mp4', 'webm'], pattern: /^(Opus|opus)$/, stream: 'audio/x-opus' },
  { kind: 'audio', containers: ['webm'], pattern: /^vorbis$/ },
];

/**
 * Answers { type, subtype, essence, parameters, codecs } with the names in small letters, or null
 * when the text is no content type. `codecs` is null without such a parameter, else a list without
 * empty names.
 */
function parseMimeType(text) {
  const parsed = MIMEType.parse(text);
  if (parsed === null) return null;
  const { type, subtype, essence, parameters } = parsed;
  const list = parameters.get('codecs');
  return { type, subtype, essence, parameters, codecs: list === undefined ? null : splitList(list) };
}

function splitList(text) {
  return text.split(',').map((name) => name.trim()).filter((name) => name !== '');
}

/** The row of a codec that the container has, or undefined. */
function rowOf(container, codec) {
  return codecs.find(({ containers, pattern }) => containers.includes(container) && pattern.test(codec));
}

/**
 * The kinds of tracks that a source buffer of this type has, a set of 'audio' and 'video', as far as
 * the type tells; null when there is no source buffer for it. Types of WebM name their codecs (WebM
 * Byte Stream Format, "MIME-type parameters").
 */
function trackKinds(text) {
  const parsed = parseMimeType(text);
  if (parsed === null || !['audio/mp4', 'video/mp4', 'audio/webm', 'video/webm'].includes(parsed.essence)) return null;
  const { type, subtype, codecs: named } = parsed;
  if (named === null && subtype === 'mp4') return new Set([type]);
  const kinds = new Set(named?.map((codec) => rowOf(subtype, codec)?.kind ?? null));
  const isMismatch = kinds.size === 0 || kinds.has(null) || (type === 'audio' && kinds.has('video'));
  return isMismatch ? null : kinds;
}

/** MSE, "isTypeSupported() method": what the table has and the library plays, at the size and rate that the type tells. */
function isTypeSupported(text) {
  return trackKinds(text) !== null && questions(text).every((question) => env.native.canPlayType(question).canPlay);
}

/** What the library is asked: the type with the codecs that it lists, and the streams of others. */
function questions(text) {
  const type = new MIMEType(text);
  const rows = (parseMimeType(text).codecs ?? []).map((codec) => ({ codec, stream: rowOf(type.subtype, codec).stream }));
  const listed = rows.filter(({ stream }) => stream === undefined).map(({ codec }) => codec);
  if (listed.length > 0) type.parameters.set('codecs', listed.join(','));
  else type.parameters.delete('codecs');
  return [type.toString(), ...rows.flatMap(({ stream }) => stream ?? [])];
}

module.exports = { isTypeSupported, parseMimeType, trackKinds };
