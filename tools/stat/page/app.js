// heron-stat's live page: fetches the --json document every interval and
// draws it. Every text of the sample (table names come from file names) goes
// into the page through textContent, never parsed as HTML.
'use strict';

const SAMPLE_URL = 'api/v1/sample';
const STATE_RANK = { broken: 3, dead: 2, stale: 1, ok: 0 };

const view = {
  interval: 1,  // seconds, from the X-Heron-Refresh-Seconds header
  sample: null,
  lastOk: 0,  // performance.now() of the last sample received
  error: '',  // why the last fetch failed; empty after a good one
  sortKey: 'state',
  sortDown: true,
  selected: null,  // the name of the table in the detail
  refreshes: 0,
};

function el(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined && text !== null) node.textContent = String(text);
  return node;
}

function none() {
  return el('span', 'none', '-');
}

// As the text view: tenths under 10 s, then 59s, 3m05s, 2h01m, 3d04h.
function duration(seconds) {
  if (seconds === null || seconds === undefined) return '-';
  if (seconds < 10) return (Math.floor(seconds * 10) / 10).toFixed(1) + 's';
  const whole = Math.floor(seconds);
  const two = (n) => String(n).padStart(2, '0');
  if (whole < 60) return whole + 's';
  if (whole < 3600) return Math.floor(whole / 60) + 'm' + two(whole % 60) + 's';
  if (whole < 86400) return Math.floor(whole / 3600) + 'h' + two(Math.floor(whole / 60) % 60) + 'm';
  return Math.floor(whole / 86400) + 'd' + two(Math.floor(whole / 3600) % 24) + 'h';
}

function rate(value) {
  if (value === null || value === undefined) return '-';
  return value < 100 ? value.toFixed(1) : Math.round(value).toLocaleString('en');
}

function bytes(value) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let n = value;
  let unit = 0;
  while (n >= 1024 && unit < units.length - 1) {
    n /= 1024;
    unit += 1;
  }
  return (unit === 0 ? String(n) : n.toFixed(1)) + ' ' + units[unit];
}

function utc(seconds) {
  if (!seconds) return '-';
  return new Date(seconds * 1000).toISOString().replace('T', ' ').replace(/\.\d+Z$/, ' UTC');
}

function stateBadge(state) {
  const known = Object.prototype.hasOwnProperty.call(STATE_RANK, state);
  return el('span', 'state' + (known ? ' state-' + state : ''), state);
}

// A bar for a ratio in 0..1, its percentage beside it.
function bar(ratio) {
  if (ratio === null || ratio === undefined) return none();
  const clamped = Math.min(Math.max(ratio, 0), 1);
  const wrap = el('span', 'bar');
  const level = clamped >= 0.9 ? ' high' : clamped >= 0.75 ? ' mid' : '';
  const fill = el('span', 'bar-fill' + level);
  fill.style.width = (clamped * 100).toFixed(1) + '%';
  wrap.append(fill, el('span', 'bar-label', (ratio * 100).toFixed(1) + ' %'));
  return wrap;
}

const COLUMNS = [
  { key: 'name', title: 'table', value: (t) => t.name, cell: (t) => t.name, className: 'name' },
  { key: 'state', title: 'state', value: (t) => STATE_RANK[t.state] ?? 4, cell: (t) => stateBadge(t.state) },
  { key: 'pid', title: 'writer', num: true, value: (t) => t.writer?.pid ?? null },
  {
    key: 'heartbeat', title: 'heartbeat', num: true, value: (t) => t.writer?.heartbeat_age_seconds ?? null,
    cell: (t) => duration(t.writer?.heartbeat_age_seconds ?? null),
  },
  { key: 'restarts', title: 'restarts', num: true, value: (t) => t.writer?.restarts ?? null },
  { key: 'shadows', title: 'shadows', num: true, value: (t) => t.clients?.shadows?.length ?? null },
  { key: 'sequence', title: 'sequence', num: true, value: (t) => t.queues?.sequence ?? null },
  {
    key: 'rate', title: 'rate/s', num: true, value: (t) => t.queues?.rate_per_second ?? null,
    cell: (t) => rate(t.queues?.rate_per_second ?? null),
  },
  { key: 'fill', title: 'queue fill', value: (t) => t.queues?.fill_ratio ?? null, cell: (t) => bar(t.queues?.fill_ratio) },
  {
    key: 'switch', title: 'switch in', num: true, value: (t) => t.queues?.seconds_to_switch ?? null,
    cell: (t) => duration(t.queues?.seconds_to_switch ?? null),
  },
  {
    key: 'alloc', title: 'allocator', value: (t) => t.allocator?.occupancy_ratio ?? null,
    cell: (t) => bar(t.allocator?.occupancy_ratio),
  },
  { key: 'problems', title: 'problems', num: true, value: (t) => t.problems.length },
];

