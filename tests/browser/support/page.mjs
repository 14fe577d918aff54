// What a browser test sees of the behavior manager's page: its sections and rows, the
// "?eval=" requests it sends (in order, with their answers), and, inside the page, what
// each XMLHttpRequest did once the page's own handler had run.
import fs from 'node:fs';
import path from 'node:path';

import { eventually, rpc } from './broker.mjs';

// Debian's chromium, never a downloaded browser.
export const CHROMIUM = '/usr/bin/chromium';
export const CHROMIUM_ARGS = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];

// A fresh profile in `scratch`, which also serves as the browser's HOME. The browser
// signs in with `secret` when the robot asks for it, as a person would in its dialog.
// `extraArgs` go on chromium's command line.
export async function launch(chromium, scratch, secret, extraArgs = []) {
  if (!fs.existsSync(CHROMIUM)) {
    throw new Error(`${CHROMIUM} is missing (scripts/deps.sh installs Debian's chromium)`);
  }
  const userDataDir = path.join(scratch, 'profile');
  fs.mkdirSync(userDataDir, { recursive: true });
  return chromium.launchPersistentContext(userDataDir, {
    executablePath: CHROMIUM,
    headless: true,
    args: [...CHROMIUM_ARGS, ...extraArgs],
    env: { ...process.env, HOME: scratch },
    viewport: { width: 900, height: 700 },
    httpCredentials: { username: 'tuqvu', password: secret },
  });
}

// The page's own script keeps its request object in a local variable; this records, per
// request, the send and every state change after the page's handler saw it (a listener
// added at send time runs after the handler set before open).
function recordRequests() {
  window.evalLog = [];
  const open = XMLHttpRequest.prototype.open;
  const send = XMLHttpRequest.prototype.send;
  XMLHttpRequest.prototype.open = function (method, url, ...rest) {
    this.recordedUrl = String(url);
    return open.call(this, method, url, ...rest);
  };
  XMLHttpRequest.prototype.send = function (body) {
    const xhr = this;
    const url = decodeURIComponent(new URL(this.recordedUrl, document.URL).href);
    window.evalLog.push({ what: 'send', url });
    const seen = () => {
      window.evalLog.push({ what: 'state', url, readyState: xhr.readyState, status: xhr.status });
      if (xhr.readyState === 4) xhr.removeEventListener('readystatechange', seen);
    };
    xhr.addEventListener('readystatechange', seen);
    return send.call(this, body);
  };
}

// The network's view of "?eval=" requests of a page, in the order the browser reports them.
export class EvalTraffic {
  constructor(page) {
    this.log = [];
    const isEval = (request) => request.url().includes('?eval=');
    const url = (request) => decodeURIComponent(request.url());
    page.on('request', (request) => {
      if (isEval(request)) this.log.push({ what: 'request', url: url(request) });
    });
    page.on('response', (response) => {
      if (isEval(response.request())) {
        const request = response.request();
        this.log.push({ what: 'response', url: url(request), status: response.status() });
      }
    });
    page.on('requestfinished', (request) => {
      if (!isEval(request)) return;
      const body = request.response().then((response) => response?.text() ?? null);
      body.catch(() => {});
      this.log.push({ what: 'finished', url: url(request), body });
    });
    page.on('requestfailed', (request) => {
      if (isEval(request)) this.log.push({ what: 'failed', url: url(request) });
    });
  }

  index(what, url) {
    return this.log.findIndex((entry) => entry.what === what && entry.url === url);
  }

  // Waits until the log has the entry (what: 'request', 'response', 'finished' or
  // 'failed') for `url`, and returns it. Events seen before the call count.
  async waitFor(what, url) {
    const deadline = Date.now() + 60000;  // guards against a hang only
    for (;;) {
      const entry = this.log.find((e) => e.what === what && e.url === url);
      if (entry) return entry;
      if (Date.now() > deadline) {
        throw new Error(`no ${what} for ${url}; seen: ${JSON.stringify(this.log)}`);
      }
      await new Promise((resolve) => setTimeout(resolve, 20));
    }
  }

  // The body of the answer to `url` once the browser has read it all.
  async body(url) {
    return (await this.waitFor('finished', url)).body;
  }

  requests() {
    return this.log.filter((entry) => entry.what === 'request').map((entry) => entry.url);
  }
}

export async function preparePage(context) {
  await context.addInitScript(recordRequests);
  const page = context.pages()[0] ?? await context.newPage();
  const errors = [];
  page.on('pageerror', (error) => errors.push(String(error)));
  return { page, errors, traffic: new EvalTraffic(page) };
}

// The table that follows the section title "<i><u>title</u></i><br>".
export function section(page, title) {
  return page.locator(`i:has(> u:text-is("${title}")) + br + table`);
}

// Section titles in page order.
export async function sectionTitles(page) {
  return page.locator('body > i > u').allTextContents();
}

// The cells of a table, row by row.
export async function rows(table) {
  return table.locator('tr').evaluateAll((trs) =>
    trs.map((tr) => Array.from(tr.cells, (cell) => cell.textContent)));
}

export function screenshotPath(dir, name) {
  fs.mkdirSync(dir, { recursive: true });
  return path.join(dir, name);
}

// Waits until the page's log shows the request to `url` in readyState 4 (after the page's
// own handler ran for it); returns the whole log.
export async function waitForDone(page, url) {
  await page.waitForFunction(
    (wanted) => window.evalLog.some((entry) =>
      entry.what === 'state' && entry.url === wanted && entry.readyState === 4),
    url, { timeout: 60000 });
  return page.evaluate(() => window.evalLog);
}

// Opens the browser's own EventSource for the events of `key` in `page`; resolves once
// the stream is open. What it receives piles up in window.received (the events' values).
export async function followEventsInPage(page, key) {
  await page.evaluate((followed) => {
    window.received = [];
    window.stream = new EventSource(`/events?key=${encodeURIComponent(followed)}`);
    window.stream.onmessage = (event) => window.received.push(JSON.parse(event.data).value);
    return new Promise((resolve) => { window.stream.onopen = resolve; });
  }, key);
}

// Inserts the values 0, 1, 2 at `key` through the broker on `port` and checks that the
// page's EventSource (followEventsInPage) received them in order; then closes it.
export async function expectThreeEventsInPage(page, port, key) {
  for (let value = 0; value < 3; value += 1) await rpc(port, 'ZRMemory.insertData', [key, value]);
  await eventually('the page received three events',
                   async () => (await page.evaluate(() => window.received.length)) === 3);
  const received = await page.evaluate(() => window.received);
  await page.evaluate(() => window.stream.close());
  if (JSON.stringify(received) !== '[0,1,2]') {
    throw new Error(`the page received ${JSON.stringify(received)}, not [0,1,2]`);
  }
}

// The end of a test's run, whatever happened: its event stream and browser closed, the
// daemon killed if it still runs (its log shown, since the test stopped before it
// could), and the scratch folder `root` removed.
export async function cleanUp({ events, context, tuqvu, root }) {
  events?.close();
  await context?.close().catch(() => {});
  if (tuqvu?.running()) {
    console.error(`tuqvu log:\n${tuqvu.log()}`);
    tuqvu.kill();
  }
  fs.rmSync(root, { recursive: true, force: true });
}

// Runs a test's main function and reports PASS, or FAIL with why and exit status 1.
export function report(main) {
  main().then(
    () => console.log('PASS'),
    (error) => {
      console.error(`FAIL: ${error.stack ?? error}`);
      process.exitCode = 1;
    });
}
