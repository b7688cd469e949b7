'use strict';
// HTML, "TimeRanges".

const idl = require('./idl.js');

class TimeRanges {
  #ranges;

  constructor(token, ranges) {
    idl.illegal(token);
    this.#ranges = ranges;
  }
  get length() {
    return this.#ranges.length;
  }
  start(index) {
    idl.needArguments(arguments, 1, 'TimeRanges.start');
    return this.#at(index, 'TimeRanges.start')[0];
  }
  end(index) {
    idl.needArguments(arguments, 1, 'TimeRanges.end');
    return this.#at(index, 'TimeRanges.end')[1];
  }
  #at(index, context) {
    const range = this.#ranges[idl.convert('unsigned long', index, context)];
    if (range === undefined) throw new window.DOMException(`${context}: there are ${this.length} ranges`, 'IndexSizeError');
    return range;
  }
}

/** Of ranges as ranges.js has them, which nobody changes. */
function timeRanges(ranges) {
  return new TimeRanges(idl.secret, ranges);
}

module.exports = { TimeRanges, timeRanges };
