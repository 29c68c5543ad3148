'use strict';
// The console speaks only the server's public protocol: JSON calls over the
// RPC headers, the reflection service for what there is to call, and the
// metrics text for the figures. It keeps no state on the server.

const kReflection = 'vantu.relay.Reflection';
const $ = (id) => document.getElementById(id);

// One RPC with a JSON body, to the page's own path (a request carrying
// "Rpc-Service" is an RPC whatever its path). Resolves to the reply object;
// rejects with the server's "Rpc-Error" text when the call failed.
async function callJson(service, method, body) {
  const answer = await fetch(location.pathname, {
    method: 'POST',
    headers: {'Rpc-Service': service, 'Rpc-Method': method, 'Content-Type': 'application/json'},
    body: body,
    cache: 'no-store',
  });
  const text = await answer.text();
  if (answer.status !== 200) throw new Error('HTTP ' + answer.status + ' ' + answer.statusText);
  const failed = answer.headers.get('Rpc-Failed');
  if (failed !== null && failed !== '0') {
    const error = new Error(answer.headers.get('Rpc-Error') || '(no error text)');
    error.rpcFailed = true;
    throw error;
  }
  return text === '' ? {} : JSON.parse(text);
}

// The descriptors the reflection service sent, indexed by full name
// (without protobuf's leading dot).
const types = new Map();  // message and enum descriptors, as JSON
const methods = new Map();  // "package.Service.Method" -> {service, method}
const loadedFiles = new Set();

function bare(name) { return name && name.startsWith('.') ? name.slice(1) : name; }

function indexMessages(prefix, messages, enums) {
  for (const e of enums || []) types.set(prefix + e.name, {kind: 'enum', descriptor: e});
  for (const m of messages || []) {
    const name = prefix + m.name;
    types.set(name, {kind: 'message', descriptor: m});
    indexMessages(name + '.', m.nestedType, m.enumType);
  }
}

function indexFile(file) {
  if (loadedFiles.has(file.name)) return;
  loadedFiles.add(file.name);
  const prefix = file.package ? file.package + '.' : '';
  indexMessages(prefix, file.messageType, file.enumType);
  for (const service of file.service || []) {
    for (const method of service.method || []) {
      methods.set(prefix + service.name + '.' + method.name,
                  {service: prefix + service.name, method: method});
    }
  }
}

// What protobuf's JSON mapping writes for the well-known types.
const kWellKnown = {
  'google.protobuf.Timestamp': '1970-01-01T00:00:00Z',
  'google.protobuf.Duration': '0s',
  'google.protobuf.FieldMask': '',
  'google.protobuf.Struct': {},
  'google.protobuf.Value': null,
  'google.protobuf.ListValue': [],
  'google.protobuf.Any': {},
  'google.protobuf.Empty': {},
  'google.protobuf.StringValue': '',
  'google.protobuf.BytesValue': '',
  'google.protobuf.BoolValue': false,
};

function scalarTemplate(field, depth) {
  switch (field.type) {
    case 'TYPE_STRING': case 'TYPE_BYTES': return '';
    case 'TYPE_BOOL': return false;
    case 'TYPE_ENUM': {
      const e = types.get(bare(field.typeName));
      return e && e.descriptor.value && e.descriptor.value.length ? e.descriptor.value[0].name : 0;
    }
    case 'TYPE_MESSAGE': case 'TYPE_GROUP': return messageTemplate(bare(field.typeName), depth + 1);
    default: return 0;
  }
}

// A JSON object with every field of `name` at a value of its type: one
// element for lists, the first member of each oneof, nested messages a few
// levels deep.
function messageTemplate(name, depth = 0) {
  if (name in kWellKnown) return kWellKnown[name];
  if (/^google\.protobuf\.\w+Value$/.test(name)) return 0;
  const type = types.get(name);
  if (!type || type.kind !== 'message' || depth > 3) return {};
  const out = {};
  const oneofsSeen = new Set();
  for (const field of type.descriptor.field || []) {
    if (field.oneofIndex !== undefined && !field.proto3Optional) {
      if (oneofsSeen.has(field.oneofIndex)) continue;
      oneofsSeen.add(field.oneofIndex);
    }
    const key = field.jsonName || field.name;
    const entry = types.get(bare(field.typeName));
    if (field.label === 'LABEL_REPEATED' && entry && entry.descriptor.options &&
        entry.descriptor.options.mapEntry) {
      out[key] = {};
    } else if (field.label === 'LABEL_REPEATED') {
      out[key] = [scalarTemplate(field, depth)];
    } else {
      out[key] = scalarTemplate(field, depth);
    }
  }
  return out;
}