// Worst first by default; figures that could not be read sort last either way.
function compareTables(a, b) {
  const column = COLUMNS.find((c) => c.key === view.sortKey) || COLUMNS[1];
  const x = column.value(a);
  const y = column.value(b);
  let order = 0;
  if (x === null || y === null) {
    order = x === y ? 0 : x === null ? 1 : -1;
  } else {
    order = x < y ? -1 : x > y ? 1 : 0;
    if (view.sortDown) order = -order;
  }
  return order || (a.name < b.name ? -1 : a.name > b.name ? 1 : 0);
}

function drawHeader() {
  const row = document.getElementById('columns');
  row.replaceChildren();
  for (const column of COLUMNS) {
    const th = el('th', column.num ? 'num' : '', column.title);
    th.dataset.key = column.key;
    th.title = 'Sort by ' + column.title;
    if (column.key === view.sortKey) {
      th.setAttribute('aria-sort', view.sortDown ? 'descending' : 'ascending');
      th.append(view.sortDown ? ' \u25bc' : ' \u25b2');
    }
    th.addEventListener('click', () => {
      if (view.sortKey === column.key) {
        view.sortDown = !view.sortDown;
      } else {
        view.sortKey = column.key;
        // Names read best A to Z; figures worst (highest) first.
        view.sortDown = column.key !== 'name';
      }
      drawHeader();
      drawRows();
    });
    row.append(th);
  }
}

function drawRows() {
  const body = document.getElementById('rows');
  const tables = view.sample ? [...view.sample.tables].sort(compareTables) : [];
  const rows = tables.map((table) => {
    const tr = el('tr', table.name === view.selected ? 'selected' : '');
    tr.dataset.state = table.state;
    tr.tabIndex = 0;
    for (const column of COLUMNS) {
      const shown = column.cell ? column.cell(table) : column.value(table);
      const td = el('td', [column.className, column.num ? 'num' : ''].filter(Boolean).join(' '));
      if (shown instanceof Node) td.append(shown);
      else td.textContent = shown === null || shown === undefined ? '-' : String(shown);
      tr.append(td);
    }
    const open = () => select(table.name);
    tr.addEventListener('click', open);
    tr.addEventListener('keydown', (event) => {
      if (event.key === 'Enter') open();
    });
    return tr;
  });
  body.replaceChildren(...rows);
  document.getElementById('empty').hidden = !view.sample || tables.length > 0;
}

function drawSummary() {
  const sample = view.sample;
  const counts = { ok: 0, stale: 0, dead: 0, broken: 0 };
  let problems = sample.problems.length;
  for (const table of sample.tables) {
    counts[table.state] = (counts[table.state] || 0) + 1;
    problems += table.problems.length;
  }
  const states = Object.keys(counts).map((state) => counts[state] + ' ' + state);
  const parts = [
    sample.tables.length + (sample.tables.length === 1 ? ' table: ' : ' tables: ') + states.join(', '),
    problems + (problems === 1 ? ' problem' : ' problems'),
    'sample ' + utc(sample.time) + ' (took ' + (sample.sample_duration_seconds * 1000).toFixed(0) + ' ms)',
    sample.clients_known ? 'clients known' : 'clients unknown (not root)',
  ];
  const summary = document.getElementById('summary');
  summary.textContent = parts.join(' \u00b7 ');
  summary.dataset.time = String(sample.time);
  document.getElementById('root').textContent = sample.root;
  document.title = 'heron-stat ' + (counts.dead + counts.broken > 0 ? '\u2716 ' : '') + sample.root;
}

