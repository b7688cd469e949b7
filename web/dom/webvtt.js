'use strict';
// WebVTT, "parsing": a file's cues. Regions and style sheets are passed over: nothing here lays cues out.

const timestamp = '(?:(\\d+):)?([0-5]\\d):([0-5]\\d)\\.(\\d{3})(?!\\d)';
const timings = new RegExp(`^[\\t\\f ]*${timestamp}[\\t\\f ]*-->[\\t\\f ]*${timestamp}(.*)$`, 's');

/**
 * The cues of a file's text, in its order: { id, startTime, endTime, text, settings }, where settings
 * are attributes of a VTTCue. Null: the text is no WebVTT.
 */
function parseWebVtt(text) {
  const lines = text.replaceAll('\0', '\ufffd').split(/\r\n|\r|\n/);
  if (!/^WEBVTT(?:[\t ]|$)/.test(lines[0])) return null;
  const cues = [];
  let place = 1;
  while (place < lines.length && lines[place] !== '' && !lines[place].includes('-->')) ++place; // the header
  while (place < lines.length) {
    if (lines[place] === '') {
      ++place;
      continue;
    }
    const block = collectBlock(lines, place);
    place = block.end;
    if (block.cue !== null) cues.push(block.cue);
  }
  return cues;
}

/** "Collect a WebVTT block": to an empty line, or to the next times. `cue` is null where it has none. */
function collectBlock(lines, start) {
  const at = [start, start + 1].find((place) => lines[place]?.includes('-->')) ?? null;
  let end = at === null ? start + 1 : at + 1;
  while (end < lines.length && lines[end] !== '' && !lines[end].includes('-->')) ++end;
  const times = at === null ? null : collectTimings(lines[at]);
  if (times === null) return { end, cue: null };
  return { end, cue: { id: at === start ? '' : lines[start], ...times, text: lines.slice(at + 1, end).join('\n') } };
}

/** "Collect WebVTT cue timings and settings"; null when the line has no times. */
function collectTimings(line) {
  const found = timings.exec(line);
  if (found === null) return null;
  const [startTime, endTime] = [found.slice(1, 5), found.slice(5, 9)].map(seconds);
  return { startTime, endTime, settings: parseSettings(found[9]) };
}

function seconds([hours = '0', minutes, whole, thousandths]) {
  return Number(hours) * 3600 + Number(minutes) * 60 + Number(whole) + Number(thousandths) / 1000;
}

/** "Parse the WebVTT cue settings": what cannot be read is as if it were not there. */
function parseSettings(text) {
  const settings = {};
  for (const word of text.split(/[\t\f ]+/)) {
    const [, name, value] = /^([^:]+):(.+)$/.exec(word) ?? [];
    Object.assign(settings, readers[name]?.(value));
  }
  return settings;
}

/** Each answers the attributes that a setting's value stands for. */
const readers = {
  __proto__: null, // a file names them
  vertical: oneOf('vertical', ['rl', 'lr']),
  align: oneOf('align', ['start', 'center', 'end', 'left', 'right']),
  size: (value) => numbered('size', percentage(value)),
  position: (value) => withAlignment(value, 'positionAlign', ['line-left', 'center', 'line-right'],
    (text) => numbered('position', percentage(text))),
  line: (value) => withAlignment(value, 'lineAlign', ['start', 'center', 'end'], lineOf),
};

function oneOf(name, values) {
  return (value) => (values.includes(value) ? { [name]: value } : {});
}

function numbered(name, number) {
  return number === null ? null : { [name]: number };
}

/** "Parse a percentage string"; null: it is none. */
function percentage(text) {
  if (!/^\d+(\.\d+)?%$/.test(text)) return null;
  const number = Number.parseFloat(text);
  return number <= 100 ? number : null;
}

function lineOf(text) {
  if (text.endsWith('%')) {
    const line = percentage(text);
    return line === null ? null : { snapToLines: false, line };
  }
  return /^-?\d+(\.\d+)?$/.test(text) ? { snapToLines: true, line: Number(text) } : null;
}

/** A value that an alignment may follow behind a comma. */
function withAlignment(value, name, alignments, read) {
  const [text, alignment, ...more] = value.split(',');
  const attributes = read(text);
  const isAligned = alignment !== undefined;
  if (attributes === null || more.length > 0 || (isAligned && !alignments.includes(alignment))) return {};
  return isAligned ? { ...attributes, [name]: alignment } : attributes;
}

module.exports = { parseWebVtt };
