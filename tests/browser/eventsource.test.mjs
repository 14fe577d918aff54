// The event stream of a real tuqvu through the `eventsource` package, the EventSource of
// the web platform for Node.js: a connection cut mid-stream is reconnected with the last
// event id, and the events raised while the client was away arrive, in order, with none
// lost. The cut is made by a small TCP relay between the client and the broker.
//
//   node eventsource.test.mjs --tuqvu build/bin/tuqvu \
//        --module build/lib/libzrbehaviormanager.so --out build/browser
// Exits with status 0 when every expectation held, 1 otherwise.
import assert from 'node:assert/strict';
import net from 'node:net';
import path from 'node:path';
import { EventSource } from 'eventsource';

import { credentials, eventually, parseArgs, rpc, startTuqvuIn } from './support/broker.mjs';

const KEY = 'Client/Counter';

// Relays a local port to the broker's; cut() ends every connection relayed so far.
function startRelay(targetPort) {
  const sockets = new Set();
  const server = net.createServer((client) => {
    const upstream = net.connect(targetPort, '127.0.0.1');
    for (const socket of [client, upstream]) {
      sockets.add(socket);
      socket.on('close', () => sockets.delete(socket));
      socket.on('error', () => {});
    }
    client.pipe(upstream);
    upstream.pipe(client);
  });
  return new Promise((resolve) => {
    server.listen(0, '127.0.0.1', () => resolve({
      port: server.address().port,
      connections: () => sockets.size / 2,
      cut() { for (const socket of sockets) socket.destroy(); },
      close() { this.cut(); server.close(); },
    }));
  });
}

async function main() {
  const options = parseArgs(process.argv.slice(2));
  const tuqvu = await startTuqvuIn(path.join(options.out, 'eventsource'), options);
  const relay = await startRelay(tuqvu.port);
  let source;
  try {
    const received = [];
    let opened = 0;
    // The relay's port is another origin's to the broker only by number: the Host header
    // still names 127.0.0.1, an address the broker accepts.
    source = new EventSource(`http://127.0.0.1:${relay.port}/events?key=${encodeURIComponent(KEY)}`, {
      fetch: (input, init) => fetch(input, {
        ...init, headers: { ...init.headers, ...credentials(tuqvu.port) } }),
    });
    source.onopen = () => { opened += 1; };
    source.onmessage = (event) => { received.push({ id: event.lastEventId, data: JSON.parse(event.data) }); };
    await eventually('the stream is open', () => opened === 1);

    for (let value = 0; value < 3; value += 1) await rpc(tuqvu.port, 'ZRMemory.insertData', [KEY, value]);
    await eventually('the first three events arrived', () => received.length === 3);

    // Cut the connection; raise three more while the client waits to reconnect (the
    // stream asked for two seconds), then three after it is back.
    relay.cut();
    for (let value = 3; value < 6; value += 1) await rpc(tuqvu.port, 'ZRMemory.insertData', [KEY, value]);
    await eventually('the client reconnected', () => opened === 2);
    for (let value = 6; value < 9; value += 1) await rpc(tuqvu.port, 'ZRMemory.insertData', [KEY, value]);
    await eventually('nine events arrived', () => received.length >= 9);

    assert.deepEqual(received.map((event) => event.data.value), [0, 1, 2, 3, 4, 5, 6, 7, 8]);
    assert.ok(received.every((event) => event.data.key === KEY));
    // Ids grow along the stream and are never repeated.
    const ids = received.map((event) => Number(event.id.split('.')[1]));
    for (let i = 1; i < ids.length; i += 1) assert.ok(ids[i] > ids[i - 1], `ids ${ids}`);

    source.close();
    relay.close();
    assert.equal(await tuqvu.stop(), 0);
    console.log('eventsource: every expectation held');
  } catch (error) {
    source?.close();
    relay.close();
    tuqvu.kill();
    console.error(tuqvu.log());
    throw error;
  }
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
