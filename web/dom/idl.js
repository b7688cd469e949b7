'use strict';
// What Web IDL asks of every interface that is written by hand here: conversions of arguments,
// constructors that pages may not call, event handler attributes, the shape of prototypes and of lists.

const conversions = require('webidl-conversions');

const globals = { Number: window.Number, String: window.String, TypeError: window.TypeError };

/** Converts to the Web IDL type of this name; `context` begins the text of the error. */
function convert(type, value, context) {
  return conversions[type](value, { globals, context });
}

/** Of an enumeration, the value; throws TypeError when it is none of them. */
function enumeration(values, value, context) {
  const text = convert('DOMString', value, context);
  if (!values.includes(text)) throw new TypeError(`${context}: "${text}" is none of ${values.join(', ')}`);
  return text;
}

function needArguments(given, count, context) {
  if (given.length < count) throw new TypeError(`${context}: ${count} argument(s) required, but only ${given.length} present`);
}

function isArrayBuffer(value) {
  return Object.prototype.toString.call(value) === '[object ArrayBuffer]';
}

/** The bytes of an ArrayBuffer or a view of one, of whatever realm; not copied. */
function bufferSource(value, context) {
  if (ArrayBuffer.isView(value)) return new Uint8Array(value.buffer, value.byteOffset, value.byteLength);
  if (isArrayBuffer(value)) return new Uint8Array(value);
  throw new TypeError(`${context}: the value is no BufferSource`);
}

/** What this module's own code hands to a constructor that pages may not call. */
const secret = Symbol('secret');

function illegal(token) {
  if (token !== secret) throw new TypeError('Illegal constructor');
}

/** HTML, "event handler attributes": `on...` for each of these events. */
function eventHandlers(prototype, types) {
  for (const type of types) {
    const handlers = new WeakMap();
    Object.defineProperty(prototype, `on${type}`, {
      configurable: true,
      enumerable: true,
      get() {
        return handlers.get(this)?.callback ?? null;
      },
      set(value) {
        const callback = value !== null && ['function', 'object'].includes(typeof value) ? value : null;
        let handler = handlers.get(this);
        if (handler === undefined && callback !== null) {
          handler = { callback };
          handlers.set(this, handler);
          this.addEventListener(type, (event) => call(handler.callback, event));
        } else if (handler !== undefined) {
          handler.callback = callback;
        }
      },
    });
  }
}

function call(callback, event) {
  if (typeof callback === 'function' && callback.call(event.currentTarget, event) === false) event.preventDefault();
}

function makeEnumerable(target) {
  for (const [name, descriptor] of Object.entries(Object.getOwnPropertyDescriptors(target))) {
    if (name === 'constructor' || name === 'prototype' || name === 'name' || name === 'length' || name.startsWith('_')) continue;
    Object.defineProperty(target, name, { ...descriptor, enumerable: true });
  }
}

/** Shapes classes as Web IDL interfaces, and makes them properties of the window. */
function expose(...classes) {
  for (const Class of classes) {
    makeEnumerable(Class.prototype);
    makeEnumerable(Class);
    Object.defineProperty(Class.prototype, Symbol.toStringTag, { value: Class.name, configurable: true });
    Object.defineProperty(window, Class.name, { value: Class, writable: true, configurable: true });
  }
}

/** Constants are on the interface and on its prototype. */
function constants(Class, values) {
  for (const target of [Class, Class.prototype]) {
    for (const [name, value] of Object.entries(values)) Object.defineProperty(target, name, { value, enumerable: true });
  }
}

/**
 * The base of a list whose items a page reads by index: an index cannot be assigned (Web IDL, "legacy
 * platform object [[Set]]"). The list itself defines its items.
 */
const Indexed = function () {
  return new Proxy(Object.create(new.target.prototype), {
    set: (target, name, ...rest) => !isIndex(name) && Reflect.set(target, name, ...rest),
  });
};
Indexed.prototype = Object.prototype;
Object.setPrototypeOf(Indexed, Function.prototype);

function isIndex(name) {
  return typeof name === 'string' && /^(0|[1-9]\d*)$/.test(name) && Number(name) < 2 ** 32 - 1;
}

/** Puts attributes and operations on an existing prototype, in place of what has their name. */
function extend(prototype, members) {
  for (const [name, descriptor] of Object.entries(Object.getOwnPropertyDescriptors(members))) {
    Object.defineProperty(prototype, name, { ...descriptor, enumerable: true, configurable: true });
  }
}

module.exports = {
  Indexed, bufferSource, constants, convert, enumeration, eventHandlers, expose, extend, illegal, needArguments, secret,
};
