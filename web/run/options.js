'use strict';
// The command line of the player.

const { parseArgs } = require('util');

const { parseKey } = require('./licence');
const { players } = require('./players');

const command = process.env.UVA_WEB_COMMAND || 'player';

const usage = `Usage: ${command} [OPTIONS] PLAYER URL|FILE|FOLDER

Plays a manifest with an unmodified web player on a page whose media element is libuvagstbackend.so; as
PLAYER "element", a file with that element alone.

  PLAYER           ${Object.keys(players).join(' | ')}
  URL              of a manifest, http or https; a FILE, or a FOLDER with a manifest, is served from here

  --key KID:KEY    a key for encrypted media, 32 hexadecimal digits each; may be repeated
  --key-delay MS   the licence comes only so long after it was asked for
  --seek T,...     seek there once playback has started; several one after the other
  --start T        start there
  --duration T     stop after playing for so long
  --snapshot OUT.png    write the picture at the end
  --timeline OUT.json   begin a time line there: what the page, the library and its sinks do, for Perfetto
  --no-progress-timeout T   give up when nothing moves for so long; 0: never (default: 30)
  --standalone     without a main system: nobody arbitrates the decoders
  --quiet          print nothing but errors
  -v, --verbose    also what passes between the page and the library, and the player's own log
  --version        print the version
  -h, --help       this text

Times are seconds (12.5) or m:ss (1:30). In a pipe the output is a log, a line an event.

Environment:
  UVA_WEB_MODULES  the folder node_modules with shaka-player, dashjs or hls.js (beside the program, or where you are)
  UVA_BACKEND_LIBRARY  the backend library (libuvagstbackend.so)

Exit codes: 0 played to the end or for as long as asked; 1 playback failed or an output file could not be
written, the reason is on standard error; 2 the command line is wrong; 128 + n ended by signal n.
`;

/** "12.5", "1:30" or "1:00:00" in seconds; null: it is no time. */
function parseTime(text) {
  const parts = /^(?:(?:(\d{1,6}):)?(\d{1,6}):)?(\d{1,9}(?:\.\d*)?|\.\d+)$/.exec(text);
  if (!parts) return null;
  const [hours, minutes, seconds] = [parts[1] || 0, parts[2] || 0, parts[3]].map(Number);
  const isFolded = (parts[2] === undefined || seconds < 60) && (parts[1] === undefined || minutes < 60);
  return isFolded ? hours * 3600 + minutes * 60 + seconds : null;
}

function needTime(name, text) {
  const time = parseTime(text);
  if (time === null) throw new Error(`--${name}: '${text}' is no time; write 12.5 or 1:30`);
  return time;
}

function needKey(text) {
  const key = parseKey(text);
  if (key === null) throw new Error(`--key: '${text}' is no key; write KID:KEY, 32 hexadecimal digits each`);
  return key;
}

function needMilliseconds(text) {
  if (!/^\d{1,7}$/.test(text)) throw new Error(`--key-delay: '${text}' is no number of milliseconds`);
  return Number(text) / 1000;
}

/** Throws an Error that says what is wrong with them. */
function parseOptions(args) {
  const { values, positionals } = parseArgs({
    args,
    allowPositionals: true,
    options: {
      key: { type: 'string', multiple: true, default: [] },
      'key-delay': { type: 'string', default: '0' },
      seek: { type: 'string', multiple: true, default: [] },
      start: { type: 'string' },
      duration: { type: 'string' },
      snapshot: { type: 'string' },
      timeline: { type: 'string' },
      'no-progress-timeout': { type: 'string', default: '30' },
      standalone: { type: 'boolean', default: false },
      quiet: { type: 'boolean', default: false },
      verbose: { type: 'boolean', short: 'v', default: false },
      version: { type: 'boolean', default: false },
      help: { type: 'boolean', short: 'h', default: false },
    },
  });
  if (values.help || values.version) return { help: values.help, version: values.version };
  const [player, media, ...more] = positionals;
  if (media === undefined || more.length > 0) throw new Error(`name a player and a manifest; --help tells more`);
  if (!Object.hasOwn(players, player)) throw new Error(`${player}: no such player; there are ${Object.keys(players).join(', ')}`);
  const timeOf = name => (values[name] === undefined ? undefined : needTime(name, values[name]));
  return {
    player,
    media,
    keys: values.key.map(needKey),
    keyDelay: needMilliseconds(values['key-delay']),
    seeks: values.seek.flatMap(list => list.split(',')).map(text => needTime('seek', text)),
    start: timeOf('start'),
    duration: timeOf('duration'),
    noProgress: timeOf('no-progress-timeout') || Infinity,
    snapshot: values.snapshot,
    timeline: values.timeline,
    quiet: values.quiet,
    verbose: values.verbose,
  };
}

module.exports = { command, parseOptions, parseTime, usage };
