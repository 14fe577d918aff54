"""The checks made once the clients have stopped: every behavior in a consistent state,
nothing the clients wrote lost, the events complete, nothing left running."""

import threading
import time

from . import content
from .client import BM
from .transport import Rpc, RpcError, TransportError


class Checks:
    """Rows of the summary table: (check, passed, detail)."""

    def __init__(self):
        self.rows = []

    def add(self, name, passed, detail=""):
        self.rows.append((name, bool(passed), detail))
        return passed

    def failed(self):
        return [row for row in self.rows if not row[1]]


def short_list(items, limit=8):
    items = sorted(items)
    text = ", ".join(str(item) for item in items[:limit])
    return text + (f", ... ({len(items)} in all)" if len(items) > limit else "")


def strict_call(rpc, problems, method, *params):
    """A call that must succeed; problems collects what went wrong."""
    try:
        return True, rpc.call(method, *params)
    except (RpcError, TransportError) as error:
        problems.append(f"{method}{tuple(params)}: {error}")
        return False, None


def drain_long_runs(world, end_client, checks, limit):
    """Stops the long runs still going, each through stopBehavior, until none is left."""
    deadline = time.monotonic() + limit
    while world.runs() and time.monotonic() < deadline:
        for run in world.runs():
            end_client.call("stopBehavior (end)", BM + "stopBehavior", run.name, target=run.name)
        time.sleep(0.5)
    left = world.runs()
    return checks.add("every long run ended once the clients stopped", not left,
                      f"{world.finished_runs} long runs in all" if not left else
                      "still running: " + short_list(r.name for r in left))


def check_events(world, clients, watcher, checks, timeout):
    """Per behavior: one "added" for its first install, one "updated" for each later one,
    one "removed" when it was removed, and nothing else."""
    added, updated, removed = (BM[:-1] + "/Behavior" + what for what in ("Added", "Updated",
                                                                          "Removed"))
    deadline = time.monotonic() + timeout
    while True:
        wrong = []
        expected_total = 0
        for client in clients:
            for name, installs in client.installs.items():
                gone = 1 if name in client.removed else 0
                expected_total += installs + gone
                got = (watcher.count(added, name), watcher.count(updated, name),
                       watcher.count(removed, name))
                if got != (1, installs - 1, gone):
                    wrong.append(f"{name}: added/updated/removed {got}, "
                                 f"expected {(1, installs - 1, gone)}")
        if not wrong or time.monotonic() > deadline:
            break
        time.sleep(0.5)
    received = watcher.total - watcher.count("Soak/Marker", 1)
    detail = f"{expected_total} events expected, {received} received"
    if watcher.error:
        wrong.insert(0, watcher.error)
    return checks.add("install/update/remove events complete and exact", not wrong,
                      detail if not wrong else detail + "; " + "; ".join(wrong[:5]))


def check_ledger(world, clients, end_client, checks):
    rpc = end_client.rpc
    files = end_client.files
    on_disk = set()
    for client in clients:
        on_disk.update(client.own)
    problems = []
    ok, listed = strict_call(rpc, problems, BM + "getInstalledBehaviors")
    if ok:
        listed = set(listed)
        if listed != on_disk:
            problems.append("missing " + short_list(on_disk - listed) if on_disk - listed else "")
            problems.append("extra " + short_list(listed - on_disk) if listed - on_disk else "")
    ok, tagged = strict_call(rpc, problems, BM + "getBehaviorsByTag", "soak")
    if ok and set(tagged) != on_disk:
        problems.append(f"getBehaviorsByTag(soak) differs from the ledger ({len(tagged)} names)")
    checks.add("installed behaviors listed exactly (kept listed, removed gone)",
               not [p for p in problems if p],
               f"{len(on_disk)} installed, "
               f"{sum(len(c.removed) for c in clients)} removed; " + "; ".join(p for p in problems if p))

    wrong = []
    counted = 0
    for client in clients:
        for name, own in sorted(client.own.items()):
            for rel, expected in sorted(own.files.items()):
                counted += 1
                status, data = files.request("GET", f"/behaviors/User/{name}/{rel}")
                if status != 200 or content.digest(data) != expected:
                    wrong.append(f"{name}/{rel}: {status}")
            ok, tags = strict_call(rpc, wrong, BM + "getBehaviorTags", name)
            if ok and tags != content.tags_of(client.number, own.kind):
                wrong.append(f"tags of {name}: {tags}")
        for path, expected in sorted(client.scratch.items()):
            counted += 1
            status, data = files.request("GET", path)
            if expected is None and status != 404:
                wrong.append(f"deleted {path}: {status}")
            elif expected is not None and (status != 200 or content.digest(data) != expected):
                wrong.append(f"{path}: {status}")
        for name in client.removed:
            counted += 1
            status, _ = files.request("GET", f"/behaviors/User/{name}/behavior.xar")
            if status != 404:
                wrong.append(f"removed {name}/behavior.xar: {status}")
    checks.add("every file the clients wrote reads back byte-exact; deleted ones are gone",
               not wrong, f"{counted} files and folders read" + ("; " + "; ".join(wrong[:8])
                                                               if wrong else ""))


