// The behavior manager's status page in Debian's chromium, against a real tuqvu daemon:
// the page lists the installed behaviors; clicking one sends the load request and, only
// once that answered 200, the run request; the running behavior then shows on the page
// and in "BehaviorsRun"; clicking it there stops it.
//
//   node status_page.test.mjs --tuqvu build/bin/tuqvu --module build/lib/libzrbehaviormanager.so \
//        --out build/browser
// Exits with status 0 when every expectation held, 1 otherwise.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

import { EventStream, eventually, parseArgs, rpc, startTuqvu } from './support/broker.mjs';
import { cleanUp, launch, preparePage, report, rows, screenshotPath, section, sectionTitles,
  waitForDone } from './support/page.mjs';

const RUNNING = 'demos/loop';   // runs until it is stopped
const OTHER = 'greet';          // installed, never touched
const SYSTEM = 'System/pose';   // preloaded when the daemon reports it is ready
const GUARD_MS = 240000;        // the whole test; only a hang reaches it

function write(file, text) {
  fs.mkdirSync(path.dirname(file), { recursive: true });
  fs.writeFileSync(file, text);
}

// A user library with two behaviors and a system library with one.
function makeTree(root) {
  const home = path.join(root, 'home');
  const prefix = path.join(root, 'prefix');
  const user = path.join(home, '.tuqvu', 'behaviors');
  const xar = (steps) => `<?xml version="1.0" encoding="UTF-8"?>\n<behavior>${steps}</behavior>\n`;
  write(path.join(user, RUNNING, 'behavior.xar'), xar('<repeat><wait ms="100"/></repeat>'));
  write(path.join(user, OTHER, 'behavior.xar'), xar('<log text="hello"/>'));
  write(path.join(prefix, 'share', 'tuqvu', 'behaviors', 'pose', 'behavior.xar'),
        xar('<wait ms="10"/>'));
  return { home, prefix };
}

const evalUrl = (port, call) =>
  `http://127.0.0.1:${port}/ZRBehaviorManager/?eval=ZRBehaviorManager.${call}`;
const sends = (pageLog) =>
  pageLog.filter((entry) => entry.what === 'send').map((entry) => entry.url);
const link = (table, name) => table.getByRole('link', { name, exact: true });

async function checkStartPage(page, port) {
  assert.deepEqual(await sectionTitles(page), ['Loaded behaviors', 'Installed behaviors']);
  assert.deepEqual(await rows(section(page, 'Loaded behaviors')),
                   [['Name', 'Loaded by dependency'], [SYSTEM, '']]);
  const installed = section(page, 'Installed behaviors');
  assert.deepEqual(await rows(installed), [['Name'], [RUNNING], [OTHER]]);
  assert.deepEqual(await rpc(port, 'ZRBehaviorManager.getInstalledBehaviors'), [RUNNING, OTHER]);
  assert.equal(await link(installed, RUNNING).getAttribute('href'),
               `javascript:playBehavior('${RUNNING}');`);
}

// A load answered with anything but 200 is the end of it: no run request follows.
async function refusedLoadSendsNoRun(page, traffic, port) {
  const load = evalUrl(port, `loadBehavior('${RUNNING}')`);
  const isLoad = (url) => decodeURIComponent(url.href) === load;
  await page.route(isLoad, (route) =>
    route.fulfill({ status: 503, contentType: 'text/plain', body: 'busy' }));
  await link(section(page, 'Installed behaviors'), RUNNING).click();
  const pageLog = await waitForDone(page, load);
  await page.unroute(isLoad);
  assert.deepEqual(sends(pageLog), [load]);
  assert.equal(pageLog.find((entry) => entry.readyState === 4).status, 503);
  assert.deepEqual(traffic.requests(), [load]);
  assert.equal(await rpc(port, 'ZRBehaviorManager.isBehaviorRunning', [RUNNING]), false);
}

async function playStartsTheBehavior(page, traffic, port, events) {
  const load = evalUrl(port, `loadBehavior('${RUNNING}')`);
  const run = evalUrl(port, `runBehavior('${RUNNING}')`);
  let heldRoute;
  const held = new Promise((resolve) => { heldRoute = resolve; });
  const isLoad = (url) => decodeURIComponent(url.href) === load;
  await page.route(isLoad, (route) => heldRoute(route));
  await link(section(page, 'Installed behaviors'), RUNNING).click();

  // The load request is out and unanswered: the page has sent nothing else, nothing runs.
  const route = await held;
  assert.deepEqual(traffic.requests(), [load]);
  assert.deepEqual(sends(await page.evaluate(() => window.evalLog)), [load]);
  assert.equal(await rpc(port, 'ZRBehaviorManager.isBehaviorRunning', [RUNNING]), false);
  await route.continue();  // to the daemon

  await traffic.waitFor('request', run);
  await page.unroute(isLoad);
  assert.deepEqual(traffic.requests(), [load, run]);
  assert.equal((await traffic.waitFor('response', load)).status, 200);
  assert.ok(traffic.index('response', load) < traffic.index('request', run),
            `run sent before the load answered: ${JSON.stringify(traffic.log)}`);

  await eventually(`${RUNNING} runs`,
                   () => rpc(port, 'ZRBehaviorManager.isBehaviorRunning', [RUNNING]));
  await events.waitFor((event) => event.key === 'BehaviorsRun' &&
                         JSON.stringify(event.value) === JSON.stringify([RUNNING]), 0,
                       `BehaviorsRun = ["${RUNNING}"]`);
  assert.deepEqual(await rpc(port, 'ZRMemory.getData', ['BehaviorsRun']), [RUNNING]);
  assert.deepEqual(await rpc(port, 'ZRBehaviorManager.getRunningBehaviors'), [RUNNING]);
  return { load, run };
}

