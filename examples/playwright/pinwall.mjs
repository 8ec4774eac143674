// The demo's web application, served from examples/demo/app.
import { once } from 'node:events';
import { readFile } from 'node:fs/promises';
import http from 'node:http';
import path from 'node:path';
import { randomInt } from 'node:crypto';
import { setTimeout as sleep } from 'node:timers/promises';

const types = { '.html': 'text/html; charset=utf-8', '.css': 'text/css; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8', '.json': 'application/json' };
const joiningMs = 2500; // longer than a page settles
const words = ['maple', 'river', 'amber', 'cedar', 'pepper', 'garden', 'thunder', 'marble', 'winter', 'copper'];
const digits = '234679'; // which nobody confuses with others

const makeLink = () => `pinwall.test/${words[randomInt(words.length)]}-${
  Array.from({ length: 4 }, () => digits[randomInt(digits.length)]).join('')}`;

/// Serves it; `state` tells what was done there.
export async function servePinwall(folder) {
  const state = { invited: [], link: '' };
  const post = {
    opened: () => ({}),
    async invitations(board, { email }) {
      if (!/^[^@\s]+@[^@\s]+\.[^@\s]+$/.test(email ?? '')) return { error: 'This is not an email address.' };
      await sleep(joiningMs);
      state.invited.push(`${board} ${email}`);
      return { email };
    },
    links: () => ({ link: (state.link = makeLink()) }),
  };
  const server = http.createServer(async (request, reply) => {
    const [, board, action] = /^\/api\/boards\/([^/]+)\/(\w+)$/.exec(request.url) ?? [];
    if (request.method === 'POST' && Object.hasOwn(post, action ?? '')) {
      let body = '';
      for await (const piece of request) body += piece;
      const answer = await post[action](board, JSON.parse(body));
      reply.writeHead(answer.error ? 422 : 200, { 'content-type': types['.json'] }).end(JSON.stringify(answer));
      return;
    }
    const file = path.basename(request.url) || 'index.html';
    try {
      const content = await readFile(path.join(folder, file));
      reply.writeHead(200, { 'content-type': types[path.extname(file)] }).end(content);
    } catch {
      reply.writeHead(404).end();
    }
  });
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  const close = () => { server.close(); server.closeAllConnections(); };
  return { url: `http://127.0.0.1:${server.address().port}/`, state, close };
}
