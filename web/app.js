// The ReplayManager page: live client table and recording figures from the
// server's event stream, the log browser with a timeline per log, replay
// controls and the clients' reported timing error. Changes go through the
// JSON API with the token from the login field.
'use strict';

const $ = (id) => document.getElementById(id);
const palette = ['#2563eb', '#d97706', '#059669', '#7c3aed', '#db2777', '#0891b2', '#65a30d', '#9f1239'];

let token = sessionStorage.getItem('replayToken') || '';
let lastStatus = null;
let previousClients = new Map();  // name -> {received, at, changedAt}
let recordingSince = null;
let seeking = false;
let logs = [];
let chosenLog = null;
let timelinePlot = null;
let fidelityPlot = null;
let fidelityNames = [];
let fidelityStart = null;
const fidelity = new Map();  // client -> {t: [], mean: [], latest}

function showMessage(text, isError) {
  const element = $('message');
  element.textContent = text;
  element.className = isError ? 'error' : '';
}

async function api(method, path, body) {
  const headers = {};
  if (token) headers['X-Replay-Token'] = token;
  const options = { method, headers };
  if (method !== 'GET') {
    headers['Content-Type'] = 'application/json';
    options.body = JSON.stringify(body || {});
  }
  const response = await fetch(path, options);
  let data;
  try {
    data = await response.json();
  } catch (e) {
    data = { error: 'HTTP ' + response.status };
  }
  if (!response.ok) throw new Error(data.error || 'HTTP ' + response.status);
  return data;
}

// Runs a change and shows its reply (or why it was refused).
async function act(method, path, body) {
  try {
    const reply = await api(method, path, body);
    showMessage(reply.message || 'done', false);
    return reply;
  } catch (error) {
    showMessage(error.message, true);
    return null;
  }
}

function text(value) {
  return value === undefined || value === null ? '–' : String(value);
}

function cell(row, value, numeric) {
  const td = row.insertCell();
  td.textContent = text(value);
  if (numeric) td.className = 'num';
  return td;
}

function formatSeconds(ms) {
  return (ms / 1000).toFixed(1) + ' s';
}

function formatBytes(bytes) {
  if (bytes >= 1 << 20) return (bytes / (1 << 20)).toFixed(1) + ' MB';
  if (bytes >= 1024) return (bytes / 1024).toFixed(1) + ' KB';
  return bytes + ' B';
}

// --- live status -----------------------------------------------------------

function updateClients(status) {
  const now = Date.now();
  const replayClients = new Map();
  if (status.replay) for (const c of status.replay.clients) replayClients.set(c.name, c);
  const body = $('clients').tBodies[0];
  body.textContent = '';
  const seen = new Map();
  for (const client of status.clients) {
    const before = previousClients.get(client.name);
    const bytes = client.bytes || 0;
    let rate = null;
    let byteRate = null;
    let changedAt = now;
    if (before) {
      const seconds = (now - before.at) / 1000;
      rate = seconds > 0 ? (client.received - before.received) / seconds : null;
      byteRate = seconds > 0 ? (bytes - before.bytes) / seconds : null;
      changedAt = client.received !== before.received ? now : before.changedAt;
      // A rate over less than a second jumps about: keep the older point.
      if (seconds < 1) {
        seen.set(client.name, { ...before, changedAt });
        rate = before.rate;
        byteRate = before.byteRate;
      }
    }
    if (!seen.has(client.name)) {
      seen.set(client.name, { received: client.received, bytes, at: now, changedAt, rate, byteRate });
    }
    const replay = replayClients.get(client.name) || {};
    const row = body.insertRow();
    const running = client.status === 'Running';
    const quiet = status.state === 'Record' && now - changedAt > 3000;
    if (!running || quiet) row.className = 'silent';
    cell(row, client.name);
    cell(row, 'port ' + client.port);
    cell(row, client.status);
    cell(row, client.slot, true);
    cell(row, rate === null ? null : rate.toFixed(1), true);
    cell(row, byteRate === null ? null : Math.round(byteRate), true);
    // While replaying, the server's sequence check also sees the numbers of
    // the records it sends, so its count is no recording's gaps then: the
    // replay's own gaps are the next column.
    cell(row, status.state === 'Replay' ? null : client.dropped, true);
    cell(row, replay.missed !== undefined ? replay.missed : 0, true);
    cell(row, replay.checksum_errors !== undefined ? replay.checksum_errors : 0, true);
    cell(row, client.last_message);
  }
  previousClients = seen;
}