async function checkRunningPage(page) {
  assert.deepEqual(await sectionTitles(page),
                   ['Loaded behaviors', 'Running behaviors', 'Installed behaviors']);
  assert.deepEqual(await rows(section(page, 'Loaded behaviors')),
                   [['Name', 'Loaded by dependency'], [SYSTEM, ''], [RUNNING, '']]);
  const running = section(page, 'Running behaviors');
  assert.deepEqual(await rows(running), [['Name'], [RUNNING]]);
  assert.equal(await link(running, RUNNING).getAttribute('href'),
               `javascript:stopBehavior('${RUNNING}');`);
  assert.deepEqual(await rows(section(page, 'Installed behaviors')),
                   [['Name'], [RUNNING], [OTHER]]);
}

async function stopEndsTheBehavior(page, traffic, port, events, from) {
  const stop = evalUrl(port, `stopBehavior('${RUNNING}')`);
  const unload = evalUrl(port, `unloadBehavior('${RUNNING}')`);
  await link(section(page, 'Running behaviors'), RUNNING).click();
  await traffic.waitFor('response', unload);
  assert.deepEqual(traffic.requests(), [stop, unload]);
  assert.equal((await traffic.waitFor('response', stop)).status, 200);
  assert.ok(traffic.index('response', stop) < traffic.index('request', unload),
            `unload sent before the stop answered: ${JSON.stringify(traffic.log)}`);
  assert.deepEqual(JSON.parse(await traffic.body(stop)), { result: null });

  // The stop call returns once the run has cleaned up.
  assert.equal(await rpc(port, 'ZRBehaviorManager.isBehaviorRunning', [RUNNING]), false);
  assert.deepEqual(await rpc(port, 'ZRMemory.getData', ['BehaviorsRun']), []);
  assert.deepEqual(await rpc(port, 'ZRBehaviorManager.getRunningBehaviors'), []);
  await events.waitFor((event) => event.key === 'BehaviorsRun' && Array.isArray(event.value) &&
                         !event.value.includes(RUNNING), from, `BehaviorsRun without ${RUNNING}`);
  return { stop, unload };
}

async function main() {
  const options = parseArgs(process.argv.slice(2));
  const root = fs.mkdtempSync(path.join(os.tmpdir(), 'tuqvu-browser-'));
  let tuqvu = null;
  let context = null;
  let events = null;
  const guard = setTimeout(() => {
    console.error('FAIL: the test did not end within its guard time');
    tuqvu?.kill();
    process.exit(1);
  }, GUARD_MS);
  try {
    const { home, prefix } = makeTree(root);
    tuqvu = await startTuqvu({ program: options.tuqvu, module: options.module, home, prefix,
                               logFile: path.join(root, 'tuqvu.log') });
    const port = tuqvu.port;
    console.log(`tuqvu listens on port ${port}`);
    events = await EventStream.open(port, ['BehaviorsRun']);
    await eventually(`${SYSTEM} is preloaded`, async () =>
      (await rpc(port, 'ZRBehaviorManager._getBehaviorFrameManagerId', [SYSTEM])) !== '');

    context = await launch(chromium, path.join(root, 'browser'), tuqvu.secret);
    const { page, errors, traffic } = await preparePage(context);
    const pageUrl = `http://127.0.0.1:${port}/ZRBehaviorManager/`;
    const answer = await page.goto(pageUrl);
    assert.equal(answer.status(), 200);
    await checkStartPage(page, port);
    console.log('ok - the page lists the installed behaviors');

    await refusedLoadSendsNoRun(page, traffic, port);
    console.log('ok - a load answered 503 sends no run request');

    await page.reload();
    traffic.log.length = 0;
    const { load } = await playStartsTheBehavior(page, traffic, port, events);
    console.log('ok - clicking sends the load request, then the run request after its 200');
    console.log(`  load answer: ${await traffic.body(load)}`);

    // The run request stays open while the behavior runs; reloading drops it in the
    // browser, not in the daemon.
    await page.reload();
    traffic.log.length = 0;
    await checkRunningPage(page);
    assert.equal(await rpc(port, 'ZRBehaviorManager.isBehaviorRunning', [RUNNING]), true);
    await page.screenshot({ path: screenshotPath(options.out, 'status-page.png'), fullPage: true });
    console.log(`ok - after a reload ${RUNNING} is under "Running behaviors" and in BehaviorsRun`);

    const from = events.events.length;
    const { unload } = await stopEndsTheBehavior(page, traffic, port, events, from);
    console.log('ok - clicking the running behavior stops it');
    console.log(`  unload answer: ${await traffic.body(unload)}`);

    await page.reload();
    await checkStartPage(page, port);
    await page.screenshot({ path: screenshotPath(options.out, 'status-page-stopped.png'),
                            fullPage: true });
    assert.deepEqual(errors, []);
    console.log('ok - after the stop the page is as at the start');

    await context.close();
    context = null;
    events.close();
    events = null;
    const status = await tuqvu.stop();
    assert.equal(status, 0,
                 `tuqvu did not shut down cleanly (exit status ${status}); its log:\n` +
                 tuqvu.log());
    console.log('ok - tuqvu shuts down cleanly');
  } finally {
    clearTimeout(guard);
    await cleanUp({ events, context, tuqvu, root });
  }
}

report(main);
