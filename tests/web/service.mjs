// Test helper: the real kqworldrepresentation on 127.0.0.1 (port picked by
// the service, data in a temporary folder), JSON-RPC over plain fetch, and
// the npm packages of web/ (playwright-core, ws, @foxglove/ws-protocol).
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

export const webDir = join(dirname(fileURLToPath(import.meta.url)), '../../web');
export const requireWeb = createRequire(join(webDir, 'package.json'));

const binary = process.argv[process.argv.indexOf('--binary') + 1];

export async function startService(extraArgs = []) {
  const dataDir = mkdtempSync(join(tmpdir(), 'kqweb-'));
  const child = spawn(binary, ['--port', '0', '--data-dir', dataDir, ...extraArgs], { stdio: ['ignore', 'ignore', 'pipe'] });
  let log = '';
  const port = await new Promise((resolve, reject) => {
    child.stderr.on('data', (chunk) => {
      log += chunk;
      const found = /Listening on [^ ]+:(\d+)/.exec(log);
      if (found) resolve(Number(found[1]));
    });
    child.on('exit', (code) => reject(new Error(`service ended (${code}): ${log}`)));
  });
  const token = extraArgs.includes('--token') ? extraArgs[extraArgs.indexOf('--token') + 1] : null;
  let nextId = 1;
  const service = {
    url: `http://127.0.0.1:${port}`,
    post: (body) => fetch(`${service.url}/rpc`, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json', ...(token && { Authorization: `Bearer ${token}` }) },
      body: JSON.stringify(body),
    }).then((response) => response.json()),
    async call(method, ...params) {
      const answer = await service.post({ jsonrpc: '2.0', id: nextId++, method, params });
      if (answer.error) throw new Error(`${method}: ${answer.error.message}`);
      return answer.result;
    },
    world: (method, ...params) => service.call(`KQWorldRepresentation.${method}`, ...params),
    async close() {
      child.removeAllListeners('exit');
      const ended = new Promise((resolve) => child.on('exit', resolve));
      child.kill('SIGTERM');
      await ended;
      rmSync(dataDir, { recursive: true, force: true });
    },
  };
  return service;
}

const display = (r, g, b, sx, sy, sz, model) =>
  ['Display', [['colorR', r], ['colorG', g], ['colorB', b], ['scaleX', sx], ['scaleY', sy], ['scaleZ', sz], ['model', model]]];

// A table two metres ahead and a red cup on it, both displayed (ints are
// read as floats where floats are meant; Display's colours and sizes keep a
// fraction).
export async function storeTableAndCup(service) {
  await service.world('createObjectCategory', 'furniture', false);
  await service.world('storeObject', 'table', 'World', [2, 0, 0, 0, 0, 0], 'furniture',
    [display(0.55, 0.35, 0.2, 1.2, 0.6, 0.7, 'box')]);
  await service.world('storeObject', 'cup', 'table', [0, 0, 0.45, 0, 0, 0], 'furniture',
    [display(0.9, 0.05, 0.05, 0.3, 0.3, 0.4, 'cylinder')]);
}
