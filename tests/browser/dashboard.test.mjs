// The dashboard at /ui/ in Debian's chromium, against a real tuqvu daemon with the files
// installed as `cmake --install` lays them out: it signs in with the broker's session, runs
// under its Content-Security-Policy without a violation, shows changes made elsewhere
// within a second, and every action of its panels does what it says on the robot. The
// phone-sized layout and axe-core's accessibility rules are checked too; the screenshots
// go to --out.
//
//   node dashboard.test.mjs --tuqvu build/bin/tuqvu --module build/lib/libzrbehaviormanager.so \
//        --out build/browser
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

import { EventStream, credentials, eventually, parseArgs, rpc, startTuqvu }
  from './support/broker.mjs';
import { cleanUp, launch, report, screenshotPath } from './support/page.mjs';
import { startRelay } from './support/relay.mjs';
import { zipOf } from './support/zip.mjs';

const here = path.dirname(fileURLToPath(import.meta.url));
const INSTALLED_UI = path.join(here, '..', '..', 'share', 'tuqvu', 'ui');
const AXE = path.join(here, 'node_modules', 'axe-core', 'axe.min.js');
const M = 'ZRBehaviorManager';
const LOOP = 'demos/loop';   // runs until it is stopped
const GREET = 'greet';       // ends at once; tags greeting and arm
const POSE = 'System/pose';  // the system library's; tag posture
const PUT_LIMIT = 200000;    // the file API's limit for one file in this test
const LIVE_MS = 1000;        // what "live" promises: a change shows within a second
const GUARD_MS = 280000;     // the whole test; only a hang reaches it

function write(file, content) {
  fs.mkdirSync(path.dirname(file), { recursive: true });
  fs.writeFileSync(file, content);
}

const xar = (steps) => `<?xml version="1.0" encoding="UTF-8"?>\n<behavior>${steps}</behavior>\n`;
const project = (...tags) =>
  `<project>\n  <metadata key="Type" value="Behavior"/>\n${tags.map((t) => `  <tag>${t}</tag>\n`).join('')}</project>\n`;

// The robot's libraries, the dashboard installed in the prefix, and the folders a person
// would drop onto the page.
function makeTree(root) {
  const home = path.join(root, 'home');
  const prefix = path.join(root, 'prefix');
  const user = path.join(home, '.tuqvu', 'behaviors');
  write(path.join(user, LOOP, 'behavior.xar'), xar('<repeat><wait ms="100"/></repeat>'));
  write(path.join(user, GREET, 'behavior.xar'), xar('<log text="hello"/>'));
  write(path.join(user, GREET, 'project.xml'), project('greeting', 'arm'));
  const system = path.join(prefix, 'share', 'tuqvu', 'behaviors');
  write(path.join(system, 'pose', 'behavior.xar'), xar('<wait ms="10"/>'));
  write(path.join(system, 'pose', 'project.xml'), project('posture'));
  fs.cpSync(INSTALLED_UI, path.join(prefix, 'share', 'tuqvu', 'ui'), { recursive: true });

  const desk = path.join(root, 'desk');
  write(path.join(desk, 'wave', 'behavior.xar'), xar('<wait ms="20"/>'));
  write(path.join(desk, 'wave', 'project.xml'), project('arm', 'dance'));
  write(path.join(desk, 'wave', 'sounds', 'music.wav'), Buffer.alloc(150000, 7));
  write(path.join(desk, 'dragged', 'behavior.xar'), xar('<wait ms="20"/>'));
  write(path.join(desk, 'dragged', 'project.xml'), project('dragged'));
  write(path.join(desk, 'dragged', 'data', 'notes.txt'), 'taken along\n');
  write(path.join(desk, 'huge', 'behavior.xar'), xar('<wait ms="20"/>'));
  write(path.join(desk, 'huge', 'sounds', 'long.wav'), Buffer.alloc(PUT_LIMIT + 1000, 3));
  write(path.join(desk, 'notes', 'readme.txt'), 'no behavior here\n');
  write(path.join(desk, '.zip'), zipOf([['behavior.xar', xar('<wait ms="1"/>'), false]]));
  write(path.join(desk, 'hello.zip'), zipOf([
    ['behavior.xar', xar('<log text="hello from a package"/>'), true],
    ['project.xml', project('package'), false],
  ]));
  // Tar packages as tar makes them: gzip-compressed with a name longer than a tar header
  // holds, and one holding a link.
  const long = `sounds/${'very-long-name-'.repeat(8)}.wav`;
  write(path.join(desk, 'tarred', 'behavior.xar'), xar('<log text="hello from a tar"/>'));
  write(path.join(desk, 'tarred', 'project.xml'), project('tarball'));
  write(path.join(desk, 'tarred', long), Buffer.alloc(3000, 5));
  execFileSync('tar', ['-czf', path.join(desk, 'tarred.tar.gz'), '-C', path.join(desk, 'tarred'), '.']);
  write(path.join(desk, 'linked', 'behavior.xar'), xar('<wait ms="1"/>'));
  fs.symlinkSync('/etc/passwd', path.join(desk, 'linked', 'passwd'));
  execFileSync('tar', ['-cf', path.join(desk, 'linked.tar'), '-C', path.join(desk, 'linked'), '.']);
  return { home, prefix, desk, long };
}

