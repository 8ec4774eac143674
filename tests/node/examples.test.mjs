// The examples, with the local model.
import assert from 'node:assert/strict';
import { execFile, spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import net from 'node:net';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { createInterface } from 'node:readline';
import test from 'node:test';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';

const { VISION_LOCAL_MODEL, DEMO_FOLDER, DEMO_REPORT } = process.env;
assert.ok(VISION_LOCAL_MODEL && DEMO_FOLDER && DEMO_REPORT, 'VISION_LOCAL_MODEL, DEMO_FOLDER or DEMO_REPORT is not set');
const folder = mkdtempSync(path.join(tmpdir(), 'vision-examples-'));
const model = spawn(VISION_LOCAL_MODEL, { stdio: ['ignore', 'pipe', 'inherit'] }); // of those that do not start one
const [modelUrl] = await once(createInterface(model.stdout), 'line');
const unused = net.createServer().listen(0, '127.0.0.1');
await once(unused, 'listening');
// Character recognition takes long on a busy machine.
const env = { ...process.env, ANTHROPIC_BASE_URL: modelUrl, ANTHROPIC_API_KEY: 'any', KX_VISION_TIMEOUT_S: '600',
  PORT: unused.address().port };
unused.close();
test.after(() => {
  model.kill();
  rmSync(folder, { recursive: true });
});

for (const [name, says] of [
  ['fallback', /^rescued: Shared\n$/],
  ['attach', /^the owner's page: Shared\n$/],
  ['shadow', /^agent: click 0.15,0.30: the board is shared\nvision: click 0.15,0.30\n$/],
  ['abort', /^the run was called off; the board: Shared\n$/],
  ['demo', /\nThe mission succeeded: the application confirms the answer.\n$/],
]) {
  test(name, async () => {
    const script = fileURLToPath(new URL(`../../examples/playwright/${name}.mjs`, import.meta.url));
    const args = name === 'demo' ? [DEMO_FOLDER, DEMO_REPORT] : [];
    const { stdout } = await promisify(execFile)(process.execPath, [script, ...args], { cwd: folder, env });
    assert.match(stdout, says);
    if (name === 'demo') assert.equal(readFileSync(path.join(folder, 'report.html'), 'utf8').match(/<figure/g).length, 11);
  });
}
