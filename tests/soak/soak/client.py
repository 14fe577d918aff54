"""One soak client: a thread with its own connection that mixes runs, stops, installs,
removals, listings, defaults and file transfers, and keeps a ledger of what it wrote."""

import threading
import time
from dataclasses import dataclass, field

from . import content
from .legit import classify
from .transport import FileService, Rpc, RpcError, TransportError
from .world import Behavior

BM = "ZRBehaviorManager."

# Relative weights of the operations.
WEIGHTS = {
    "run_short": 20, "run_long": 4, "stop": 8, "listing": 22, "install": 6, "update": 4,
    "remove": 5, "file_get": 12, "scratch": 8, "defaults": 4, "preload": 2,
}
SCRATCH_FILES = 6


@dataclass
class Own:
    kind: str
    files: dict = field(default_factory=dict)  # relative path -> (size, sha256)


class Client:
    def __init__(self, number, world, ports, options, seed):
        self.number = number
        self.tag = f"c{number:02d}"
        self.world = world
        self.stats = world.stats
        self.options = options
        self.ports = ports
        self.rng = content.new_rng(seed)
        self.rpc = Rpc(ports.rpc, options.call_timeout)
        self.files = FileService(ports.files, options.call_timeout)
        self.own = {}          # name -> Own, installed and not removed
        self.removed = []      # names this client removed
        self.installs = {}     # name -> successful installBehavior calls
        self.scratch = {}      # path -> (size, sha256), or None once deleted
        self.sequence = 0
        self.long_run = None   # the long run this client started, while it lasts
        self.thread = threading.Thread(target=self._loop, name=self.tag, daemon=True)
        self.finished = threading.Event()
        names = list(WEIGHTS)
        self._ops = [getattr(self, "op_" + name) for name in names]
        self._weights = [WEIGHTS[name] for name in names]

    # ---- plumbing ---------------------------------------------------------------------

    def fail(self, text):
        self.stats.fail(self.tag, text)

    def expect(self, condition, text):
        if not condition:
            self.fail(text)
        return condition

    def call(self, op, method, *params, target=None, rpc=None):
        """(True, result), or (False, None) after counting a legitimate error or recording
        a failure."""
        rpc = rpc or self.rpc
        start = time.monotonic()
        try:
            result = rpc.call(method, *params)
            self.stats.op(op, time.monotonic() - start)
            return True, result
        except RpcError as error:
            self.stats.op(op, time.monotonic() - start)
            if error.code == -32000:
                removing = target is not None and self.world.being_removed(target)
                kind = classify(method.split(".", 1)[1], error.description, removing)
                if kind is not None:
                    self.stats.legitimate(f"{kind} [{method.split('.', 1)[1]}]")
                    return False, None
            self.fail(f"{method}{tuple(params)}: error {error.code}: {error.description!r}")
            return False, None
        except TransportError as error:
            self.stats.op(op, time.monotonic() - start)
            self.fail(f"{method}{tuple(params)}: no answer: {error}")
            return False, None

    def file(self, op, method, path, body=None):
        start = time.monotonic()
        try:
            status, data = self.files.request(method, path, body)
        except TransportError as error:
            self.fail(str(error))
            return None, None
        finally:
            self.stats.op(op, time.monotonic() - start)
        return status, data

    def put(self, path, data):
        status, body = self.file("file PUT", "PUT", path, data)
        return self.expect(status == 200 and body == b"ok\n",
                           f"PUT {path} ({len(data)} bytes): {status} {body!r}")

    def user_path(self, name, rel=""):
        return f"/behaviors/User/{name}/{rel}" if rel else f"/behaviors/User/{name}/"

    def _loop(self):
        try:
            while not self.world.stopping.is_set():
                op = self.rng.choices(self._ops, self._weights)[0]
                op()
                if self.options.think_ms > 0:
                    time.sleep(self.rng.uniform(0, 2 * self.options.think_ms) / 1000.0)
        except Exception as error:  # a bug of the driver must not pass as success
            self.fail(f"client crashed: {type(error).__name__}: {error}")
            raise
        finally:
            self.rpc.close()
            self.finished.set()

    # ---- running and stopping ---------------------------------------------------------

    def op_run_short(self):
        roll = self.rng.random()
        if roll < 0.55:
            names = self.world.live("short", exclude_owner=self.number)
        elif roll < 0.8:
            names = [n for n, own in self.own.items() if own.kind == "short"]
        else:
            names = self.world.system_short
        if not names:
            return self.op_listing()
        name = self.rng.choice(names)
        self.call("runBehavior", BM + "runBehavior", name, target=name)

    def op_run_long(self):
        if self.long_run is not None and not self.long_run.done.is_set():
            return self.op_stop()
        names = self.world.live("long")
        if not names or self.rng.random() < 0.15:
            names = self.world.system_long
        if not names:
            return self.op_listing()
        name = self.rng.choice(names)
        run = self.world.start_run(name, self.number)
        self.long_run = run
        threading.Thread(target=self._run_long, args=(run,), name=f"{self.tag}-long",
                         daemon=True).start()

    def _run_long(self, run):
        # Ends only when stopped: the driver's watchdog stops it after long_limit and calls
        # it a hang after three times that, so the answer may take that long.
        rpc = None
        try:
            rpc = Rpc(self.ports.rpc, 3 * self.options.long_limit + self.options.call_timeout)
            ok, _ = self.call("runBehavior (long)", BM + "runBehavior", run.name,
                              target=run.name, rpc=rpc)
            run.outcome = "ended" if ok else "error"
        except Exception as error:
            self.fail(f"long run of {run.name} crashed: {type(error).__name__}: {error}")
        finally:
            if rpc is not None:
                rpc.close()
            self.world.end_run(run)

    def op_stop(self):
        now = time.monotonic()
        runs = [r for r in self.world.runs() if r.runner != self.number and now - r.started > 0.3]
        if not runs:
            return self.op_listing()
        run = self.rng.choice(runs)
        run.stop_attempts += 1
        ok, _ = self.call("stopBehavior", BM + "stopBehavior", run.name, target=run.name)
        if ok:
            if run.done.wait(3.0):
                self.stats.note("stop: the run it aimed at ended")
            else:
                self.stats.note("stop: found nothing running yet (the run had not begun)")

    def op_preload(self):
        names = self.world.live()
        if not names:
            return self.op_listing()
        name = self.rng.choice(names)
        ok, result = self.call("preloadBehavior", BM + "preloadBehavior", name, target=name)
        if ok:
            self.expect(result is True, f"preloadBehavior({name}) answered {result!r}")

    # ---- installing and removing ------------------------------------------------------

    def op_install(self):
        if len(self.own) >= self.options.per_client:
            self.op_remove()
        self.sequence += 1
        name = f"soak/{self.tag}/b{self.sequence}"
        kind = "long" if self.rng.random() < 0.3 else "short"
        files = {
            "project.xml": content.project_xml(name, self.number, kind),
            "data/blob0.bin": content.blob(self.rng),
            "behavior.xar": content.behavior_xar(name, self.number, kind, self.rng),
        }
        own = Own(kind)
        self.own[name] = own  # on disk from the first PUT: the ledger follows the disk
        for rel, data in files.items():
            own.files[rel] = content.digest(data)
            if not self.put(self.user_path(name, rel), data):
                return
        ok, result = self.call("installBehavior", BM + "installBehavior", name)
        if ok and self.expect(result is True, f"installBehavior({name}) answered {result!r}"):
            self.installs[name] = 1
            self.world.add(Behavior(name, self.number, kind, own.files["behavior.xar"],
                                    own.files["project.xml"]))

    def op_update(self):
        names = [n for n in self.own if n in self.installs]
        if not names:
            return self.op_install()
        name = self.rng.choice(names)
        rel = f"data/blob{self.rng.randint(0, 2)}.bin"
        data = content.blob(self.rng)
        self.own[name].files[rel] = content.digest(data)
        if not self.put(self.user_path(name, rel), data):
            return
        ok, result = self.call("installBehavior", BM + "installBehavior", name)
        if ok and self.expect(result is True, f"installBehavior({name}) again answered {result!r}"):
            self.installs[name] += 1

    def op_remove(self):
        if not self.own:
            return self.op_install()
        name = self.rng.choice(sorted(self.own))
        with self.world.lock:
            registered = self.world.behaviors.get(name)
            if registered is not None:
                registered.removing = True
        ok, result = self.call("removeBehavior", BM + "removeBehavior", name)
        if ok:
            self.expect(result is True, f"removeBehavior({name}) answered {result!r}")
        del self.own[name]
        self.removed.append(name)
        with self.world.lock:
            if registered is not None:
                registered.removed = True
        status, _ = self.file("file GET", "GET", self.user_path(name, "behavior.xar"))
        self.expect(status == 404, f"GET of removed {name}/behavior.xar: {status}")

    # ---- listings ---------------------------------------------------------------------

    def op_listing(self):
        self.rng.choice(self._listings)(self)

    def _installed(self):
        ok, names = self.call("getInstalledBehaviors", BM + "getInstalledBehaviors")
        if not ok:
            return
        if not self.expect(isinstance(names, list) and names == sorted(names),
                           f"getInstalledBehaviors: not a sorted list: {str(names)[:200]}"):
            return
        listed = set(names)
        missing = [n for n in self.own if n in self.installs and n not in listed]
        self.expect(not missing, f"getInstalledBehaviors lacks installed {missing}")
        stale = [n for n in self.removed[-5:] if n in listed]
        self.expect(not stale, f"getInstalledBehaviors still lists removed {stale}")

    def _by_tag(self):
        tag = content.client_tag(self.number)
        ok, names = self.call("getBehaviorsByTag", BM + "getBehaviorsByTag", tag)
        if ok:
            self.expect(names == sorted(self.own),
                        f"getBehaviorsByTag({tag}) = {names}, expected {sorted(self.own)}")

    def _tags(self):
        roll = self.rng.random()
        if roll < 0.4 and self.own:
            name = self.rng.choice(sorted(self.own))
            expected = [content.tags_of(self.number, self.own[name].kind)]
        elif roll < 0.8:
            names = self.world.live(exclude_owner=self.number)
            if not names:
                return
            name = self.rng.choice(names)
            behavior = self.world.behaviors[name]
            expected = [content.tags_of(behavior.owner, behavior.kind)]
        else:
            name = self.rng.choice(self.world.system_behaviors)
            expected = [self.world.system_tags[name]]
        ok, tags = self.call("getBehaviorTags", BM + "getBehaviorTags", name, target=name)
        if ok and tags not in expected:
            if tags == [] and self.world.being_removed(name):
                return
            self.fail(f"getBehaviorTags({name}) = {tags}, expected {expected[0]}")

    def _tag_list(self):
        ok, tags = self.call("getTagList", BM + "getTagList")
        if not ok:
            return
        tags = set(tags)
        mine = content.client_tag(self.number) in tags
        self.expect(mine == bool(self.own),
                    f"getTagList {'has' if mine else 'lacks'} {content.client_tag(self.number)}"
                    f" while the client has {len(self.own)} behaviors")
        system = set(t for ts in self.world.system_tags.values() for t in ts)
        self.expect(system <= tags, f"getTagList lacks system tags {sorted(system - tags)}")

    def _system_names(self):
        ok, names = self.call("getSystemBehaviorNames", BM + "getSystemBehaviorNames")
        if ok:
            self.expect(names == self.world.system_behaviors,
                        f"getSystemBehaviorNames = {names}")

    def _running(self):
        if self.rng.random() < 0.5:
            ok, names = self.call("getRunningBehaviors", BM + "getRunningBehaviors")
            what = "getRunningBehaviors"
        else:
            ok, names = self.call("ZRMemory.getData", "ZRMemory.getData", "BehaviorsRun")
            what = "BehaviorsRun"
            if ok and names is None:
                return  # declared, never raised yet
        if not ok:
            return
        if self.expect(isinstance(names, list) and names == sorted(set(names)),
                       f"{what}: not a sorted list of names: {names}"):
            unknown = set(names) - self.world.known_names()
            self.expect(not unknown, f"{what} lists unknown {sorted(unknown)}")

    def _is_running(self):
        names = self.world.live() + self.world.system_behaviors
        name = self.rng.choice(names)
        ok, result = self.call("isBehaviorRunning", BM + "isBehaviorRunning", name, target=name)
        if ok:
            self.expect(isinstance(result, bool), f"isBehaviorRunning({name}) = {result!r}")

    def _is_installed(self):
        if self.removed and self.rng.random() < 0.3:
            name, expected = self.rng.choice(self.removed[-5:]), False
        elif self.own:
            name, expected = self.rng.choice(sorted(self.own)), True
        else:
            return
        if name in self.own and name not in self.installs:
            return
        ok, result = self.call("isBehaviorInstalled", BM + "isBehaviorInstalled", name)
        if ok:
            self.expect(result is expected, f"isBehaviorInstalled({name}) = {result!r}")

    def _defaults(self):
        ok, names = self.call("getDefaultBehaviors", BM + "getDefaultBehaviors")
        if not ok:
            return
        if self.expect(isinstance(names, list) and names == sorted(set(names)),
                       f"getDefaultBehaviors: {names}"):
            with self.world.lock:
                unknown = set(names) - self.world.defaults_added
            self.expect(not unknown, f"getDefaultBehaviors lists never added {sorted(unknown)}")

    _listings = [_installed, _installed, _by_tag, _tags, _tags, _tag_list, _system_names,
                 _running, _running, _is_running, _is_installed, _defaults]

    # ---- default behaviors ------------------------------------------------------------

    def op_defaults(self):
        if self.rng.random() < 0.6:
            names = self.world.live()
            if not names:
                return self.op_listing()
            name = self.rng.choice(names)
            with self.world.lock:
                self.world.defaults_added.add(name)
            ok, _ = self.call("addDefaultBehavior", BM + "addDefaultBehavior", name, target=name)
            if not ok:
                return
            ok, names = self.call("getDefaultBehaviors", BM + "getDefaultBehaviors")
            if ok and name not in names and not self.world.being_removed(name):
                self.stats.note("default list: an addition gone by the next read "
                                "(another client took it off meanwhile)")
        else:
            ok, names = self.call("getDefaultBehaviors", BM + "getDefaultBehaviors")
            if not ok:
                return
            if names and self.rng.random() < 0.8:
                name = self.rng.choice(names)
            else:
                live = self.world.live()
                if not live:
                    return
                name = self.rng.choice(live)
            self.call("removeDefaultBehavior", BM + "removeDefaultBehavior", name)

    # ---- file transfers ---------------------------------------------------------------

    def op_file_get(self):
        roll = self.rng.random()
        if roll < 0.4 and self.own:
            name = self.rng.choice(sorted(self.own))
            rel, expected = self.rng.choice(sorted(self.own[name].files.items()))
            status, data = self.file("file GET", "GET", self.user_path(name, rel))
            self.expect(status == 200 and content.digest(data) == expected,
                        f"GET {name}/{rel}: {status}, {len(data or b'')} bytes, "
                        f"expected {expected[0]} bytes")
        elif roll < 0.65:
            names = self.world.live(exclude_owner=self.number)
            if not names:
                return
            name = self.rng.choice(names)
            behavior = self.world.behaviors[name]
            rel, expected = self.rng.choice([("behavior.xar", behavior.xar_digest),
                                             ("project.xml", behavior.project_digest)])
            status, data = self.file("file GET", "GET", self.user_path(name, rel))
            if status == 404 and self.world.being_removed(name):
                return
            self.expect(status == 200 and content.digest(data) == expected,
                        f"GET {name}/{rel} of c{behavior.owner:02d}: {status}")
        elif roll < 0.75 and self.sequence > 0:
            status, data = self.file("file GET", "GET", f"/behaviors/User/soak/{self.tag}/")
            if self.expect(status == 200, f"GET of the folder soak/{self.tag}/: {status}"):
                entries = set(line for line in data.decode().split("\n") if line)
                expected = set(name.rsplit("/", 1)[1] + "/" for name in self.own)
                self.expect(entries == expected,
                            f"folder soak/{self.tag}/ lists {sorted(entries)}, "
                            f"expected {sorted(expected)}")
        elif roll < 0.85:
            name = self.rng.choice(self.world.system_behaviors)
            rel = self.rng.choice(["behavior.xar", "project.xml"])
            local = name[len("System/"):]
            with open(f"{self.options.system_dir}/{local}/{rel}", "rb") as source:
                expected = source.read()
            status, data = self.file("file GET", "GET", f"/behaviors/System/{local}/{rel}")
            self.expect(status == 200 and data == expected, f"GET System/{local}/{rel}: {status}")
        else:
            if not self.scratch:
                return self.op_scratch()
            path, expected = self.rng.choice(sorted(self.scratch.items()))
            status, data = self.file("file GET", "GET", path)
            if expected is None:
                self.expect(status == 404, f"GET of deleted {path}: {status}")
            else:
                self.expect(status == 200 and content.digest(data) == expected,
                            f"GET {path}: {status}, {len(data or b'')} bytes, "
                            f"expected {expected[0]}")

    def op_scratch(self):
        path = f"/behaviors/User/soak-files/{self.tag}/f{self.rng.randrange(SCRATCH_FILES)}.bin"
        if self.scratch.get(path) is not None and self.rng.random() < 0.3:
            status, body = self.file("file DELETE", "DELETE", path)
            if self.expect(status == 200 and body == b"ok\n", f"DELETE {path}: {status} {body!r}"):
                self.scratch[path] = None
                status, _ = self.file("file GET", "GET", path)
                self.expect(status == 404, f"GET right after DELETE {path}: {status}")
        else:
            data = content.blob(self.rng)
            self.scratch[path] = content.digest(data)
            self.put(path, data)
