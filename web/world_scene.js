// WorldScene: the three.js drawing of the world. Each frame of the tree is an
// Object3D under its parent's, placed by its pose in the parent (quaternion
// w, x, y, z and translation in metres), so a move of one frame carries its
// subtree; each frame shows a small axes triad, the robot's frames are joined
// by skeleton lines, and each displayed object is a mesh from its Display
// attribute (box, sphere, cylinder; anything else a box) with a name label.
// Ghosts are greyed copies of the displayed objects at poses in "World"
// from the past.
import * as THREE from 'three';
import { OrbitControls } from 'three/addons/controls/OrbitControls.js';
import { CSS2DRenderer, CSS2DObject } from 'three/addons/renderers/CSS2DRenderer.js';

export const ROOT = 'World';

export class WorldScene {
  constructor(container) {
    this.renderer = new THREE.WebGLRenderer({ antialias: true, preserveDrawingBuffer: true });
    this.renderer.setPixelRatio(window.devicePixelRatio);
    container.appendChild(this.renderer.domElement);
    this.labels = new CSS2DRenderer();
    this.labels.domElement.style.position = 'absolute';
    this.labels.domElement.style.top = '0';
    this.labels.domElement.style.pointerEvents = 'none';
    container.appendChild(this.labels.domElement);

    this.scene = new THREE.Scene();
    this.scene.background = new THREE.Color(0x1e1f22);
    // The world is z-up, like the robot's frames.
    this.camera = new THREE.PerspectiveCamera(50, 1, 0.01, 1000);
    this.camera.up.set(0, 0, 1);
    this.camera.position.set(-3, -4, 3);
    this.controls = new OrbitControls(this.camera, this.renderer.domElement);
    this.controls.target.set(1, 0, 0.3);
    this.controls.update();
    // Drawn only when something changed: a still world costs nothing.
    this.dirty = true;
    this.controls.addEventListener('change', () => { this.dirty = true; });
    this.scene.add(new THREE.HemisphereLight(0xffffff, 0x444444, 2.0));
    const sun = new THREE.DirectionalLight(0xffffff, 1.5);
    sun.position.set(3, -2, 6);
    this.scene.add(sun);
    const grid = new THREE.GridHelper(20, 20, 0x666666, 0x3a3a3a);
    grid.rotation.x = Math.PI / 2; // into the x-y plane
    this.scene.add(grid);

    this.root = new THREE.Group(); // "World"
    this.root.name = ROOT;
    this.scene.add(this.root);
    this.frames = new Map([[ROOT, { node: this.root, parent: null, axes: null }]]);
    this.meshes = new Map(); // displayed name -> mesh
    this.ghosts = new THREE.Group();
    this.scene.add(this.ghosts);
    this.axesVisible = true;
    this.labelsVisible = true;
    this.skeletonFrames = []; // [child, parent] names of the robot's frames
    this.skeleton = new THREE.LineSegments(new THREE.BufferGeometry(),
      new THREE.LineBasicMaterial({ color: 0x66ccff }));
    this.scene.add(this.skeleton);
    this.rootAxes = new THREE.AxesHelper(0.4);
    this.root.add(this.rootAxes);

    const resize = () => {
      const { clientWidth: w, clientHeight: h } = container;
      this.renderer.setSize(w, h);
      this.labels.setSize(w, h);
      this.camera.aspect = w / Math.max(h, 1);
      this.camera.updateProjectionMatrix();
      this.dirty = true;
    };
    new ResizeObserver(resize).observe(container);
    resize();
  }

  hasFrame(name) { return this.frames.has(name); }
  parentOf(name) { return this.frames.get(name)?.parent ?? null; }
  frameNames() { return [...this.frames.keys()]; }

  // Adds the frame or moves it under parent; pose: [[w, x, y, z], [x, y, z]].
  setFrame(name, parent, pose) {
    this.dirty = true;
    let frame = this.frames.get(name);
    if (!frame) {
      const node = new THREE.Group();
      node.name = name;
      const axes = new THREE.AxesHelper(0.15);
      axes.visible = this.axesVisible;
      node.add(axes);
      frame = { node, parent, axes };
      this.frames.set(name, frame);
    }
    const parentFrame = this.frames.get(parent);
    if (parentFrame && frame.node.parent !== parentFrame.node) parentFrame.node.add(frame.node);
    frame.parent = parent;
    if (pose) this.setPose(name, pose);
  }

  setPose(name, [q, t]) {
    const frame = this.frames.get(name);
    if (!frame) return false;
    const { quaternion, position } = frame.node;
    if (quaternion.w === q[0] && quaternion.x === q[1] && quaternion.y === q[2] && quaternion.z === q[3] &&
        position.x === t[0] && position.y === t[1] && position.z === t[2]) return true;
    quaternion.set(q[1], q[2], q[3], q[0]);
    position.set(t[0], t[1], t[2]);
    this.dirty = true;
    return true;
  }

  removeFrame(name) {
    this.dirty = true;
    const frame = this.frames.get(name);
    if (!frame || name === ROOT) return;
    frame.node.removeFromParent();
    this.frames.delete(name);
  }

  setSkeleton(pairs) {
    this.skeletonFrames = pairs;
    this.dirty = true;
  }

