#!/usr/bin/env python3
"""Runs every curl and Python example of the documentation against a real tuqvu.

The examples are read from the Markdown as they are written: each ```sh block that calls
curl and each ```python block, in the order of the page. Only the address changes: the
broker of this test listens on a port of its own, so "127.0.0.1:9600" becomes that port
and 15000 (the file-transfer server's usual port) the port the behavior manager took.
Python blocks share one namespace page by page, as a reader who runs them one after the
other does ("credentials" of the first is used by a later one). A block that follows an
event stream is stopped after a few seconds and must have printed an event by then.

What a block must do:
  - finish (or, for a stream, print an event) without error;
  - every JSON-RPC answer it prints has a "result", never an "error";
  - a trailing comment that is an answer ("# {"result":true}", "# ok") is what that line
    printed.

  examples_test.py --tuqvu build/bin/tuqvu --module build/lib/libzrbehaviormanager.so \
      --bin build/bin --docs docs
"""
import argparse
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

STREAM_SECONDS = 4  # how long a block that follows events is let run
BLOCK_SECONDS = 60  # any other block: only a hang takes this long


def blocks_of(page):
    """(language, text) of each example block of a Markdown page that this test runs."""
    for language, text in re.findall(r"```(\w+)\n(.*?)```", page, re.S):
        if language == "python" or (language in ("sh", "bash") and "curl" in text):
            yield language, text


def commands_of(text):
    """The commands of a shell block, continuation lines joined, with their comment."""
    commands, pending = [], ""
    for line in text.splitlines():
        if line.endswith("\\"):
            pending += line[:-1] + " "
            continue
        line = pending + line
        pending = ""
        if not line.strip():
            continue
        comment = ""
        match = re.search(r"\s+#\s*(.*)$", line)
        if match and not line.lstrip().startswith("#"):
            comment, line = match.group(1), line[: match.start()]
        commands.append((line, comment))
    return commands


def expected_answer(comment):
    """The answer a trailing comment shows, or None for a comment in words."""
    if comment.startswith("{"):
        return json.loads(comment)
    if comment == "ok":
        return "ok"
    return None


def check_output(where, output, expected):
    for line in output.splitlines():
        line = line.strip()
        if line.startswith("{") and '"jsonrpc"' in line:
            answer = json.loads(line)
            if "error" in answer:
                raise AssertionError(f"{where}: the call failed: {line}")
    if expected is None:
        return
    if isinstance(expected, dict):
        if json.loads(output) != expected:
            raise AssertionError(f"{where}: printed {output!r}, the page says {expected}")
    elif output.strip() != expected:
        raise AssertionError(f"{where}: printed {output!r}, the page says {expected!r}")


class Broker:
    def __init__(self, tuqvu, module, scratch):
        self.home = os.path.join(scratch, "home")
        self.tmp = os.path.join(scratch, "tmp")
        for folder in (self.home, self.tmp):
            os.makedirs(folder)
        self.env = dict(os.environ, HOME=self.home, TMPDIR=self.tmp)
        for name in ("XDG_CONFIG_HOME", "XDG_DATA_HOME", "TUQVU_SECRET"):
            self.env.pop(name, None)
        self.log = open(os.path.join(scratch, "tuqvu.log"), "w")
        self.process = subprocess.Popen(
            [tuqvu, "--port", "0", "--bind", "127.0.0.1", "--https", "--module", module],
            env=self.env, stdout=subprocess.PIPE, stderr=self.log, text=True)
        line = self.process.stdout.readline()
        match = re.search(r"listening on 127\.0\.0\.1:(\d+)", line)
        if not match:
            raise RuntimeError(f"tuqvu did not start: {line!r}")
        self.port = int(match.group(1))
        with open(os.path.join(self.home, ".config", "tuqvu", "secret")) as file:
            self.secret = file.read().strip()

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=60)
        self.log.close()
        return status


def localised(text, broker, file_port):
    text = text.replace("127.0.0.1:9600", f"127.0.0.1:{broker.port}")
    return re.sub(r"\b15000\b", str(file_port), text)


def raise_events_soon(broker, env):
    """Runs a behavior a second from now, so that a block following events has some."""
    def run():
        time.sleep(1)
        subprocess.run([os.path.join(env["TUQVU_BIN"], "tuqvu-call"), "--url",
                        f"http://127.0.0.1:{broker.port}", "ZRBehaviorManager.runBehavior",
                        "System/animations/nod"], env=env, capture_output=True)
    threading.Thread(target=run, daemon=True).start()


def run_shell_block(where, text, broker, file_port, workdir, env):
    # One shell for the whole block, so that a variable set by one line serves the next;
    # a marker before each command splits what each printed.
    commands = commands_of(localised(text, broker, file_port))
    script = "set -e -o pipefail\n"
    streaming = False
    for number, (command, _) in enumerate(commands, 1):
        # A line of its own even after an answer without a line end.
        script += f"printf '\\n@@command {number}\\n'\n"
        if "/events" in command:
            # A stream never ends by itself: it is followed for a while.
            streaming = True
            script += (f"status=0; timeout {STREAM_SECONDS} {command} || status=$?; "
                       "[ $status -eq 0 ] || [ $status -eq 124 ] || exit $status\n")
        else:
            script += command + "\n"
    if streaming:
        raise_events_soon(broker, env)
    try:
        result = subprocess.run(["bash", "-c", script], cwd=workdir, env=env, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                timeout=BLOCK_SECONDS)
    except subprocess.TimeoutExpired:
        raise AssertionError(f"{where}: no end in {BLOCK_SECONDS} s")
    outputs = [output[:-1] if output.endswith("\n") else output
               for output in re.split(r"^@@command \d+\n", result.stdout, flags=re.M)[1:]]
    if result.returncode != 0:
        raise AssertionError(f"{where}, command {len(outputs)} failed ({result.returncode}): "
                             f"{commands[len(outputs) - 1][0]}\n{outputs[-1] if outputs else ''}")
    for number, ((command, comment), output) in enumerate(zip(commands, outputs), 1):
        if "/events" in command:
            if "data: " not in output:
                raise AssertionError(f"{where}, command {number}: the stream sent no event: "
                                     f"{output!r}")
            continue
        check_output(f"{where}, command {number}", output, expected_answer(comment))


