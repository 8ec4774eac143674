// The ends of processes, workers and environments, each in a process of its own.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import test from 'node:test';

const support = new URL('support.mjs', import.meta.url).href;
const head = `
  import * as vision from '@velmora/vision';
  import { Worker, isMainThread, parentPort } from 'node:worker_threads';
  import { flowContext, makePage, never, serveModel, site } from '${support}';
  const mission = async (faults, answer = { action: 'scroll', scroll_dy_ratio: 0.5 }) => {
    const { client } = await serveModel(answer);
    return vision.actLoop(makePage(faults), { ...site, vision: client });
  };`;
const worker = (body) => // evaluated as CommonJS, whose imports find the package
  `new Worker(${JSON.stringify(`(async () => { ${head.replaceAll(/import (.*) from ('[^']*');/g, (_, names, from) =>
    `const ${names.replace('* as ', '')} = await import(${from});`)} ${body} })();`)}, { eval: true })`;

/// Runs a module to its end; returns what it printed, and its exit code or signal.
async function run(body) {
  const child = spawn(process.execPath, ['--input-type=module', '-e', head + body],
    { cwd: new URL('.', import.meta.url), stdio: ['ignore', 'pipe', 'pipe'] });
  let output = '';
  for (const stream of [child.stdout, child.stderr]) stream.setEncoding('utf8').on('data', (text) => { output += text; });
  const [code, signal] = await once(child, 'close');
  return [output.trim(), signal ?? code];
}

for (const [name, body, expected] of [
  ['an idle library keeps no process alive', `
    await mission({}, { action: 'declare_success' });
    vision.setLog(() => {});
    console.log('idle');`, ['idle', 0]],
  ['a call in flight does, and its observer in the background', `
    const { client } = await serveModel({ action: 'declare_success' });
    let shots = 0;
    vision.observeInBackground(makePage({ screenshot: () => { shots++; return Buffer.from('x'); } }), { ...site, vision: client });
    process.on('exit', () => console.log(shots, client.metrics.callCount));`, ['1 1', 0]],
  ['process.exit in a page function', `mission({ screenshot: () => process.exit(3) });`, ['', 3]],
  ['process.exit with calls in flight', `
    for (let i = 0; i < 50; i++) mission({}).finally(() => console.log('never'));
    const at = mission({ wheel: () => process.exit(3) });`, ['', 3]],
  ['process.exit while the model is asked', `
    const { client, asked } = await serveModel(undefined);
    client.act(makePage(), { flowContext });
    await asked();
    process.exit(3);`, ['', 3]],
  ['an error that nobody catches', `mission({ wheel: () => { setImmediate(() => { throw new Error('mine'); }); return never(); } });`, [/Error: mine/, 1]],
  ['workers, each with a runtime, and their end in the middle', `
    const end = (worker, stop) => new Promise((resolve) => {
      worker.on('message', (message) => (stop ? worker.terminate() : console.log(message)));
      worker.on('exit', resolve);
    });
    const good = ${worker(`
      parentPort.postMessage((await mission({}, { action: 'declare_success' })).action);`)};
    const hanging = () => ${worker(`
      mission({ wheel: () => { parentPort.postMessage('acting'); return never(); } });
      mission({});`)};
    const exiting = ${worker(`mission({ wheel: () => process.exit(0) });`)};
    await Promise.all([end(good), end(hanging(), true), end(hanging(), true), end(exiting)]);
    console.log((await mission({}, { action: 'declare_success' })).action);`, ['declare_success\ndeclare_success', 0]],
  ['process.exit with a worker at work', `
    const worker = ${worker(`
      for (let i = 0; i < 10; i++) mission({ wheel: () => { parentPort.postMessage('acting'); } });`)};
    worker.on('message', () => process.exit(3));`, ['', 3]],
]) {
  test(name, async () => {
    const [output, code] = await run(body);
    if (expected[0] instanceof RegExp) assert.match(output, expected[0]);
    else assert.equal(output, expected[0]);
    assert.equal(code, expected[1]);
  });
}
