// A real tuqvu daemon for a browser test: started on a free port with its own HOME and
// installation prefix, reached over JSON-RPC (POST /rpc) and the event stream (GET /events).
//
//   const tuqvu = await startTuqvu({ program, module, home, prefix });
//   await rpc(tuqvu.port, 'ZRBehaviorManager.isBehaviorRunning', ['demos/loop']);
//   assert.equal(await tuqvu.stop(), 0);
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';

const LISTENING = /tuqvu: listening on [^\s]*:(\d+)\n/;
// Guards against a hang only: a daemon slower than this is broken.
const GUARD_MS = 60000;

// The options of a test's command line: --tuqvu PROGRAM --module LIBRARY --out FOLDER.
export function parseArgs(argv) {
  const options = {};
  for (let i = 0; i < argv.length; i += 2) options[argv[i].replace(/^--/, '')] = argv[i + 1];
  for (const name of ['tuqvu', 'module', 'out']) {
    if (!options[name]) throw new Error(`missing --${name}`);
  }
  return options;
}

// A daemon of `options` (parseArgs) with a fresh HOME, prefix and temporary folder in
// `scratch`, which is emptied first; its log is scratch/tuqvu.log. `extraArgs` go on its
// command line (such as --https).
export async function startTuqvuIn(scratch, options, extraArgs = []) {
  fs.rmSync(scratch, { recursive: true, force: true });
  for (const folder of ['home', 'prefix', 'tmp']) {
    fs.mkdirSync(path.join(scratch, folder), { recursive: true });
  }
  return startTuqvu({ program: options.tuqvu, module: options.module,
                      home: path.join(scratch, 'home'), prefix: path.join(scratch, 'prefix'),
                      tmp: path.join(scratch, 'tmp'), logFile: path.join(scratch, 'tuqvu.log'),
                      extraArgs });
}

export async function startTuqvu({ program, module, home, prefix, logFile, tmp, extraArgs = [] }) {
  const env = { ...process.env, HOME: home, TUQVU_SDK_PREFIX: prefix };
  if (tmp) env.TMPDIR = tmp;
  delete env.XDG_DATA_HOME;
  delete env.XDG_CONFIG_HOME;
  const log = fs.openSync(logFile, 'w');
  const args = ['--port', '0', '--bind', '127.0.0.1', '--module', module, '--log-level', '5',
                ...extraArgs];
  const child = spawn(program, args, { env, stdio: ['ignore', 'pipe', log] });
  fs.closeSync(log);
  const exited = new Promise((resolve) => {
    child.on('exit', (code, signal) => resolve(signal ? 128 + signalNumber(signal) : code));
  });
  let output = '';
  const port = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`tuqvu did not report listening:\n${output}`)),
                             GUARD_MS);
    child.stdout.on('data', (chunk) => {
      output += chunk;
      const found = LISTENING.exec(output);
      if (found) {
        clearTimeout(timer);
        resolve(Number(found[1]));
      }
    });
    child.on('error', (error) => { clearTimeout(timer); reject(error); });
    exited.then((status) => {
      clearTimeout(timer);
      reject(new Error(`tuqvu exited with status ${status} before listening:\n${output}`));
    });
  });
  child.stdout.resume();
  // The daemon asks every client, on loopback too, for the secret it made at its start.
  const secret = fs.readFileSync(path.join(home, '.config', 'tuqvu', 'secret'), 'utf8').trim();
  authorizations.set(port, `Basic ${Buffer.from(`tuqvu:${secret}`).toString('base64')}`);
  return {
    port,
    secret,
    home,
    pid: child.pid,
    running: () => child.exitCode === null && child.signalCode === null,
    log: () => fs.readFileSync(logFile, 'utf8'),
    // SIGTERM, then the exit status (SIGKILL and a thrown error if it hangs).
    async stop() {
      if (child.exitCode !== null || child.signalCode !== null) return exited;
      child.kill('SIGTERM');
      const timer = setTimeout(() => child.kill('SIGKILL'), GUARD_MS);
      const status = await exited;
      clearTimeout(timer);
      return status;
    },
    kill() {
      if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
    },
  };
}

function signalNumber(name) {
  return { SIGHUP: 1, SIGINT: 2, SIGABRT: 6, SIGKILL: 9, SIGSEGV: 11, SIGTERM: 15 }[name] ?? 0;
}

// The Authorization header value of each daemon started here, by port.
const authorizations = new Map();

// The headers that carry the secret of the daemon on `port`.
export function credentials(port) {
  const value = authorizations.get(port);
  return value ? { Authorization: value } : {};
}

let nextId = 1;

// One JSON-RPC call; resolves to its result, rejects with the error object's text.
export async function rpc(port, method, params = []) {
  const id = nextId++;
  const reply = await fetch(`http://127.0.0.1:${port}/rpc`, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', ...credentials(port) },
    body: JSON.stringify({ jsonrpc: '2.0', id, method, params }),
  });
  if (reply.status !== 200) throw new Error(`${method}: HTTP ${reply.status}`);
  const body = await reply.json();
  if (body.id !== id) throw new Error(`${method}: answer for id ${body.id}, asked ${id}`);
  if (body.error) throw new Error(`${method}: ${JSON.stringify(body.error)}`);
  return body.result;
}

// The frames of GET /events?key=..., as {key, value} objects in arrival order.
export class EventStream {
  static open(port, keys) {
    const query = keys.map((key) => `key=${encodeURIComponent(key)}`).join('&');
    return new Promise((resolve, reject) => {
      const url = `http://127.0.0.1:${port}/events?${query}`;
      const request = http.get(url, { headers: credentials(port) }, (response) => {
        if (response.statusCode !== 200) {
          reject(new Error(`/events answered ${response.statusCode}`));
          return;
        }
        // The daemon subscribes before it sends the header: from here on nothing is missed.
        resolve(new EventStream(request, response));
      });
      request.on('error', reject);
    });
  }

  constructor(request, response) {
    this.request = request;
    this.events = [];
    this.waiters = [];
    let buffer = '';
    response.setEncoding('utf8');
    response.on('data', (chunk) => {
      buffer += chunk;
      let end;
      while ((end = buffer.indexOf('\n\n')) >= 0) {
        const frame = buffer.slice(0, end);
        buffer = buffer.slice(end + 2);
        const data = frame.split('\n').filter((line) => line.startsWith('data: '));
        if (data.length === 0) continue;  // a keep-alive comment
        this.events.push(JSON.parse(data.map((line) => line.slice(6)).join('\n')));
        this.waiters = this.waiters.filter((check) => !check());
      }
    });
    response.on('error', () => {});
  }

  // Resolves with the first event at index >= from that satisfies the test.
  waitFor(test, from, what) {
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() =>
        reject(new Error(`no event ${what}; events: ${JSON.stringify(this.events)}`)), GUARD_MS);
      const check = () => {
        const index = this.events.findIndex((event, i) => i >= from && test(event));
        if (index < 0) return false;
        clearTimeout(timer);
        resolve({ index, event: this.events[index] });
        return true;
      };
      if (!check()) this.waiters.push(check);
    });
  }

  close() {
    this.request.destroy();
  }
}

// Polls a condition (the daemon's answers) until it holds; the guard only stops a hang.
export async function eventually(what, condition) {
  const deadline = Date.now() + GUARD_MS;
  for (;;) {
    if (await condition()) return;
    if (Date.now() > deadline) throw new Error(`timed out waiting until ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}
