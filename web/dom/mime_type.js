'use strict';
// Content types (RFC 2045) with codecs (RFC 6381), and those that a source buffer takes.

const { MIMEType } = require('whatwg-mimetype');

/**
 * Codecs by the container that has them. `kind` is that of their tracks; the pattern is of the whole
 * identifier. None of the byte streams has its timestamps generated (MSE byte stream registry).
 */
const codecs = [
  { kind: 'video', containers: ['mp4'], pattern: /^avc[13]\.[0-9a-f]{6}$/i },
  { kind: 'video', containers: ['mp4'], pattern: /^(hvc1|hev1)\.[abc]?\d{1,2}\.[0-9a-f]{1,8}\.[lh]\d{1,3}(\.[0-9a-f]{1,2}){0,6}$/i },
  { kind: 'video', containers: ['mp4', 'webm'], pattern: /^vp09(\.\d\d){3}((\.\d\d){5})?$/ },
  { kind: 'video', containers: ['mp4', 'webm'], pattern: /^av01\.[0-2]\.\d\d[MH]\.(08|10|12)(\.\d(\.\d{3}(\.\d\d){3}\.\d)?)?$/ },
  { kind: 'video', containers: ['webm'], pattern: /^vp[89](\.0)?$/ },
  { kind: 'video', containers: ['webm'], pattern: /^vp08(\.\d\d){3}((\.\d\d){5})?$/ },
  { kind: 'audio', containers: ['mp4'], pattern: /^mp4a\.40\.0?(2|5|29)$/ },
  { kind: 'audio', containers: ['mp4'], pattern: /^mp4a\.6[678]$/ },
  { kind: 'audio', containers: ['mp4'], pattern: /^(ac-3|ec-3|mp4a\.a[56])$/i },
  { kind: 'audio', containers: ['mp4'], pattern: /^flac$/i },
  { kind: 'audio', containers: ['mp4', 'webm'], pattern: /^opus$/i },
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

/** 'audio' or 'video' when the container has such a codec, else null. */
function codecKind(container, codec) {
  return codecs.find(({ containers, pattern }) => containers.includes(container) && pattern.test(codec))?.kind ?? null;
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
  const kinds = new Set(named?.map((codec) => codecKind(subtype, codec)));
  const isMismatch = kinds.size === 0 || kinds.has(null) || (type === 'audio' && kinds.has('video'));
  return isMismatch ? null : kinds;
}

/** MSE, "isTypeSupported() method": what the table has and the library plays. */
function isTypeSupported(text) {
  return trackKinds(text) !== null && env.native.canPlayType(text).canPlay;
}

module.exports = { isTypeSupported, parseMimeType, trackKinds };
