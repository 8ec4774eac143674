'use strict';
// What the library does with a page of the host's, in the calls of Playwright's Page.

const { isUint8Array } = require('node:util').types; // also of another realm

const pageFunctions = {
  async screenshot(page, fullPage) {
    const png = await page.screenshot({ fullPage, type: 'png' });
    if (isUint8Array(png)) return png;
    throw new TypeError(`page.screenshot() must resolve to a Buffer or a Uint8Array, not ${typeof png}`);
  },
  evaluate: (page, expression) => page.evaluate(expression),
  viewportSize: (page) => page.viewportSize(),
  mouseClick: async (page, x, y) => void (await page.mouse.click(x, y)),
  mouseWheel: async (page, deltaX, deltaY) => void (await page.mouse.wheel(deltaX, deltaY)),
  keyboardType: async (page, text, delay) => void (await page.keyboard.type(text, { delay })),
  keyboardPress: async (page, key) => void (await page.keyboard.press(key)),
};

const methods = [[null, ['screenshot', 'evaluate', 'viewportSize']], ['mouse', ['click', 'wheel']],
  ['keyboard', ['type', 'press']]];

/// Refuses what is not a page, before anything is done with it.
function checkPage(owner, page) {
  for (const [device, names] of methods) {
    const target = device ? page?.[device] : page;
    for (const name of names) {
      if (typeof target?.[name] === 'function') continue;
      throw new TypeError(`${owner}: page.${device ? `${device}.` : ''}${name} is not a function: this is not a page`);
    }
  }
}

module.exports = { pageFunctions, checkPage };
