// The emulated device's page: the device menu rendered from the node tree, what is playing, the
// player's controls, the audio pipeline and the host's log. Everything arrives as server-sent
// events from /api/events; what a person does goes through the control API.
'use strict';

const $ = (id) => document.getElementById(id);

const STATES = {0: 'Stopped', 1: 'Starting', 2: 'Playing', 3: 'Paused'};
const LOG_LINES = 200;

let paths = {playLogic: '', version: ''};
let nodes = new Map();

// Answers of the control API: {ok, body} or {ok: false, message}.
async function call(method, url, body) {
  const init = {method};
  if (body !== undefined) {
    init.headers = {'Content-Type': 'application/json'};
    init.body = JSON.stringify(body);
  }
  let response;
  try {
    response = await fetch(url, init);
  } catch (e) {
    return {ok: false, message: 'The device cannot be reached.'};
  }
  let json = {};
  try {
    json = await response.json();
  } catch (e) {
    // An answer without JSON is described by its status below.
  }
  if (response.ok)
    return {ok: true, body: json};
  const error = json.error;
  const message = (error && (error.message || error)) || `The device answered with status ${response.status}.`;
  return {ok: false, message: String(message)};
}

function showStatus(element, kind, text) {
  element.className = 'status' + (kind ? ' ' + kind : '');
  element.textContent = text;
}

function clock(ms) {
  const seconds = Math.max(0, Math.floor(ms / 1000));
  return `${Math.floor(seconds / 60)}:${String(seconds % 60).padStart(2, '0')}`;
}

// ---- The device menu: list nodes are pages, their rows value, action or list nodes ----------

const rowElements = new Map();
let pagesSignature = '';
let idCounter = 0;

function titleOf(node, path) {
  return (node && node.title) || path.split('/').pop();
}

function typedKey(value) {
  const key = value && Object.keys(value)[0];
  return ['string_', 'i32_', 'bool_'].includes(key) ? key : 'string_';
}

function valueRow(node) {
  const id = `row-${++idCounter}`;
  const form = document.createElement('form');
  form.className = 'row';
  form.dataset.path = node.path;
  form.noValidate = true;
  const label = document.createElement('label');
  label.htmlFor = id;
  const field = document.createElement('div');
  field.className = 'field';
  const input = document.createElement('input');
  input.id = id;
  input.name = 'value';
  input.autocomplete = 'off';
  input.spellcheck = false;
  const key = typedKey(node.value);
  input.type = key === 'bool_' ? 'checkbox' : key === 'i32_' ? 'number' : 'text';
  const button = document.createElement('button');
  button.type = 'submit';
  button.textContent = 'Enter';
  const status = document.createElement('p');
  status.id = `${id}-status`;
  status.className = 'status';
  status.setAttribute('role', 'status');
  input.setAttribute('aria-describedby', status.id);
  field.append(input, button);
  form.append(label, field, status);

  input.addEventListener('input', () => {
    input.dataset.edited = 'yes';
    input.removeAttribute('aria-invalid');
  });
  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    const typed = {};
    typed[key] = key === 'bool_' ? input.checked : key === 'i32_' ? Number(input.value) : input.value;
    button.disabled = true;
    input.removeAttribute('aria-invalid');
    showStatus(status, 'pending', 'Sent; the device is working on it…');
    const answer = await call('POST', '/api/value', {path: node.path, value: typed});
    button.disabled = false;
    if (answer.ok) {
      delete input.dataset.edited;
      showStatus(status, 'ok', 'Accepted.');
    } else {
      input.setAttribute('aria-invalid', 'true');
      showStatus(status, 'error', answer.message);
    }
  });
  form.update = (fresh) => {
    label.textContent = titleOf(fresh, fresh.path);
    const value = fresh.value && fresh.value[key];
    if (input.dataset.edited || document.activeElement === input || value === undefined)
      return;
    if (key === 'bool_')
      input.checked = Boolean(value);
    else
      input.value = String(value);
  };
  return form;
}

function actionRow(node) {
  const row = document.createElement('div');
  row.className = 'row';
  row.dataset.path = node.path;
  const button = document.createElement('button');
  button.type = 'button';
  const status = document.createElement('p');
  status.className = 'status';
  status.setAttribute('role', 'status');
  row.append(button, status);
  button.addEventListener('click', async () => {
    showStatus(status, 'pending', 'Sent; the device is working on it…');
    const answer = await call('POST', '/api/invoke', {path: node.path, value: ''});
    showStatus(status, answer.ok ? 'ok' : 'error', answer.ok ? 'Done.' : answer.message);
  });
  row.update = (fresh) => { button.textContent = titleOf(fresh, fresh.path); };
  return row;
}

