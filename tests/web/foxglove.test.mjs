// The Foxglove endpoint with Foxglove's own client (@foxglove/ws-protocol):
// the handshake under both subprotocols, the two channels, the snapshot, a
// move, a deletion, and a reader too slow to keep up.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { requireWeb, startService, storeTableAndCup } from './service.mjs';

const { FoxgloveClient } = requireWeb('@foxglove/ws-protocol');
const WebSocket = requireWeb('ws');

// A client subscribed to every advertised channel; seen holds the newest
// transform per frame, the entities, deletions and statuses.
function connect(url) {
  const ws = new WebSocket(url, [FoxgloveClient.SUPPORTED_SUBPROTOCOL]);
  const client = new FoxgloveClient({ ws });
  const seen = { channels: [], topics: {}, tf: new Map(), entities: new Map(), deletions: [], statuses: [] };
  client.on('serverInfo', (info) => { seen.serverInfo = info; });
  client.on('status', (status) => seen.statuses.push(status));
  client.on('advertise', (channels) => channels.forEach((channel) => {
    seen.channels.push(channel);
    seen.topics[client.subscribe(channel.id)] = channel.topic;
  }));
  client.on('message', ({ subscriptionId, data }) => {
    const payload = JSON.parse(new TextDecoder().decode(data));
    if (seen.topics[subscriptionId] === '/tf') payload.transforms.forEach((t) => seen.tf.set(t.child_frame_id, t));
    else {
      payload.entities.forEach((entity) => seen.entities.set(entity.id, entity));
      seen.deletions.push(...payload.deletions.map((deletion) => deletion.id));
    }
  });
  return { ws, client, seen };
}

async function until(check, what, ms = 5000) {
  for (const end = Date.now() + ms; !check(); await new Promise((r) => setTimeout(r, 20)))
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
}

test('Foxglove clients see the world and follow it', async () => {
  const service = await startService();
  const url = service.url.replace('http', 'ws') + '/foxglove';
  const clients = [];
  try {
    await storeTableAndCup(service);
    const sdk = new WebSocket(url, ['foxglove.sdk.v1']);
    const first = await new Promise((resolve) => sdk.once('message', (text) => resolve(JSON.parse(text))));
    assert.equal(sdk.protocol, 'foxglove.sdk.v1');
    assert.equal(first.op, 'serverInfo');
    sdk.close();

    const fast = connect(url);
    clients.push(fast);
    const { seen } = fast;
    await until(() => seen.tf.has('cup') && seen.entities.has('cup'), 'the snapshot');
    assert.equal(seen.serverInfo.name, 'kqworldrepresentation');
    assert.equal(seen.serverInfo.sessionId, first.sessionId);
    assert.deepEqual(seen.channels.map((c) => [c.topic, c.encoding, c.schemaName, c.schemaEncoding]), [
      ['/tf', 'json', 'foxglove.FrameTransforms', 'jsonschema'],
      ['/scene', 'json', 'foxglove.SceneUpdate', 'jsonschema']]);
    const parent = (frame) => seen.tf.get(frame)?.parent_frame_id;
    assert.deepEqual(['Robot', 'Robot_Torso', 'NeckPan', 'table', 'cup'].map(parent),
      ['World', 'Robot', 'Robot_Torso', 'World', 'table']);
    assert.ok(Math.abs(seen.tf.get('cup').translation.z - 0.45) < 1e-6);
    const cup = seen.entities.get('cup');
    assert.equal(cup.frame_id, 'cup');
    assert.equal(cup.frame_locked, true);
    assert.deepEqual(cup.cylinders[0].size, { x: 0.3, y: 0.3, z: 0.4 });
    assert.ok(Math.abs(cup.cylinders[0].color.r - 0.9) < 1e-6);
    assert.equal(cup.texts[0].text, 'cup');
    assert.equal(seen.entities.get('table').cubes.length, 1);

    // A client that stops reading: the others go on, and it gets the newest
    // pose of each frame and a warning once it reads again.
    const slow = connect(url);
    clients.push(slow);
    await until(() => slow.seen.tf.has('cup'), 'the slow client\'s snapshot');
    slow.ws._socket.pause();
    // 8,000 moves of one frame: megabytes, more than the sockets hold.
    const move = (i) => ({ jsonrpc: '2.0', id: i, method: 'KQWorldRepresentation.updatePosition',
      params: ['cup', [i / 10000, 0, 0.45, 0, 0, 0], false] });
    for (let batch = 0; batch < 16; batch++)
      await service.post(Array.from({ length: 500 }, (_, i) => move(batch * 500 + i + 1)));
    const x = 0.8;
    const moved = () => Math.abs(seen.tf.get('cup').translation.x - x) < 1e-6;
    await until(moved, 'the fast client to follow', 1000);
    slow.ws._socket.resume();
    await until(() => Math.abs(slow.seen.tf.get('cup').translation.x - x) < 1e-6, 'the slow client\'s newest pose');
    await until(() => slow.seen.statuses.some((status) => status.level === 1), 'a warning');

    assert.equal(await service.world('clearObject', 'cup'), 0);
    await until(() => seen.deletions.includes('cup'), 'the deletion');
  } finally {
    clients.forEach(({ client }) => client.close());
    await service.close();
  }
});
