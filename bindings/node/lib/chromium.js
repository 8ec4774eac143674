'use strict';

const { fromRecord } = require('./names.js');
const { run, setHandle } = require('./operation.js');

const signalOf = ({ signal, ...options } = {}) => [options, signal];

// A page that the library drives itself, without a protocol in JavaScript.
class ChromiumPage {
  constructor(handle, targetId) {
    setHandle(this, handle);
    Object.defineProperty(this, 'targetId', { value: targetId, enumerable: true });
    const call = async (operation, options) => void (await run(operation, options, { page: this }));
    this.mouse = Object.freeze({
      click: (x, y) => call('page_mouse_click', { x, y }),
      wheel: (deltaX, deltaY) => call('page_mouse_wheel', { deltaX, deltaY }),
    });
    this.keyboard = Object.freeze({
      type: (text, { delay = 0 } = {}) => call('page_keyboard_type', { text, delayMs: delay }),
      press: (key) => call('page_keyboard_press', { key }),
    });
  }

  async navigate(url, { signal } = {}) {
    await run('page_navigate', { url }, { page: this, signal });
  }

  async evaluate(expression, { signal } = {}) {
    return (await run('page_evaluate', { expression }, { page: this, signal })).value;
  }

  async close() {
    await run('page_close', {}, { page: this });
  }
}

class ChromiumBrowser {
  constructor(handle) {
    setHandle(this, handle);
  }

  async #page(operation, given) {
    const [options, signal] = signalOf(given);
    const { page, value } = await run(operation, options, { browser: this, signal });
    return new ChromiumPage(page, value.target_id);
  }

  newPage(options) {
    return this.#page('browser_new_page', options);
  }

  attach(targetId, options) {
    return this.#page('browser_attach', { ...options, targetId });
  }

  async pages({ signal } = {}) {
    return fromRecord((await run('browser_pages', {}, { browser: this, signal })).value);
  }

  async close() {
    await run('browser_close', {}, { browser: this });
  }
}

async function launchChromium(given) {
  const [options, signal] = signalOf(given);
  return new ChromiumBrowser((await run('chromium_launch', options, { signal })).browser);
}

async function connectChromium(url, given) {
  const [options, signal] = signalOf(given);
  return new ChromiumBrowser((await run('chromium_connect', { ...options, url }, { signal })).browser);
}

module.exports = { ChromiumBrowser, ChromiumPage, launchChromium, connectChromium };