function pageBlock(list, depth, seen) {
  const section = document.createElement('section');
  section.className = 'page';
  const heading = document.createElement(depth === 0 ? 'h3' : 'h4');
  heading.textContent = titleOf(list, list.path);
  section.append(heading);
  for (const path of list.rows || []) {
    const node = nodes.get(path);
    if (!node) {
      const missing = document.createElement('p');
      missing.className = 'muted';
      missing.textContent = `${path} is not published.`;
      section.append(missing);
    } else if (node.kind === 'list') {
      // A page that lists itself, directly or not, is shown once.
      if (!seen.has(path))
        section.append(pageBlock(node, depth + 1, new Set([...seen, path])));
    } else if (node.kind === 'value' || node.kind === 'action') {
      let element = rowElements.get(path);
      if (!element) {
        element = node.kind === 'value' ? valueRow(node) : actionRow(node);
        rowElements.set(path, element);
      }
      element.update(node);
      section.append(element);
    } else {
      const other = document.createElement('p');
      other.textContent = titleOf(node, path);
      section.append(other);
    }
  }
  return section;
}

function renderPages() {
  const lists = [...nodes.values()].filter((node) => node.kind === 'list');
  const inner = new Set(lists.flatMap((list) => list.rows || []));
  const top = lists.filter((list) => !inner.has(list.path));
  // Rebuilt only when the pages' shape changes, so typing and focus survive other changes.
  const shape = JSON.stringify(lists.map((list) => [list.path, list.title, list.rows,
    (list.rows || []).map((row) => nodes.has(row) && [nodes.get(row).kind, nodes.get(row).title])]));
  if (shape === pagesSignature) {
    for (const [path, element] of rowElements)
      if (nodes.has(path))
        element.update(nodes.get(path));
    return;
  }
  pagesSignature = shape;
  const container = $('pages');
  container.replaceChildren();
  for (const list of top)
    container.append(pageBlock(list, 0, new Set([list.path])));
  if (top.length === 0) {
    const none = document.createElement('p');
    none.className = 'muted';
    none.textContent = 'The module has published no pages.';
    container.append(none);
  }
}

function showVersion() {
  const node = nodes.get(paths.version);
  const version = node && node.value && node.value.string_;
  $('version').textContent = version || 'not loaded';
}

// ---- Now playing ---------------------------------------------------------------------------

let artUrl = null;

function showArtwork(url) {
  if (url === artUrl)
    return;
  artUrl = url;
  const image = $('art');
  // The placeholder stays until the picture has really arrived.
  image.hidden = true;
  $('art-placeholder').hidden = false;
  if (!url) {
    image.removeAttribute('src');
    return;
  }
  image.onload = () => {
    if (artUrl !== url)
      return;
    image.hidden = false;
    $('art-placeholder').hidden = true;
  };
  image.onerror = () => {
    image.hidden = true;
    $('art-placeholder').hidden = false;
  };
  image.src = url;
}

function showPlayLogic(data) {
  const none = '–';
  $('title').textContent = data.title || none;
  $('artist').textContent = data.artist || none;
  $('album').textContent = data.album || none;
  $('state').textContent = data.exists ? (STATES[data.state] || `State ${data.state}`) : 'Not started';
  $('state').dataset.state = data.exists ? String(data.state) : '';
  showArtwork(data.icon || null);
  const progress = $('progress');
  const duration = Number(data.duration) || 0;
  const position = Number(data.playTime) || 0;
  progress.max = duration > 0 ? duration : 1;
  progress.value = duration > 0 ? Math.min(position, duration) : 0;
  progress.setAttribute('aria-valuetext', `${clock(position)} of ${clock(duration)}`);
  $('position').textContent = clock(position);
  $('duration').textContent = clock(duration);
}

async function player(command) {
  const answer = await call('POST', `/api/player/${command}`);
  showStatus($('player-error'), answer.ok ? '' : 'error', answer.ok ? '' : answer.message);
}

// ---- Volume --------------------------------------------------------------------------------