const inPanel = (page, panel, name) =>
  page.locator(`#${panel} li[data-behavior=${JSON.stringify(name)}]`);
const listed = async (page, which) =>
  page.locator(`#library [data-list="${which}"] > li`).evaluateAll((items) =>
    items.map((item) => item.getAttribute('data-behavior')));

async function waitForText(locator, text) {
  await locator.filter({ hasText: text }).first().waitFor({ state: 'visible', timeout: 60000 });
}

// Milliseconds from `act` until `shown` holds in the page (polled every animation frame).
async function timeUntilShown(page, act, shown, argument) {
  const started = Date.now();
  const waiting = page.waitForFunction(shown, argument, { timeout: 60000, polling: 'raf' });
  act();
  await waiting;
  return Date.now() - started;
}

async function signInIsRequired(port) {
  const bare = await fetch(`http://127.0.0.1:${port}/ui/`);
  assert.equal(bare.status, 401);
  assert.match(bare.headers.get('www-authenticate') ?? '', /Basic/);
  console.log('ok - /ui/ without the secret or the session cookie is answered 401');
}

async function pageLoadsUnderItsPolicy(page, port) {
  const answer = await page.goto(`http://127.0.0.1:${port}/ui/`);
  assert.equal(answer.status(), 200);
  const policy = answer.headers()['content-security-policy'];
  assert.match(policy, /script-src 'self'/);
  assert.doesNotMatch(policy, /unsafe-inline|unsafe-eval/);
  const cookies = await page.context().cookies();
  assert.ok(cookies.some((cookie) => cookie.name === 'tuqvu-session' && cookie.httpOnly),
            `no session cookie: ${JSON.stringify(cookies)}`);
  await page.locator('#connection[data-connected="true"]').waitFor({ timeout: 60000 });
  await eventually('both libraries are listed', async () =>
    JSON.stringify(await listed(page, 'user')) === JSON.stringify([LOOP, GREET]) &&
    JSON.stringify(await listed(page, 'system')) === JSON.stringify([POSE]));
  console.log('ok - the page signs in, connects to the event stream and lists both libraries');
}

async function searchByNameAndTag(page) {
  const search = page.locator('#library [data-search]');
  await search.fill('gre');
  assert.deepEqual(await listed(page, 'user'), [GREET]);
  assert.deepEqual(await listed(page, 'system'), []);
  await search.fill('POSTURE');  // a tag, in any case
  assert.deepEqual(await listed(page, 'user'), []);
  assert.deepEqual(await listed(page, 'system'), [POSE]);
  await search.fill('');
  await page.locator('#library [data-tag]').selectOption('arm');
  assert.deepEqual(await listed(page, 'user'), [GREET]);
  assert.deepEqual(await listed(page, 'system'), []);
  await page.locator('#library [data-tag]').selectOption('');
  assert.deepEqual(await listed(page, 'user'), [LOOP, GREET]);
  assert.equal(await inPanel(page, 'library', GREET).locator('.tag').allTextContents()
    .then((tags) => tags.sort().join(',')), 'arm,greeting');
  console.log('ok - the libraries are searched by name and by tag');
}

