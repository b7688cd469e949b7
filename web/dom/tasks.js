'use strict';
// The task queue of media elements and their sources in this window (HTML, "media element event
// task source"). One queue, so that the events of an element and of its source keep their order.

const { setImmediate } = require('timers');

let closed = false;
const { close } = window;
window.close = function () {
  closed = true;
  return close.call(window);
};

/**
 * Runs the steps in a task of their own, in the order of the calls; drops them once the window has closed.
 * What a page's listener throws is told where it is called: what the steps throw is a fault of ours.
 */
function queueTask(steps) {
  setImmediate(() => {
    if (!closed) steps();
  });
}

/** Dispatches an event now. Answers false when it was cancelled. */
function fire(target, type, EventClass = window.Event, init = {}) {
  return target.dispatchEvent(new EventClass(type, init));
}

/** "Queue a task to fire an event named `type` at `target`." */
function queueEvent(target, type, EventClass, init) {
  queueTask(() => fire(target, type, EventClass, init));
}

/** "Await a stable state": the steps run once the script that runs now has returned. */
function awaitStableState(steps) {
  window.queueMicrotask(() => {
    if (!closed) steps();
  });
}

module.exports = { queueTask, queueEvent, fire, awaitStableState, isClosed: () => closed };