function updateRecording(status) {
  const counters = status.counters;
  if (status.state === 'Record') {
    if (recordingSince === null) recordingSince = Date.now();
    $('record-elapsed').textContent = formatSeconds(Date.now() - recordingSince);
  } else {
    recordingSince = null;
  }
  $('record-stored').textContent = text(counters.records_to_log);
  const dropped = counters.pipe_failures + counters.no_room_to_hold + counters.outside_time_window;
  $('record-drops').textContent = dropped + ' (log writer ' + counters.pipe_failures + ', no room to hold ' +
    counters.no_room_to_hold + ', outside time window ' + counters.outside_time_window + ')';
}

function updateReplay(status) {
  const replay = status.replay;
  if (!replay) {
    $('progress').textContent = status.state === 'Replay' ? 'waiting for the clients' : 'no replay';
    return;
  }
  const seek = $('seek');
  seek.max = (replay.duration_ms / 1000).toFixed(1);
  if (!seeking) seek.value = (replay.position_ms / 1000).toFixed(1);
  $('progress').textContent = formatSeconds(replay.position_ms) + ' of ' + formatSeconds(replay.duration_ms) +
    ', record ' + replay.record + ' of ' + replay.records + ', rate ' + (replay.max_rate ? 'max' : replay.rate) +
    (replay.paused ? ', paused' : '') + (replay.loop ? ', loop ' + replay.loops : '') +
    (status.job_running ? '' : ', ended');
}

// The server times each replayed item: the client's report after its
// callback against the moment the item was due (late positive), for the
// latest items of each client, keyed by the replay position.
const kFidelityPoints = 5000;

function updateFidelity(status) {
  const replay = status.replay;
  if (!replay) return;
  if (fidelityStart === null) fidelityStart = Date.now();
  for (const client of replay.clients || []) {
    const timing = client.timing;
    if (!timing || timing.items === 0) continue;
    let entry = fidelity.get(client.name);
    if (!entry) {
      entry = { points: new Map(), latest: null };
      fidelity.set(client.name, entry);
    }
    for (const [positionMs, errorMs] of timing.recent) entry.points.set(positionMs, errorMs);
    while (entry.points.size > kFidelityPoints) entry.points.delete(entry.points.keys().next().value);
    entry.latest = { items: timing.items, mean: timing.mean_ms, p99: timing.p99_ms, max: timing.max_ms };
  }
  drawFidelity();
}

function drawFidelity() {
  const names = [...fidelity.keys()].sort();
  const body = $('fidelity-table').tBodies[0];
  body.textContent = '';
  for (const name of names) {
    const latest = fidelity.get(name).latest;
    const row = body.insertRow();
    cell(row, name);
    cell(row, latest.items, true);
    cell(row, latest.mean.toFixed(2), true);
    cell(row, latest.p99.toFixed(2), true);
    cell(row, latest.max.toFixed(2), true);
  }
  if (names.length === 0) return;
  // One x axis (seconds into the replay) for all clients.
  const positions = [...new Set(names.flatMap((n) => [...fidelity.get(n).points.keys()]))]
    .sort((x, y) => x - y);
  const data = [positions.map((ms) => ms / 1000)];
  for (const name of names) {
    const points = fidelity.get(name).points;
    data.push(positions.map((ms) => (points.has(ms) ? points.get(ms) : null)));
  }
  if (!fidelityPlot || names.join() !== fidelityNames.join()) {
    if (fidelityPlot) fidelityPlot.destroy();
    fidelityNames = names;
    const series = [{ label: 's' }].concat(names.map((name, i) => ({
      label: name + ' error (ms)', stroke: palette[i % palette.length], width: 0,
      points: { show: true, size: 3, fill: palette[i % palette.length] },
    })));
    fidelityPlot = new uPlot({
      width: Math.max(300, $('fidelity').clientWidth), height: 220, series,
      scales: { x: { time: false } }, axes: [{ label: 'seconds into the replay' }, { label: 'ms (late +)' }],
    }, data, $('fidelity'));
  } else {
    fidelityPlot.setData(data);
  }
}

