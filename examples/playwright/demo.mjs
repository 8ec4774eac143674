// The demo's mission on a Playwright page: invite a person to a board, share it, and read
// the link from the screen.
//
//   VISION_LOCAL_MODEL=... node demo.mjs FOLDER [REPORT], which are examples/demo and the
//   program vision-demo-report; with it the run leaves a report in the current folder
import { spawnSync } from 'node:child_process';
import { randomBytes } from 'node:crypto';
import { readFile } from 'node:fs/promises';
import path from 'node:path';
import { VisionClient, actLoop } from '@velmora/vision';
import { servePinwall } from './pinwall.mjs';
import { play } from './stage.mjs';

const [folder, reportProgram] = process.argv.slice(2);
if (!folder) throw new Error('usage: demo.mjs FOLDER [REPORT]; FOLDER is the one of the demo, with mission.txt and app/');
const flowContext = { workflow_name: 'demo_share_board', phase: 4, platform: 'pinwall',
  current_step: 'invite a person and share the board', expected_outcome: 'the share link is read from the screen' };
const hotspotId = 'demo-share-board';
const runId = `demo-${new Date().toISOString().replace(/[-:]|\.\d+/g, '')}-${randomBytes(4).toString('hex')}`;

const ratio = (value) => value.toFixed(2);
const target = ({ xRatio, yRatio, text, key, scrollDyRatio, durationMs }) => {
  if (xRatio !== null && yRatio !== null) return `at (${ratio(xRatio)},${ratio(yRatio)})`;
  if (text !== null) return `"${text}"`;
  return key ?? (scrollDyRatio !== null ? `by ${ratio(scrollDyRatio)}` : durationMs !== null ? `${durationMs} ms` : '');
};

/// Keeps the page's last screenshot; returns a function that hands it over once.
function keepScreenshots(page) {
  const screenshot = page.screenshot.bind(page);
  let last = null;
  page.screenshot = async (options) => (last = await screenshot(options));
  return () => { const taken = last; last = null; return taken; };
}

function writeReport(record) {
  const input = JSON.stringify(record);
  const { status, error } = spawnSync(reportProgram, ['.'], { input, stdio: ['pipe', 'inherit', 'inherit'] });
  if (error ?? status !== 0) throw error ?? new Error('the report could not be written');
}

await play(async (page, models) => {
  const started = Date.now();
  const brief = await readFile(path.join(folder, 'mission.txt'), 'utf8');
  const pinwall = await servePinwall(path.join(folder, 'app'));
  const takeScreenshot = keepScreenshots(page);
  const steps = [];
  let verdict = null;
  const keepStep = (proposal) => steps.push({ screenshot: takeScreenshot(), proposal });
  const vision = new VisionClient({
    onAction(result) {
      keepStep(result);
      console.log(`${String(steps.length).padStart(2)}  ${result.action.padEnd(15)} ${target(result).padEnd(18)
        } confidence ${ratio(result.confidence)}  ${result.latencyMs.toFixed(0)} ms  ${result.reason}`);
    },
  });
  try {
    await page.goto(pinwall.url);
    verdict = await actLoop(page, { flowContext, hotspotId, runId, missionPrompt: brief, vision, maxSteps: 20 });
  } finally {
    pinwall.close();
    const unanswered = takeScreenshot();
    // A call without a response is not in the hook: its failure is the verdict.
    const proposal = verdict?.modelUsed === 'act_loop' ? null : verdict;
    if (unanswered) steps.push({ screenshot: unanswered, proposal });
    const { link, invited } = pinwall.state;
    const invitedRightly = invited.join() === 'harvest-festival ana@example.org';
    const isRight = verdict?.action === 'declare_success' && link !== '' && verdict.reason === link && invitedRightly;
    process.exitCode = isRight ? 0 : 1;
    if (reportProgram) {
      writeReport({ runId, brief, started: Math.trunc(started / 1000), seconds: (Date.now() - started) / 1000, link,
        invitedRightly, verdict, ...models,
        steps: steps.map((step) => ({ ...step, screenshot: step.screenshot?.toString('base64') ?? '' })) });
    } else if (verdict) {
      console.log(`verdict      ${verdict.action}: ${verdict.reason}\napplication  issued ${link || 'no link'}`);
    }
    console.log(isRight ? 'The mission succeeded: the application confirms the answer.' : 'The mission failed.');
  }
});