async function runningShowsLiveAndStops(page, port, events) {
  const from = events.events.length;
  // Started by another client: the page learns of it from the event stream alone.
  const running = rpc(port, `${M}.runBehavior`, [`User/${LOOP}`]);
  running.catch(() => {});  // awaited below; a failure before that is not a second one
  const elapsed = await timeUntilShown(page, () => {},
    (name) => document.querySelector(`#running li[data-behavior="${name}"]`) !== null, LOOP);
  assert.ok(elapsed <= LIVE_MS, `the running behavior showed after ${elapsed} ms`);
  const row = inPanel(page, 'running', LOOP);
  await waitForText(row, 'running for');
  assert.equal(await inPanel(page, 'library', LOOP).locator('.badge').textContent(), 'running');
  console.log(`ok - a behavior started elsewhere shows as running after ${elapsed} ms`);

  await row.getByRole('button', { name: `Stop ${LOOP}` }).click();
  await running;  // the run call answers once the behavior stopped
  await row.waitFor({ state: 'detached', timeout: 60000 });
  assert.equal(await rpc(port, `${M}.isBehaviorRunning`, [LOOP]), false);
  await events.waitFor((event) => event.key === 'BehaviorsRun' && event.value.length === 0, from,
                       'BehaviorsRun = []');
  console.log('ok - its stop button stops it and it leaves the list');
}

async function keyboardAlone(page, port) {
  // Started from its row in the library this time: the row says it runs.
  await inPanel(page, 'library', LOOP).getByRole('button', { name: `Run ${LOOP}` }).click();
  await inPanel(page, 'running', LOOP).waitFor({ timeout: 60000 });
  await waitForText(inPanel(page, 'library', LOOP).locator('.message'), `${LOOP} is running.`);
  await page.locator('body').focus();
  await page.evaluate(() => document.activeElement?.blur());
  let label = null;
  for (let presses = 0; presses < 40 && label !== `Stop ${LOOP}`; presses += 1) {
    await page.keyboard.press('Tab');
    label = await page.evaluate(() => document.activeElement?.getAttribute('aria-label'));
  }
  assert.equal(label, `Stop ${LOOP}`, 'the stop button is not reached with the Tab key');
  await page.keyboard.press('Enter');
  await inPanel(page, 'running', LOOP).waitFor({ state: 'detached', timeout: 60000 });
  await waitForText(inPanel(page, 'library', LOOP).locator('.message'), `${LOOP} has ended.`);
  console.log('ok - with the keyboard alone the stop button is reached and stops the behavior');
}

async function libraryActions(page, port) {
  const row = inPanel(page, 'library', GREET);
  await row.getByRole('button', { name: `Run ${GREET}` }).click();
  await waitForText(row.locator('.message'), `${GREET} has ended.`);
  await row.getByRole('button', { name: `Load ${GREET}` }).click();
  await waitForText(row.locator('.message'), `${GREET} is loaded.`);

  await row.getByRole('button', { name: `Files of ${GREET}` }).click();
  const files = row.locator('ul.files li');
  await files.first().waitFor({ timeout: 60000 });
  assert.deepEqual((await files.allTextContents()).map((text) => text.split(' ')[0]).sort(),
                   ['behavior.xar', 'project.xml']);
  assert.equal(await row.getByRole('button', { name: `Files of ${GREET}` })
    .getAttribute('aria-expanded'), 'true');
  console.log('ok - a behavior runs, loads and shows its files from its row');

  const dialog = page.locator('dialog#confirm');
  await row.getByRole('button', { name: `Remove ${GREET}` }).click();
  await dialog.waitFor({ state: 'visible' });
  assert.match(await dialog.textContent(), /Remove greet\?/);
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  await waitForText(row.locator('.message'), 'Not removed.');
  assert.equal(await rpc(port, `${M}.isBehaviorInstalled`, [GREET]), true);

  await row.getByRole('button', { name: `Remove ${GREET}` }).click();
  await dialog.getByRole('button', { name: 'Remove' }).click();
  await row.waitFor({ state: 'detached', timeout: 60000 });
  assert.equal(await rpc(port, `${M}.isBehaviorInstalled`, [GREET]), false);
  assert.deepEqual(await listed(page, 'user'), [LOOP]);
  console.log('ok - remove asks first: cancelled it keeps the behavior, confirmed it removes it');
}

