// A model server that answers by a script, and a page without a browser.
import { once } from 'node:events';
import http from 'node:http';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { mkdtempSync, readFileSync } from 'node:fs';
import * as vision from '@velmora/vision';

export const png = Buffer.from(
  'iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==', 'base64');
export const flowContext = { workflow_name: 'share', phase: 2, platform: 'acme' };
export const site = { flowContext, hotspotId: 'share-dialog', runId: 'run-1' };

export const response = (input) => ({
  id: 'm', type: 'message', role: 'assistant', usage: { input_tokens: 10, output_tokens: 5 },
  content: [{ type: 'tool_use', id: 't', name: 'propose_action',
    input: { reason: 'seen', confidence: 0.9, next_expected_state: 'done', ...input } }],
});

/// Serves the answers in turn, the last one from then on. `undefined` is never answered.
export async function serveModel(...answers) {
  const requests = [];
  const server = http.createServer(async (request, reply) => {
    let body = '';
    for await (const piece of request) body += piece;
    requests.push(JSON.parse(body));
    server.emit('asked');
    const answer = answers.length > 1 ? answers.shift() : answers[0];
    if (answer === undefined) return;
    reply.setHeader('content-type', 'application/json');
    reply.end(JSON.stringify(response(answer)));
  });
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  server.unref().on('connection', (socket) => socket.unref());
  const client = new vision.VisionClient({ apiKey: 'test-key', baseUrl: `http://127.0.0.1:${server.address().port}` });
  return { client, requests, asked: () => once(server, 'asked'),
    close: () => { server.close(); server.closeAllConnections(); } };
}

/// A page that takes down what is done with it; `faults` replace its functions.
export function makePage(faults = {}) {
  const done = [];
  const act = (name) => async (...args) => {
    done.push([name, ...args]);
    if (faults[name]) await faults[name](...args);
  };
  return {
    done,
    screenshot: async () => (faults.screenshot ? faults.screenshot() : png),
    evaluate: async () => (faults.evaluate ? faults.evaluate() : 1),
    viewportSize: () => (faults.viewportSize ? faults.viewportSize() : { width: 1000, height: 500 }),
    mouse: { click: act('click'), wheel: act('wheel') },
    keyboard: { type: act('type'), press: act('press') },
  };
}

export const never = () => new Promise(() => {});

const folder = mkdtempSync(path.join(tmpdir(), 'vision-node-'));
process.env.KX_VISION_SHADOW_LOG = path.join(folder, 'shadow.jsonl');
export const records = () => readFileSync(process.env.KX_VISION_SHADOW_LOG, 'utf8').trim().split('\n').map(JSON.parse);

process.env.ANTHROPIC_API_KEY ??= 'test-key';
vision.setModelRegistry({ lightModel: 'light', heavyModel: 'heavy' });
vision.setLog(() => {}, { level: 'error' });
