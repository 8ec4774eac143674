'use strict';

const { fromRecord, toRecord } = require('./names.js');
const { VisionClient, optionalFunction } = require('./client.js');
const { run } = require('./operation.js');

function requiredFunction(owner, name, value) {
  if (typeof value !== 'function') throw new TypeError(`${owner}: ${name} must be a function`);
  return value;
}

function partsOf(owner, page, { vision, signal }, functions = {}) {
  if (vision !== undefined && !(vision instanceof VisionClient)) {
    throw new TypeError(`${owner}: vision must be a VisionClient`);
  }
  return { page, vision, signal, functions };
}

async function actLoop(page, options = {}) {
  const { vision, signal, shouldAbort, ...rest } = options;
  const functions = shouldAbort === undefined ? {}
    : { shouldAbort: requiredFunction('actLoop', 'shouldAbort', shouldAbort) };
  return fromRecord((await run('act_loop', rest, partsOf('actLoop', page, options, functions))).value);
}

// What the host's functions return stays here: it may be of any type, and the caller gets
// the very value.

async function withVisionFallback(page, primaryFn, options = {}) {
  const { vision, signal, cuaFallback, ...rest } = options;
  const owner = 'withVisionFallback';
  requiredFunction(owner, 'primaryFn', primaryFn);
  const values = {};
  const functions = { primaryFn: async () => void (values.primaryFn = await primaryFn()) };
  if (optionalFunction(owner, 'cuaFallback', cuaFallback)) {
    functions.cuaFallback = async (...given) => void (values.cuaFallback = await cuaFallback(...given));
  }
  const { value } = await run('with_vision_fallback', rest, partsOf(owner, page, options, functions));
  const { way } = value;
  if (way === 'verdict') return Object.freeze({ way, value: fromRecord(value.value) });
  return Object.freeze({ way, value: way === 'agent' ? values.cuaFallback : values.primaryFn });
}

async function shadowObserveThenCua(page, cuaFn, options = {}) {
  const { vision, signal, ...rest } = options;
  requiredFunction('shadowObserveThenCua', 'cuaFn', cuaFn);
  let value;
  const functions = { cuaFn: async () => forRecord((value = await cuaFn())) };
  await run('shadow_observe_then_cua', rest, partsOf('shadowObserveThenCua', page, options, functions));
  return value;
}

// The part of an agent's value that the record tells of.
function forRecord(value) {
  try {
    const text = value.text;
    JSON.stringify(text);
    return { text };
  } catch {
    return null;
  }
}

async function observe(operation, owner, page, options) {
  const { vision, signal, ...rest } = options;
  return fromRecord((await run(operation, rest, partsOf(owner, page, options))).value);
}

const observeOnly = async (page, options = {}) => observe('observe_only', 'observeOnly', page, options);

function observeInBackground(page, options = {}) {
  observe('observe_in_background', 'observeInBackground', page, options).catch((error) => {
    if (!options.signal?.aborted) process.emitWarning(error);
  });
}

async function executeAction(page, result, imgMeta, { signal, ...rest } = {}) {
  const records = { result: toRecord(result), imgMeta: toRecord(imgMeta) };
  await run('execute_action', { ...rest, ...records }, { page, signal });
}

module.exports = {
  actLoop,
  withVisionFallback,
  shadowObserveThenCua,
  observeOnly,
  observeInBackground,
  executeAction,
};
