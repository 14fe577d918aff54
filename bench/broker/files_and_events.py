#!/usr/bin/env python3
"""The broker's file API and event stream, for builds side by side.

For each build given (a build directory holding bin/tuqvu and the behavior manager's
library), in alternating rounds: a tuqvu of that build on loopback, curl putting and then
getting a file of random bytes at /files/tmp/, and a stream of /events for one key while
3000 calls of ZRMemory.insertData on one keep-alive connection change that key (the time
until the last event arrived). Prints the best time of each figure per build.

    bench/broker/files_and_events.py ../wt-base/build-bench build-bench   # [--rounds 3] [--mib 256]
"""
import argparse
import base64
import http.client
import json
import os
import shutil
import subprocess
import tempfile
import threading
import time

EVENTS = 3000


class Broker:
    def __init__(self, build, work):
        os.makedirs(work + "/home")
        os.makedirs(work + "/prefix")
        env = dict(os.environ, HOME=work + "/home", TUQVU_SDK_PREFIX=work + "/prefix")
        self.log = work + "/tuqvu.out"
        with open(self.log, "w") as out:
            self.process = subprocess.Popen(
                [build + "/bin/tuqvu", "--port", "0", "--bind", "127.0.0.1", "--log-level", "2"],
                stdout=out, stderr=subprocess.STDOUT, env=env)
        self.port = None
        for _ in range(100):
            time.sleep(0.1)
            with open(self.log) as lines:
                for line in lines:
                    if "listening on" in line:
                        self.port = int(line.strip().rsplit(":", 1)[1])
            if self.port:
                break
        if not self.port:
            raise RuntimeError(f"{build}: tuqvu did not start")
        with open(work + "/home/.config/tuqvu/secret") as f:
            self.secret = f.read().strip()
        self.auth = "Basic " + base64.b64encode(("bench:" + self.secret).encode()).decode()

    def call(self, connection, method, params):
        body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": params})
        connection.request("POST", "/rpc", body,
                           {"Authorization": self.auth, "Content-Type": "application/json"})
        answer = json.loads(connection.getresponse().read())
        if "result" not in answer:
            raise RuntimeError(f"{method}: {answer}")
        return answer["result"]

    def stop(self):
        self.process.terminate()
        self.process.wait()


def curl(broker, *args):
    started = time.monotonic()
    subprocess.run(["curl", "-sS", "-f", "-u", "bench:" + broker.secret, *args], check=True,
                   stdout=subprocess.DEVNULL)
    return time.monotonic() - started


def events(broker):
    """Seconds from the first call to the last of EVENTS events read from /events."""
    arrivals = []
    ready = threading.Event()

    def read():
        stream = http.client.HTTPConnection("127.0.0.1", broker.port, timeout=60)
        stream.request("GET", "/events?keys=Bench/Event", headers={"Authorization": broker.auth})
        answer = stream.getresponse()
        ready.set()
        while len(arrivals) < EVENTS:
            line = answer.fp.readline()
            if not line:
                break
            if line.startswith(b"data:"):
                arrivals.append(time.monotonic())

    reader = threading.Thread(target=read, daemon=True)
    reader.start()
    ready.wait(10)
    time.sleep(0.2)  # the stream's subscription is in place once its head is sent
    connection = http.client.HTTPConnection("127.0.0.1", broker.port)
    started = time.monotonic()
    for i in range(EVENTS):
        broker.call(connection, "ZRMemory.insertData", ["Bench/Event", i])
    reader.join(60)
    if len(arrivals) < EVENTS:
        raise RuntimeError(f"only {len(arrivals)} of {EVENTS} events arrived")
    return arrivals[-1] - started


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("builds", nargs="+")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--mib", type=int, default=256)
    options = parser.parse_args()
    work = tempfile.mkdtemp(prefix="tuqvu-files-events-")
    try:
        blob = work + "/blob"
        with open(blob, "wb") as f:
            for _ in range(options.mib):
                f.write(os.urandom(1 << 20))
        best = {build: {} for build in options.builds}
        for round_ in range(options.rounds):
            for index, build in enumerate(options.builds):
                broker = Broker(os.path.abspath(build), f"{work}/{round_}-{index}")
                try:
                    url = f"http://127.0.0.1:{broker.port}/files/tmp/blob"
                    figures = {"PUT s": curl(broker, "-T", blob, url),
                               "GET s": curl(broker, "-o", "/dev/null", url),
                               f"{EVENTS} events s": events(broker)}
                finally:
                    broker.stop()
                for name, seconds in figures.items():
                    best[build][name] = min(seconds, best[build].get(name, seconds))
        print(f"best of {options.rounds} rounds, {options.mib} MiB file, loopback, curl "
              f"{subprocess.run(['curl', '--version'], capture_output=True, text=True).stdout.split()[1]}")
        for build, figures in best.items():
            print(f"{build:40} " + "  ".join(f"{name} {value:.3f}" for name, value in figures.items()))
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
