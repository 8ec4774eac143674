'use strict';
// Between JavaScript's names and the library's: camelCase here, snake_case there.

const { VisionError } = require('./errors.js');

const toSnake = (name) => name.replace(/[A-Z]/g, (letter) => `_${letter.toLowerCase()}`);
const toCamel = (name) => name.replace(/_([a-z])/g, (_, letter) => letter.toUpperCase());

// Members whose values are the host's or the model's data, with keys of their own.
const data = new Set(['flow_context', 'dom_ground_truth', 'failures_by_reason', 'by_model']);

/// The options of an operation as JSON, by the library's names. What JSON would leave out
/// or change silently is refused.
function toJson(owner, options) {
  const members = {};
  for (const [name, value] of Object.entries(options)) {
    if (value === undefined) continue;
    const problem = (why) => new VisionError('invalid_argument', `${toCamel(owner)}: ${why}`);
    if (name.includes('_')) throw problem(`unknown option "${name}"`);
    if (typeof value === 'number' && !Number.isFinite(value)) throw problem(`${name} must be finite, not ${value}`);
    if (['function', 'symbol', 'bigint'].includes(typeof value)) throw problem(`${name} cannot be a ${typeof value}`);
    members[toSnake(name)] = name === 'cassetteMode' ? toSnake(String(value)) : value; // 'newEpisodes'
  }
  return JSON.stringify(members);
}

/// A result or a record of the library's: frozen, by JavaScript's names, but for data.
function fromRecord(value, isData = false) {
  if (value === null || typeof value !== 'object') return value;
  if (Array.isArray(value)) return Object.freeze(value.map((item) => fromRecord(item, isData)));
  const members = Object.entries(value).map(([name, member]) => [
    isData ? name : toCamel(name), fromRecord(member, isData || data.has(name))]);
  return Object.freeze(Object.fromEntries(members));
}

/// A result or metadata as the library has it.
function toRecord(record) {
  if (record === null || typeof record !== 'object') return record;
  return Object.fromEntries(Object.entries(record).map(([name, value]) => [toSnake(name), value]));
}

/// A message about an argument, which names options and operations, by JavaScript's names.
/// What it says after ", not" is the caller's own value.
function toCamelMessage(message) {
  const end = message.indexOf(', not ');
  const head = end < 0 ? message : message.slice(0, end);
  return head.replace(/\b[a-z]+(_[a-z]+)+\b/g, toCamel) + message.slice(head.length);
}

module.exports = { toCamel, toJson, fromRecord, toRecord, toCamelMessage };
