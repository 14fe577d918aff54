// The peer of the broker benchmark: a single-process JSON-RPC server over HTTP/1.1, as
// small as Node makes it. Every request body is parsed; a call answers result 1 with its id.
//
//   node bench/broker/jsonrpc_peer.mjs PORT
import http from 'node:http';

const port = Number(process.argv[2] ?? 18091);

http
  .createServer((request, response) => {
    const chunks = [];
    request.on('data', (chunk) => chunks.push(chunk));
    request.on('end', () => {
      let answer;
      try {
        const call = JSON.parse(Buffer.concat(chunks).toString('utf8'));
        answer = { jsonrpc: '2.0', id: call.id ?? null, result: 1 };
      } catch {
        answer = { jsonrpc: '2.0', id: null, error: { code: -32700, message: 'Parse error' } };
      }
      const body = JSON.stringify(answer);
      response.writeHead(200, {
        'Content-Type': 'application/json',
        'Content-Length': Buffer.byteLength(body),
      });
      response.end(body);
    });
  })
  .listen(port, '127.0.0.1', () => console.log(`listening on 127.0.0.1:${port}`));
