// The page of noxinspect serve: polls /api/vms for the points of every VM since the last poll
// and draws each VM's charts as SVG polylines. Nothing is loaded from anywhere but serve itself.
'use strict';

const POLL_MILLIS = 2000;
const SVG = 'http://www.w3.org/2000/svg';
// Columns of a point: time, heap used, committed, max, CPU %, GC %, threads.
const T = 0, USED = 1, COMMITTED = 2, MAX = 3, CPU = 4, GC = 5, THREADS = 6;
const CHARTS = [
  {name: 'heap', title: 'heap', lines: [['committed', COMMITTED], ['used', USED]], show: bytes},
  {name: 'cpu', title: 'CPU', lines: [['cpu', CPU]], show: percent},
  {name: 'gc', title: 'GC time', lines: [['gc', GC]], show: percent},
  {name: 'threads', title: 'threads', lines: [['threads', THREADS]], show: count},
];

const state = {vms: new Map(), since: 0, now: 0, keep: 600000};

function bytes(n) {
  if (n < 0) return '-';
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let u = 0;
  while (n >= 1024 && u < units.length - 1) { n /= 1024; u++; }
  return (u > 0 && n < 10 ? n.toFixed(1) : Math.round(n)) + ' ' + units[u];
}
function percent(n) { return n < 0 ? '-' : n.toFixed(1) + ' %'; }
function count(n) { return n < 0 ? '-' : String(n); }

function element(tag, className, text) {
  const e = document.createElement(tag);
  if (className) e.className = className;
  if (text !== undefined) e.textContent = text;
  return e;
}

function makeCard(vm) {
  const card = element('section', 'card');
  card.dataset.pid = vm.pid;
  card.dataset.id = vm.id;
  const title = element('h2');
  const who = element('div', 'who');
  card.append(title, who);
  const charts = element('div', 'charts');
  const parts = {card, title, who, charts: {}};
  for (const c of CHARTS) {
    const box = element('div', 'chart ' + c.name);
    const head = element('div', 'title');
    const name = element('span', null, c.title);
    const value = element('span', 'value');
    head.append(name, value);
    const svg = document.createElementNS(SVG, 'svg');
    svg.setAttribute('viewBox', '0 0 300 60');
    svg.setAttribute('preserveAspectRatio', 'none');
    svg.dataset.chart = c.name;
    const lines = {};
    for (const [cls] of c.lines) {
      const line = document.createElementNS(SVG, 'polyline');
      line.setAttribute('class', 'line ' + cls);
      line.dataset.series = cls;
      svg.append(line);
      lines[cls] = line;
    }
    box.append(head, svg);
    charts.append(box);
    parts.charts[c.name] = {value, lines};
  }
  card.append(charts);
  return parts;
}

// Merges one answer: VMs not in it have ended; points older than the window are dropped.
function merge(data) {
  state.now = data.now;
  state.keep = data.keepMillis;
  const live = new Set();
  for (const vm of data.vms) {
    live.add(vm.id);
    let known = state.vms.get(vm.id);
    if (!known) {
      known = {vm, points: [], parts: makeCard(vm)};
      state.vms.set(vm.id, known);
    }
    known.vm = vm;
    for (const p of vm.points) {
      if (known.points.length === 0 || p[T] > known.points[known.points.length - 1][T]) known.points.push(p);
    }
    while (known.points.length && known.points[0][T] < data.now - state.keep) known.points.shift();
  }
  for (const [id, known] of state.vms) {
    if (!live.has(id)) {
      known.parts.card.remove();
      state.vms.delete(id);
    }
  }
  if (data.now > state.since) state.since = data.now;
}

function polyline(points, column, from, to, top) {
  const out = [];
  for (const p of points) {
    if (p[T] < from || p[column] < 0) continue;
    const x = (p[T] - from) / (to - from) * 300;
    const y = 58 - (p[column] / top) * 56;
    out.push(x.toFixed(1) + ',' + y.toFixed(1));
  }
  return out.join(' ');
}

function draw(known, from, to) {
  const {vm, points, parts} = known;
  parts.title.textContent = vm.pid + '  ' + (vm.mainClass || '(main class not published)');
  parts.who.textContent = [vm.user, vm.cluster, vm.version].filter(Boolean).join(' \u00b7 ');
  const last = points.length ? points[points.length - 1] : null;
  for (const c of CHARTS) {
    let top = 1;
    for (const p of points) {
      if (p[T] < from) continue;
      for (const [, column] of c.lines) top = Math.max(top, p[column]);
    }
    top *= 1.1;
    const chart = parts.charts[c.name];
    for (const [cls, column] of c.lines) {
      chart.lines[cls].setAttribute('points', polyline(points, column, from, to, top));
    }
    const shown = c.lines[c.lines.length - 1][1];
    chart.value.textContent = !last ? '-' : c.name !== 'heap' ? c.show(last[shown])
        : bytes(last[USED]) + ' of ' + bytes(last[COMMITTED]) + (last[MAX] >= 0 ? ', max ' + bytes(last[MAX]) : '');
  }
}

function sortKey(known, by) {
  const last = known.points.length ? known.points[known.points.length - 1] : [];
  switch (by) {
    case 'cpu': return -(last[CPU] ?? -1);
    case 'heap': return -(last[USED] ?? -1);
    case 'gc': return -(last[GC] ?? -1);
    case 'threads': return -(last[THREADS] ?? -1);
    case 'main': return known.vm.mainClass;
    default: return known.vm.pid;
  }
}

// The time axis: the chosen window, or less while the page has fewer points (at least a minute).
function timeAxis() {
  const windowMillis = Number(document.getElementById('window').value);
  let oldest = state.now;
  for (const known of state.vms.values()) {
    if (known.points.length) oldest = Math.min(oldest, known.points[0][T]);
  }
  return [Math.max(state.now - windowMillis, Math.min(oldest, state.now - 60000)), state.now];
}

function render() {
  const [from, to] = timeAxis();
  const filter = document.getElementById('filter').value.trim().toLowerCase();
  const by = document.getElementById('sort').value;
  const shown = [];
  for (const known of state.vms.values()) {
    const text = (known.vm.pid + ' ' + known.vm.user + ' ' + known.vm.mainClass).toLowerCase();
    if (filter && !text.includes(filter)) {
      known.parts.card.remove();
      continue;
    }
    draw(known, from, to);
    shown.push(known);
  }
  shown.sort((a, b) => {
    const x = sortKey(a, by), y = sortKey(b, by);
    return x < y ? -1 : x > y ? 1 : a.vm.pid - b.vm.pid;
  });
  const main = document.getElementById('vms');
  shown.forEach((known, i) => {
    if (main.children[i] !== known.parts.card) main.insertBefore(known.parts.card, main.children[i] || null);
  });
  document.getElementById('empty').hidden = state.vms.size > 0;
}

async function poll() {
  const status = document.getElementById('status');
  try {
    const answer = await fetch('/api/vms?since=' + state.since, {cache: 'no-store'});
    if (!answer.ok) throw new Error('HTTP ' + answer.status);
    merge(await answer.json());
    render();
    status.textContent = state.vms.size + (state.vms.size === 1 ? ' VM' : ' VMs') + ', read at '
        + new Date(state.now).toLocaleTimeString();
    status.classList.remove('error');
  } catch (e) {
    status.textContent = 'no answer from serve: ' + e.message;
    status.classList.add('error');
  }
  setTimeout(poll, POLL_MILLIS);
}

for (const id of ['filter', 'sort', 'window']) document.getElementById(id).addEventListener('input', render);
poll();
