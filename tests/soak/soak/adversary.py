"""A hostile client mixed into the load: slow senders and connection floods against the
file-transfer server, requests at and above the size limits, and malformed requests to
both servers. Each attack has an expected outcome; anything else is a failure. The legit
clients meanwhile must see no error of their own: the servers keep answering them.

The broker runs with limits lowered for the soak (BrokerProcess.ADVERSARY_SETTINGS), so
that each attack reaches its limit quickly."""

import http.client
import json
import socket
import threading
import time

from .transport import Rpc, RpcError, TransportError, credentials, credentials_line

HEADER_DEADLINE_S = 3            # TUQVU_FILE_HEADER_DEADLINE_S of the soak's broker
PUT_LIMIT = 4 * 1024 * 1024      # TUQVU_FILE_PUT_MAX_BYTES
MEMORY_VALUE_LIMIT = 64 * 1024   # TUQVU_MEMORY_VALUE_MAX_BYTES
SETTINGS = {
    "TUQVU_FILE_HEADER_DEADLINE_S": str(HEADER_DEADLINE_S),
    "TUQVU_FILE_PUT_MAX_BYTES": str(PUT_LIMIT),
    "TUQVU_MEMORY_VALUE_MAX_BYTES": str(MEMORY_VALUE_LIMIT),
}

# Relative weights of the attacks.
WEIGHTS = {
    "slow_headers": 2, "slow_body": 1, "connection_flood": 2, "put_above_limit": 3,
    "memory_value_above_limit": 3, "garbage_to_file_server": 3, "malformed_rpc": 3,
    "rpc_body_above_limit": 2, "call_burst": 2,
}


