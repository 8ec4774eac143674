'use strict';

const native = require('./native.js');
const { fromLibrary, describe, hold } = require('./errors.js');
const { fromRecord, toCamelMessage, toJson, toRecord } = require('./names.js');
const { answer, handleOf, handlers, run, setHandle } = require('./operation.js');

// By number. Weak: a hook may refer to its client, and an operation that uses the client
// keeps it.
const clients = new Map();
let last = 0;
let resolver;

/// Calls the addon; its errors become the library's.
function calling(f) {
  try {
    return f();
  } catch (error) {
    if (error.kind === undefined) throw error;
    throw fromLibrary(error.kind, toCamelMessage(error.message));
  }
}

function optionalFunction(owner, name, value) {
  if (value !== undefined && typeof value !== 'function') throw new TypeError(`${owner}: ${name} must be a function`);
  return value;
}

const secret = Symbol('a handle instead of options');

class VisionClient {
  #functions;

  constructor(options = {}) {
    if (options[secret]) {
      setHandle(this, options[secret]);
      return;
    }
    const { onAction, create, ...rest } = options;
    this.#functions = {
      onAction: optionalFunction('VisionClient', 'onAction', onAction),
      create: optionalFunction('VisionClient', 'create', create),
    };
    const number = ++last;
    setHandle(this, calling(() => native.newClient(number, toJson('VisionClient', rest), !!onAction, !!create)));
    clients.set(number, new WeakRef(this));
  }

  static functionsOf(number) {
    return clients.get(number)?.deref()?.#functions;
  }

  async ask(image, { signal, imgMeta, ...options } = {}) {
    const parts = { vision: this, image, signal };
    return fromRecord((await run('ask', { ...options, imgMeta: toRecord(imgMeta) }, parts)).value);
  }

  async act(page, { signal, ...options } = {}) {
    return fromRecord((await run('act', options, { vision: this, page, signal })).value);
  }

  async screenshot(page, { signal, ...options } = {}) {
    const { image, value } = await run('screenshot', options, { vision: this, page, signal });
    return Object.freeze({ image, imgMeta: fromRecord(value) });
  }

  get metrics() {
    return fromRecord(JSON.parse(native.metrics(handleOf(this))));
  }

  resetMetrics() {
    native.resetMetrics(handleOf(this));
  }
}

handlers.onAction = (number, reply, result, context) =>
  answer(reply, async () =>
    void (await VisionClient.functionsOf(number).onAction(fromRecord(JSON.parse(result)), JSON.parse(context))));

handlers.create = (number, reply, request) =>
  answer(reply, () => VisionClient.functionsOf(number).create(JSON.parse(request)));

handlers.releaseClient = (number) => clients.delete(number);

// Must answer before it returns.
handlers.resolveApiKey = (number, reply) => {
  try {
    native.replyValue(reply, JSON.stringify(resolver()) ?? '');
  } catch (error) {
    native.replyError(reply, ...describe(error), hold(error));
  }
};

function setModelRegistry({ lightModel, heavyModel, resolveApiKey } = {}) {
  for (const [name, value] of Object.entries({ lightModel, heavyModel })) {
    if (typeof value !== 'string') throw new TypeError(`setModelRegistry: ${name} must be a string`);
  }
  optionalFunction('setModelRegistry', 'resolveApiKey', resolveApiKey);
  calling(() => native.setModelRegistry(lightModel, heavyModel, resolveApiKey !== undefined));
  resolver = resolveApiKey;
}

let ownDefault;

function defaultClient() {
  ownDefault ??= new VisionClient({ [secret]: calling(() => native.defaultClient()) });
  return ownDefault;
}

const resetDefaultMetrics = () => native.resetDefaultMetrics();

module.exports = { VisionClient, setModelRegistry, defaultClient, resetDefaultMetrics, optionalFunction };
