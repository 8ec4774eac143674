// The package as users get it: its tarball, its declarations, what it says when it cannot run.
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import path from 'node:path';
import test from 'node:test';

const require = createRequire(import.meta.url);
const source = path.dirname(require.resolve('@velmora/vision/package.json'));
const folder = mkdtempSync(path.join(tmpdir(), 'vision-package-'));
const installed = path.join(folder, 'node_modules/@velmora/vision');
test.after(() => rmSync(folder, { recursive: true }));

test('the tarball installs and runs, from an ES module and from CommonJS', () => {
  const npm = (...args) => execFileSync('npm', [...args, '--offline', '--no-audit'], { cwd: folder, stdio: 'pipe', encoding: 'utf8' });
  const tarball = npm('pack', source).trim();
  writeFileSync(path.join(folder, 'package.json'), '{}');
  npm('install', `./${tarball}`);
  const version = JSON.parse(readFileSync(path.join(installed, 'package.json'))).version;
  for (const [kind, load] of [['module', `import * as v from '@velmora/vision';`],
    ['commonjs', `const v = require('@velmora/vision');`]]) {
    const script = `${load} v.setModelRegistry({ lightModel: 'l', heavyModel: 'h' });
      new v.VisionClient({ apiKey: 'k' }); process.stdout.write(v.version);`;
    assert.equal(execFileSync(process.execPath, [`--input-type=${kind}`, '-e', script], { cwd: folder, encoding: 'utf8' }), version);
  }
  const names = Object.keys(require('@velmora/vision')).sort();
  const exported = execFileSync(process.execPath, ['--input-type=module', '-e',
    `console.log(Object.keys(await import('@velmora/vision')).join())`], { cwd: folder, encoding: 'utf8' });
  assert.deepEqual(exported.trim().split(','), names);
});

test('it says what is missing or does not fit', () => {
  const file = path.join(installed, 'prebuilds/linux-x64/libvision_c.so.0.1');
  const library = readFileSync(file);
  for (const [name, other, before, says] of [
    ['libcurl.so.4', 'libcurl.so.9', '', /the system library libcurl.so is missing; on Debian: apt-get install libcurl4 .*libcurl.so.9/],
    ['0.1.0', '0.1.9', '', /it needs libvision_c 0.1.0 and found 0.1.9/],
    ['', '', `Object.defineProperty(process, 'arch', { value: 'arm64' });`, /no binary for linux-arm64, only for linux-x64/],
  ]) {
    const changed = Buffer.from(library);
    for (let at = 0; name && (at = changed.indexOf(`${name}\0`)) >= 0;) changed.write(`${other}\0`, at);
    writeFileSync(file, changed);
    const { status, stderr } = spawnSync(process.execPath, ['-e', `${before} require('@velmora/vision')`], { cwd: folder, encoding: 'utf8' });
    assert.equal(status, 1);
    assert.match(stderr, says);
  }
});

test('its declarations fit Playwright\'s pages', () => {
  execFileSync(process.execPath, [require.resolve('typescript/bin/tsc'), '--noEmit', '--strict', '--target', 'es2022',
    '--module', 'nodenext', '--moduleResolution', 'nodenext', '--types', 'node', 'types.ts'],
  { cwd: import.meta.dirname ?? path.dirname(new URL(import.meta.url).pathname), stdio: 'inherit' });
});
