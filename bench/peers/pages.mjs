// The demo's mission on pages of Playwright's, several at once: with the package, or as one
// writes it with fetch.
//   pages.mjs package|fetch NODE_MODULES MODEL_URL APP_URL PAGES DRAW SHOTS
// First it takes as many screenshots of what the script DRAW draws.
import { appendFile, readFile, writeFile } from 'node:fs/promises';
import { createRequire } from 'node:module';
import { monitorEventLoopDelay, performance } from 'node:perf_hooks';
import { setTimeout as sleep } from 'node:timers/promises';

const [side, modules, modelUrl, appUrl, pageCount, drawing, shotCount] = process.argv.slice(2);
const require = createRequire(`${modules}/here.js`);
const { chromium } = require('playwright-core');
const prompt = 'Share the board.';
const flowContext = { workflow_name: 'demo_share_board', phase: 4 };
const template = JSON.parse(await readFile(process.env.REQUEST, 'utf8'));

async function ask(url, image, text) {
  const source = { type: 'base64', media_type: 'image/png', data: image.toString('base64') };
  const content = [{ type: 'image', source }, { type: 'text', text }];
  const response = await fetch(`${url}/v1/messages`, {
    method: 'POST',
    headers: { 'content-type': 'application/json', 'x-api-key': 'bench-key', 'anthropic-version': '2023-06-01' },
    body: JSON.stringify({ ...template, messages: [{ role: 'user', content }] }),
    signal: AbortSignal.timeout(52_000),
  });
  if (!response.ok) throw new Error(`HTTP ${response.status}`);
  return (await response.json()).content.find(({ type }) => type === 'tool_use').input;
}

const actions = {
  click: (page, { x_ratio, y_ratio }, { width, height }) => page.mouse.click(x_ratio * width, y_ratio * height),
  scroll: (page, { scroll_dy_ratio }, { height }) => page.mouse.wheel(0, scroll_dy_ratio * height),
  type: (page, { text }) => page.keyboard.type(text, { delay: 20 }),
  key: (page, { key }) => page.keyboard.press(key),
  wait: (page, { duration_ms }) => sleep(duration_ms),
};
const settleMs = { click: 1000, type: 1000, key: 1000, scroll: 500, wait: 0 };

async function loop(page, url) {
  const notes = [];
  for (let step = 1; step <= 20; step++) {
    const image = await page.screenshot({ type: 'png' });
    const dpr = await page.evaluate('window.devicePixelRatio');
    const text = `${prompt}\n${JSON.stringify({ ...flowContext, dpr, last_action: notes.slice(-3).join(' | ') })}`;
    const answer = await ask(url, image, text);
    await appendFile(process.env.KX_VISION_SHADOW_LOG, `${JSON.stringify({ ts: new Date(), step, vision: answer })}\n`);
    if (!actions[answer.action]) return { verdict: answer.action, steps: step };
    await actions[answer.action](page, answer, page.viewportSize());
    await sleep(settleMs[answer.action]);
    notes.push(`step ${step}/20: ${answer.action} - ${answer.reason}`);
  }
  throw new Error('no verdict');
}

function withPackage() {
  const { VisionClient, actLoop, setLog, setModelRegistry } = require('@velmora/vision');
  setModelRegistry({ lightModel: 'light-model', heavyModel: 'heavy-model' });
  setLog(() => {}, { level: 'error' });
  return async (page, baseUrl) => {
    const vision = new VisionClient({ apiKey: 'bench-key-0123456789', baseUrl });
    const verdict = await actLoop(page, { flowContext, hotspotId: 'bench', missionPrompt: prompt, maxSteps: 20, vision });
    return { verdict: verdict.action, steps: vision.metrics.callCount };
  };
}

async function takeShots(page) {
  const shots = [];
  await page.evaluate(await readFile(drawing, 'utf8'));
  await page.screenshot({ type: 'png' }); // warms up
  for (let i = 0; i < Number(shotCount); i++) {
    const begin = performance.now();
    await page.screenshot({ type: 'png' });
    shots.push((performance.now() - begin) / 1000);
  }
  return shots;
}

const run = side === 'package' ? withPackage() : loop;
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', chromiumSandbox: process.getuid() !== 0 });
try {
  const pages = [];
  for (let i = 0; i < Number(pageCount); i++) {
    pages.push(await browser.newPage({ viewport: { width: 1280, height: 800 } }));
    await pages[i].goto(appUrl);
  }
  const shots = await takeShots(pages[0]);
  await pages[0].goto(appUrl);
  await writeFile('/proc/self/clear_refs', '5');
  const delay = monitorEventLoopDelay({ resolution: 1 });
  delay.enable();
  const before = process.resourceUsage();
  let steps = 0;
  let reached = 0;
  const walls = await Promise.all(pages.map(async (page, i) => {
    const begin = performance.now();
    const outcome = await run(page, `${modelUrl}/${i}`);
    const wall = (performance.now() - begin) / 1000;
    steps += outcome.steps;
    const link = page.getByText('pinwall.test/').waitFor({ timeout: 10_000 }); // the application may still be answering
    reached += await link.then(() => outcome.verdict === 'declare_success', () => false);
    return wall;
  }));
  const after = process.resourceUsage();
  delay.disable();
  const cpu = after.userCPUTime + after.systemCPUTime - before.userCPUTime - before.systemCPUTime;
  const status = await readFile('/proc/self/status', 'utf8');
  console.log(JSON.stringify({ cpu_s: cpu / 1e6 / steps, memory_kb: Number(/^VmHWM:\s+(\d+)/m.exec(status)[1]),
    delay_s: delay.max / 1e9, walls, steps, reached, shots }));
} finally {
  await browser.close();
}
