'use strict';
// What the user sees of the playback: a status line on a terminal, a log in a pipe.

const clearLine = '\r\x1b[K';

/** "1:02" or "1:00:02". */
function clockText(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  const two = value => String(value).padStart(2, '0');
  const [hours, minutes] = [Math.floor(whole / 3600), Math.floor(whole / 60) % 60];
  return hours > 0 ? `${hours}:${two(minutes)}:${two(whole % 60)}` : `${minutes}:${two(whole % 60)}`;
}

function bar(fraction, columns) {
  const inner = columns - 2;
  const filled = Math.min(inner, Math.max(0, Math.round(fraction * inner)));
  return `[${'='.repeat(filled)}${' '.repeat(inner - filled)}]`;
}

/** " buffered 3.2-8.0 9.0-10.0". */
function bufferedText(ranges) {
  return ` buffered ${ranges.length === 0 ? '-' : ranges.map(range => range.map(end => end.toFixed(1)).join('-')).join(' ')}`;
}

/** Without bytes that would steer a terminal. */
function printable(text) {
  return text.replace(/[\x00-\x1f\x7f]/g, '?');
}

/** In at most `width` columns; what matters least goes first when it is narrow. */
function statusLine({ state, position, duration, width: pictureWidth, height, buffered }, width) {
  const [narrowestBar, widestBar] = [12, 60];
  let line = `${state.padEnd(9)} ${clockText(position)}`;
  const isLong = Number.isFinite(duration) && duration > 0;
  if (isLong) line += ` / ${clockText(duration)}`;
  const rest = (pictureWidth > 0 ? ` ${pictureWidth}x${height}` : '') + bufferedText(buffered);
  const room = Math.min(width - line.length - rest.length - 1, widestBar);
  if (isLong && room >= narrowestBar) line += ` ${bar(position / duration, room)}`;
  if (line.length + rest.length <= width) line += rest;
  return line.slice(0, Math.max(0, width));
}

class Display {
  #style;
  #start = process.hrtime.bigint();
  #drawn = false;

  /** Nothing is printed when it is to be quiet. */
  constructor({ quiet }) {
    this.#style = quiet ? 'silent' : process.stdout.isTTY ? 'live' : 'log';
    process.stdout.on('error', () => {}); // a reader that goes away (`| head`) ends nothing
  }

  /** A line of the log, with the seconds since the program's start. */
  log(text) {
    const seconds = Number(process.hrtime.bigint() - this.#start) / 1e9;
    if (this.#style === 'log') process.stdout.write(`${seconds.toFixed(6).padStart(10)} ${printable(text)}\n`);
  }
  state(status) {
    this.log(`state ${status.state} at ${status.position.toFixed(3)} s${bufferedText(status.buffered)}`);
  }
  status(status) {
    if (this.#style !== 'live') return;
    process.stdout.write(clearLine + statusLine(status, (process.stdout.columns || 80) - 1));
    this.#drawn = true;
  }
  /** What came of it, one line. */
  summary(text) {
    this.clear();
    this.log(`done  ${text}`);
    if (this.#style === 'live') process.stdout.write(`${printable(text)}\n`);
  }
  clear() {
    if (this.#drawn) process.stdout.write(clearLine);
    this.#drawn = false;
  }
}

module.exports = { Display, bufferedText, printable, statusLine };