function onStatus(status) {
  lastStatus = status;
  const state = $('state');
  state.textContent = status.state + (status.job_running ? ' (job running)' : '');
  state.className = 'badge ' + status.state;
  if (status.state === 'Replay' && fidelityStart === null) {
    fidelity.clear();
  }
  updateClients(status);
  updateRecording(status);
  updateReplay(status);
  updateFidelity(status);
}

function connectEvents() {
  const source = new EventSource('/api/events' + (token ? '?token=' + encodeURIComponent(token) : ''));
  source.addEventListener('status', (event) => {
    $('live').textContent = 'live';
    onStatus(JSON.parse(event.data));
  });
  source.onerror = () => {
    $('live').textContent = 'reconnecting…';
  };
  return source;
}

// --- logs and the timeline --------------------------------------------------

async function loadLogs() {
  let reply;
  try {
    reply = await api('GET', '/api/logs');
  } catch (error) {
    showMessage(error.message, true);
    return;
  }
  logs = reply.logs;
  $('logs-directory').textContent = reply.directory;
  const body = $('logs').tBodies[0];
  body.textContent = '';
  const select = $('replay-log');
  const chosen = select.value;
  select.textContent = '';
  for (const log of logs) {
    const row = body.insertRow();
    row.dataset.name = log.name;
    if (log.name === chosenLog) row.className = 'chosen';
    cell(row, log.name);
    if (log.error) {
      cell(row, log.error);
      continue;
    }
    cell(row, new Date(log.modified * 1000).toLocaleString());
    cell(row, formatSeconds(log.duration_ms), true);
    cell(row, formatBytes(log.size), true);
    cell(row, log.clients.join(', '));
    cell(row, log.segments, true);
    const verify = cell(row, log.clean ? 'clean' : log.problems + ' problems');
    verify.className = log.clean ? 'clean' : 'problems';
    row.addEventListener('click', () => chooseLog(log.name));
    const option = document.createElement('option');
    option.value = option.textContent = log.name;
    select.appendChild(option);
  }
  if (chosen) select.value = chosen;
}

async function chooseLog(name) {
  chosenLog = name;
  for (const row of $('logs').tBodies[0].rows) row.className = row.dataset.name === name ? 'chosen' : '';
  $('replay-log').value = name;
  let detail;
  try {
    detail = await api('GET', '/api/logs/' + encodeURIComponent(name));
  } catch (error) {
    showMessage(error.message, true);
    return;
  }
  const segmentSelect = $('replay-segment');
  segmentSelect.textContent = '';
  segmentSelect.appendChild(new Option('all', ''));
  for (const segment of detail.segments) {
    segmentSelect.appendChild(new Option(segment.index + ' (' + formatSeconds(segment.duration_ms) + ')', segment.index));
  }
  const clients = $('replay-clients');
  clients.textContent = 'Clients: ';
  for (const client of detail.clients) {
    const label = document.createElement('label');
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.checked = true;
    box.value = client;
    label.append(box, ' ' + client);
    clients.appendChild(label);
  }
  // The segment with the most items is plotted.
  let best = null;
  let bestItems = -1;
  for (const segment of detail.timeline) {
    const items = Object.values(segment.items).flat().reduce((a, b) => a + b, 0);
    if (items > bestItems) {
      best = segment;
      bestItems = items;
    }
  }
  $('timeline-title').textContent = 'Timeline of ' + name + (best ? ', segment ' + best.segment : '');
  if (best) {
    segmentSelect.value = String(best.segment);
    drawTimeline(best, detail.markers.filter((m) => m.segment === best.segment));
  }
}