def check_usable(world, clients, ports, checks, threads=6):
    """Every behavior still works: none is left running, every one loads, every short one
    runs to its end. A behavior stuck in a half state fails one of these."""
    jobs = []
    for client in clients:
        for name, own in client.own.items():
            if name in client.installs:
                jobs.append((name, own.kind))
    jobs += [(name, "short") for name in world.system_short]
    jobs += [(name, "long") for name in world.system_long]
    problems = []
    lock = threading.Lock()

    def work(part):
        rpc = Rpc(ports.rpc, 120)
        mine = []
        try:
            for name, kind in part:
                ok, running = strict_call(rpc, mine, BM + "isBehaviorRunning", name)
                if ok and running is not False:
                    mine.append(f"{name} still running")
                ok, loaded = strict_call(rpc, mine, BM + "preloadBehavior", name)
                if ok and loaded is not True:
                    mine.append(f"preloadBehavior({name}) = {loaded!r}")
                if kind == "short":
                    strict_call(rpc, mine, BM + "runBehavior", name)
        finally:
            rpc.close()
            with lock:
                problems.extend(mine)

    parts = [jobs[i::threads] for i in range(threads)]
    workers = [threading.Thread(target=work, args=(part,)) for part in parts]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join(600)
    hung = sum(1 for worker in workers if worker.is_alive())
    if hung:
        problems.append(f"{hung} checking threads did not finish within 600 s")
    shorts = sum(1 for _, kind in jobs if kind == "short")
    return checks.add("every behavior consistent: not running, loads, short ones run to the end",
                      not problems, f"{len(jobs)} behaviors, {shorts} run" +
                      ("; " + "; ".join(problems[:6]) if problems else ""))


def check_nothing_runs(end_client, checks, label):
    rpc = end_client.rpc
    problems = []
    ok, running = strict_call(rpc, problems, BM + "getRunningBehaviors")
    if ok and running != []:
        problems.append(f"getRunningBehaviors = {running}")
    ok, published = strict_call(rpc, problems, "ZRMemory.getData", "BehaviorsRun")
    if ok and published != []:
        problems.append(f"BehaviorsRun = {published}")
    return checks.add(label, not problems, "; ".join(problems))


def stop_all(world, end_client, checks):
    """stopAllBehaviors ends every run; the frame manager keeps only the instances of
    behaviors that are loaded and waiting for their next run (preloads)."""
    rpc = end_client.rpc
    problems = []
    ok, instances = strict_call(rpc, problems, "ZRFrameManager.getBehaviorInstances")
    before = len(instances) if ok else "?"
    strict_call(rpc, problems, BM + "stopAllBehaviors")
    time.sleep(1.0)
    ok, running = strict_call(rpc, problems, BM + "getRunningBehaviors")
    if ok and running != []:
        problems.append(f"getRunningBehaviors = {running}")
    ok, published = strict_call(rpc, problems, "ZRMemory.getData", "BehaviorsRun")
    if ok and published != []:
        problems.append(f"BehaviorsRun = {published}")
    ok, instances = strict_call(rpc, problems, "ZRFrameManager.getBehaviorInstances")
    kept = 0
    if ok and instances:
        with world.lock:
            names = [n for n, b in world.behaviors.items() if not b.removed]
        names = ["User/" + n for n in names] + list(world.system_behaviors)
        loaded = set()
        for name in names:
            got, instance = strict_call(rpc, problems, BM + "_getBehaviorFrameManagerId", name)
            if got and instance:
                loaded.add(instance)
        strays = [i for i in instances if i not in loaded]
        if strays:
            problems.append(f"frame-manager instances of no loaded behavior: {short_list(strays)}")
        for instance in instances:
            got, runs = strict_call(rpc, problems, "ZRFrameManager.isBehaviorRunning", instance)
            if got and runs:
                problems.append(f"instance {instance} still running")
        kept = len(instances) - len(strays)
    return checks.add("stopAllBehaviors: nothing running, \"BehaviorsRun\" is [], only the "
                      "instances of loaded behaviors left", not problems,
                      f"{before} instances before, {kept} preloaded kept" +
                      ("; " + "; ".join(problems) if problems else ""))


def check_defaults(world, end_client, checks):
    rpc = end_client.rpc
    problems = []
    ok, names = strict_call(rpc, problems, BM + "getDefaultBehaviors")
    stale = []
    if ok:
        with world.lock:
            unknown = set(names) - world.defaults_added
            stale = [n for n in names if n in world.behaviors and world.behaviors[n].removed]
        if unknown:
            problems.append("never added: " + short_list(unknown))
        if stale:
            world.stats.note("default list: entry of a removed behavior, added between its "
                             "removal from the list and from the library", len(stale))
        for name in names:
            strict_call(rpc, problems, BM + "removeDefaultBehavior", name)
        ok, after = strict_call(rpc, problems, BM + "getDefaultBehaviors")
        if ok and after != []:
            problems.append(f"still listed after removing each: {after}")
    return checks.add("default list readable, holds only added names, empties on request",
                      not problems, (f"{len(names) if ok else '?'} entries at the end, "
                                     f"{len(stale)} of removed behaviors; " + "; ".join(problems)))