async function defaultBehaviors(page, port, events) {
  const panel = page.locator('#defaults');
  // A name that is no behavior is refused in words next to the field it was typed in.
  await panel.locator('[data-name]').fill('no/such');
  await panel.getByRole('button', { name: 'Add', exact: true }).click();
  const refusal = panel.locator('#defaults-error');
  await waitForText(refusal, 'Could not add no/such');
  assert.match(await refusal.textContent(), /behavior no\/such is not installed/);
  assert.equal(await panel.locator('[data-name]').getAttribute('aria-describedby'), 'defaults-error');
  assert.deepEqual(await rpc(port, `${M}.getDefaultBehaviors`), []);

  await panel.locator('[data-name]').fill(POSE);
  await panel.getByRole('button', { name: 'Add', exact: true }).click();
  await inPanel(page, 'defaults', POSE).waitFor({ timeout: 60000 });
  assert.deepEqual(await rpc(port, `${M}.getDefaultBehaviors`), [POSE]);

  const from = events.events.length;
  await panel.getByRole('button', { name: 'Start them now' }).click();
  await events.waitFor((event) => event.key === 'BehaviorsRun' && event.value.includes(POSE), from,
                       `BehaviorsRun with ${POSE}`);

  await panel.getByRole('button', { name: `Remove ${POSE} from the defaults` }).click();
  await inPanel(page, 'defaults', POSE).waitFor({ state: 'detached', timeout: 60000 });
  assert.deepEqual(await rpc(port, `${M}.getDefaultBehaviors`), []);
  console.log('ok - a default behavior is added, started now and removed');
}

async function eventLogFiltersAndPauses(page, port) {
  const log = page.locator('#events [data-log] li');
  const shown = (value) => (wanted) => [...document.querySelectorAll('#events [data-log] li')]
    .some((item) => item.textContent.includes(wanted));
  const elapsed = await timeUntilShown(page, () => rpc(port, 'ZRMemory.insertData', ['Dashboard/Probe', 1]),
                                       shown(), 'Dashboard/Probe');
  assert.ok(elapsed <= LIVE_MS, `the event showed after ${elapsed} ms`);

  await page.locator('#events [data-filter]').fill('Dashboard/Probe');
  assert.ok((await log.count()) >= 1);
  for (const text of await log.allTextContents()) assert.match(text, /Dashboard\/Probe/);

  const pause = page.locator('#events [data-pause]');
  await pause.click();
  assert.equal(await pause.getAttribute('aria-pressed'), 'true');
  const before = await log.count();
  await rpc(port, 'ZRMemory.insertData', ['Dashboard/Probe', 2]);
  await waitForText(page.locator('#events [data-held]'), '1 new entry held back');
  assert.equal(await log.count(), before);
  await pause.click();
  assert.equal(await log.count(), before + 1);
  assert.match(await log.first().textContent(), /Dashboard\/Probe2$/);
  await page.locator('#events [data-filter]').fill('');
  console.log(`ok - the event log shows an event after ${elapsed} ms, filters, pauses and resumes`);
}

