// The examples, with the local model.
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import path from 'node:path';
import test from 'node:test';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';

const { VISION_LOCAL_MODEL, DEMO_FOLDER, DEMO_REPORT } = process.env;
const folder = mkdtempSync(path.join(tmpdir(), 'vision-examples-'));
test.after(() => rmSync(folder, { recursive: true }));

for (const [name, says] of [
  ['fallback', /^rescued: Shared\n$/],
  ['shadow', /^agent: click 0.15,0.30: the board is shared\nvision: click 0.15,0.30\n$/],
  ['abort', /^the run was called off; the board: Shared\n$/],
  ['demo', /\nThe mission succeeded: the application confirms the answer.\n$/],
]) {
  test(name, async () => {
    assert.ok(VISION_LOCAL_MODEL && DEMO_FOLDER && DEMO_REPORT, 'VISION_LOCAL_MODEL, DEMO_FOLDER or DEMO_REPORT is not set');
    const script = fileURLToPath(new URL(`../../examples/playwright/${name}.mjs`, import.meta.url));
    const { stdout } = await promisify(execFile)(process.execPath, [script, DEMO_FOLDER, DEMO_REPORT], { cwd: folder });
    assert.match(stdout, says);
    if (name === 'demo') assert.equal(readFileSync(path.join(folder, 'report.html'), 'utf8').match(/<figure/g).length, 11);
  });
}
