// A scripted step whose selector has gone stale. Vision looks at the page, does the one
// thing that is missing, and the step runs once more.
import { withVisionFallback } from '@velmora/vision';
import { board, flowContext, play } from './stage.mjs';

// Must stand a second run after a first one that went half way.
async function share(page) {
  if ((await page.locator('#state').textContent()) !== 'Shared') {
    await page.locator('#old-share').click({ timeout: 500 });
  }
  return page.locator('#state').textContent();
}

const agent = async (page, context, reason) => `shared by the agent, because ${reason}`;

await play(async (page) => {
  await page.setContent(board);
  const { way, value } = await withVisionFallback(page, () => share(page), { flowContext, cuaFallback: agent });
  console.log(`${way}: ${way === 'verdict' ? value.reason : value}`);
});
