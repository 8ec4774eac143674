// Playwright's own pages in Debian's Chromium, and a Chromium of the library's.
import assert from 'node:assert/strict';
import test, { after, before } from 'node:test';
import { chromium } from 'playwright-core';
import * as vision from '@velmora/vision';
import { serveModel, site } from './support.mjs';

let browser;
before(async () => { browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: ['--no-sandbox'] }); });
after(() => browser?.close());

const form = `<body style="margin:0;height:3000px"><form style="position:absolute;left:380px;top:290px"
  onsubmit="document.title=q.value;return false"><input id=q></form>`;
const steps = [{ action: 'click', x_ratio: 0.5, y_ratio: 0.5 }, { action: 'type', text: 'grüße 🙂' },
  { action: 'key', key: 'Enter' }, { action: 'scroll', scroll_dy_ratio: 0.5 }, { action: 'declare_success' }];

for (const [name, options] of [
  ['a viewport', { viewport: { width: 800, height: 600 } }],
  ['a mobile device', { viewport: { width: 800, height: 600 }, deviceScaleFactor: 2, isMobile: true, hasTouch: true }],
]) {
  test(`a mission on a page with ${name}`, async () => {
    const { client, close } = await serveModel(...steps);
    const page = await browser.newPage(options);
    await page.setContent(form);
    const verdict = await vision.actLoop(page, { ...site, vision: client });
    assert.equal(verdict.action, 'declare_success');
    assert.equal(await page.title(), 'grüße 🙂');
    assert.ok((await page.evaluate('scrollY')) >= 300); // on a mobile device it swings on
    const { imgMeta } = await client.screenshot(page);
    assert.deepEqual([imgMeta.widthCss, imgMeta.heightCss, imgMeta.dpr], [800, 600, options.deviceScaleFactor ?? 1]);
    await page.close();
    close();
  });
}

test('a page that closes in the middle', async () => {
  for (const closes of ['before', 'while the model is asked']) {
    const { client, asked, close } = await serveModel(steps[0]);
    const page = await browser.newPage();
    const closed = closes === 'before' ? page.close() : asked().then(() => page.close());
    await (closes === 'before' && closed);
    const verdict = await vision.actLoop(page, { ...site, vision: client });
    assert.equal(verdict.action, 'escalate_to_cua');
    assert.match(verdict.reason, /TargetClosedError: .*closed/);
    await closed;
    close();
  }
});

test('a page of the library\'s own Chromium', async () => {
  const { client, close } = await serveModel(...steps);
  const own = await vision.launchChromium({ arguments: ['--mute-audio'] });
  const page = await own.newPage({ width: 800, height: 600 });
  await page.navigate(`data:text/html,<meta charset=utf-8>${encodeURIComponent(form)}`);
  assert.equal((await vision.actLoop(page, { ...site, vision: client })).action, 'declare_success');
  await page.evaluate('scrollTo(0, 0)');
  await page.mouse.click(400, 300);
  await page.keyboard.press('End');
  await page.keyboard.type('!');
  await page.keyboard.press('Enter');
  assert.equal(await page.evaluate('document.title'), 'grüße 🙂!');
  assert.deepEqual((await own.pages()).map(({ targetId }) => targetId).includes(page.targetId), true);
  await page.close();
  await assert.rejects(page.evaluate('1'), { name: 'VisionError', kind: 'PageClosedError' });
  await own.close();
  close();
});
