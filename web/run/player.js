'use strict';
// The command `player`: see --help.

const fs = require('fs');
const os = require('os');

const { encodePng } = require('./png');
const { findMedia } = require('./media');
const { loadNative } = require('./native');
const { command, parseOptions, usage } = require('./options');

const exitCodes = { failed: 1, usage: 2 };

/** No backend takes so long to come back; what hangs in a library can only be ended with the process. */
const hangSeconds = 30;

function complain(text) {
  process.stderr.write(`${command}: ${text.trim().replace(/\s+/g, ' ')}\n`); // one line, whatever a server says
}

/** Before anything is played: an output file that cannot be written is told of at once. */
function checkOutputs({ snapshot }) {
  if (snapshot !== undefined) fs.closeSync(fs.openSync(snapshot, 'a'));
}

async function play(options) {
  const media = findMedia(options.media, options.player);
  checkOutputs(options);
  const { Playback } = require('./playback'); // loads jsdom, for which a wrong command line need not wait
  const playback = new Playback(options);
  for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP'])
    process.once(signal, () => {
      playback.interrupt(signal);
      setTimeout(() => {
        complain('the backend did not come back from its release; see the system log');
        process.exit(128 + os.constants.signals[signal]);
      }, hangSeconds * 1000).unref();
    });
  const { error, signal, snapshot } = await playback.run(media);
  if (error) complain(`${options.media}: ${error}`);
  if (snapshot) fs.writeFileSync(options.snapshot, encodePng(snapshot));
  if (signal) return 128 + os.constants.signals[signal];
  return error ? exitCodes.failed : 0;
}

function tellVersion() {
  try {
    process.stdout.write(`${command} ${loadNative().environment().version}\n`);
  } catch (error) {
    complain(error.message);
    process.exitCode = exitCodes.failed;
  }
}

let options;
try {
  options = parseOptions(process.argv.slice(2));
} catch (error) {
  complain(error.message);
  process.exit(exitCodes.usage);
}
if (options.help) process.stdout.write(usage);
else if (options.version) tellVersion();
else play(options).then(code => process.exit(code), error => {
  complain(`${options.media}: ${error.message}`);
  process.exit(exitCodes.failed);
});
