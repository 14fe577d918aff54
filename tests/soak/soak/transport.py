"""The three ways the soak clients talk to tuqvu: JSON-RPC over a kept-alive connection,
the file-transfer service (one short connection per request, since that server serves
one connection at a time), and the event stream."""

import base64
import http.client
import json
import socket
import threading
import urllib.parse

# The Authorization header value with the broker's secret, which it asks of every client
# (on loopback too); set once by use_secret before the clients start.
_authorization = None


def use_secret(secret):
    global _authorization
    _authorization = "Basic " + base64.b64encode(f"tuqvu:{secret}".encode()).decode()


def credentials():
    """The headers that carry the secret."""
    return {"Authorization": _authorization} if _authorization else {}


def credentials_line():
    """The same as one raw header line."""
    return f"Authorization: {_authorization}\r\n".encode() if _authorization else b""


class RpcError(Exception):
    """A JSON-RPC error answer: code, the ZRError's description (or the message)."""

    def __init__(self, method, code, description, message):
        super().__init__(f"{method}: {code} {description}")
        self.method = method
        self.code = code
        self.description = description
        self.message = message


class TransportError(Exception):
    """No answer: the connection failed, timed out or carried something unreadable."""


class Rpc:
    """One kept-alive HTTP connection to POST /rpc. Not shared between threads."""

    def __init__(self, port, timeout):
        self._port = port
        self._timeout = timeout
        self._connection = None
        self._id = 0

    def close(self):
        if self._connection is not None:
            self._connection.close()
            self._connection = None

    def call(self, method, *params):
        self._id += 1
        body = json.dumps({"jsonrpc": "2.0", "id": self._id, "method": method,
                           "params": list(params)}).encode()
        if self._connection is None:
            self._connection = http.client.HTTPConnection("127.0.0.1", self._port,
                                                          timeout=self._timeout)
        try:
            self._connection.request("POST", "/rpc", body,
                                     {"Content-Type": "application/json", **credentials()})
            response = self._connection.getresponse()
            data = response.read()
            status = response.status
        except (OSError, http.client.HTTPException) as error:
            self.close()
            raise TransportError(f"{method}: {type(error).__name__}: {error}") from None
        if status != 200:
            self.close()
            raise TransportError(f"{method}: HTTP {status}: {data[:200]!r}")
        try:
            answer = json.loads(data)
        except ValueError as error:
            raise TransportError(f"{method}: unreadable answer: {error}") from None
        if answer.get("id") != self._id:
            raise TransportError(f"{method}: answer to id {answer.get('id')}, expected {self._id}")
        if "error" in answer:
            error = answer["error"]
            data = error.get("data") or {}
            raise RpcError(method, error.get("code"), data.get("description", error.get("message")),
                           error.get("message"))
        return answer.get("result")


class FileService:
    """GET/PUT/DELETE against the file-transfer service, a fresh connection each time."""

    def __init__(self, port, timeout):
        self._port = port
        self._timeout = timeout

    def request(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self._port, timeout=self._timeout)
        try:
            connection.request(method, urllib.parse.quote(path), body, credentials())
            response = connection.getresponse()
            return response.status, response.read()
        except (OSError, http.client.HTTPException) as error:
            raise TransportError(f"{method} {path}: {type(error).__name__}: {error}") from None
        finally:
            connection.close()


class EventWatcher:
    """Reads GET /events for some keys on a thread of its own and counts, per key, how
    often each value came."""

    def __init__(self, port, keys):
        self._port = port
        self._keys = keys
        self._lock = threading.Lock()
        self._counts = {}  # (key, value) -> count; guarded by _lock
        self.total = 0
        self.error = None  # why the stream ended early, if it did
        self._socket = None
        self._stream = None
        self._closing = False
        self._thread = threading.Thread(target=self._run, name="events", daemon=True)

    def start(self):
        """Connects and reads the answer's header; events are read on the thread."""
        query = "&".join("key=" + urllib.parse.quote(key, safe="") for key in self._keys)
        self._socket = socket.create_connection(("127.0.0.1", self._port), timeout=10)
        request = (f"GET /events?{query} HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                   "Accept: text/event-stream\r\n").encode() + credentials_line() + b"\r\n"
        self._socket.sendall(request)
        self._stream = self._socket.makefile("rb")
        status = self._stream.readline()
        if b" 200 " not in status:
            raise TransportError(f"event stream answered {status!r}")
        while self._stream.readline() not in (b"\r\n", b"\n", b""):
            pass
        self._socket.settimeout(None)
        self._thread.start()

    def _run(self):
        try:
            for line in self._stream:
                if line.startswith(b"data: "):
                    event = json.loads(line[6:])
                    value = event["value"]
                    if isinstance(value, list):
                        value = tuple(value)
                    with self._lock:
                        key = (event["key"], value)
                        self._counts[key] = self._counts.get(key, 0) + 1
                        self.total += 1
            if not self._closing:
                self.error = "the broker ended the event stream"
        except (OSError, ValueError) as error:
            if not self._closing:
                self.error = f"event stream failed: {error}"

    def count(self, key, value):
        with self._lock:
            return self._counts.get((key, value), 0)

    def close(self):
        self._closing = True
        if self._socket is not None:
            try:
                self._socket.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            self._socket.close()
        if self._thread.is_alive():
            self._thread.join(10)
        if self._stream is not None:
            self._stream.close()