  // Display attribute row: {colorR, colorG, colorB, scaleX, scaleY, scaleZ, model}.
  setDisplayed(name, display) {
    this.dirty = true;
    this.removeDisplayed(name);
    const frame = this.frames.get(name);
    if (!frame) return false;
    const geometry = display.model === 'sphere' ? new THREE.SphereGeometry(0.5, 24, 16)
      : display.model === 'cylinder' ? new THREE.CylinderGeometry(0.5, 0.5, 1, 24).rotateX(Math.PI / 2)
        : new THREE.BoxGeometry(1, 1, 1);
    const color = new THREE.Color(display.colorR, display.colorG, display.colorB);
    const mesh = new THREE.Mesh(geometry, new THREE.MeshStandardMaterial({ color, roughness: 0.7 }));
    mesh.scale.set(display.scaleX || 0.1, display.scaleY || 0.1, display.scaleZ || 0.1);
    mesh.userData = { object: name, display };
    const element = document.createElement('div');
    element.className = 'label';
    element.textContent = name;
    const label = new CSS2DObject(element);
    label.position.set(0, 0, (display.scaleZ || 0.1) / 2 + 0.05);
    label.visible = this.labelsVisible;
    frame.node.add(mesh);
    frame.node.add(label);
    this.meshes.set(name, { mesh, label });
    return true;
  }

  removeDisplayed(name) {
    this.dirty = true;
    const drawn = this.meshes.get(name);
    if (!drawn) return;
    drawn.mesh.removeFromParent();
    drawn.label.removeFromParent();
    drawn.label.element.remove();
    drawn.mesh.geometry.dispose();
    drawn.mesh.material.dispose();
    this.meshes.delete(name);
  }

  displayedNames() { return [...this.meshes.keys()]; }

  // Greyed copies at [x, y, z, wx, wy, wz] in "World" (rotation Rz*Ry*Rx).
  setGhosts(poses) {
    this.dirty = true;
    for (const ghost of [...this.ghosts.children]) ghost.removeFromParent();
    for (const [name, pose] of poses) {
      const drawn = this.meshes.get(name);
      if (!drawn || !pose || pose.length !== 6) continue;
      const ghost = new THREE.Mesh(drawn.mesh.geometry, new THREE.MeshBasicMaterial({
        color: 0x999999, transparent: true, opacity: 0.35, depthWrite: false }));
      ghost.scale.copy(drawn.mesh.scale);
      ghost.position.set(pose[0], pose[1], pose[2]);
      ghost.rotation.set(pose[3], pose[4], pose[5], 'ZYX');
      this.ghosts.add(ghost);
    }
  }

  setAxesVisible(visible) {
    this.dirty = true;
    this.axesVisible = visible;
    for (const frame of this.frames.values()) if (frame.axes) frame.axes.visible = visible;
    this.rootAxes.visible = visible;
  }

  setLabelsVisible(visible) {
    this.dirty = true;
    this.labelsVisible = visible;
    for (const { label } of this.meshes.values()) label.visible = visible;
  }

  // Where the frame is in "World": [x, y, z]; update false when the caller
  // has just brought the world matrices up to date (many lookups at once).
  worldPosition(name, update = true) {
    const frame = this.frames.get(name);
    if (!frame) return null;
    if (update) this.root.updateMatrixWorld(true);
    const p = new THREE.Vector3().setFromMatrixPosition(frame.node.matrixWorld);
    return [p.x, p.y, p.z];
  }

  // The displayed object under a click at client coordinates; null if none.
  pick(clientX, clientY) {
    const rect = this.renderer.domElement.getBoundingClientRect();
    const pointer = new THREE.Vector2(((clientX - rect.left) / rect.width) * 2 - 1,
      -((clientY - rect.top) / rect.height) * 2 + 1);
    const raycaster = new THREE.Raycaster();
    raycaster.setFromCamera(pointer, this.camera);
    const hits = raycaster.intersectObjects([...this.meshes.values()].map(({ mesh }) => mesh), false);
    return hits.length ? hits[0].object.userData.object : null;
  }

  highlight(name) {
    this.dirty = true;
    for (const [object, { mesh }] of this.meshes)
      mesh.material.emissive.setHex(object === name ? 0x444400 : 0x000000);
  }

  render() {
    if (!this.dirty) return;
    this.dirty = false;
    this.root.updateMatrixWorld(true);
    const points = [];
    for (const [child, parent] of this.skeletonFrames) {
      const a = this.frames.get(child); const b = this.frames.get(parent);
      if (!a || !b) continue;
      points.push(new THREE.Vector3().setFromMatrixPosition(a.node.matrixWorld),
        new THREE.Vector3().setFromMatrixPosition(b.node.matrixWorld));
    }
    const geometry = this.skeleton.geometry;
    const position = geometry.getAttribute('position');
    if (!position || position.count !== points.length) {
      // Recreated only when the robot's frames change: a fresh attribute
      // each frame would leave its GPU buffer behind.
      geometry.dispose();
      this.skeleton.geometry = new THREE.BufferGeometry().setFromPoints(points);
    } else {
      points.forEach((point, i) => position.setXYZ(i, point.x, point.y, point.z));
      position.needsUpdate = true;
      geometry.computeBoundingSphere();
    }
    this.renderer.render(this.scene, this.camera);
    this.labels.render(this.scene, this.camera);
  }
}
