// Compiled only: what the declarations accept and refuse.
import type { Page } from 'playwright-core';
import { actLoop, observeOnly, withVisionFallback, VisionClient, type BrowserPage } from '@velmora/vision';

export async function run(page: Page, signal: AbortSignal): Promise<string> {
  const any: BrowserPage = page;
  const site = { flowContext: { phase: 2, own: [1] }, hotspotId: 'site', vision: new VisionClient(), signal };
  const verdict = await actLoop(any, { ...site, maxSteps: 4, shouldAbort: () => false });
  const outcome = await withVisionFallback(page, async () => 7, { flowContext: {}, cuaFallback: () => 'text' });
  if (outcome.way === 'step' || outcome.way === 'rescued') return outcome.value.toFixed() + verdict.reason;
  if (outcome.way === 'agent') return outcome.value.trim();
  // @ts-expect-error results are frozen
  outcome.value.reason = '';
  // @ts-expect-error without a hotspotId
  await observeOnly(page, { flowContext: {} });
  // @ts-expect-error not a page
  await actLoop({ screenshot: async () => new Uint8Array() }, site);
  return outcome.value.reason;
}