// Events raised while the page is cut off from the robot show once it is back: the
// browser reconnects naming the last event it had, and the broker replays the rest. The
// page is reached through a relay here, which cuts its connections.
async function nothingLostAcrossACut(context, port) {
  const relay = await startRelay(port);
  const page = await context.newPage();
  try {
    await page.goto(`http://127.0.0.1:${relay.port}/ui/`);
    await page.locator('#connection[data-connected="true"]').waitFor({ timeout: 60000 });
    const log = page.locator('#events [data-log] li');
    // The last event the page had before the cut is where the broker resumes.
    await rpc(port, 'ZRMemory.insertData', ['Dashboard/Cut', 'before']);
    await waitForText(log, 'before');
    relay.cut();
    await page.locator('#connection[data-connected="false"]').waitFor({ timeout: 60000 });
    for (const value of ['while-away-1', 'while-away-2']) {
      await rpc(port, 'ZRMemory.insertData', ['Dashboard/Cut', value]);
    }
    relay.reopen();
    await page.locator('#connection[data-connected="true"]').waitFor({ timeout: 60000 });
    await waitForText(log, 'while-away-2');
    const cut = (await log.allTextContents()).filter((text) => text.includes('Dashboard/Cut'))
      .reverse();
    assert.equal(cut.length, 3, `entries of the cut: ${JSON.stringify(cut)}`);
    assert.match(cut[0], /"before"/);
    assert.match(cut[1], /while-away-1/);
    assert.match(cut[2], /while-away-2/);
    await waitForText(log, 'connected again');
  } finally {
    await page.close();
    relay.close();
  }
  console.log('ok - events raised while the page was cut off show, in order, once it is back');
}

async function healthChart(page) {
  const facts = page.locator('#health [data-facts]');
  await waitForText(facts, 'ZRBehaviorManager');
  await page.waitForFunction(() => {
    const series = document.querySelectorAll('#health svg polyline');
    return series.length === 2 && series[0].getAttribute('points').split(' ').length >= 3;
  }, null, { timeout: 60000 });
  assert.match(await facts.textContent(), /ZRMemory, ZRPreferences, ZRFrameManager, ZRBehaviorManager/);
  // The broker's own figures, from its /metrics: by the second sample every one is known.
  await page.waitForFunction(
    () => !document.querySelector('#health [data-facts]').textContent.includes('not known yet'),
    null, { timeout: 10000 });
  const text = await facts.textContent();
  assert.match(text, /Uptime\d+ (s|min \d+ s|h \d+ min)/);
  assert.match(text, /Memory\d+\.\d MiB/);
  const connections = Number(text.match(/Open connections(\d+)/)[1]);
  assert.ok(connections >= 2, `the page's own event stream and calls are open: ${text}`);
  const rate = Number(text.match(/Calls per second(\d+\.\d)/)[1]);
  assert.ok(rate > 0, `the panel's own calls are counted: ${text}`);
  console.log('ok - the health panel lists the modules, the broker\'s uptime, memory, ' +
              'connections and calls per second, and draws its chart');
}

// Drags the file or folder at `file` onto the element, through chromium's own drag and
// drop (DevTools' Input.dispatchDragEvent), so the page gets it as from a file manager.
async function dragOnto(page, selector, file) {
  const box = await page.locator(selector).boundingBox();
  const at = { x: box.x + box.width / 2, y: box.y + box.height / 2 };
  const session = await page.context().newCDPSession(page);
  const data = { items: [], files: [file], dragOperationsMask: 1 };
  for (const type of ['dragEnter', 'dragOver', 'drop']) {
    await session.send('Input.dispatchDragEvent', { type, ...at, data });
  }
  await session.detach();
}

// The values the progress bar took, as the page set them.
async function recordProgress(page) {
  await page.evaluate(() => {
    window.progressSeen = [];
    const bar = document.querySelector('#install [data-progress]');
    new MutationObserver(() => window.progressSeen.push([Number(bar.getAttribute('value')),
                                                         Number(bar.getAttribute('max'))]))
      .observe(bar, { attributes: true, attributeFilter: ['value'] });
  });
}