function drawProblems() {
  const sample = view.sample;
  const lines = [];
  if (!sample.root_ok && sample.root_error) lines.push({ severity: 'critical', text: sample.root_error });
  for (const problem of sample.problems) lines.push(problem);
  for (const table of sample.tables) {
    for (const problem of table.problems) {
      lines.push({ severity: problem.severity, text: table.name + ': ' + problem.text });
    }
  }
  // Critical first, then in the sample's order.
  lines.sort((a, b) => (a.severity === 'critical' ? 0 : 1) - (b.severity === 'critical' ? 0 : 1));
  const items = lines.map((line) => el('li', line.severity, line.severity + '  ' + line.text));
  document.getElementById('problems').replaceChildren(...items);
  document.getElementById('problems-section').hidden = items.length === 0;
}

// The table in the detail is in the address too ("#table=NAME"), so that
// a link shows it.
function select(name) {
  view.selected = name;
  history.replaceState(null, '', name === null ? location.pathname : '#table=' + encodeURIComponent(name));
  drawRows();
  drawDetail();
  if (name !== null) document.getElementById('detail').scrollIntoView({ block: 'nearest' });
}

// A list of label-value pairs; a value may be a node.
function pairs(entries) {
  const dl = el('dl');
  for (const [label, value] of entries) {
    const dd = el('dd');
    if (value instanceof Node) dd.append(value);
    else dd.textContent = value === null || value === undefined ? '-' : String(value);
    dl.append(el('dt', '', label), dd);
  }
  return dl;
}

function part(title, ...children) {
  const section = el('section');
  section.append(el('h3', '', title), ...children);
  return section;
}

// A small table: a header row, then rows of cells (text or nodes).
function grid(headers, rows) {
  const table = el('table');
  const head = el('tr');
  for (const header of headers) head.append(el('th', '', header));
  table.append(head);
  for (const cells of rows) {
    const tr = el('tr');
    for (const cell of cells) {
      const td = el('td');
      if (cell instanceof Node) td.append(cell);
      else td.textContent = cell === null || cell === undefined ? '-' : String(cell);
      tr.append(td);
    }
    table.append(tr);
  }
  return table;
}

function yesNo(value) {
  return value === null || value === undefined ? 'unknown' : value ? 'yes' : 'no';
}

function writerPart(writer) {
  if (!writer) return part('Writer', el('p', 'none', 'no ember: never written, or unreadable'));
  return part('Writer', pairs([
    ['pid', writer.pid ?? 'not found here'],
    ['pid in its namespace', writer.namespace_pid],
    ['ember', 'pid ' + writer.ember.pid + ', instance ' + writer.ember.instance],
    ['restarts', writer.restarts],
    ['started', utc(writer.started)],
    ['heartbeat age', duration(writer.heartbeat_age_seconds) + ' (' + writer.heartbeat_clock + ' clock)'],
    ['alive', yesNo(writer.alive)],
    ['maps the table', yesNo(writer.maps_table)],
    ['judged by', writer.liveness],
  ]));
}

function clientsPart(clients) {
  if (!clients.known) return part('Clients', el('p', 'none', 'unknown (the /proc walk could not see every process)'));
  return part('Clients', pairs([
    ['writers', clients.writers.length ? clients.writers.join(', ') : 'none'],
    ['shadows', clients.shadows.length ? clients.shadows.join(', ') : 'none'],
  ]));
}

function queuesPart(queues) {
  if (!queues) return part('Queues', el('p', 'none', 'not readable'));
  const rows = queues.tables.map((q) => [
    q.queue + (q.queue === queues.active ? ' (active)' : ''),
    q.capacity,
    q.position,
    bar(q.capacity ? q.position / q.capacity : null),
    q.epoch,
  ]);
  return part('Queues', pairs([
    ['sequence', queues.sequence],
    ['table version', queues.table_version],
    ['rate', rate(queues.rate_per_second) + ' /s'],
    ['switch in', duration(queues.seconds_to_switch)],
  ]), grid(['queue', 'capacity', 'position', 'fill', 'epoch'], rows));
}

