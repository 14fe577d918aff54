"""Starting and stopping the tuqvu process under test, and watching its threads, open
file descriptors and resident memory through /proc."""

import os
import re
import signal
import subprocess
import threading
import time


class BrokerProcess:
    """tuqvu, started directly or, with `wrapper` (an argument list such as
    ["heaptrack", "-o", "FILE"]), as the wrapper's child; `pid` is then the broker's own
    process (found once it listens), which is watched and gets the SIGTERM."""

    def __init__(self, tuqvu, module, work, log_level, settings=None, wrapper=None):
        self.work = work
        self.wrapper = list(wrapper or [])
        self.log_path = os.path.join(work, "tuqvu.log")
        self.out_path = os.path.join(work, "tuqvu.out")
        env = {k: v for k, v in os.environ.items() if k not in ("XDG_DATA_HOME", "XDG_CONFIG_HOME", "TUQVU_SDK_PREFIX")}
        env.update(HOME=os.path.join(work, "home"), TMPDIR=os.path.join(work, "tmp"),
                   TUQVU_SDK_PREFIX=os.path.join(work, "prefix"))
        env.update(settings or {})
        for folder in (env["HOME"], env["TMPDIR"]):
            os.makedirs(folder, exist_ok=True)
        self._out = open(self.out_path, "wb")
        self._log = open(self.log_path, "wb")
        self.tuqvu = os.path.realpath(tuqvu)
        self.process = subprocess.Popen(
            self.wrapper + [os.path.abspath(tuqvu), "--port", "0", "--bind", "127.0.0.1",
             "--module", os.path.abspath(module),
             "--log-level", str(log_level)],
            stdin=subprocess.DEVNULL, stdout=self._out, stderr=self._log, env=env, cwd=work)
        self.pid = self.process.pid

    def wait_listening(self, timeout):
        """The port of the "listening" line; raises when it does not come."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            with open(self.out_path, "rb") as out:
                match = re.search(rb"tuqvu: listening on [0-9.]+:(\d+)", out.read())
            if match:
                if self.wrapper:
                    self.pid = _descendant_running(self.process.pid, self.tuqvu)
                    if self.pid is None:
                        raise RuntimeError("tuqvu listens, but no process below the wrapper "
                                           f"runs {self.tuqvu}")
                self.secret = self._read_secret()
                return int(match.group(1))
            if self.process.poll() is not None:
                raise RuntimeError(f"tuqvu exited with {self.process.returncode} before listening")
            time.sleep(0.1)
        raise RuntimeError(f"tuqvu did not print its listening line within {timeout} s")

    def _read_secret(self):
        """The secret the broker made at its start; every client presents it."""
        path = os.path.join(self.work, "home", ".config", "tuqvu", "secret")
        with open(path, encoding="ascii") as secret:
            return secret.read().strip()

    def alive(self):
        return self.process.poll() is None

    def terminate(self, timeout):
        """SIGTERM, then the exit status; None when it did not end in time (then killed)."""
        if self.process.poll() is None:
            try:
                os.kill(self.pid, signal.SIGTERM)  # the wrapper passes on the exit status
            except ProcessLookupError:
                pass
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            status = None
        self._out.close()
        self._log.close()
        return status


def _descendant_running(root, exe):
    """The pid of a process below `root` whose executable is `exe`, or None."""
    children = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as stat:
                ppid = int(stat.read().rsplit(")", 1)[1].split()[1])
        except (OSError, ValueError, IndexError):
            continue
        children.setdefault(ppid, []).append(int(entry))
    pending = list(children.get(root, []))
    while pending:
        pid = pending.pop()
        try:
            if os.path.realpath(f"/proc/{pid}/exe") == exe:
                return pid
        except OSError:
            pass
        pending.extend(children.get(pid, []))
    return None


def read_counts(pid):
    """(threads, open fds, RSS in KiB) of the process, or None when it is gone."""
    try:
        threads = len(os.listdir(f"/proc/{pid}/task"))
        fds = len(os.listdir(f"/proc/{pid}/fd"))
        rss = 0
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    rss = int(line.split()[1])
        return threads, fds, rss
    except (FileNotFoundError, ProcessLookupError):
        return None


def fd_targets(pid):
    """What each open fd points at, for the report when counts differ."""
    targets = {}
    try:
        for fd in os.listdir(f"/proc/{pid}/fd"):
            try:
                targets[int(fd)] = os.readlink(f"/proc/{pid}/fd/{fd}")
            except OSError:
                pass
    except OSError:
        pass
    return targets


class Sampler:
    """Samples read_counts every `interval` seconds on a thread of its own."""

    def __init__(self, pid, interval):
        self.pid = pid
        self.interval = interval
        self.samples = []  # (seconds since start, threads, fds, rss KiB)
        self.phase_marks = {}
        self._stop = threading.Event()
        self._start = time.monotonic()
        self._thread = threading.Thread(target=self._run, name="sampler", daemon=True)

    def start(self):
        self._thread.start()

    def now(self):
        return time.monotonic() - self._start

    def mark(self, name):
        self.phase_marks[name] = self.now()

    def _run(self):
        while not self._stop.is_set():
            counts = read_counts(self.pid)
            if counts is None:
                return
            self.samples.append((self.now(),) + counts)
            self._stop.wait(self.interval)

    def stop(self):
        self._stop.set()
        self._thread.join(10)

    def write_csv(self, path):
        with open(path, "w") as out:
            out.write("seconds,threads,fds,rss_kib\n")
            for sample in self.samples:
                out.write("%.1f,%d,%d,%d\n" % sample)