async function installs(page, port, desk, long) {
  const panel = page.locator('#install');
  await recordProgress(page);
  await panel.locator('[data-folder]').setInputFiles(path.join(desk, 'wave'));
  await waitForText(panel.locator('[data-message]'), 'wave is installed.');
  const seen = await page.evaluate(() => window.progressSeen);
  const total = seen.at(-1)[1];
  assert.equal(seen.at(-1)[0], total, `progress ended at ${JSON.stringify(seen.at(-1))}`);
  assert.ok(total > 150000, `the bar's total was ${total}`);
  assert.ok(seen.some(([value]) => value > 0 && value < total),
            `no value between 0 and the total: ${JSON.stringify(seen)}`);
  assert.ok(await rpc(port, `${M}.isBehaviorInstalled`, ['wave']));
  await inPanel(page, 'library', 'wave').waitFor({ timeout: 60000 });
  console.log(`ok - a chosen folder uploads with its progress (${seen.length} steps) and installs`);

  // A folder dragged from a file manager, as the browser's own drag and drop delivers it.
  await dragOnto(page, '#install [data-drop]', path.join(desk, 'dragged'));
  await waitForText(panel.locator('[data-message]'), 'dragged is installed.');
  assert.deepEqual(await rpc(port, `${M}.getBehaviorTags`, ['User/dragged']), ['dragged']);
  const dragged = await page.evaluate(async () =>
    (await fetch('/files/behaviors/User/dragged/data/', { headers: { Accept: 'application/json' } })).json());
  assert.deepEqual(dragged.map((entry) => entry.name), ['notes.txt']);
  console.log('ok - a folder dragged onto the page installs with its subfolders');

  await panel.locator('[data-folder]').setInputFiles(path.join(desk, 'huge'));
  await waitForText(panel.locator('[data-error]'), 'huge was not installed');
  const refusal = await panel.locator('[data-error]').textContent();
  assert.match(refusal, /413/);
  assert.match(refusal, /sounds\/long\.wav/);
  assert.equal(await rpc(port, `${M}.isBehaviorInstalled`, ['huge']), false);
  console.log(`ok - a refused upload says why: ${refusal}`);

  await panel.locator('[data-folder]').setInputFiles(path.join(desk, 'notes'));
  await waitForText(panel.locator('[data-error]'), 'holds no behavior.xar');
  console.log('ok - a folder that is no behavior is refused before anything is sent');

  // A package dropped onto the page, as a file manager drops it.
  const bytes = [...fs.readFileSync(path.join(desk, 'hello.zip'))];
  await page.evaluate((content) => {
    const transfer = new DataTransfer();
    transfer.items.add(new File([new Uint8Array(content)], 'hello.zip', { type: 'application/zip' }));
    document.querySelector('#install [data-drop]')
      .dispatchEvent(new DragEvent('drop', { dataTransfer: transfer, bubbles: true, cancelable: true }));
  }, bytes);
  await waitForText(panel.locator('[data-message]'), 'hello is installed.');
  assert.ok(await rpc(port, `${M}.isBehaviorInstalled`, ['hello']));
  assert.deepEqual(await rpc(port, `${M}.getBehaviorTags`, ['User/hello']), ['package']);
  console.log('ok - a dropped zip package installs');

  // A package named ".zip" names no behavior: nothing may land in the library itself.
  await panel.locator('[data-package]').setInputFiles(path.join(desk, '.zip'));
  await waitForText(panel.locator('[data-error]'), 'cannot be empty or begin with a dot');
  assert.equal(await rpc(port, `${M}.isBehaviorInstalled`, ['behavior.xar']), false);
  assert.equal((await fetch(`http://127.0.0.1:${port}/files/behaviors/User/behavior.xar`,
                            { headers: credentials(port) })).status, 404);

  await panel.locator('[data-package]').setInputFiles(path.join(desk, 'tarred.tar.gz'));
  await waitForText(panel.locator('[data-message]'), 'tarred is installed.');
  assert.deepEqual(await rpc(port, `${M}.getBehaviorTags`, ['User/tarred']), ['tarball']);
  const sounds = await page.evaluate(async () =>
    (await fetch('/files/behaviors/User/tarred/sounds/', { headers: { Accept: 'application/json' } })).json());
  assert.deepEqual(sounds.map((entry) => [entry.name, entry.size]), [[path.basename(long), 3000]]);
  await panel.locator('[data-package]').setInputFiles(path.join(desk, 'linked.tar'));
  await waitForText(panel.locator('[data-error]'), 'linked.tar was not installed: it holds a link, passwd.');
  assert.equal(await rpc(port, `${M}.isBehaviorInstalled`, ['linked']), false);
  console.log('ok - a tar.gz package with a long name installs; a tar holding a link is refused');
}