function drawTimeline(segment, markers) {
  const names = Object.keys(segment.items).sort();
  const length = Math.max(1, ...names.map((n) => segment.items[n].length));
  const x = Array.from({ length }, (_, i) => i);
  const data = [x];
  for (const name of names) data.push(x.map((i) => segment.items[name][i] || 0));
  const marks = x.map(() => null);
  for (const marker of markers) marks[Math.min(length - 1, Math.floor(marker.seconds))] = 0;
  data.push(marks);
  const series = [{ label: 's' }].concat(names.map((name, i) => ({
    label: name, stroke: palette[i % palette.length], width: 1.5,
  })), [{ label: 'gaps / damage', stroke: '#c0262d', paths: () => null, points: { show: true, size: 9, fill: '#c0262d' } }]);
  if (timelinePlot) timelinePlot.destroy();
  timelinePlot = new uPlot({
    width: Math.max(300, $('timeline').clientWidth), height: 220, series,
    scales: { x: { time: false } },
    axes: [{ label: 'seconds into the segment' }, { label: 'items/s' }],
    cursor: { drag: { x: true, y: false, setScale: false } },
    hooks: {
      setSelect: [(plot) => {
        if (plot.select.width <= 0) return;
        const from = plot.posToVal(plot.select.left, 'x');
        const to = plot.posToVal(plot.select.left + plot.select.width, 'x');
        $('replay-from').value = Math.max(0, from).toFixed(1);
        $('replay-to').value = Math.max(0, to).toFixed(1);
        showMessage('replay range ' + Math.max(0, from).toFixed(1) + ' s to ' + to.toFixed(1) + ' s', false);
      }],
    },
  }, data, $('timeline'));
}

// --- controls ---------------------------------------------------------------

function replayRequest() {
  const request = { log: $('replay-log').value, loop: $('replay-loop').checked };
  if ($('replay-segment').value !== '') request.segment = Number($('replay-segment').value);
  if ($('replay-from').value !== '') request.from = Number($('replay-from').value);
  if ($('replay-to').value !== '') request.to = Number($('replay-to').value);
  const boxes = [...$('replay-clients').querySelectorAll('input[type=checkbox]')];
  const chosen = boxes.filter((b) => b.checked).map((b) => b.value);
  if (chosen.length > 0 && chosen.length < boxes.length) request.clients = chosen;
  const rate = Number($('replay-rate').value);
  if (rate && rate !== 1) request.rate = rate;
  return request;
}

function wireControls() {
  $('login').addEventListener('submit', (event) => {
    event.preventDefault();
    token = $('token').value.trim();
    sessionStorage.setItem('replayToken', token);
    showMessage(token ? 'token set' : 'token cleared', false);
  });
  $('token').value = token;
  $('record').addEventListener('click', () => {
    const seconds = $('record-duration').value;
    $('record-drain').textContent = '–';
    act('POST', '/api/record', seconds ? { duration: Number(seconds) } : {});
  });
  $('stop').addEventListener('click', async () => {
    const started = Date.now();
    $('record-drain').textContent = 'draining: each client\'s block holding the stop moment is still taken…';
    const reply = await act('POST', '/api/stop');
    $('record-drain').textContent = reply
      ? 'done after ' + formatSeconds(Date.now() - started) + ': ' + reply.message
      : 'refused';
    loadLogs();
  });
  $('logs-refresh').addEventListener('click', loadLogs);
  $('play').addEventListener('click', () => {
    fidelity.clear();
    fidelityStart = null;
    act('POST', '/api/replay', replayRequest());
  });
  $('pause').addEventListener('click', () => act('POST', '/api/pause'));
  $('resume').addEventListener('click', () => act('POST', '/api/resume'));
  $('step').addEventListener('click', () => act('POST', '/api/step', { records: 1 }));
  $('apply-rate').addEventListener('click', () => act('POST', '/api/rate', { rate: Number($('replay-rate').value) }));
  $('replay-loop').addEventListener('change', () => {
    if (lastStatus && lastStatus.replay) act('POST', '/api/loop', { on: $('replay-loop').checked });
  });
  $('replay-stop').addEventListener('click', () => act('POST', '/api/stop'));
  const seek = $('seek');
  seek.addEventListener('input', () => { seeking = true; });
  seek.addEventListener('change', async () => {
    await act('POST', '/api/seek', { seconds: Number(seek.value) });
    seeking = false;
  });
}

wireControls();
connectEvents();
loadLogs();
