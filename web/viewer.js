// The viewer page: loads the frame tree and the displayed objects over the
// service's WebSocket, follows the world's events (PositionChanged moves a
// frame, DisplayRequired adds and removes drawn objects, AttributeChanged
// redraws one), refreshes the robot's frames, which move without events,
// with one JSON-RPC batch every REFRESH_MS, and checks the tree for frames
// stored or cleared every TREE_MS. window.kqViewer.state() gives tests a
// read-only summary of what is drawn.
import { RpcSocket } from '/web/rpc.js';
import { WorldScene, ROOT } from '/web/world_scene.js';
import { FramePanel } from '/web/frame_panel.js';

const W = 'KQWorldRepresentation';
const EVENTS = [`${W}/PositionChanged`, `${W}/DisplayRequired`, `${W}/AttributeChanged`];
const REFRESH_MS = 200;
const TREE_MS = 2000;
const DISPLAY_FIELDS = ['colorR', 'colorG', 'colorB', 'scaleX', 'scaleY', 'scaleZ', 'model'];

const world = new WorldScene(document.getElementById('view'));
const banner = document.getElementById('banner');
let robotFrames = []; // [name, parent] of "Robot" and below
let displayList = [];
let ready = false;
let updates = 0;
let drawnAt = null;
let busy = { robot: false, tree: false, ghosts: false };

const panel = new FramePanel({
  tree: document.getElementById('tree'),
  filter: document.getElementById('filter'),
  details: document.getElementById('details'),
  onSelect: (name) => select(name),
});

const rpc = new RpcSocket({
  onOpen: () => start().catch((error) => console.warn('loading the world:', error.message)),
  onClose: () => { banner.hidden = false; ready = false; },
  onEvent: (name, value) => onEvent(name, value),
});

async function start() {
  await rpc.batch(EVENTS.map((event) => ['subscribe', [event]]));
  await loadTree(true);
  const list = await rpc.call('KQMemory.getData', [`${W}/DisplayRequired`]).catch(() => []);
  await applyDisplayList(Array.isArray(list) ? list : []);
  banner.hidden = true;
  ready = true;
  if (drawnAt === null) drawnAt = performance.now();
}

// Children level by level, one batch per level; then the poses of the new
// frames (all of them when full), one batch.
async function loadTree(full) {
  const found = []; // [name, parent]
  let level = [ROOT];
  while (level.length) {
    const children = await rpc.batch(level.map((name) => [`${W}.getChildrenNames`, [name]]));
    const next = [];
    level.forEach((parent, i) => (children[i] || []).forEach((child) => {
      found.push([child, parent]);
      next.push(child);
    }));
    level = next;
  }
  const present = new Set(found.map(([name]) => name));
  for (const name of world.frameNames())
    if (name !== ROOT && !present.has(name)) { world.removeDisplayed(name); world.removeFrame(name); }
  const toPose = found.filter(([name, parent]) => full || world.parentOf(name) !== parent);
  const poses = await rpc.batch(toPose.map(([name, parent]) => [`${W}.getPosition`, [parent, name]]));
  for (const [name, parent] of found) world.setFrame(name, parent, null);
  toPose.forEach(([name], i) => { if (Array.isArray(poses[i]) && poses[i].length === 2) world.setPose(name, poses[i]); });
  const robot = new Set(['Robot']);
  robotFrames = found.filter(([name, parent]) => (robot.has(parent) || name === 'Robot') && robot.add(name));
  world.setSkeleton(robotFrames.filter(([, parent]) => parent !== ROOT));
  panel.setTree(found);
}

function displayOf(attributes) {
  const entry = (attributes || []).find(([name]) => name === 'Display');
  const row = entry && Array.isArray(entry[1]) && entry[1][0];
  if (!Array.isArray(row)) return null;
  // ObjectName, TimeS, TimeUS, then the Display fields in their order.
  return Object.fromEntries(DISPLAY_FIELDS.map((field, i) => [field, row[3 + i]]));
}

async function drawObjects(names) {
  if (names.some((name) => !world.hasFrame(name))) await loadTree(false);
  const attributes = await rpc.batch(names.map((name) => [`${W}.getObjectLatestAttributes`, [name, 1]]));
  names.forEach((name, i) => {
    const display = displayOf(attributes[i]);
    if (display && displayList.includes(name)) world.setDisplayed(name, display);
  });
}