const volume = {
  device: 50,       // the system volume as the device last said it
  sending: false,
  sent: null,
  pointer: false,
};

function showVolume() {
  if (volume.pointer || volume.sending)
    return;
  $('volume').value = String(volume.device);
  $('volume-value').value = String(volume.device);
}

// One request at a time; whatever the slider says when it is answered is sent next.
async function sendVolume() {
  if (volume.sending)
    return;
  const wanted = Number($('volume').value);
  if (wanted === volume.sent)
    return;
  volume.sending = true;
  volume.sent = wanted;
  const answer = await call('POST', '/api/volume', {volume: wanted});
  volume.sending = false;
  if (answer.ok) {
    volume.device = answer.body.volume;
    showStatus($('volume-error'), '', '');
  } else {
    showStatus($('volume-error'), 'error', answer.message);
  }
  if (Number($('volume').value) !== volume.sent && answer.ok)
    sendVolume();
  else
    showVolume();
}

// ---- Device and pipeline -------------------------------------------------------------------

function showDevice(data) {
  $('product').textContent = data.productName ? `· ${data.productName}` : '';
  $('serial').textContent = data.serialNumber || '–';
  $('paired').textContent = data.paired ? `Paired${data.deviceId ? ` (device id ${data.deviceId})` : ''}` : 'Not paired';
  $('paired').dataset.paired = data.paired ? 'yes' : 'no';
}

function showPipeline(data) {
  $('sender').textContent = data.senderConnected ? 'Sender connected' : (data.listening ? 'Listening, no sender' : 'Not open');
  $('seconds').textContent = `${Number(data.seconds || 0).toFixed(1)} s`;
  $('underruns').textContent = String(data.underruns || 0);
  $('format').textContent = data.sampleRate ? `${data.sampleRate} Hz, ${data.channels} channels, ${data.pace} pace` : '–';
}

// ---- Log -----------------------------------------------------------------------------------

function addLogLine(line) {
  const log = $('log');
  const atEnd = log.scrollTop + log.clientHeight >= log.scrollHeight - 4;
  const item = document.createElement('li');
  item.className = line.level;
  item.textContent = line.text;
  log.append(item);
  while (log.childElementCount > LOG_LINES)
    log.firstElementChild.remove();
  if (atEnd)
    log.scrollTop = log.scrollHeight;
}

// ---- Events --------------------------------------------------------------------------------

function connect() {
  const source = new EventSource('/api/events');
  const on = (name, handler) => source.addEventListener(name, (event) => handler(JSON.parse(event.data)));
  source.onopen = () => {
    $('connection').textContent = 'Live';
    $('connection').className = 'connection live';
  };
  source.onerror = () => {
    $('connection').textContent = 'Disconnected from the device; trying again…';
    $('connection').className = 'connection down';
  };
  on('hello', (data) => {
    // A new stream starts from a snapshot, the kept log lines included.
    paths = data;
    $('log').replaceChildren();
  });
  on('nodes', (data) => {
    nodes = new Map(data.nodes.map((node) => [node.path, node]));
    renderPages();
    showVersion();
  });
  on('value', (data) => {
    const node = nodes.get(data.path);
    if (!node)
      return;
    node.value = data.value;
    const element = rowElements.get(data.path);
    if (element)
      element.update(node);
    if (data.path === paths.version)
      showVersion();
  });
  on('playlogic', showPlayLogic);
  on('volume', (data) => {
    volume.device = data.volume;
    $('muted').checked = data.muted;
    showVolume();
  });
  on('pipeline', showPipeline);
  on('device', showDevice);
  on('log', addLogLine);
}

document.addEventListener('DOMContentLoaded', () => {
  for (const command of ['play', 'pause', 'stop'])
    $(command).addEventListener('click', () => player(command));
  const slider = $('volume');
  slider.addEventListener('pointerdown', () => { volume.pointer = true; });
  const release = () => {
    volume.pointer = false;
    sendVolume();
  };
  slider.addEventListener('pointerup', release);
  slider.addEventListener('pointercancel', release);
  slider.addEventListener('input', () => {
    $('volume-value').value = slider.value;
    sendVolume();
  });
  $('muted').addEventListener('change', async () => {
    const answer = await call('POST', '/api/volume', {muted: $('muted').checked});
    showStatus($('volume-error'), answer.ok ? '' : 'error', answer.ok ? '' : answer.message);
  });
  connect();
});