def run_python_block(where, text, broker, file_port, workdir, env, namespace_file):
    # The blocks of a page run one after the other in one namespace: each process first
    # runs the earlier blocks' definitions again (without their output).
    source = localised(text, broker, file_port)
    streaming = "/events" in source
    prelude = ""
    if os.path.exists(namespace_file):
        with open(namespace_file) as earlier:
            prelude = earlier.read()
    script = os.path.join(workdir, "example.py")
    with open(script, "w") as file:
        file.write("import contextlib, io\n"
                   "with contextlib.redirect_stdout(io.StringIO()):\n"
                   f"    exec(compile({prelude!r}, 'earlier', 'exec'))\n"
                   + source)
    process = subprocess.Popen([sys.executable, "-u", script], cwd=workdir, env=env,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if streaming:
        raise_events_soon(broker, env)
    try:
        output, _ = process.communicate(timeout=STREAM_SECONDS if streaming else BLOCK_SECONDS)
    except subprocess.TimeoutExpired:
        process.kill()
        output, _ = process.communicate()
        if not streaming:
            raise AssertionError(f"{where}: no end in {BLOCK_SECONDS} s")
        if "BehaviorsRun" not in output:
            raise AssertionError(f"{where}: printed no event: {output!r}")
        return
    if process.returncode != 0:
        raise AssertionError(f"{where} failed ({process.returncode}):\n{output}")
    # Only blocks that end keep their definitions for the next ones.
    with open(namespace_file, "a") as earlier:
        earlier.write(source + "\n")


def write_fixtures(workdir):
    """The files the examples send: the tutorial's hello behavior and its package."""
    hello = os.path.join(workdir, "hello")
    os.makedirs(hello)
    with open(os.path.join(hello, "behavior.xar"), "w") as file:
        file.write('<behavior name="hello">\n  <log text="Hello from the docs"/>\n</behavior>\n')
    with open(os.path.join(hello, "project.xml"), "w") as file:
        file.write('<?xml version="1.0" encoding="UTF-8"?>\n<project name="hello"/>\n')
    shutil.make_archive(os.path.join(workdir, "hello"), "zip", hello)


def main():
    parser = argparse.ArgumentParser()
    for name in ("tuqvu", "module", "bin", "docs"):
        parser.add_argument("--" + name, required=True)
    options = parser.parse_args()
    options.bin = os.path.abspath(options.bin)

    scratch = tempfile.mkdtemp(prefix="tuqvu-docs-")
    broker = Broker(options.tuqvu, options.module, scratch)
    failures = ran = 0
    try:
        # The examples' tuqvu-call reaches this broker: the same program, given its address
        # as --url, the way the examples' URLs are given its port.
        tools = os.path.join(scratch, "bin")
        os.makedirs(tools)
        with open(os.path.join(tools, "tuqvu-call"), "w") as wrapper:
            wrapper.write(f'#!/bin/sh\nexec "{options.bin}/tuqvu-call" '
                          f'--url http://127.0.0.1:{broker.port} "$@"\n')
        os.chmod(os.path.join(tools, "tuqvu-call"), 0o755)
        env = dict(broker.env, secret=broker.secret, TUQVU_BIN=options.bin,
                   PATH=tools + os.pathsep + broker.env.get("PATH", ""))
        file_port = json.loads(subprocess.run(
            [os.path.join(options.bin, "tuqvu-call"), "--url", f"http://127.0.0.1:{broker.port}",
             "ZRBehaviorManager._httpFileTransferPort"], env=env, capture_output=True,
            text=True, check=True).stdout)
        for page in sorted(os.listdir(options.docs)):
            if not page.endswith(".md"):
                continue
            with open(os.path.join(options.docs, page)) as file:
                examples = list(blocks_of(file.read()))
            if not examples:
                continue
            workdir = os.path.join(scratch, "work-" + page)
            os.makedirs(workdir)
            write_fixtures(workdir)
            namespace = os.path.join(workdir, "namespace.py")
            for index, (language, text) in enumerate(examples, 1):
                where = f"{page}, example {index} ({language})"
                ran += 1
                try:
                    if language == "python":
                        run_python_block(where, text, broker, file_port, workdir, env, namespace)
                    else:
                        run_shell_block(where, text, broker, file_port, workdir, env)
                    print(f"ok   {where}")
                except AssertionError as error:
                    failures += 1
                    print(f"FAIL {error}")
    finally:
        status = broker.stop()
    if status != 0:
        print(f"FAIL tuqvu ended with status {status}")
        failures += 1
    print(f"{ran - failures} of {ran} examples ran as written" if failures == 0 else
          f"{failures} failure(s) in {ran} examples; the broker's log: {scratch}/tuqvu.log")
    if failures == 0:
        shutil.rmtree(scratch, ignore_errors=True)
    return 1 if failures or ran == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
