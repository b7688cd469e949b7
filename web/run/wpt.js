'use strict';
// Runs pages of the W3C's tests, a process a page, and holds what comes of them against a list.

const { fork } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { parseArgs } = require('util');

const { projectRoot } = require('./native');
const { Expectations, written } = require('./expectations');

const usage = `Usage: wpt [OPTIONS] [PAGE...]

Runs the W3C's pages for media source extensions, encrypted media and media elements on the library, a
process a page, and compares the subtests with a list of those that are expected to fail.

  PAGE             a page, or a folder of pages, below the tests' root (default: all)
  --root FOLDER    lies over the tests' own: a file is looked for here first
  --base FOLDER    the tests (default: ../shared/wpt beside the tree)
  --jobs N         so many pages at a time (default: a page a core)
  --expected FILE  the list (default: ${path.relative(projectRoot, path.join(__dirname, 'expected.txt'))})
  -v, --verbose    what fails and why, and what pages print
  -h, --help       this text

Prints a line a page and at the end "N of M subtests pass". Exit codes: 0 as listed, 1 not: a new failure,
a new pass, or one listed that was not run; 2 the command line is wrong.
`;

/** The page itself bounds its tests (10 s or 60 s); behind this it hangs. */
const hangSeconds = 90;

function readOptions() {
  const { values, positionals } = parseArgs({
    allowPositionals: true,
    options: {
      root: { type: 'string' },
      base: { type: 'string', default: path.join(projectRoot, '..', 'shared', 'wpt') },
      jobs: { type: 'string', default: String(os.availableParallelism()) },
      expected: { type: 'string', default: path.join(__dirname, 'expected.txt') },
      verbose: { type: 'boolean', short: 'v', default: false },
      help: { type: 'boolean', short: 'h', default: false },
    },
  });
  const jobs = Number(values.jobs);
  if (!Number.isInteger(jobs) || jobs < 1) throw new Error(`--jobs ${values.jobs}: a number of 1 or more is needed`);
  const roots = [values.root, values.base].filter(root => root !== undefined).map(root => path.resolve(root));
  if (!values.help)
    for (const root of roots)
      if (!fs.statSync(root, { throwIfNoEntry: false })?.isDirectory()) throw new Error(`${root} is no folder`);
  return { ...values, jobs, roots, names: positionals.map(name => name.replace(/^\/|\/$/g, '')) };
}