async function applyDisplayList(list) {
  displayList = list.filter((name) => typeof name === 'string');
  const wanted = new Set(displayList);
  for (const name of world.displayedNames()) if (!wanted.has(name)) world.removeDisplayed(name);
  const drawn = new Set(world.displayedNames());
  await drawObjects(displayList.filter((name) => !drawn.has(name)));
  panel.setDisplayed(displayList);
}

function onEvent(name, value) {
  updates++;
  if (name === EVENTS[0]) {
    const [object, q, t] = value;
    if (!world.setPose(object, [q, t])) refreshTree().catch(() => {});
  } else if (name === EVENTS[1]) {
    applyDisplayList(Array.isArray(value) ? value : []).catch(() => {});
  } else if (name === EVENTS[2] && value[1] === 'Display') {
    drawObjects([value[0]]).catch(() => {});
  }
  if (value && value[0] === panel.selected) showDetails(panel.selected);
}

// One batch: the robot's frames, each in its parent.
async function refreshRobot() {
  if (!ready || busy.robot || robotFrames.length === 0) return;
  busy.robot = true;
  try {
    const poses = await rpc.batch(robotFrames.map(([name, parent]) => [`${W}.getPosition`, [parent, name]]));
    robotFrames.forEach(([name], i) => { if (Array.isArray(poses[i])) world.setPose(name, poses[i]); });
  } finally { busy.robot = false; }
}

// The whole tree is read again only when the set of names changed.
async function refreshTree() {
  if (!ready || busy.tree) return;
  busy.tree = true;
  try {
    const names = await rpc.call(`${W}.getObjectNames`);
    const known = new Set(world.frameNames());
    if (!Array.isArray(names) || names.length !== known.size || names.some((name) => !known.has(name)))
      await loadTree(false);
  } finally { busy.tree = false; }
}

// The displayed objects where they were secondsAgo seconds ago, greyed.
async function refreshGhosts() {
  const secondsAgo = Math.floor(Number(document.getElementById('seconds-ago').value) || 0);
  if (!ready || busy.ghosts) return;
  if (secondsAgo <= 0) return world.setGhosts([]);
  busy.ghosts = true;
  const kind = Number(document.getElementById('interpolation').value);
  try {
    const names = world.displayedNames();
    const poses = await rpc.batch(names.map((name) => [`${W}.getPosition6DAtTime`, [ROOT, name, secondsAgo, kind]]));
    world.setGhosts(names.map((name, i) => [name, poses[i]]));
  } finally { busy.ghosts = false; }
}

function select(name) {
  panel.select(name);
  world.highlight(name);
  showDetails(name);
}

async function showDetails(name) {
  if (!name || !ready) return;
  const parent = world.parentOf(name) || ROOT;
  const [category, inWorld, inParent, attributes] = await rpc.batch([
    [`${W}.getObjectCategory`, [name]],
    [`${W}.getPosition6D`, [ROOT, name]],
    [`${W}.getPosition6D`, [parent, name]],
    [`${W}.getObjectLatestAttributes`, [name, 1]],
  ]);
  panel.showDetails(name, { category, parent, inWorld, inParent, attributes });
}

world.renderer.domElement.addEventListener('click', (event) => {
  const name = world.pick(event.clientX, event.clientY);
  if (name) select(name);
});
document.getElementById('show-axes').addEventListener('change', (e) => world.setAxesVisible(e.target.checked));
document.getElementById('show-labels').addEventListener('change', (e) => world.setLabelsVisible(e.target.checked));
document.getElementById('seconds-ago').addEventListener('change', () => refreshGhosts().catch(() => {}));
document.getElementById('interpolation').addEventListener('change', () => refreshGhosts().catch(() => {}));

setInterval(() => refreshRobot().catch(() => {}), REFRESH_MS);
setInterval(() => refreshTree().catch(() => {}), TREE_MS);
setInterval(() => refreshGhosts().catch(() => {}), 1000);
setInterval(() => { if (panel.selected) showDetails(panel.selected).catch(() => {}); }, 1000);

function frame() {
  world.render();
  requestAnimationFrame(frame);
}
requestAnimationFrame(frame);

// For tests and measurements: a copy of what is drawn, never the live objects.
window.kqViewer = Object.freeze({
  state() {
    const objects = {};
    world.root.updateMatrixWorld(true);
    for (const name of world.displayedNames()) objects[name] = { world: world.worldPosition(name, false) };
    return {
      connected: rpc.open && ready,
      frames: world.frameNames(),
      displayed: [...displayList],
      objects,
      updates,
      drawnAtMs: drawnAt,
    };
  },
  // Where one frame is drawn in "World": [x, y, z], or null.
  worldPosition: (name) => world.worldPosition(name),
  select,
});
