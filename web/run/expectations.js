'use strict';
// The subtests that are expected to fail, each with its reason. The file is a tree by indentation:
//
//   media-source/a-page.html
//       outdated: MSE 2 has no TrackDefault any more
//           name of a subtest
//           name of another
//       n/a: jsdom has no layout
//           *
//
// Kinds: `outdated`, where a test contradicts today's text; `n/a`, what no player needs of a television's
// media backend or jsdom cannot do; `open`, what is ours to mend. `*` stands for all that the page has.
// Lines that begin with # are comments.

const fs = require('fs');

const kinds = ['outdated', 'n/a', 'open'];

class Expectations {
  #pages = new Map(); // page → Map(subtest → { kind, reason })

  constructor(text, name) {
    let page = null;
    let cause = null;
    text.split('\n').forEach((line, index) => {
      if (line.trim() === '' || line.startsWith('#')) return;
      const fault = what => new Error(`${name}:${index + 1}: ${what}`);
      const depth = /^ */.exec(line)[0].length;
      const words = written(line);
      if (depth === 0) {
        if (this.#pages.has(words)) throw fault(`${words} is listed twice`);
        this.#pages.set(words, page = new Map());
        cause = null;
      } else if (depth === 4 && page) {
        const [, kind, reason] = /^([^:]+): (.+)$/.exec(words) || [];
        if (!kinds.includes(kind)) throw fault(`"${words}" is no reason; write KIND: REASON, KIND one of ${kinds.join(', ')}`);
        cause = { kind, reason };
      } else if (depth === 8 && cause) {
        if (page.has(words)) throw fault(`"${words}" is listed twice`);
        page.set(words, cause);
      } else {
        throw fault('indent a reason by 4, a subtest by 8, behind what they belong to');
      }
    });
  }

  static read(file) {
    return new Expectations(fs.readFileSync(file, 'utf8'), file);
  }

  /** { kind, reason } of a failure that is expected, else null. */
  of(page, subtest) {
    const listed = this.#pages.get(page);
    return listed?.get(written(subtest)) || listed?.get('*') || null;
  }

  /** The names listed of a page that are not among `subtests`. */
  unseen(page, subtests) {
    const seen = new Set(subtests.map(written));
    return [...(this.#pages.get(page)?.keys() || [])].filter(name => name !== '*' && !seen.has(name));
  }
}

/** A subtest's name as the file has it: one line. */
function written(subtest) {
  return subtest.replace(/\s+/g, ' ').trim();
}

module.exports = { Expectations, written };
