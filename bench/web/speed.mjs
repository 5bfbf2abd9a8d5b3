// Viewer and Foxglove speed with many displayed objects (reported, not
// asserted): the time until the page has drawn them all, and the delay from
// an updatePosition to the change in the page and in a Foxglove client,
// each beside a plain /ws subscriber receiving the same PositionChanged (the
// peer: the event itself, with nothing drawn).
//   node bench/web/speed.mjs --binary build/src/service/kqworldrepresentation [--objects 5000]
import { requireWeb, startService } from '../../tests/web/service.mjs';

const { chromium } = requireWeb('playwright-core');
const { FoxgloveClient } = requireWeb('@foxglove/ws-protocol');
const WebSocket = requireWeb('ws');
const count = Number(process.argv[process.argv.indexOf('--objects') + 1]) || 5000;
const MOVES = 100;

const service = await startService();
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium',
  args: ['--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--no-sandbox'] });
try {
  await service.world('createObjectCategory', 'things', false);
  const display = ['Display', [['colorR', 0.2], ['colorG', 0.6], ['colorB', 0.9], ['scaleX', 0.1], ['scaleY', 0.1],
    ['scaleZ', 0.1], ['model', 'box']]];
  for (let start = 0; start < count; start += 500) {
    await service.post(Array.from({ length: Math.min(500, count - start) }, (_, k) => {
      const i = start + k;
      return { jsonrpc: '2.0', id: i, method: 'KQWorldRepresentation.storeObject',
        params: [`o${i}`, 'World', [(i % 100) * 0.2, Math.floor(i / 100) * 0.2, 0.05, 0, 0, 0], 'things', [display]] };
    }));
  }
  const page = await browser.newPage({ viewport: { width: 1000, height: 700 } });
  const opened = Date.now();
  await page.goto(`${service.url}/`);
  await page.waitForFunction((n) => window.kqViewer?.state().displayed.length === n &&
    window.kqViewer.worldPosition(`o${n - 1}`) !== null, count, { timeout: 120000, polling: 50 });
  const drawMs = Date.now() - opened;

  const raw = new WebSocket(service.url.replace('http', 'ws') + '/ws');
  await new Promise((resolve) => raw.on('open', resolve));
  raw.send(JSON.stringify({ jsonrpc: '2.0', id: 1, method: 'subscribe', params: ['KQWorldRepresentation/PositionChanged'] }));
  const fox = new FoxgloveClient({ ws: new WebSocket(service.url.replace('http', 'ws') + '/foxglove',
    [FoxgloveClient.SUPPORTED_SUBPROTOCOL]) });
  const topics = {};
  fox.on('advertise', (channels) => channels.forEach((c) => { topics[fox.subscribe(c.id)] = c.topic; }));
  await new Promise((r) => setTimeout(r, 3000)); // snapshots in

  const delays = { page: [], foxglove: [], raw: [] };
  for (let m = 1; m <= MOVES; m++) {
    const x = 30 + m * 0.01;
    const seen = (check) => new Promise((resolve) => check(resolve));
    const inPage = page.evaluate(async (target) => {
      while (Math.abs((window.kqViewer.worldPosition('o0') || [0])[0] - target) > 1e-4)
        await new Promise((r) => setTimeout(r, 1));
      return Date.now();
    }, x);
    const inFoxglove = seen((resolve) => {
      const listener = ({ subscriptionId, data }) => {
        if (topics[subscriptionId] !== '/tf') return;
        const t = JSON.parse(new TextDecoder().decode(data)).transforms.find((f) => f.child_frame_id === 'o0');
        if (t && Math.abs(t.translation.x - x) < 1e-4) { fox.off('message', listener); resolve(Date.now()); }
      };
      fox.on('message', listener);
    });
    const inRaw = seen((resolve) => {
      const listener = (text) => {
        const message = JSON.parse(text);
        if (message.method === 'event' && Math.abs(message.params[1][2][0] - x) < 1e-4) {
          raw.off('message', listener); resolve(Date.now());
        }
      };
      raw.on('message', listener);
    });
    await new Promise((r) => setTimeout(r, 20));
    const t0 = Date.now();
    await service.world('updatePosition', 'o0', [x, 0, 0.05, 0, 0, 0], false);
    const [p, f, r] = await Promise.all([inPage, inFoxglove, inRaw]);
    delays.page.push(p - t0); delays.foxglove.push(f - t0); delays.raw.push(r - t0);
  }
  const stats = (list) => {
    const sorted = [...list].sort((a, b) => a - b);
    return [sorted[Math.floor(sorted.length / 2)], sorted[sorted.length - 1]];
  };
  const [rawMedian] = stats(delays.raw);
  console.log(`${count} displayed objects: page drawn all in ${drawMs} ms (headless Chromium, software GL)`);
  console.log('delay updatePosition -> change, ms, of 100: median / worst / median ratio to the /ws event');
  for (const [name, list] of Object.entries(delays)) {
    const [median, worst] = stats(list);
    console.log(`  ${name.padEnd(9)} ${String(median).padStart(4)} / ${String(worst).padStart(4)} / ${(median / Math.max(rawMedian, 1)).toFixed(2)}`);
  }
  raw.close(); fox.close();
} finally {
  await browser.close();
  await service.close();
}
