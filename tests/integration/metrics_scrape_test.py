#!/usr/bin/env python3
"""Scrapes GET /metrics of a real tuqvu the way Prometheus would read it: the text is
parsed with the Prometheus client library's own parser, and the counters must move by
exactly the calls this test makes.

  metrics_scrape_test.py --tuqvu build/bin/tuqvu --module build/lib/libzrbehaviormanager.so
"""
import argparse
import base64
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import urllib.error
import urllib.request

from prometheus_client.parser import text_string_to_metric_families

OPTIONS = None


def start_broker(scratch):
    home, tmp = os.path.join(scratch, "home"), os.path.join(scratch, "tmp")
    os.makedirs(home)
    os.makedirs(tmp)
    env = {k: v for k, v in os.environ.items()
           if k not in ("XDG_CONFIG_HOME", "XDG_DATA_HOME", "TUQVU_SECRET")}
    env.update(HOME=home, TMPDIR=tmp)
    log = open(os.path.join(scratch, "tuqvu.log"), "w")
    process = subprocess.Popen(
        [OPTIONS.tuqvu, "--port", "0", "--bind", "127.0.0.1", "--module", OPTIONS.module],
        env=env, stdout=subprocess.PIPE, stderr=log, text=True)
    match = re.search(r"listening on 127\.0\.0\.1:(\d+)", process.stdout.readline())
    if not match:
        process.kill()
        raise RuntimeError("tuqvu did not start; see " + log.name)
    with open(os.path.join(home, ".config", "tuqvu", "secret")) as file:
        secret = file.read().strip()
    return process, log, int(match.group(1)), secret


class MetricsScrape(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="tuqvu-metrics-")
        cls.process, cls.log, cls.port, secret = start_broker(cls.scratch)
        cls.authorization = "Basic " + base64.b64encode((":" + secret).encode()).decode()

    @classmethod
    def tearDownClass(cls):
        cls.process.send_signal(signal.SIGTERM)
        status = cls.process.wait(timeout=60)
        cls.log.close()
        if status == 0:
            shutil.rmtree(cls.scratch, ignore_errors=True)
        else:
            raise AssertionError(f"tuqvu ended with status {status}; log in {cls.scratch}")

    def request(self, path, body=None, authorization=True):
        request = urllib.request.Request(f"http://127.0.0.1:{self.port}{path}", data=body)
        if authorization:
            request.add_header("Authorization", self.authorization)
        if body is not None:
            request.add_header("Content-Type", "application/json")
        with urllib.request.urlopen(request, timeout=30) as response:
            return response.status, response.headers, response.read().decode()

    def call(self, method, params):
        body = json.dumps({"jsonrpc": "2.0", "id": 1, "method": method, "params": params})
        return json.loads(self.request("/rpc", body.encode())[2])

    def scrape(self):
        """{family name: family} of one scrape, as the client library parses it."""
        status, headers, text = self.request("/metrics")
        self.assertEqual(200, status)
        self.assertEqual("text/plain; version=0.0.4; charset=utf-8", headers["Content-Type"])
        return {family.name: family for family in text_string_to_metric_families(text)}

    @staticmethod
    def sample(families, family, name, **labels):
        for sample in families[family].samples if family in families else []:
            if sample.name == name and sample.labels == labels:
                return sample.value
        return 0.0

    def test_without_the_secret_the_answer_is_401(self):
        with self.assertRaises(urllib.error.HTTPError) as refused:
            self.request("/metrics", authorization=False)
        self.assertEqual(401, refused.exception.code)

    def test_the_call_counter_moves_by_the_calls_made(self):
        before = self.scrape()
        for _ in range(4):
            self.assertIn("result", self.call("ZRMemory.getData", ["TUQvuReady"]))
        self.assertIn("error", self.call("ZRMemory.getData", ["no key of that name"]))
        after = self.scrape()
        family = "tuqvu_rpc_calls"
        self.assertEqual("counter", after[family].type)
        for outcome, made in (("ok", 4), ("error", 1)):
            labels = {"method": "ZRMemory.getData", "outcome": outcome}
            self.assertEqual(made, self.sample(after, family, family + "_total", **labels)
                             - self.sample(before, family, family + "_total", **labels))
        latency = after["tuqvu_rpc_call_duration_seconds"]
        self.assertEqual("histogram", latency.type)
        buckets = [s for s in latency.samples if s.name.endswith("_bucket")
                   and s.labels["method"] == "ZRMemory.getData"]
        self.assertEqual("+Inf", buckets[-1].labels["le"])
        counts = [s.value for s in buckets]
        self.assertEqual(sorted(counts), counts)  # cumulative
        self.assertEqual(self.sample(after, "tuqvu_rpc_call_duration_seconds",
                                     "tuqvu_rpc_call_duration_seconds_count",
                                     method="ZRMemory.getData"), counts[-1])

    def test_a_made_up_method_is_no_series(self):
        self.assertIn("result", self.call("ZRMemory.getData", ["TUQvuReady"]))
        before = self.scrape()
        self.assertIn("error", self.call("ZRMemory.noSuchMethod", []))
        after = self.scrape()
        methods = {s.labels["method"] for s in after["tuqvu_rpc_calls"].samples}
        self.assertIn("ZRMemory.getData", methods)
        self.assertNotIn("ZRMemory.noSuchMethod", methods)
        self.assertEqual(len(before["tuqvu_rpc_calls"].samples),
                         len(after["tuqvu_rpc_calls"].samples))
        rejected = ("tuqvu_rpc_rejected", "tuqvu_rpc_rejected_total")
        self.assertEqual(1, self.sample(after, *rejected, reason="method_not_found")
                         - self.sample(before, *rejected, reason="method_not_found"))

    def test_the_behavior_manager_and_the_process_are_there(self):
        families = self.scrape()
        self.assertEqual("gauge", families["tuqvu_behaviors_running"].type)
        self.assertEqual(6, len(families["tuqvu_behavior_state_changes"].samples))
        self.assertEqual("gauge", families["tuqvu_event_stream_subscribers"].type)
        self.assertEqual("gauge", families["tuqvu_http_connections_open"].type)
        self.assertGreater(self.sample(families, "process_resident_memory_bytes",
                                       "process_resident_memory_bytes"), 0)
        self.assertGreater(self.sample(families, "process_threads", "process_threads"), 0)
        self.assertGreater(self.sample(families, "process_open_fds", "process_open_fds"), 0)


def main():
    global OPTIONS
    parser = argparse.ArgumentParser()
    parser.add_argument("--tuqvu", required=True)
    parser.add_argument("--module", required=True)
    OPTIONS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
