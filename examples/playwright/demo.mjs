// The demo's mission on a Playwright page: invite a person to a board, share it, and read
// the link from the screen.
//
//   VISION_LOCAL_MODEL=... node demo.mjs FOLDER, which is examples/demo
import { readFile } from 'node:fs/promises';
import path from 'node:path';
import { VisionClient, actLoop } from '@velmora/vision';
import { servePinwall } from './pinwall.mjs';
import { play } from './stage.mjs';

const folder = process.argv[2];
if (!folder) throw new Error('usage: demo.mjs FOLDER, the one of the demo, with mission.txt and app/');
const flowContext = { workflow_name: 'demo_share_board', phase: 4, platform: 'pinwall',
  current_step: 'invite a person and share the board', expected_outcome: 'the share link is read from the screen' };

const ratio = (value) => value.toFixed(2);
const target = ({ xRatio, yRatio, text, key, scrollDyRatio, durationMs }) => {
  if (xRatio !== null && yRatio !== null) return `at (${ratio(xRatio)},${ratio(yRatio)})`;
  if (text !== null) return `"${text}"`;
  return key ?? (scrollDyRatio !== null ? `by ${ratio(scrollDyRatio)}` : durationMs !== null ? `${durationMs} ms` : '');
};

await play(async (page) => {
  const pinwall = await servePinwall(path.join(folder, 'app'));
  try {
    await page.goto(pinwall.url);
    let step = 0;
    const vision = new VisionClient({
      onAction: (result) => console.log(`${String(++step).padStart(2)}  ${result.action.padEnd(15)} ${
        target(result).padEnd(18)} confidence ${ratio(result.confidence)}  ${result.reason}`),
    });
    const verdict = await actLoop(page, { flowContext, hotspotId: 'demo_share_board', runId: `demo-${Date.now()}`,
      missionPrompt: await readFile(path.join(folder, 'mission.txt'), 'utf8'), vision, maxSteps: 20 });
    const { link, invited } = pinwall.state;
    const { callCount, p95 } = vision.metrics;
    console.log(`verdict      ${verdict.action}: ${verdict.reason}\napplication  gave out ${link || 'no link'}`);
    console.log(`calls        ${callCount}, p95 ${p95.toFixed(0)} ms`);
    const isRight = verdict.action === 'declare_success' && link !== '' && verdict.reason === link &&
      invited.join() === 'harvest-festival ana@example.org';
    console.log(isRight ? 'The mission succeeded, and the application says the same.' : 'The mission did not succeed.');
    process.exitCode = isRight ? 0 : 1;
  } finally {
    pinwall.close();
  }
});
