'use strict';
// MSE, "SourceBufferList interface".

const idl = require('./idl.js');
const { queueEvent } = require('./tasks.js');

/** Changes a list; pages only look. */
let assign;

class SourceBufferList extends window.EventTarget {
  #buffers = [];

  constructor(token) {
    idl.illegal(token);
    super();
  }
  get length() {
    return this.#buffers.length;
  }

  static {
    assign = (list, buffers) => {
      buffers.forEach((value, index) =>
        Object.defineProperty(list, index, { value, configurable: true, enumerable: true }));
      for (let index = buffers.length; index < list.#buffers.length; ++index) delete list[index];
      list.#buffers = buffers;
    };
  }
}
idl.eventHandlers(SourceBufferList.prototype, ['addsourcebuffer', 'removesourcebuffer']);
Object.defineProperty(SourceBufferList.prototype, Symbol.iterator, {
  value: Array.prototype[Symbol.iterator],
  writable: true,
  configurable: true,
});

/** Replaces what is in the list, and raises one event for each that comes or goes. */
function update(list, buffers) {
  const before = [...list];
  assign(list, buffers);
  for (const buffer of before) if (!buffers.includes(buffer)) queueEvent(list, 'removesourcebuffer');
  for (const buffer of buffers) if (!before.includes(buffer)) queueEvent(list, 'addsourcebuffer');
}

/** MSE, "Detaching from a media element", 6 to 9: one event, whatever was in it. */
function clear(list) {
  assign(list, []);
  queueEvent(list, 'removesourcebuffer');
}

module.exports = { SourceBufferList, clear, makeSourceBufferList: () => new SourceBufferList(idl.secret), update };
