// The broker's file API and event stream from a page in Debian's chromium, against a
// real tuqvu: a page of the robot signed in with the secret writes, reads (whole, a
// range, only when changed) and lists files with fetch, and follows events with the
// browser's own EventSource; a page of another origin can neither write nor delete.
//
//   node files_in_chromium.test.mjs --tuqvu build/bin/tuqvu \
//        --module build/lib/libzrbehaviormanager.so --out build/browser
// Exits with status 0 when every expectation held, 1 otherwise.
import assert from 'node:assert/strict';
import http from 'node:http';
import path from 'node:path';
import { chromium } from 'playwright-core';

import { parseArgs, startTuqvuIn } from './support/broker.mjs';
import { expectThreeEventsInPage, followEventsInPage, launch } from './support/page.mjs';

const KEY = 'Browser/Count';

// A page of another origin (another port of the same host).
function startForeignSite() {
  const server = http.createServer((request, response) => {
    response.writeHead(200, { 'Content-Type': 'text/html' });
    response.end('<!DOCTYPE html><title>elsewhere</title>');
  });
  return new Promise((resolve) => server.listen(0, '127.0.0.1', () => resolve(server)));
}

async function main() {
  const options = parseArgs(process.argv.slice(2));
  const scratch = path.join(options.out, 'files-in-chromium');
  const tuqvu = await startTuqvuIn(scratch, options);
  const foreign = await startForeignSite();
  let context;
  try {
    const port = tuqvu.port;
    context = await launch(chromium, path.join(scratch, 'browser'), tuqvu.secret);
    const page = await context.newPage();
    assert.equal((await page.goto(`http://127.0.0.1:${port}/`)).status(), 200);

    const seen = await page.evaluate(async () => {
      const url = '/files/tmp/' + encodeURIComponent('from chromium.txt');
      const put = await fetch(url, { method: 'PUT', body: 'written by a page' });
      const tag = put.headers.get('ETag');
      const whole = await fetch(url);
      const part = await fetch(url, { headers: { Range: 'bytes=0-6' } });
      const unchanged = await fetch(url, { headers: { 'If-None-Match': tag }, cache: 'no-store' });
      const listing = await fetch('/files/tmp/', { headers: { Accept: 'application/json' } });
      return {
        put: put.status, tag, whole: [whole.status, await whole.text()],
        part: [part.status, await part.text(), part.headers.get('Content-Range')],
        unchanged: unchanged.status,
        names: (await listing.json()).map((entry) => entry.name),
      };
    });
    assert.equal(seen.put, 201);
    assert.ok(seen.tag);
    assert.deepEqual(seen.whole, [200, 'written by a page']);
    assert.deepEqual(seen.part, [206, 'written', 'bytes 0-6/17']);
    assert.equal(seen.unchanged, 304);
    assert.ok(seen.names.includes('from chromium.txt'), seen.names.join(', '));
    console.log('ok - a page of the robot writes, reads, ranges and lists files');

    // The browser's EventSource follows events raised meanwhile.
    await followEventsInPage(page, KEY);
    await expectThreeEventsInPage(page, port, KEY);
    console.log('ok - EventSource in the page receives the events');

    // Another origin: the browser asks first (a preflight), the robot does not agree.
    const stranger = await context.newPage();
    await stranger.goto(`http://127.0.0.1:${foreign.address().port}/`);
    const refused = await stranger.evaluate(async (target) => {
      const outcome = async (request) => {
        try {
          return (await request).status;
        } catch (error) {
          return 'refused by the browser';
        }
      };
      return {
        put: await outcome(fetch(`${target}/files/tmp/planted.txt`,
                                 { method: 'PUT', body: 'x', credentials: 'include' })),
        remove: await outcome(fetch(`${target}/files/tmp/from%20chromium.txt`,
                                    { method: 'DELETE', credentials: 'include' })),
      };
    }, `http://127.0.0.1:${port}`);
    assert.deepEqual(refused, { put: 'refused by the browser', remove: 'refused by the browser' });
    const after = await page.evaluate(async () => ({
      planted: (await fetch('/files/tmp/planted.txt', { cache: 'no-store' })).status,
      kept: (await fetch('/files/tmp/from%20chromium.txt', { cache: 'no-store' })).status,
    }));
    assert.deepEqual(after, { planted: 404, kept: 200 });
    console.log('ok - a page of another origin can neither write nor delete');

    await context.close();
    context = null;
    assert.equal(await tuqvu.stop(), 0);
    console.log('PASS');
  } catch (error) {
    console.error(tuqvu.log());
    throw error;
  } finally {
    await context?.close().catch(() => {});
    foreign.close();
    tuqvu.kill();
  }
}

main().catch((error) => {
  console.error(`FAIL: ${error.stack ?? error}`);
  process.exitCode = 1;
});
