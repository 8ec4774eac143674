'use strict';

class VisionError extends Error {
  constructor(kind, message) {
    super(message);
    this.kind = kind;
  }

  get name() {
    return this.constructor.name;
  }
}

class BudgetExceeded extends VisionError {}

/// An error of the library's own.
function fromLibrary(kind, message) {
  return new (kind === 'BudgetExceeded' ? BudgetExceeded : VisionError)(kind, message);
}

// The host's errors that the library holds, by number, so that the very objects come back.
const held = new Map();
let last = 0;

const hold = (error) => {
  held.set(++last, error);
  return last;
};

const transportKinds = new Set(['APIConnectionError', 'APITimeoutError', 'RateLimitError', 'InternalServerError']);
const TRANSPORT_ERROR = 4; // VISION_TRANSPORT_ERROR

function isTransportError(error) {
  for (let at = Object.getPrototypeOf(error); at !== null; at = Object.getPrototypeOf(at)) {
    if (transportKinds.has(at.constructor?.name)) return true;
  }
  return transportKinds.has(error.name);
}

// The name that an error gives itself, or else that of its class, which bundlers number.
function kindOf(error) {
  if (typeof error.name === 'string' && error.name !== '' && error.name !== 'Error') return error.name;
  return String(error.constructor?.name ?? 'Error').replace(/\d+$/, '') || 'Error';
}

/// What was thrown, as the library wants to know it: kind, message, flags.
function describe(error) {
  try {
    if (error === null || typeof error !== 'object') return ['Error', String(error), 0];
    return [kindOf(error), String(error.message ?? ''), isTransportError(error) ? TRANSPORT_ERROR : 0];
  } catch {
    return ['Error', '', 0]; // a getter of its own threw
  }
}

module.exports = { VisionError, BudgetExceeded, fromLibrary, held, hold, describe };
