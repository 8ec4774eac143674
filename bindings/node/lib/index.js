'use strict';

const native = require('./native.js');
const { BudgetExceeded, VisionError } = require('./errors.js');
const { handlers } = require('./operation.js');
const client = require('./client.js');
const modes = require('./modes.js');
const chromium = require('./chromium.js');

const levels = ['debug', 'info', 'warning', 'error']; // from 1 on
let logger;

handlers.log = (level, line) => logger?.(levels[level - 1], line);

function setLog(log, { level = 'info' } = {}) {
  if (log !== null && typeof log !== 'function') throw new TypeError('setLog: log must be a function or null');
  const number = levels.indexOf(level) + 1;
  if (number === 0) throw new TypeError(`setLog: level must be one of ${levels.join(', ')}, not ${level}`);
  native.setLog(log === null ? 0 : number);
  logger = log;
}

module.exports = {
  ...modes,
  VisionClient: client.VisionClient,
  setModelRegistry: client.setModelRegistry,
  defaultClient: client.defaultClient,
  resetDefaultMetrics: client.resetDefaultMetrics,
  launchChromium: chromium.launchChromium,
  connectChromium: chromium.connectChromium,
  ChromiumBrowser: chromium.ChromiumBrowser,
  ChromiumPage: chromium.ChromiumPage,
  VisionError,
  BudgetExceeded,
  setLog,
  isVisionEnabled: () => native.isVisionEnabled(),
  shadowLogLosses: () => native.shadowLogLosses(),
  fixtureLosses: () => native.fixtureLosses(),
  version: native.version,
};