class Adversary:
    def __init__(self, world, ports, options, rng):
        self.world = world
        self.stats = world.stats
        self.ports = ports
        self.options = options
        self.rng = rng
        self.tag = "adv"
        self.rpc = Rpc(ports.rpc, options.call_timeout)
        self.thread = threading.Thread(target=self._loop, name=self.tag, daemon=True)
        names = list(WEIGHTS)
        self._attacks = [(name, getattr(self, "attack_" + name)) for name in names]
        self._weights = [WEIGHTS[name] for name in names]

    # ---- plumbing ---------------------------------------------------------------------

    def fail(self, text):
        self.stats.fail(self.tag, text)

    def _loop(self):
        try:
            while not self.world.stopping.is_set():
                name, attack = self.rng.choices(self._attacks, self._weights)[0]
                start = time.monotonic()
                try:
                    attack()
                except Exception as error:  # any surprise is the attack's failure, not the end
                    self.fail(f"{name}: {type(error).__name__}: {error}")
                self.stats.op("adversary " + name, time.monotonic() - start)
                self.world.stopping.wait(self.rng.expovariate(1 / 0.5))
        except Exception as error:  # a bug of the driver must not pass as success
            self.fail(f"adversary crashed: {type(error).__name__}: {error}")
            raise
        finally:
            self.rpc.close()
            if not self.world.stopping.is_set():
                self.fail("adversary ended before the load did")

    def _connect(self, port):
        return socket.create_connection(("127.0.0.1", port), timeout=self.options.call_timeout)

    @staticmethod
    def _read_until_closed(sock, limit_s):
        """(bytes read, seconds until the server closed); None seconds when it did not
        close within limit_s."""
        start = time.monotonic()
        data = b""
        sock.settimeout(0.2)
        while time.monotonic() - start < limit_s:
            try:
                chunk = sock.recv(65536)
            except socket.timeout:
                continue
            except ConnectionResetError:
                return data, time.monotonic() - start
            if not chunk:
                return data, time.monotonic() - start
            data += chunk
        return data, None

    def _file_server_answers(self, what):
        """The file server answers a plain GET within the time one slow client may take."""
        limit = HEADER_DEADLINE_S + 10
        sock = self._connect(self.ports.files)
        try:
            sock.sendall(b"GET /tmp/adversary-probe-that-is-not-there HTTP/1.1\r\n"
                         b"Host: 127.0.0.1\r\n" + credentials_line() +
                         b"Connection: close\r\n\r\n")
            data, seconds = self._read_until_closed(sock, limit)
        finally:
            sock.close()
        if not data.startswith(b"HTTP/1.1 404 Not Found"):
            self.fail(f"{what}: the file server did not answer a GET within {limit} s "
                      f"({data[:60]!r})")

    # ---- attacks ----------------------------------------------------------------------

    def attack_slow_headers(self):
        """Headers a byte at a time: cut off at the header deadline."""
        sock = self._connect(self.ports.files)
        request = b"GET /tmp/slow HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: " + b"s" * 200
        start = time.monotonic()
        closed_after = None
        try:
            sock.settimeout(0.3)
            for byte in request:
                try:
                    sock.sendall(bytes([byte]))
                    if sock.recv(1) == b"":
                        closed_after = time.monotonic() - start
                        break
                except socket.timeout:
                    pass
                except (BrokenPipeError, ConnectionResetError):
                    closed_after = time.monotonic() - start
                    break
                if time.monotonic() - start > HEADER_DEADLINE_S + 20:
                    break
        finally:
            sock.close()
        # A slow sender waits its turn behind the connection being served, then has the
        # deadline; the legit transfers are short.
        if closed_after is None:
            self.fail("slow headers: the file server kept a client that sent a byte every "
                      f"0.3 s for {time.monotonic() - start:.0f} s")
        else:
            self.stats.note("adversary: slow header sender cut off by the file server")
        self._file_server_answers("after slow headers")

    def attack_slow_body(self):
        """A body far below the minimum rate: cut off without a reply."""
        sock = self._connect(self.ports.files)
        try:
            sock.sendall(b"PUT /tmp/adversary/slow-body.bin HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                         credentials_line() + b"Content-Length: 200000\r\n\r\n")
            start = time.monotonic()
            reply = b""
            sock.settimeout(0.3)
            while time.monotonic() - start < HEADER_DEADLINE_S + 30:
                try:
                    sock.sendall(b"b" * 10)
                    chunk = sock.recv(4096)
                    if chunk == b"":
                        break
                    reply += chunk
                except socket.timeout:
                    continue
                except (BrokenPipeError, ConnectionResetError):
                    break
            seconds = time.monotonic() - start
        finally:
            sock.close()
        if reply:
            self.fail(f"slow body: the file server answered {reply[:60]!r}")
        elif seconds >= HEADER_DEADLINE_S + 30:
            self.fail(f"slow body: not cut off within {seconds:.0f} s")
        else:
            self.stats.note("adversary: slow body cut off by the file server")
        self._file_server_answers("after a slow body")

    def attack_connection_flood(self):
        """Many connections to the file server that send nothing and go away."""
        socks = []
        try:
            for _ in range(100):
                socks.append(self._connect(self.ports.files))
        finally:
            time.sleep(0.2)
            for sock in socks:
                sock.close()
        self.stats.note("adversary: idle connections opened and closed", len(socks))
        self._file_server_answers("after a connection flood")

    def attack_put_above_limit(self):
        """A PUT that announces a body above the limit: 413 before any of it is sent."""
        sock = self._connect(self.ports.files)
        try:
            sock.sendall(b"PUT /tmp/adversary/too-big.bin HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                         credentials_line() +
                         f"Content-Length: {PUT_LIMIT + 1}\r\n\r\n".encode())
            data, _ = self._read_until_closed(sock, 30)
        finally:
            sock.close()
        if not data.startswith(b"HTTP/1.1 413 Payload Too Large"):
            self.fail(f"PUT above the limit answered {data[:80]!r}")
        else:
            self.stats.note("adversary: PUT above the size limit refused (413)")

    def attack_memory_value_above_limit(self):
        try:
            self.rpc.call("ZRMemory.insertData", "Soak/Adversary/Big",
                          "x" * (MEMORY_VALUE_LIMIT + 1))
        except RpcError as error:
            if error.code == -32000 and "TUQVU_MEMORY_VALUE_MAX_BYTES" in (error.description or ""):
                self.stats.note("adversary: memory value above the limit refused")
                return
            raise
        self.fail("a memory value above the limit was stored")

    def attack_garbage_to_file_server(self):
        sock = self._connect(self.ports.files)
        try:
            sock.sendall(self.rng.randbytes(self.rng.randint(1, 4096)) + b"\r\n\r\n")
            self._read_until_closed(sock, HEADER_DEADLINE_S + 10)
        finally:
            sock.close()
        self.stats.note("adversary: garbage sent to the file server")
        self._file_server_answers("after garbage")

    def attack_malformed_rpc(self):
        body = self.rng.choice([b"{", b"[]", b'{"jsonrpc":"2.0"}', b"\xff\xfe",
                                b'{"jsonrpc":"2.0","id":1,"method":"ZRMemory.getDataList",'
                                b'"params":' + b"[" * 100 + b"]" * 100 + b"}"])
        connection = http.client.HTTPConnection("127.0.0.1", self.ports.rpc, timeout=30)
        try:
            connection.request("POST", "/rpc", body,
                               {"Content-Type": "application/json", **credentials()})
            response = connection.getresponse()
            text = response.read()
        finally:
            connection.close()
        try:
            answer = json.loads(text)
        except ValueError:
            self.fail(f"malformed JSON-RPC {body[:30]!r} answered {response.status} "
                      f"with a body that is not JSON: {text[:60]!r}")
            return
        codes = {-32700, -32600}
        if response.status != 200 or answer.get("error", {}).get("code") not in codes:
            self.fail(f"malformed JSON-RPC {body[:30]!r} answered {response.status} {answer}")
        else:
            self.stats.note("adversary: malformed JSON-RPC answered with an error")

    def attack_rpc_body_above_limit(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.ports.rpc, timeout=30)
        try:
            connection.request("POST", "/rpc", b"[" + b" " * (1024 * 1024 + 10) + b"]",
                               {"Content-Type": "application/json", **credentials()})
            status = connection.getresponse().status
        except (BrokenPipeError, ConnectionResetError):
            status = None  # the broker may close before reading the rest
        finally:
            connection.close()
        if status not in (413, None):
            self.fail(f"a request body above 1 MiB answered {status}")
        else:
            self.stats.note("adversary: request body above 1 MiB refused")

    def attack_call_burst(self):
        """40 calls at the same instant on 40 connections: every one is answered."""
        count = 40
        barrier = threading.Barrier(count)
        answers = []
        lock = threading.Lock()

        def call():
            rpc = Rpc(self.ports.rpc, self.options.call_timeout)
            try:
                barrier.wait()
                result = rpc.call("ZRMemory.getDataList", "Soak/")
                with lock:
                    answers.append(isinstance(result, list))
            except (TransportError, RpcError) as error:
                with lock:
                    answers.append(str(error))
            finally:
                rpc.close()

        threads = [threading.Thread(target=call) for _ in range(count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        bad = [a for a in answers if a is not True]
        if bad:
            self.fail(f"call burst: {len(bad)} of {count} not answered: {bad[:3]}")
        else:
            self.stats.note("adversary: calls of a 40-call burst answered", count)
