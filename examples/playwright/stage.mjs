// What the examples share: a model on this machine, a browser, and the end of both.
//
// VISION_LOCAL_MODEL is the program vision-local-model; without it the examples ask the
// model of ANTHROPIC_API_KEY and ANTHROPIC_BASE_URL. CHROMIUM is the browser.
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { createInterface } from 'node:readline';
import { chromium } from 'playwright-core';
import { setLog, setModelRegistry } from '@velmora/vision';

async function startModel() {
  const program = process.env.VISION_LOCAL_MODEL;
  if (!program) return { isLocal: false, lightModel: 'claude-haiku-5-5', heavyModel: 'claude-opus-5', stop() {} };
  const model = spawn(program, { stdio: ['ignore', 'pipe', 'inherit'] });
  process.on('exit', () => model.kill());
  const lines = createInterface(model.stdout);
  const [url] = await Promise.race([once(lines, 'line'), once(model, 'exit').then(([code]) => {
    throw new Error(`${program} ended with ${code}`);
  })]);
  process.env.ANTHROPIC_BASE_URL = url;
  process.env.ANTHROPIC_API_KEY = 'any-key';
  return { isLocal: true, lightModel: 'local-ocr', heavyModel: 'local-ocr', stop: () => model.kill() };
}

/// Runs an example on a new page, with the models that it uses.
export async function play(example, viewport = { width: 1280, height: 800 }) {
  setLog((level, line) => process.stderr.write(`${level}: ${line}\n`), { level: 'warning' });
  const { stop, ...models } = await startModel();
  try {
    setModelRegistry({ lightModel: models.lightModel, heavyModel: models.heavyModel });
    const browser = await chromium.launch({
      executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
      chromiumSandbox: process.getuid() !== 0, // root has none
    });
    try {
      await example(await browser.newPage({ viewport }), models);
    } finally {
      await browser.close();
    }
  } finally {
    stop();
  }
}

/// A page that shares a board: its button has been renamed since the script was written.
export const board = `<!doctype html><title>Board</title>
  <body style="font: 32px sans-serif; margin: 80px">
  <h1>Harvest festival</h1>
  <button id="new-share" style="font: inherit; padding: 20px 60px"
    onclick="document.querySelector('#state').textContent = 'Shared'; this.disabled = true">Share</button>
  <p id="state"></p>`;

export const flowContext = {
  workflow_name: 'share', current_step: 'Click "Share".', phase: 2, platform: 'pinwall',
};
