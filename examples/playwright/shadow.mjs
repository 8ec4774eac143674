// Shadow mode: the agent works as ever, and what vision would have done goes into a record
// beside what the agent did.
import { readFile } from 'node:fs/promises';
import { shadowObserveThenCua } from '@velmora/vision';
import { board, flowContext, play } from './stage.mjs';

// In place of a computer-use agent. A text that begins with the first action can be
// compared with vision's proposal.
async function agent(page) {
  const { width, height } = page.viewportSize();
  const box = await page.getByRole('button', { name: 'Share' }).boundingBox();
  const [x, y] = [box.x + box.width / 2, box.y + box.height / 2];
  await page.mouse.click(x, y);
  return { text: `click ${(x / width).toFixed(2)},${(y / height).toFixed(2)}: the board is shared` };
}

process.env.KX_VISION_SHADOW_LOG ??= 'vision_shadow.jsonl';
await play(async (page) => {
  await page.setContent(board);
  // [shadow]
  const value = await shadowObserveThenCua(page, () => agent(page), { flowContext, hotspotId: 'share', runId: 'run-1' });
  // [shadow]
  console.log(`agent: ${value.text}`);
  const lines = (await readFile(process.env.KX_VISION_SHADOW_LOG, 'utf8')).trim().split('\n');
  const { vision } = JSON.parse(lines.at(-1));
  console.log(`vision: ${vision.action} ${vision.x_ratio?.toFixed(2)},${vision.y_ratio?.toFixed(2)}`);
});