function allocatorPart(allocator) {
  if (!allocator) return part('Allocator', el('p', 'none', 'not readable'));
  const fullest = allocator.fullest_region;
  const rows = allocator.region_list.map((r) => [
    r.id, r.entry_size, r.units, r.used, bar(r.occupancy_ratio), r.free_pages, r.consistent ? 'yes' : 'NO',
  ]);
  return part('Allocator', pairs([
    ['occupancy', bar(allocator.occupancy_ratio)],
    ['bytes', bytes(allocator.bytes) + ' (' + bytes(allocator.used_bytes) + ' used, ' +
      bytes(allocator.free_bytes) + ' free)'],
    ['free pages', allocator.free_pages],
    ['allocations', allocator.allocations + ' (' + rate(allocator.allocations_per_second) + ' /s)'],
    ['releases', allocator.releases + ' (' + rate(allocator.releases_per_second) + ' /s)'],
    ['fullest region', fullest ? 'id ' + fullest.id + ', entries of ' + fullest.entry_size + ' B' : '-'],
  ]), grid(['region', 'entry size', 'units', 'used', 'occupancy', 'free pages', 'consistent'], rows));
}

function ownerPart(table) {
  const owner = table.owner;
  return part('Table', pairs([
    ['path', table.path],
    ['type', owner ? owner.type_name + ' (' + owner.type + ')' : 'owner file not readable'],
    ['created', owner ? utc(owner.created) + ' by pid ' + owner.creator_pid + ' on ' + owner.host : '-'],
  ]));
}

function drawDetail() {
  const detail = document.getElementById('detail');
  if (view.selected === null || !view.sample) {
    detail.hidden = true;
    return;
  }
  const table = view.sample.tables.find((t) => t.name === view.selected);
  document.getElementById('detail-name').textContent = view.selected;
  const state = document.getElementById('detail-state');
  const body = document.getElementById('detail-body');
  detail.hidden = false;
  if (!table) {
    state.replaceChildren();
    body.replaceChildren(el('p', 'none', 'no longer in the sample'));
    return;
  }
  state.replaceChildren(stateBadge(table.state));
  const problems = table.problems.map((p) => el('li', p.severity, p.severity + '  ' + p.text));
  const list = el('ul');
  list.append(...problems);
  body.replaceChildren(ownerPart(table), writerPart(table.writer), clientsPart(table.clients),
    queuesPart(table.queues), allocatorPart(table.allocator),
    part('Problems', problems.length ? list : el('p', 'none', 'none')));
}

// Stale: the last fetch failed, or no sample came for two intervals.
function drawStaleness() {
  const banner = document.getElementById('stale');
  const age = view.lastOk ? (performance.now() - view.lastOk) / 1000 : null;
  const late = age !== null && age > 2 * view.interval;
  const stale = view.error !== '' || late;
  if (stale) {
    const reason = view.error || 'no answer for ' + duration(age);
    const since = view.sample ? 'the data shown is from ' + duration(age) + ' ago' : 'no data yet';
    banner.textContent = 'Stale: ' + reason + '; ' + since + '.';
  }
  banner.hidden = !stale;
  document.body.dataset.stale = String(stale);
}

function draw() {
  drawSummary();
  drawProblems();
  drawRows();
  drawDetail();
  document.getElementById('interval').textContent = String(view.interval);
  document.body.dataset.refreshes = String(view.refreshes);
}

async function refresh() {
  const started = performance.now();
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), Math.max(2, 2 * view.interval) * 1000);
  try {
    const response = await fetch(SAMPLE_URL, { cache: 'no-store', signal: controller.signal });
    if (!response.ok) throw new Error('the server answered ' + response.status);
    const seconds = Number(response.headers.get('X-Heron-Refresh-Seconds'));
    if (seconds > 0) view.interval = seconds;
    const sample = await response.json();
    view.sample = sample;
    view.lastOk = performance.now();
    view.error = '';
    view.refreshes += 1;
    draw();
  } catch (error) {
    view.error = error.name === 'AbortError' ? 'no answer from the server' : 'cannot reach the server (' +
      (error.message || String(error)) + ')';
  } finally {
    clearTimeout(timer);
    drawStaleness();
    const left = view.interval * 1000 - (performance.now() - started);
    setTimeout(refresh, Math.max(left, 0));
  }
}

document.getElementById('detail-close').addEventListener('click', () => select(null));
if (location.hash.startsWith('#table=')) {
  try {
    view.selected = decodeURIComponent(location.hash.slice('#table='.length));
  } catch (error) {
    view.selected = null;  // not an address this page wrote
  }
}
drawHeader();
setInterval(drawStaleness, 500);
refresh();
