// What a browser test sees of the behavior manager's page: its sections and rows, the
// "?eval=" requests it sends (in order, with their answers), and, inside the page, what
// each XMLHttpRequest did once the page's own handler had run.
import fs from 'node:fs';
import path from 'node:path';

// Debian's chromium, never a downloaded browser.
export const CHROMIUM = '/usr/bin/chromium';
export const CHROMIUM_ARGS = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];

// A fresh profile in `scratch`, which also serves as the browser's HOME. The browser
// signs in with `secret` when the robot asks for it, as a person would in its dialog.
export async function launch(chromium, scratch, secret) {
  if (!fs.existsSync(CHROMIUM)) {
    throw new Error(`${CHROMIUM} is missing (scripts/deps.sh installs Debian's chromium)`);
  }
  const userDataDir = path.join(scratch, 'profile');
  fs.mkdirSync(userDataDir, { recursive: true });
  return chromium.launchPersistentContext(userDataDir, {
    executablePath: CHROMIUM,
    headless: true,
    args: CHROMIUM_ARGS,
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
