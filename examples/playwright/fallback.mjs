// A scripted step whose selector has gone stale. vision looks at the page, does the one
// thing that is missing, and the step runs once more.
import { chromium } from 'playwright-core';
import { setModelRegistry, withVisionFallback } from '@velmora/vision';

// Its button has been renamed since the step was written.
const board = `<title>Board</title><body style="font: 32px sans-serif; margin: 80px">
  <h1>Harvest festival</h1>
  <button id="new-share" style="font: inherit; padding: 20px 60px"
    onclick="document.querySelector('#state').textContent = 'Shared'">Share</button>
  <p id="state"></p>`;

// It runs a second time after vision has acted, so it looks first what is left to do.
async function share(page) {
  if ((await page.textContent('#state')) !== 'Shared') await page.click('#old-share', { timeout: 2000 });
  return page.textContent('#state');
}

const agent = async (page, context, reason) => `shared by the agent, because ${reason}`;

setModelRegistry({ lightModel: 'claude-haiku-5-5', heavyModel: 'claude-opus-5' }); // the key: ANTHROPIC_API_KEY
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium' });
try {
  const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
  await page.setContent(board);
  const flowContext = { workflow_name: 'share', current_step: 'Click "Share".', phase: 2, platform: 'pinwall' };
  const { way, value } = await withVisionFallback(page, () => share(page), { flowContext, cuaFallback: agent });
  console.log(`${way}: ${way === 'verdict' ? value.reason : value}`);
} finally {
  await browser.close();
}
