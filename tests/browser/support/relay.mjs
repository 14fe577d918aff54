// A TCP relay in front of a daemon, so that a test can cut a browser's connections, the
// event stream's included, and keep it from reconnecting for a while: what a robot
// walking out of Wi-Fi range does to them.
//
//   const relay = await startRelay(tuqvu.port);
//   await page.goto(`http://127.0.0.1:${relay.port}/ui/`);
//   relay.cut(); ... relay.reopen();
import net from 'node:net';

export function startRelay(port) {
  const sockets = new Set();
  let open = true;
  const keep = (socket) => {
    sockets.add(socket);
    socket.on('close', () => sockets.delete(socket));
    socket.on('error', () => {});
  };
  const server = net.createServer((client) => {
    if (!open) {
      client.destroy();
      return;
    }
    const upstream = net.connect(port, '127.0.0.1');
    keep(client);
    keep(upstream);
    client.pipe(upstream).pipe(client);
  });
  return new Promise((resolve, reject) => {
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => resolve({
      port: server.address().port,
      // Ends every connection now and refuses new ones until reopen().
      cut() {
        open = false;
        for (const socket of sockets) socket.destroy();
      },
      reopen() {
        open = true;
      },
      close() {
        this.cut();
        server.close();
      },
    }));
  });
}