async function accessible(page, where) {
  await page.evaluate(fs.readFileSync(AXE, 'utf8'));
  const result = await page.evaluate(() => window.axe.run(document, { resultTypes: ['violations'] }));
  const grave = result.violations.filter((v) => v.impact === 'serious' || v.impact === 'critical');
  assert.deepEqual(grave.map((v) => `${v.id}: ${v.help} (${v.nodes.map((n) => n.target).join(' ')})`), []);
  console.log(`ok - axe-core finds no serious or critical violation ${where}` +
              (result.violations.length ? ` (minor: ${result.violations.map((v) => v.id).join(', ')})` : ''));
}

async function phoneLayout(page, out) {
  await page.setViewportSize({ width: 390, height: 844 });
  const layout = await page.evaluate(() => ({
    overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth,
    lefts: [...document.querySelectorAll('main > section')].map((s) => Math.round(s.getBoundingClientRect().left)),
  }));
  assert.equal(layout.overflow, 0, 'the page scrolls sideways on a phone');
  assert.equal(new Set(layout.lefts).size, 1, `the panels are not in one column: ${layout.lefts}`);
  await page.screenshot({ path: screenshotPath(out, 'dashboard-phone.png'), fullPage: true });
  console.log('ok - on a phone-sized screen the panels stack in one column without sideways scrolling');
}

async function main() {
  const options = parseArgs(process.argv.slice(2));
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'tuqvu-dashboard-'));
  const { home, prefix, desk, long } = makeTree(root);
  const guard = setTimeout(() => {
    console.error('FAIL: the test did not end in time');
    process.exit(1);
  }, GUARD_MS);
  let tuqvu;
  let context;
  let events;
  try {
    process.env.TUQVU_FILE_PUT_MAX_BYTES = String(PUT_LIMIT);
    tuqvu = await startTuqvu({ program: options.tuqvu, module: options.module, home, prefix,
                               logFile: path.join(root, 'tuqvu.log') });
    const port = tuqvu.port;
    events = await EventStream.open(port, ['BehaviorsRun']);
    await signInIsRequired(port);

    context = await launch(chromium, path.join(root, 'browser'), tuqvu.secret);
    await context.addInitScript(() => {
      window.policyViolations = [];
      document.addEventListener('securitypolicyviolation',
        (event) => window.policyViolations.push(`${event.violatedDirective} ${event.blockedURI}`));
    });
    const page = context.pages()[0] ?? await context.newPage();
    const errors = [];
    page.on('pageerror', (error) => errors.push(error.message));

    await pageLoadsUnderItsPolicy(page, port);
    await searchByNameAndTag(page);
    await runningShowsLiveAndStops(page, port, events);
    await keyboardAlone(page, port);
    await libraryActions(page, port);
    await defaultBehaviors(page, port, events);
    await eventLogFiltersAndPauses(page, port);
    await nothingLostAcrossACut(context, port);
    await healthChart(page);
    await installs(page, port, desk, long);

    // A behavior running for the pictures and the accessibility checks.
    const running = rpc(port, `${M}.runBehavior`, [`User/${LOOP}`]);
    running.catch(() => {});  // awaited below; a failure before that is not a second one
    await inPanel(page, 'running', LOOP).waitFor({ timeout: 60000 });
    await page.setViewportSize({ width: 1280, height: 900 });
    // Some seconds of the chart for the picture.
    await page.waitForFunction(() => document.querySelector('#health svg polyline')
      ?.getAttribute('points').split(' ').length >= 8, null, { timeout: 60000 });
    await page.screenshot({ path: screenshotPath(options.out, 'dashboard.png'), fullPage: true });
    await accessible(page, 'on a wide screen');
    await phoneLayout(page, options.out);
    await accessible(page, 'on a phone-sized screen');
    await rpc(port, `${M}.stopBehavior`, [`User/${LOOP}`]);
    await running;

    assert.deepEqual(await page.evaluate(() => window.policyViolations), []);
    assert.deepEqual(errors, []);
    console.log('ok - no script error and no violation of the page\'s policy');

    await context.close();
    context = null;
    events.close();
    events = null;
    assert.equal(await tuqvu.stop(), 0, `tuqvu did not shut down cleanly; its log:\n${tuqvu.log()}`);
  } finally {
    clearTimeout(guard);
    await cleanUp({ events, context, tuqvu, root });
  }
}

report(main);