function shellQuote(text) { return "'" + text.replace(/'/g, "'\\''") + "'"; }

function showCurl() {
  const chosen = methods.get($('method').textContent);
  if (!chosen) return;
  let body = $('request').value;
  try { body = JSON.stringify(JSON.parse(body)); } catch (e) { /* shown as typed */ }
  $('curl').textContent =
      'curl -H ' + shellQuote('Rpc-Service: ' + chosen.service) +
      ' -H ' + shellQuote('Rpc-Method: ' + chosen.method.name) +
      " -H 'Content-Type: application/json' \\\n     -d " + shellQuote(body) + ' ' +
      shellQuote(location.origin + location.pathname);
}

function choose(fullName, button) {
  const chosen = methods.get(fullName);
  for (const b of document.querySelectorAll('.method.chosen')) b.classList.remove('chosen');
  button.classList.add('chosen');
  $('method').textContent = fullName;
  $('types').textContent = bare(chosen.method.inputType) + ' \u2192 ' + bare(chosen.method.outputType);
  $('request').value = JSON.stringify(messageTemplate(bare(chosen.method.inputType)), null, 2);
  $('request').disabled = false;
  $('call').disabled = false;
  $('reply').textContent = '';
  $('reply').className = 'empty';
  $('status').textContent = '';
  showCurl();
}

async function call() {
  const chosen = methods.get($('method').textContent);
  if (!chosen) return;
  const reply = $('reply');
  let body;
  try {
    body = JSON.stringify(JSON.parse($('request').value));
  } catch (e) {
    reply.className = 'failed';
    reply.textContent = 'The request is not JSON: ' + e.message;
    return;
  }
  $('call').disabled = true;
  $('status').textContent = 'calling\u2026';
  const started = performance.now();
  let outcome;
  try {
    const answer = await callJson(chosen.service, chosen.method.name, body);
    reply.className = 'ok';
    reply.textContent = JSON.stringify(answer, null, 2);
    outcome = 'ok';
  } catch (e) {
    reply.className = 'failed';
    reply.textContent = e.rpcFailed ? 'Rpc-Error: ' + e.message : e.message;
    outcome = e.rpcFailed ? 'failed' : 'no answer';
  }
  const ms = performance.now() - started;
  $('status').textContent = outcome + ' in ' + (ms < 10 ? ms.toFixed(2) : ms.toFixed(0)) + ' ms';
  $('call').disabled = false;
}

function showServices(names) {
  const list = $('services');
  list.innerHTML = '';
  for (const name of names) {
    const item = document.createElement('li');
    const title = document.createElement('div');
    title.className = 'service';
    title.textContent = name;
    item.appendChild(title);
    for (const [fullName, chosen] of methods) {
      if (chosen.service !== name) continue;
      const button = document.createElement('button');
      button.type = 'button';
      button.className = 'method';
      button.dataset.method = fullName;
      button.textContent = chosen.method.name;
      button.addEventListener('click', () => choose(fullName, button));
      item.appendChild(button);
    }
    list.appendChild(item);
  }
}

async function loadServices() {
  try {
    const names = ((await callJson(kReflection, 'ListServices', '{}')).service || []).sort();
    for (const name of names) {
      const files =
          await callJson(kReflection, 'FileContainingSymbol', JSON.stringify({symbol: name}));
      for (const file of files.file || []) indexFile(file);
    }
    showServices(names);
  } catch (e) {
    const item = document.createElement('li');
    item.className = 'note';
    item.textContent = 'Cannot list the services through ' + kReflection + ': ' + e.message;
    $('services').replaceChildren(item);
  }
}

// Live figures. A source delivers cumulative samples; the view turns them
// into rates. The server's event stream is the first source; where it has
// none, polling the metrics text.
function streamFigures(eventsPath, metricsPath, onSample) {
  const poll = () => { if (metricsPath) pollMetrics(metricsPath, onSample); };
  if (!eventsPath || typeof EventSource === 'undefined') return poll();
  const source = new EventSource(eventsPath);
  let heard = false;
  source.addEventListener('counters', (event) => {
    heard = true;
    const counters = JSON.parse(event.data);
    onSample({
      at: performance.now(),
      requests: counters.requests,
      rpcs: counters.rpcs,
      inFlight: counters.rpcs_in_flight,
      connections: counters.connections,
      source: 'events',
    });
  });
  source.onerror = () => {
    // Once it has spoken, the browser reconnects by itself; a stream that
    // never answered is not served here.
    if (heard) return;
    source.close();
    poll();
  };
}

function pollMetrics(path, onSample, periodMs = 1000) {
  const sum = (text, name) => {
    let total = 0;
    const pattern = new RegExp('^' + name + '(?:\\{[^}]*\\})? ([0-9.eE+-]+)$', 'gm');
    for (const match of text.matchAll(pattern)) total += Number(match[1]);
    return total;
  };
  const poll = async () => {
    try {
      const answer = await fetch(path, {cache: 'no-store'});
      if (answer.status !== 200) return;  // no metrics here: no figures
      const text = await answer.text();
      onSample({
        at: performance.now(),
        requests: sum(text, 'relay_http_requests_total'),
        rpcs: sum(text, 'relay_rpcs_total'),
        inFlight: sum(text, 'relay_rpcs_in_flight'),
        connections: sum(text, 'relay_connections_open'),
        source: 'metrics',
      });
      setTimeout(poll, periodMs);
    } catch (e) {
      setTimeout(poll, 5 * periodMs);  // the server is away; try again later
    }
  };
  poll();
}

function showFigures() {
  let last = null;
  return (sample) => {
    $('figures').hidden = false;
    $('figures').dataset.source = sample.source;
    if (last) {
      const seconds = (sample.at - last.at) / 1000;
      $('figure-requests').textContent = Math.max(0, (sample.requests - last.requests) / seconds).toFixed(1);
      $('figure-rpcs').textContent = Math.max(0, (sample.rpcs - last.rpcs) / seconds).toFixed(1);
    }
    $('figure-in-flight').textContent = String(sample.inFlight);
    $('figure-connections').textContent = String(sample.connections);
    last = sample;
  };
}

$('call').addEventListener('click', call);
$('request').addEventListener('input', showCurl);
$('request').addEventListener('keydown', (event) => {
  if (event.key === 'Enter' && (event.ctrlKey || event.metaKey)) call();
});
loadServices();
if (document.body.dataset.metrics || document.body.dataset.events) {
  streamFigures(document.body.dataset.events, document.body.dataset.metrics, showFigures());
}
