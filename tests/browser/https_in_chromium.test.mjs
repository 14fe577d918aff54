// The broker's pages and event stream over HTTPS in Debian's chromium, against a real
// tuqvu with the self-signed certificate it made: a browser that trusts exactly that
// certificate's key loads the page as a secure context, calls the broker and follows
// events with EventSource, and keeps a Secure session cookie; a browser that does not
// trust it gets no page at all.
//
//   node https_in_chromium.test.mjs --tuqvu build/bin/tuqvu \
//        --module build/lib/libzrbehaviormanager.so --out build/browser
// Exits with status 0 when every expectation held, 1 otherwise.
import assert from 'node:assert/strict';
import crypto from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';
import { chromium } from 'playwright-core';

import { parseArgs, startTuqvuIn } from './support/broker.mjs';
import { expectThreeEventsInPage, followEventsInPage, launch } from './support/page.mjs';

const KEY = 'Browser/Sealed';

// The base64 SHA-256 of the certificate's public key, as chromium pins a key.
function publicKeyPin(certificateFile) {
  const certificate = new crypto.X509Certificate(fs.readFileSync(certificateFile));
  const key = certificate.publicKey.export({ type: 'spki', format: 'der' });
  return crypto.createHash('sha256').update(key).digest('base64');
}

async function main() {
  const options = parseArgs(process.argv.slice(2));
  const scratch = path.join(options.out, 'https-in-chromium');
  const tuqvu = await startTuqvuIn(scratch, options, ['--https']);
  let trusting;
  let doubting;
  try {
    const port = tuqvu.port;
    const origin = `https://127.0.0.1:${port}`;
    const pin = publicKeyPin(path.join(tuqvu.home, '.config', 'tuqvu', 'certificate.pem'));
    trusting = await launch(chromium, path.join(scratch, 'trusting'), tuqvu.secret,
                            [`--ignore-certificate-errors-spki-list=${pin}`]);
    const page = await trusting.newPage();
    const response = await page.goto(`${origin}/`);
    assert.equal(response.status(), 200);
    assert.equal((await response.securityDetails())?.protocol, 'TLS 1.3');
    assert.deepEqual(await page.evaluate(() => [location.protocol, window.isSecureContext]),
                     ['https:', true]);
    console.log('ok - the page loads over TLS 1.3 as a secure context');

    const modules = await page.evaluate(async () => {
      const answer = await fetch('/rpc', {
        method: 'POST',
        headers: { 'Content-Type': 'application/json' },
        body: JSON.stringify({ jsonrpc: '2.0', id: 1, method: 'ZRBroker.getModules', params: [] }),
      });
      return (await answer.json()).result;
    });
    assert.ok(modules.includes('ZRBehaviorManager'), modules.join(', '));
    const cookies = await trusting.cookies(origin);
    const session = cookies.find((cookie) => cookie.name === 'tuqvu-session');
    assert.ok(session, JSON.stringify(cookies));
    assert.equal(session.secure, true);
    assert.equal(session.httpOnly, true);
    console.log('ok - the page calls the broker and holds a Secure, HttpOnly session cookie');

    await followEventsInPage(page, KEY);
    await expectThreeEventsInPage(page, port, KEY);
    console.log('ok - EventSource over HTTPS receives the events');

    doubting = await launch(chromium, path.join(scratch, 'doubting'), tuqvu.secret);
    const stranger = await doubting.newPage();
    await assert.rejects(stranger.goto(`${origin}/`), /ERR_CERT_AUTHORITY_INVALID/);
    console.log('ok - a browser that does not trust the certificate gets no page');

    await trusting.close();
    await doubting.close();
    trusting = null;
    doubting = null;
    assert.equal(await tuqvu.stop(), 0);
    console.log('PASS');
  } catch (error) {
    console.error(tuqvu.log());
    throw error;
  } finally {
    await trusting?.close().catch(() => {});
    await doubting?.close().catch(() => {});
    tuqvu.kill();
  }
}

main().catch((error) => {
  console.error(`FAIL: ${error.stack ?? error}`);
  process.exitCode = 1;
});
