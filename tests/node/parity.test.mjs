// The cases of tests/parity/cases.json; model_server.py beside it says what a case has.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, readFileSync } from 'node:fs';
import path from 'node:path';
import { createInterface } from 'node:readline';
import test from 'node:test';
import * as vision from '@velmora/vision';
import { png } from './support.mjs';

const folder = process.env.PARITY_FOLDER;
assert.ok(folder, 'PARITY_FOLDER must be set');
const { flow_context: flowContext, cases } = JSON.parse(readFileSync(path.join(folder, 'cases.json'), 'utf8'));
vision.setModelRegistry({ lightModel: 'light-model', heavyModel: 'heavy-model' });

const toCamel = (name) => name.replace(/_([a-z])/g, (_, letter) => letter.toUpperCase());
const toSnake = (name) => name.replace(/[A-Z]/g, (letter) => `_${letter.toLowerCase()}`);
const renamed = (record, rename) =>
  Object.fromEntries(Object.entries(record ?? {}).map(([name, value]) => [rename(name), value]));

/// Does what a step of a script says.
function follow({ error, value }) {
  if (!error) return value;
  throw new ({ [error.kind]: class extends Error {} })[error.kind](error.message);
}

function scriptedPage(faults = {}) {
  const calls = [];
  const call = (name, value) => (...args) => {
    calls.push([name, ...args]);
    return faults[name] ? follow(faults[name]) : value;
  };
  const screenshot = call('screenshot', png);
  const type = call('keyboard_type');
  const page = {
    screenshot: async ({ fullPage }) => screenshot(fullPage),
    evaluate: async (expression) => call('evaluate', 2)(expression),
    viewportSize: call('viewport_size', { width: 1000, height: 500 }),
    mouse: { click: async (...at) => call('mouse_click')(...at), wheel: async (...by) => call('mouse_wheel')(...by) },
    keyboard: { type: async (text, { delay }) => type(text, delay), press: async (key) => call('keyboard_press')(key) },
  };
  return { page, calls };
}

function start({ operation, options, host = {} }, page, client, told) {
  const functions = renamed(host, toCamel);
  for (const [name, steps] of Object.entries(functions)) {
    functions[name] = async (...args) => {
      told.push([toSnake(name), ...args.slice(1)]); // of cuaFallback the context and the reason
      return follow(steps.shift());
    };
  }
  const { primaryFn, cuaFn, ...rest } = functions;
  const given = { flowContext, ...rest, ...renamed(options, toCamel) };
  if (operation === 'act') return client.act(page, given);
  if (operation === 'execute_action') {
    return vision.executeAction(page, renamed(given.result, toCamel), renamed(given.imgMeta, toCamel));
  }
  if (operation !== 'with_vision_fallback') Object.assign(given, { hotspotId: 'share-dialog', runId: 'run-1' });
  const asked = primaryFn ?? cuaFn;
  return vision[toCamel(operation)](page, ...(asked ? [asked] : []), { ...given, vision: client });
}

/// Runs a case; returns what came of it as the table has it.
async function play(scripted, baseUrl) {
  const log = process.env.KX_VISION_SHADOW_LOG;
  const before = existsSync(log) ? readFileSync(log).length : 0;
  const told = [];
  const { page, calls } = scriptedPage(scripted.page);
  const client = new vision.VisionClient({ apiKey: 'any', baseUrl, ...renamed(scripted.client, toCamel) });
  const ending = {};
  try {
    let value = await start(scripted, page, client, told);
    if (scripted.operation === 'with_vision_fallback') ({ way: ending.way, value } = value);
    if (value?.modelUsed) value = { ...renamed(value, toSnake), latency_ms: 0 };
    ending.value = scripted.operation === 'observe_only' ? 'the record' : (value ?? null);
  } catch (error) {
    ending.error = { kind: error.kind ?? error.constructor.name, message: error.message.replace(/\w+Ratio/g, toSnake),
      cua_origin: error._kx_cua_origin ?? false };
  }
  const lines = existsSync(log) ? readFileSync(log).subarray(before).toString().split('\n').slice(0, -1) : [];
  const records = lines.map((line) => line.replace(/"(ts|latency_ms|elapsed_ms)": ("[^"]*"|[0-9.e+-]+)/g, '"$1": 0'));
  return { ...ending, calls, told, records };
}

test('parity', async (context) => {
  const server = spawn('python3', [path.join(folder, 'model_server.py')], { stdio: ['ignore', 'pipe', 'inherit'] });
  context.after(() => server.kill());
  const [url] = await once(createInterface(server.stdout), 'line');
  for (const [number, scripted] of cases.entries()) {
    await context.test(scripted.name, async () => {
      const { way, ends } = structuredClone(scripted);
      assert.deepEqual(await play(scripted, `${url}/node/${number}`), way ? { way, ...ends } : ends);
    });
  }
});
