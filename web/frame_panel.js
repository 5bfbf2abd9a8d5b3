// FramePanel: the side panel's frame tree (collapsible, with a filter box
// that keeps the frames whose name holds the text, and their ancestors) and
// the details of the selected object: category, pose in "World" and in its
// parent (xyz in metres, roll-pitch-yaw in degrees), latest attributes.
const DEG = 180 / Math.PI;

function fixed(values, scale = 1, digits = 3) {
  return Array.isArray(values) ? values.map((v) => (v * scale).toFixed(digits)).join(', ') : '—';
}

export class FramePanel {
  constructor({ tree, filter, details, onSelect }) {
    Object.assign(this, { treeElement: tree, filterElement: filter, detailsElement: details, onSelect });
    this.selected = null;
    this.signature = '';
    this.displayed = new Set();
    this.items = new Map(); // name -> li
    filter.addEventListener('input', () => this.applyFilter());
  }

  // pairs: [name, parent] in tree order (parents first). Rebuilt only when
  // the tree changed, so collapsed branches stay collapsed.
  setTree(pairs) {
    const signature = pairs.map((pair) => pair.join('<')).join('|');
    if (signature === this.signature) return;
    this.signature = signature;
    this.items.clear();
    this.treeElement.textContent = '';
    const lists = new Map([['World', this.treeElement]]);
    const add = (name, list) => {
      const li = document.createElement('li');
      const toggle = document.createElement('span');
      toggle.className = 'toggle';
      toggle.addEventListener('click', () => {
        li.classList.toggle('collapsed');
        toggle.textContent = li.classList.contains('collapsed') ? '▸' : '▾';
      });
      const label = document.createElement('span');
      label.className = 'name';
      label.textContent = name;
      label.addEventListener('click', () => this.onSelect(name));
      const children = document.createElement('ul');
      li.append(toggle, label, children);
      list.append(li);
      lists.set(name, children);
      this.items.set(name, li);
    };
    add('World', this.treeElement);
    for (const [name, parent] of pairs) add(name, lists.get(parent) || this.treeElement);
    for (const [name, li] of this.items)
      li.querySelector('.toggle').textContent = lists.get(name).children.length ? '▾' : '';
    this.select(this.selected);
    this.applyFilter();
  }

  setDisplayed(names) { this.displayed = new Set(names); }

  applyFilter() {
    const text = this.filterElement.value.trim().toLowerCase();
    const keep = (li) => {
      let shown = !text || li.querySelector('.name').textContent.toLowerCase().includes(text);
      for (const child of li.querySelector('ul').children) shown = keep(child) || shown;
      li.classList.toggle('hidden', !shown);
      return shown;
    };
    for (const li of this.treeElement.children) keep(li);
  }

  select(name) {
    this.selected = name;
    for (const [item, li] of this.items) li.querySelector('.name').classList.toggle('selected', item === name);
  }

  showDetails(name, { category, parent, inWorld, inParent, attributes }) {
    if (name !== this.selected) return;
    const rows = [
      ['name', name],
      ['category', category ?? '—'],
      ['parent', parent],
      ['in World xyz (m)', fixed(inWorld?.slice(0, 3))],
      ['in World rpy (°)', fixed(inWorld?.slice(3), DEG, 1)],
      [`in ${parent} xyz (m)`, fixed(inParent?.slice(0, 3))],
      [`in ${parent} rpy (°)`, fixed(inParent?.slice(3), DEG, 1)],
    ];
    for (const [attribute, values] of attributes || []) rows.push([attribute, JSON.stringify(values)]);
    const table = document.createElement('table');
    for (const [key, value] of rows) {
      const tr = table.insertRow();
      tr.insertCell().textContent = key;
      tr.insertCell().textContent = value;
    }
    this.detailsElement.replaceChildren(table);
  }
}
