// Two processes and one page: Playwright's opens it, the other finds it by its id and lets
// vision act there.
//
//   PORT=9222 node attach.mjs
import { execFileSync } from 'node:child_process';
import { fileURLToPath } from 'node:url';

const port = process.env.PORT ?? '9222';

async function open() {
  const { chromium } = await import('playwright-core');
  // [owner]
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: [`--remote-debugging-port=${port}`],
  });
  const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
  const session = await page.context().newCDPSession(page);
  const { targetInfo } = await session.send('Target.getTargetInfo');
  const { targetId } = targetInfo; // what the other process needs, beside the port
  // [owner]
  await page.setContent('<title>Board</title><button style="font: 32px sans-serif">Share</button>');
  await page.evaluate(`document.querySelector('button').onclick = () => { document.title = 'Shared'; }`);
  execFileSync(process.execPath, [fileURLToPath(import.meta.url), targetId], { stdio: 'inherit' });
  console.log(`the owner's page: ${await page.title()}`);
  await browser.close();
}

async function act(targetId) {
  const { VisionClient, connectChromium, setModelRegistry, executeAction } = await import('@velmora/vision');
  setModelRegistry({ lightModel: 'claude-haiku-5-5', heavyModel: 'claude-opus-5' });
  // [guest]
  const browser = await connectChromium(`http://127.0.0.1:${port}`);
  const page = await browser.attach(targetId); // for every operation that takes a page
  // [guest]
  const vision = new VisionClient();
  const { imgMeta } = await vision.screenshot(page);
  await executeAction(page, await vision.act(page, { flowContext: { current_step: 'Click "Share".' } }), imgMeta);
  await browser.close(); // disconnects; the page stays
}

await (process.argv[2] ? act(process.argv[2]) : open());
