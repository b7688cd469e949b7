'use strict';
// Where jsdom tells of what happens to an element: the steps that HTML hangs on attributes and on
// insertion and removal have no event that a page could see, and must run at once. Evaluated in
// Node's realm, once a process; jsdom's version is locked, or Debian's.

const { implementation: MediaElementImpl } = require('jsdom/lib/jsdom/living/nodes/HTMLMediaElement-impl.js');
const { implementation: TrackElementImpl } = require('jsdom/lib/jsdom/living/nodes/HTMLTrackElement-impl.js');

const { contextOf, implForWrapper, wrapperForImpl } = require('./jsdom');

const listeners = new WeakMap(); // by window

/**
 * From now on tells this window's listener, with elements as the page sees them: of media elements and
 * their tracks attributeChanged(element, name, value, oldValue); of media elements parsed(element), once
 * a parser has made it with its attributes, removed(element) from its document,
 * childInserted(element, child), childToBeRemoved(element, child).
 */
function listen(window, listener) {
  listeners.set(contextOf(window), listener);
}

function tell(impl, step, ...values) {
  listeners.get(impl._globalObject)?.[step]?.(wrapperForImpl(impl), ...values);
}

/** Puts `after` (and `before`) around an operation that elements of this kind inherit. */
function extend(Impl, name, { before, after }) {
  const inherited = Impl.prototype[name];
  Impl.prototype[name] = function (...values) {
    before?.(this, ...values);
    const result = inherited.apply(this, values);
    after?.(this, ...values);
    return result;
  };
}

for (const Impl of [MediaElementImpl, TrackElementImpl]) {
  extend(Impl, '_attrModified', {
    after: (impl, name, value, oldValue) => tell(impl, 'attributeChanged', name, value, oldValue),
  });
}
// What an element has of this name the parser sets once its attributes are there.
Object.defineProperty(MediaElementImpl.prototype, '_parserInserted', {
  set() {
    tell(this, 'parsed');
  },
});
extend(MediaElementImpl, '_detach', { after: (impl) => tell(impl, 'removed') });
extend(MediaElementImpl, '_insert', {
  after: (impl, child) => tell(impl, 'childInserted', wrapperForImpl(child)),
});
extend(MediaElementImpl, '_remove', {
  before: (impl, child) => tell(impl, 'childToBeRemoved', wrapperForImpl(child)),
});

/** "Delaying the load event" of the element's document, until the promise resolves. */
function delayLoadEvent(element, promise) {
  implForWrapper(element)._ownerDocument._asyncQueue.push(promise);
}

module.exports = { delayLoadEvent, listen };