/** Pages that test by themselves: they load the harness, wait for no person and are no part of another. */
function isTest(root, name) {
  if (!/\.(html?|xhtml)$/.test(name) || /-manual\.[^/]*$/.test(name) || /(^|\/)(resources|support)\//.test(name)) return false;
  return fs.readFileSync(path.join(root, name), 'utf8').includes('testharness.js');
}

function findPages({ roots, names }) {
  const found = new Set();
  for (const root of roots)
    for (const entry of fs.readdirSync(root, { recursive: true, withFileTypes: true })) {
      const name = path.relative(root, path.join(entry.parentPath, entry.name));
      if (entry.isFile() && isTest(roots.find(each => fs.existsSync(path.join(each, name))), name)) found.add(name);
    }
  if (names.length === 0) return [...found].sort();
  for (const wanted of names)
    if (![...found].some(name => isIn(name, wanted))) throw new Error(`${wanted}: no such page of tests in ${roots.join(' or ')}`);
  return [...found].filter(name => names.some(wanted => isIn(name, wanted))).sort();
}

function isIn(name, wanted) {
  return name === wanted || name.startsWith(`${wanted}/`);
}

/** Resolves with { harness, subtests, seconds }; a page that dies or hangs has one subtest that says so. */
function runPage(options, page) {
  return new Promise(resolve => {
    const start = performance.now();
    const child = fork(path.join(__dirname, 'wpt_page.js'), { stdio: ['ignore', 'ignore', 'pipe', 'ipc'] });
    let result = null;
    let errors = '';
    child.stderr.on('data', text => { errors = (errors + text).slice(-100000); });
    const timer = setTimeout(() => child.kill('SIGKILL'), hangSeconds * 1000);
    child.on('message', message => { result = message; });
    child.on('close', (code, signal) => {
      clearTimeout(timer);
      const died = signal ? `ended by ${signal}` : code ? `exit code ${code}` : null;
      const unfinished = !result || died;
      if (unfinished) {
        const message = `${died || 'ended without a result'}\n${errors.slice(-2000)}`;
        result = { harness: '', subtests: [...(result?.subtests || []), { name: '(the page comes to its end)', outcome: 'fail', message }] };
      }
      resolve({ ...result, errors, seconds: (performance.now() - start) / 1000 });
    });
    child.send({ roots: options.roots, page, verbose: options.verbose });
  });
}

/** What the list has to say of a page's result. */
function judge(expectations, page, { subtests }) {
  const judged = subtests.map(subtest => ({ ...subtest, expected: expectations.of(page, subtest.name) }));
  const passes = subtest => subtest.outcome === 'pass';
  return {
    passed: judged.filter(passes).length,
    total: judged.length,
    notApplicable: judged.filter(subtest => subtest.expected && subtest.expected.kind !== 'open').length,
    failures: judged.filter(subtest => !passes(subtest)),
    news: [
      ...judged.filter(subtest => !passes(subtest) && !subtest.expected).map(subtest => `new failure: ${written(subtest.name)}: ${subtest.message.split('\n')[0]}`),
      ...judged.filter(subtest => passes(subtest) && subtest.expected).map(subtest => `new pass: ${written(subtest.name)}`),
      ...expectations.unseen(page, subtests.map(subtest => subtest.name)).map(name => `listed, but did not run: ${name}`),
    ],
  };
}

function print(options, page, result, verdict) {
  const lines = [`${verdict.news.length ? 'NEWS' : 'ok  '} ${page}: ${verdict.passed} of ${verdict.total} in ${result.seconds.toFixed(1)} s${result.harness ? ` (${result.harness})` : ''}`];
  lines.push(...verdict.news.map(text => `       ${text}`));
  if (options.verbose) {
    const unlisted = verdict.failures.filter(subtest => subtest.expected);
    lines.push(...unlisted.map(subtest => `       expected, ${subtest.expected.kind}: ${written(subtest.name)}: ${subtest.message.split('\n')[0]}`));
    if (result.errors) lines.push(result.errors.trimEnd().replace(/^/gm, '       | '));
  }
  process.stdout.write(`${lines.join('\n')}\n`);
}

async function main(options) {
  const expectations = Expectations.read(options.expected);
  const waiting = findPages(options);
  const sum = { passed: 0, total: 0, notApplicable: 0, news: 0 };
  async function work() {
    for (let page = waiting.shift(); page !== undefined; page = waiting.shift()) {
      const result = await runPage(options, page);
      const verdict = judge(expectations, page, result);
      print(options, page, result, verdict);
      for (const name of ['passed', 'total', 'notApplicable']) sum[name] += verdict[name];
      sum.news += verdict.news.length;
    }
  }
  await Promise.all(Array.from({ length: options.jobs }, work));
  const applicable = sum.total - sum.notApplicable;
  const share = applicable > 0 ? `, ${(100 * sum.passed / applicable).toFixed(1)} % of the ${applicable} that apply` : '';
  process.stdout.write(`${sum.passed} of ${sum.total} subtests pass${share}${sum.news ? `; ${sum.news} not as listed` : ''}\n`);
  return sum.news === 0 && sum.total > 0 ? 0 : 1;
}

function fail(code, error) {
  process.stderr.write(`wpt: ${error.message}\n`);
  process.exit(code);
}

let options;
try {
  options = readOptions();
} catch (error) {
  fail(2, error);
}
if (options.help) process.stdout.write(usage);
else main(options).then(code => { process.exitCode = code; }, error => fail(2, error));
