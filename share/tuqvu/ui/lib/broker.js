// The broker as the dashboard reaches it: JSON-RPC calls, the event stream and the file
// API, all on the page's own origin, signed in by the session cookie the browser got.
const RPC = new URL('../rpc', document.baseURI).href;
const EVENTS = new URL('../events', document.baseURI).href;
const FILES = new URL('../files/', document.baseURI).href;
const LOG = new URL('../log', document.baseURI).href;

let nextId = 1;

// A failed call, with the description the module gave.
export class CallError extends Error {}

function answerOf(body, method) {
  if (body.error) {
    const error = body.error;
    throw new CallError(error.data?.description ?? error.message ?? `${method} failed`);
  }
  return body.result;
}

async function post(body) {
  const reply = await fetch(RPC, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
    credentials: 'same-origin',
  });
  if (!reply.ok) throw new CallError(`the broker answered ${reply.status}: ${(await reply.text()).trim()}`);
  return reply.json();
}

// One call: its result, or a CallError saying why it failed.
export async function call(method, ...params) {
  return answerOf(await post({ jsonrpc: '2.0', id: nextId++, method, params }), method);
}

// Several calls in one request: [method, ...params] each; the results in order, an
// Error in the place of a call that failed.
export async function callAll(calls) {
  if (calls.length === 0) return [];
  const first = nextId;
  nextId += calls.length;
  const requests = calls.map(([method, ...params], i) =>
    ({ jsonrpc: '2.0', id: first + i, method, params }));
  const answers = await post(requests);
  return requests.map((request) => {
    const answer = answers.find((a) => a.id === request.id);
    try {
      return answerOf(answer ?? { error: { message: 'no answer' } }, request.method);
    } catch (error) {
      return error;
    }
  });
}

// Follows every memory event. `handlers` has onEvent({key, value}), onLost(reason) for
// events the broker no longer kept, and onState(text, connected). The browser resumes
// after a cut from the last event it had (Last-Event-ID), so nothing is silently lost.
export function followEvents(handlers) {
  const source = new EventSource(EVENTS);
  source.onopen = () => handlers.onState('Connected: changes show as they happen.', true);
  source.onerror = () => {
    handlers.onState(source.readyState === EventSource.CLOSED
      ? 'Disconnected from the robot. Reload the page to sign in again.'
      : 'Connection lost; reconnecting and catching up…', false);
  };
  source.onmessage = (message) => {
    try {
      handlers.onEvent(JSON.parse(message.data));
    } catch {
      // A frame that is no JSON event is not one of the broker's.
    }
  };
  const lost = (message) => {
    let why = 'some events were missed';
    try { why = JSON.parse(message.data).reason; } catch { /* keep the plain text */ }
    handlers.onLost(why);
  };
  source.addEventListener('lost', lost);
  source.addEventListener('dropped', lost);
  return source;
}

// The URL of a path of the file API ("behaviors/User/x/"), each component encoded.
export function fileUrl(path) {
  return FILES + path.split('/').map(encodeURIComponent).join('/');
}

// The entries of a folder of the file API: [{name, type, size}], or a CallError.
export async function listFolder(path) {
  const reply = await fetch(fileUrl(path), { headers: { Accept: 'application/json' } });
  if (!reply.ok) throw new CallError(`${reply.status}: ${(await reply.text()).trim()}`);
  return reply.json();
}

// PUTs `body` (a Blob) to the file API's `path`; onProgress(bytesSent) as it goes.
// Resolves when the broker confirmed the file; rejects with its refusal in words.
export function putFile(path, body, onProgress) {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    request.open('PUT', fileUrl(path));
    request.upload.onprogress = (event) => onProgress(event.loaded);
    request.onload = () => {
      if (request.status >= 200 && request.status < 300) {
        onProgress(body.size);
        resolve();
      } else {
        reject(new CallError(`the robot refused ${path} (${request.status}): ` +
                             request.responseText.trim()));
      }
    };
    request.onerror = () => reject(new CallError(`the upload of ${path} was cut off`));
    request.send(body);
  });
}

// The broker's latest warnings and errors after entry `after` (0: all it kept):
// {last, entries: [{sequence, time, level, category, function, text}]}.
export async function readLog(after = 0) {
  const reply = await fetch(`${LOG}?after=${after}`, { credentials: 'same-origin' });
  if (!reply.ok) throw new CallError(`the broker answered ${reply.status} for its log`);
  return reply.json();
}
