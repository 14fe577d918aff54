"""What the clients share: the registry of the behaviors they installed, the board of
long runs in progress, the names ever made default, and the statistics."""

import threading
import time
from dataclasses import dataclass, field


@dataclass
class Behavior:
    name: str
    owner: int
    kind: str                # "short" (runs to its end) or "long" (runs until stopped)
    xar_digest: tuple        # (size, sha256) of behavior.xar, never rewritten
    project_digest: tuple    # (size, sha256) of project.xml, never rewritten
    removing: bool = False   # its owner has begun to remove it
    removed: bool = False


@dataclass
class LongRun:
    number: int
    name: str
    runner: int              # the client that started it
    started: float
    done: threading.Event = field(default_factory=threading.Event)
    outcome: str = ""        # "ended", an error kind, or "unexpected: ..."
    stop_attempts: int = 0


class Stats:
    """Counts by kind and latencies by operation, from every thread."""

    def __init__(self):
        self._lock = threading.Lock()
        self.ops = {}          # op -> [count, latencies]
        self.legit = {}        # kind -> count
        self.notes = {}        # observations that are neither errors nor failures -> count
        self.failures = []     # (when, client, text)
        self.failure_count = 0

    def op(self, name, seconds):
        with self._lock:
            entry = self.ops.setdefault(name, [0, []])
            entry[0] += 1
            entry[1].append(seconds)

    def legitimate(self, kind):
        with self._lock:
            self.legit[kind] = self.legit.get(kind, 0) + 1

    def note(self, kind, count=1):
        with self._lock:
            self.notes[kind] = self.notes.get(kind, 0) + count

    def fail(self, client, text):
        with self._lock:
            self.failure_count += 1
            if len(self.failures) < 200:
                self.failures.append((time.monotonic(), client, text))


class World:
    def __init__(self, system_behaviors, system_short, system_long, system_tags):
        self.lock = threading.Lock()
        self.behaviors = {}        # name -> Behavior, removed ones included; guarded by lock
        self.long_runs = {}        # number -> LongRun in progress; guarded by lock
        self.finished_runs = 0
        self.next_run = 0
        self.defaults_added = set()  # every name ever given to addDefaultBehavior
        self.stats = Stats()
        self.stopping = threading.Event()
        self.system_behaviors = system_behaviors  # "System/..." names, sorted
        self.system_short = system_short
        self.system_long = system_long
        self.system_tags = system_tags            # name -> sorted tags

    def add(self, behavior):
        with self.lock:
            self.behaviors[behavior.name] = behavior

    def being_removed(self, name):
        with self.lock:
            behavior = self.behaviors.get(name)
            return behavior is not None and behavior.removing

    def live(self, kind=None, owner=None, exclude_owner=None):
        """Names installed and not being removed, by kind and owner."""
        with self.lock:
            return [b.name for b in self.behaviors.values()
                    if not b.removing and (kind is None or b.kind == kind)
                    and (owner is None or b.owner == owner)
                    and (exclude_owner is None or b.owner != exclude_owner)]

    def known_names(self):
        with self.lock:
            return set(self.behaviors) | set(self.system_behaviors)

    def start_run(self, name, runner):
        with self.lock:
            self.next_run += 1
            run = LongRun(self.next_run, name, runner, time.monotonic())
            self.long_runs[run.number] = run
            return run

    def end_run(self, run):
        with self.lock:
            self.long_runs.pop(run.number, None)
            self.finished_runs += 1
        run.done.set()

    def runs(self):
        with self.lock:
            return list(self.long_runs.values())
