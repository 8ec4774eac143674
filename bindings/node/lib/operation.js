'use strict';
// Operations, from their start to their end, and the events between.

const { AsyncResource } = require('node:async_hooks');
const { isUint8Array } = require('node:util').types; // also of another realm
const native = require('./native.js');
const { describe, fromLibrary, held, hold } = require('./errors.js');
const { toCamel, toCamelMessage, toJson } = require('./names.js');
const { pageFunctions, checkPage } = require('./page.js');

const calls = new Map(); // in flight, by number
let last = 0;

const handlers = {
  done(number, failure, value, image, page, browser) {
    const call = calls.get(number);
    calls.delete(number);
    call.signal?.removeEventListener('abort', call.onAbort);
    call.resolve({ failure, value, image, page, browser });
  },
  releaseError(number) {
    held.delete(number);
  },
};

for (const [event, ask] of Object.entries(pageFunctions)) {
  handlers[event] = (number, reply, ...args) => answerFor(number, reply, (call) => ask(call.page, ...args));
}

for (const name of ['primaryFn', 'cuaFn', 'shouldAbort']) {
  handlers[name] = (number, reply) => answerFor(number, reply, (call) => call.functions[name]());
}

handlers.cuaFallback = (number, reply, context, reason) =>
  answerFor(number, reply, (call) => call.functions.cuaFallback(call.page, JSON.parse(context), reason));

// Asks what belongs to a call, in the asynchronous context in which the call was made.
// What the library asked for before it heard of the cancellation is not done any more.
function answerFor(number, reply, ask) {
  const call = calls.get(number);
  if (!call || call.signal?.aborted) return;
  answer(reply, () => call.resource.runInAsyncScope(ask, undefined, call));
}

/// Answers the library with what `ask` returns or throws.
async function answer(reply, ask) {
  try {
    const value = await ask();
    if (isUint8Array(value)) {
      native.replyImage(reply, value);
    } else {
      native.replyValue(reply, JSON.stringify(value) ?? '');
    }
  } catch (error) {
    native.replyError(reply, ...describe(error), hold(error));
  }
}

function toError({ kind, message, number, isCancelled, isFromCua }, call) {
  if (isCancelled) return call.signal?.reason ?? fromLibrary(kind, message);
  if (number === undefined) {
    return fromLibrary(kind, kind === 'invalid_argument' ? toCamelMessage(message) : message);
  }
  const error = held.get(number);
  if (isFromCua) mark(error);
  return error;
}

function mark(error) {
  try {
    error._kx_cua_origin = true;
  } catch {
    // a primitive or a frozen object goes without
  }
}

// The addon's handles of our own pages, browsers and clients.
const handles = new WeakMap();
const handleOf = (owner) => handles.get(owner);
const setHandle = (owner, handle) => handles.set(owner, handle);

/// Runs an operation of the C interface. `parts` has its page, client, browser and image,
/// the host's functions and the signal. Resolves to what the event "done" brings.
async function run(operation, options, parts = {}) {
  const { signal, page, vision, browser, image, functions = {} } = parts;
  if (signal !== undefined && typeof signal?.addEventListener !== 'function') {
    throw new TypeError(`${toCamel(operation)}: signal must be an AbortSignal`);
  }
  if ('page' in parts && !handleOf(page)) checkPage(toCamel(operation), page);
  if (signal?.aborted) throw signal.reason;
  const number = ++last;
  const call = { page, vision, functions, signal, resource: new AsyncResource('velmora.vision') };
  const ended = new Promise((resolve) => { call.resolve = resolve; });
  const given = { ...functions };
  if (page) given.page = handleOf(page) ?? true;
  if (vision) given.client = handleOf(vision);
  if (browser) given.browser = handleOf(browser);
  if (image !== undefined) given.image = image;
  calls.set(number, call);
  try {
    const started = native.start(number, operation, toJson(operation, options), given);
    call.onAbort = () => native.cancel(started);
  } catch (error) {
    calls.delete(number);
    throw error;
  }
  signal?.addEventListener('abort', call.onAbort, { once: true });
  const { failure, value, ...rest } = await ended;
  if (failure) throw toError(failure, call); // made here, so that its stack shows the caller
  return { value: JSON.parse(value), ...rest };
}

native.begin((event, ...args) => handlers[event](...args));

module.exports = { run, answer, handlers, handleOf, setHandle };
