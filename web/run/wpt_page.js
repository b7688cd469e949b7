'use strict';
// Runs one page of the W3C's tests and tells the parent process what came of it.

const fs = require('fs');

const { Page } = require('./page');
const { StaticServer } = require('./server');

/** What the runner serves itself: pages have these two for it to fill. */
const report = 'add_completion_callback((tests, status) => window.reportToRunner(tests, status));';
const webIdlParser = require.resolve('webidl2');

/** What a script of the tests' own server does: media that are none, after a while. */
const brokenVideo = '/html/semantics/embedded-content/media-elements/loading-the-media-resource/resources/delayed-broken-video.py';

const outcomes = ['pass', 'fail', 'timeout', 'notrun'];

async function run({ roots, page: name, verbose }) {
  const server = new StaticServer({
    roots,
    pages: {
      '/resources/testharnessreport.js': report,
      '/resources/WebIDLParser.js': fs.readFileSync(webIdlParser, 'utf8'),
      [brokenVideo]: 'FAIL',
    },
    plan: ({ path }) => (path === brokenVideo ? { delay: 0.1 } : null),
  });
  const base = await server.listen();
  const print = verbose ? text => process.stderr.write(`${text}\n`) : () => {};
  let page = null;
  const done = new Promise((resolve, reject) => {
    Page.open({
      url: `${base}/${name}`,
      log: print,
      trace: (what, detail) => print(`${what} ${JSON.stringify(detail) || ''}`),
      console: (level, text) => print(`[${level}] ${text}`),
      before(window) {
        window.reportToRunner = (tests, status) => resolve({
          harness: status.status === 0 ? '' : status.message || 'the harness timed out',
          subtests: tests.map(test => ({ name: String(test.name), outcome: outcomes[test.status], message: String(test.message || '') })),
        });
      },
    }).then(opened => { page = opened; }, reject);
  });
  const result = await done;
  process.send(result);
  await page?.close();
  await server.close();
}

process.once('message', options => run(options).then(
  () => process.disconnect(),
  error => {
    process.stderr.write(`${error.stack}\n`);
    process.exit(1);
  }));
