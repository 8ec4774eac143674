// A mission that is called off: the signal ends it wherever it is, and nothing is done to
// the page from then on.
import { actLoop } from '@velmora/vision';
import { board, flowContext, play } from './stage.mjs';

await play(async (page) => {
  await page.setContent(board);
  // [mission]
  const stop = new AbortController();
  const mission = actLoop(page, {
    flowContext, hotspotId: 'share', signal: stop.signal,
    missionPrompt: '1. Click "Share".\n2. Wait until "Everybody has joined" is visible.',
  });
  // [mission]
  const shared = page.locator('#state', { hasText: 'Shared' }).waitFor();
  shared.then(() => stop.abort(new Error('the run was called off')), () => {});
  try {
    await mission;
  } catch (error) {
    if (error !== stop.signal.reason) throw error;
    console.log(`${error.message}; the board: ${await page.locator('#state').textContent()}`);
  }
});
