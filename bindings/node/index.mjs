import vision from './lib/index.js';

export const {
  actLoop, withVisionFallback, shadowObserveThenCua, observeOnly, observeInBackground, executeAction,
  VisionClient, setModelRegistry, defaultClient, resetDefaultMetrics,
  launchChromium, connectChromium, ChromiumBrowser, ChromiumPage,
  VisionError, BudgetExceeded, setLog, isVisionEnabled, shadowLogLosses, fixtureLosses, version,
} = vision;
