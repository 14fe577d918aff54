#!/usr/bin/env python3
"""Load and soak test of tuqvu and its behavior manager, over loopback only.

Starts a real tuqvu in a scratch folder, lets N clients mix runs, stops, installs,
removals, listings, default-list changes and file transfers for a bounded time, then
checks that every behavior is consistent, nothing written is lost, nothing runs, and that
threads, file descriptors and memory came back. Prints a summary table; exits 1 on any
failure. Normally started by scripts/soak.sh, which builds and prepares the arguments.
"""

import argparse
import json
import os
import re
import shlex
import shutil
import statistics
import sys
import threading
import time
import xml.etree.ElementTree as ElementTree
from types import SimpleNamespace

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from soak import adversary, content, final  # noqa: E402
from soak.broker import BrokerProcess, Sampler, fd_targets, read_counts  # noqa: E402
from soak.client import BM, Client  # noqa: E402
from soak.transport import EventWatcher, FileService, Rpc, use_secret  # noqa: E402
from soak.world import World  # noqa: E402

IDLE_POOL = 4  # call threads the broker keeps waiting when idle (CallExecutor keepIdle)
# Runs at once in the warm-up: enough that most reach call threads (each of the broker's
# I/O lanes, one per core, makes one call at a time on its own thread).
WARM_UP_RUNS = IDLE_POOL + max(3, (os.cpu_count() or 1) + 1)
ALLOWED_ERROR_LOG = []  # (category, regex) of level 1-2 log lines that are not failures


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tuqvu", required=True, help="the tuqvu executable")
    parser.add_argument("--module", required=True, help="libzrbehaviormanager.so")
    parser.add_argument("--system-behaviors", required=True, help="the system behaviors to serve")
    parser.add_argument("--work", required=True, help="scratch folder (HOME, prefix, logs)")
    parser.add_argument("--clients", type=int, default=50)
    parser.add_argument("--seconds", type=float, default=600)
    parser.add_argument("--think-ms", type=float, default=25,
                        help="mean pause of a client between two operations")
    parser.add_argument("--per-client", type=int, default=6,
                        help="behaviors a client keeps installed at most")
    parser.add_argument("--call-timeout", type=float, default=120,
                        help="an answer later than this is a hang")
    parser.add_argument("--long-limit", type=float, default=60,
                        help="a long run older than this is stopped by the driver; "
                             "three times this and it is a hang")
    parser.add_argument("--sample-interval", type=float, default=2.0)
    parser.add_argument("--settle", type=float, default=60,
                        help="how long threads and descriptors may take to come back")
    parser.add_argument("--warmup-fraction", type=float, default=0.2,
                        help="the share of the load phase left out of the memory comparison")
    parser.add_argument("--rss-tolerance-pct", type=float, default=10)
    parser.add_argument("--rss-tolerance-mib", type=float, default=4)
    parser.add_argument("--log-level", type=int, default=3)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--no-adversary", action="store_true",
                        help="leave out the hostile client (slow senders, floods, limits)")
    parser.add_argument("--report", help="write the results as JSON here")
    parser.add_argument("--broker-wrapper", default="",
                        help="start tuqvu under this command, e.g. \"heaptrack -o FILE\"; "
                             "threads, descriptors, memory and the SIGTERM go to tuqvu itself")
    return parser.parse_args()


def system_behaviors(root):
    """(sorted names, short names, long names, tags by name) of the system library."""
    names, short, long_, tags = [], [], [], {}
    for folder, _, files in os.walk(root):
        if "behavior.xar" not in files:
            continue
        name = "System/" + os.path.relpath(folder, root)
        names.append(name)
        steps = ElementTree.parse(os.path.join(folder, "behavior.xar")).getroot()
        endless = any(r.get("count", "0") == "0" for r in steps.iter("repeat"))
        (long_ if endless else short).append(name)
        project = os.path.join(folder, "project.xml")
        tags[name] = sorted(t.text for t in ElementTree.parse(project).getroot().iter("tag")) \
            if os.path.exists(project) else []
    return sorted(names), sorted(short), sorted(long_), tags


def scan_log(path):
    """(lines at level 1-2 not allowed, {(level, category, function): count} of levels 1-3)."""
    pattern = re.compile(r"^\S+ (\d) (\S+) ([^:]*): (.*)$")
    bad, counts = [], {}
    with open(path, errors="replace") as log:
        for line in log:
            match = pattern.match(line.rstrip("\n"))
            if not match:
                continue  # continuation of a multi-line text
            level, category, function, text = match.groups()
            level = int(level)
            if level > 3:
                continue
            key = (level, category, function)
            counts[key] = counts.get(key, 0) + 1
            if level <= 2 and not any(c == category and re.search(r, text)
                                      for c, r in ALLOWED_ERROR_LOG):
                bad.append(line.rstrip("\n"))
    return bad, counts


def rss_trend(samples, start, end, warmup_fraction):
    """(first-third median, last-third median, slope KiB/min, sample count) of the RSS
    within the load phase after its warm-up."""
    begin = start + (end - start) * warmup_fraction
    window = [(t, rss) for t, _, _, rss in samples if begin <= t <= end]
    if len(window) < 6:
        return None
    third = len(window) // 3
    first = statistics.median(r for _, r in window[:third])
    last = statistics.median(r for _, r in window[-third:])
    mean_t = statistics.fmean(t for t, _ in window)
    mean_r = statistics.fmean(r for _, r in window)
    var_t = sum((t - mean_t) ** 2 for t, _ in window)
    slope = sum((t - mean_t) * (r - mean_r) for t, r in window) / var_t * 60 if var_t else 0
    return first, last, slope, len(window)


def warm_up(ports, control, pid, base_threads, base_fds):
    """Runs IDLE_POOL behaviors at once, so that the broker's pool of idle call threads is
    full before the load (it keeps that many for good), then removes them again. Returns
    the thread count afterwards: the exact count to come back to after the load."""
    files = FileService(ports.files, 30)
    names = [f"soak/warmup/w{i}" for i in range(WARM_UP_RUNS)]
    project = ('<?xml version="1.0" encoding="UTF-8"?>\n<project>\n'
               '  <metadata key="Type" value="Behavior"/>\n</project>\n').encode()
    behavior = ('<?xml version="1.0" encoding="UTF-8"?>\n'
                '<behavior>\n  <wait ms="1000"/>\n</behavior>\n').encode()
    for name in names:
        for rel, data in (("project.xml", project), ("behavior.xar", behavior)):
            status, _ = files.request("PUT", f"/behaviors/User/{name}/{rel}", data)
            if status != 200:
                raise RuntimeError(f"warm-up: PUT {name}/{rel} answered {status}")
        if control.call(BM + "installBehavior", name) is not True:
            raise RuntimeError(f"warm-up: installBehavior({name}) failed")

    def run(name, start):
        rpc = Rpc(ports.rpc, 60)
        try:
            start.wait()
            rpc.call(BM + "runBehavior", name)
        finally:
            rpc.close()

    for _ in range(3):  # a loaded machine may serve the four calls one after the other
        start = threading.Barrier(len(names))
        runners = [threading.Thread(target=run, args=(name, start)) for name in names]
        for runner in runners:
            runner.start()
        for runner in runners:
            runner.join()
        if read_counts(pid)[0] >= base_threads + IDLE_POOL:
            break  # the idle pool is full
    for name in names:
        control.call(BM + "removeBehavior", name)
    status, _ = files.request("DELETE", "/behaviors/User/soak/warmup")
    if status != 200:
        raise RuntimeError(f"warm-up: DELETE of soak/warmup answered {status}")
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        counts = read_counts(pid)
        if counts[1] <= base_fds + 1:  # the control connection stays open
            break
        time.sleep(0.1)
    return read_counts(pid)[0]


def percentile(values, share):
    values = sorted(values)
    return values[min(len(values) - 1, int(share * len(values)))]


def print_summary(options, world, checks, stats, counts, elapsed, out=sys.stdout):
    write = out.write
    write("\n== soak summary: %d clients, %.0f s of load, seed %d\n" %
          (options.clients, options.seconds, options.seed))
    write("\n%-44s %9s %9s %9s %9s\n" % ("operation", "count", "p50 ms", "p99 ms", "max ms"))
    total = 0
    for name, (count, latencies) in sorted(stats.ops.items()):
        total += count
        write("%-44s %9d %9.1f %9.1f %9.1f\n" % (name, count, 1000 * percentile(latencies, 0.5),
                                                 1000 * percentile(latencies, 0.99),
                                                 1000 * max(latencies)))
    write("%-44s %9d   (%.1f per second)\n" % ("all", total, total / max(elapsed, 1e-9)))
    write("\n%-86s %7s\n" % ("legitimate error under concurrency", "count"))
    for kind, count in sorted(stats.legit.items()):
        write("%-86s %7d\n" % (kind, count))
    if not stats.legit:
        write("(none)\n")
    write("\n%-86s %7s\n" % ("observation", "count"))
    for kind, count in sorted(stats.notes.items()):
        write("%-86s %7d\n" % (kind, count))
    write("\n%-86s %7s\n" % ("log lines of level 1-3 (level, category, function)", "count"))
    for (level, category, function), count in sorted(counts.items()):
        write("%-86s %7d\n" % (f"{level} {category} {function}", count))
    if not counts:
        write("(none)\n")
    write("\n%-4s %-78s\n" % ("", "check"))
    for name, passed, detail in checks.rows:
        write("%-4s %s\n" % ("ok" if passed else "FAIL", name))
        if detail:
            write("       %s\n" % detail)
    write("\nunexpected errors: %d\n" % stats.failure_count)
    for when, client, text in stats.failures[:40]:
        write("  [%s] %s\n" % (client, text[:400]))


def main():
    options = parse_args()
    if options.seed is None:
        options.seed = int(time.time()) % 100000
    work = os.path.abspath(options.work)
    prefix_behaviors = os.path.join(work, "prefix", "share", "tuqvu", "behaviors")
    shutil.copytree(options.system_behaviors, prefix_behaviors)
    # The file service serves "/behaviors/System/<p>" from <prefix>/share/behaviors/<p>,
    # another folder than the system library's; give it the same behaviors to serve.
    shutil.copytree(options.system_behaviors, os.path.join(work, "prefix", "share", "behaviors"))
    options.system_dir = prefix_behaviors
    names, short, long_, tags = system_behaviors(prefix_behaviors)
    world = World(names, short, long_, tags)
    stats = world.stats
    checks = final.Checks()

    # Every client is a thread of this one process, which the broker counts as one local
    # client: it may have as many calls running as the broker makes in all.
    settings = {"TUQVU_MAX_CALLS_PER_CLIENT": "256"}
    if not options.no_adversary:
        settings.update(adversary.SETTINGS)
    broker = BrokerProcess(options.tuqvu, options.module, work, options.log_level, settings,
                           shlex.split(options.broker_wrapper))
    try:
        port = broker.wait_listening(60)
        use_secret(broker.secret)
    except RuntimeError as error:
        broker.terminate(10)
        print(f"soak: {error}; log: {broker.log_path}", file=sys.stderr)
        return 1
    time.sleep(1.0)  # the start-up preload runs on the memory's thread after the line
    base_threads, base_fds, base_rss = read_counts(broker.pid)
    base_targets = fd_targets(broker.pid)
    print(f"soak: tuqvu {broker.pid} on 127.0.0.1:{port}: {base_threads} threads, "
          f"{base_fds} descriptors, {base_rss // 1024} MiB; work folder {work}", flush=True)

    control = Rpc(port, options.call_timeout)
    file_port = control.call(BM + "_httpFileTransferPort")
    ports = SimpleNamespace(rpc=port, files=file_port)
    pool_threads = warm_up(ports, control, broker.pid, base_threads, base_fds)
    # Each I/O lane makes one call at a time on its own thread, so how many of the
    # warm-up's runs reached call threads depends on timing: the threads the broker
    # may keep for good are its own (counted in base_threads) and IDLE_POOL call threads.
    kept_threads = base_threads + IDLE_POOL
    checks.add(f"warm-up keeps at most the idle call-thread pool ({IDLE_POOL} threads)",
               base_threads <= pool_threads <= kept_threads + WARM_UP_RUNS,
               f"{base_threads} threads before, {pool_threads} after {WARM_UP_RUNS} "
               f"concurrent runs")
    keys = [BM[:-1] + "/Behavior" + what for what in ("Added", "Updated", "Removed")]
    watcher = EventWatcher(port, keys + ["Soak/Marker"])
    watcher.start()
    control.call("ZRMemory.insertData", "Soak/Marker", 1)
    deadline = time.monotonic() + 10
    while watcher.count("Soak/Marker", 1) == 0 and time.monotonic() < deadline:
        time.sleep(0.05)
    checks.add("event stream delivers", watcher.count("Soak/Marker", 1) == 1)

    sampler = Sampler(broker.pid, options.sample_interval)
    sampler.start()
    clients = [Client(i, world, ports, options, options.seed * 1000 + i)
               for i in range(options.clients)]
    end_client = Client(99, world, ports, options, options.seed * 1000 + 99)
    end_client.tag = "end"
    hostile = None if options.no_adversary else adversary.Adversary(
        world, ports, options, content.new_rng(options.seed * 1000 + 98))
    sampler.mark("load")
    load_start = time.monotonic()
    for client in clients:
        client.thread.start()
        time.sleep(0.02)
    if hostile is not None:
        hostile.thread.start()

    hung_runs = set()
    next_report = load_start + 30
    while time.monotonic() - load_start < options.seconds:
        time.sleep(1.0)
        if not broker.alive():
            stats.fail("driver", f"tuqvu exited with {broker.process.returncode} during the load")
            break
        now = time.monotonic()
        for run in world.runs():  # the driver's watchdog over runs nobody stopped
            age = now - run.started
            if age > 3 * options.long_limit and run.number not in hung_runs:
                hung_runs.add(run.number)
                stats.fail("driver", f"long run of {run.name} did not end within "
                                     f"{age:.0f} s despite {run.stop_attempts} stops")
            elif age > options.long_limit and int(age) % 10 == 0:
                run.stop_attempts += 1
                end_client.call("stopBehavior (watchdog)", BM + "stopBehavior", run.name,
                                target=run.name)
        if now >= next_report:
            next_report += 30
            counts = read_counts(broker.pid) or (0, 0, 0)
            done = sum(c for c, _ in stats.ops.values())
            print(f"soak: {now - load_start:5.0f} s  {done} operations, "
                  f"{stats.failure_count} unexpected, {len(world.runs())} long runs, "
                  f"threads {counts[0]}, fds {counts[1]}, RSS {counts[2] // 1024} MiB", flush=True)
    elapsed = time.monotonic() - load_start
    world.stopping.set()
    sampler.mark("load end")
    load_end = sampler.now()
    for client in clients:
        client.thread.join(options.call_timeout + 30)
    if hostile is not None:
        hostile.thread.join(options.call_timeout + 60)
    stuck = [c.tag for c in clients + ([hostile] if hostile else []) if c.thread.is_alive()]
    checks.add("every client finished its last operation", not stuck, ", ".join(stuck))

    if broker.alive():
        try:
            final.drain_long_runs(world, end_client, checks, 60)
            final.check_events(world, clients, watcher, checks, 15)
            final.check_nothing_runs(end_client, checks,
                                     "nothing running once the runs ended (getRunningBehaviors, "
                                     "\"BehaviorsRun\")")
            final.check_ledger(world, clients, end_client, checks)
            final.check_usable(world, clients, ports, checks)
            final.check_defaults(world, end_client, checks)
            final.stop_all(world, end_client, checks)
        except Exception as error:  # a transport failure while checking
            checks.add("end checks ran to completion", False, f"{type(error).__name__}: {error}")
    checks.add("tuqvu still running after the load and the checks", broker.alive())

    end_client.rpc.close()
    control.close()
    watcher.close()
    settle_start = time.monotonic()
    counts = read_counts(broker.pid)
    while counts is not None and time.monotonic() - settle_start < options.settle:
        if counts[0] <= kept_threads and counts[1] <= base_fds:
            break
        time.sleep(1.0)
        counts = read_counts(broker.pid)
    settle_seconds = time.monotonic() - settle_start
    sampler.stop()
    sampler.write_csv(os.path.join(work, "samples.csv"))
    if counts is not None:
        peak_threads = max(s[1] for s in sampler.samples)
        peak_fds = max(s[2] for s in sampler.samples)
        checks.add(f"threads back to the broker's own and at most {IDLE_POOL} idle call threads",
                   base_threads <= counts[0] <= kept_threads,
                   f"before the load {pool_threads} ({base_threads} without call threads), "
                   f"peak {peak_threads}, after {counts[0]} ({settle_seconds:.0f} s settle)")
        extra = sorted(set(fd_targets(broker.pid).items()) - set(base_targets.items()))
        checks.add("file descriptors back to the baseline", counts[1] == base_fds,
                   f"before {base_fds}, peak {peak_fds}, after {counts[1]}" +
                   (f"; new: {final.short_list(extra)}" if counts[1] != base_fds else ""))
    trend = rss_trend(sampler.samples, sampler.phase_marks["load"], load_end,
                      options.warmup_fraction)
    if trend is None:
        checks.add("memory flat", False, "too few samples")
    else:
        first, last, slope, count = trend
        allowed = max(first * options.rss_tolerance_pct / 100, options.rss_tolerance_mib * 1024)
        checks.add(f"memory flat (last third of the load within {options.rss_tolerance_pct:g} % "
                   f"or {options.rss_tolerance_mib:g} MiB of the first third, after "
                   f"{options.warmup_fraction:.0%} warm-up)", last - first <= allowed,
                   f"RSS median {first / 1024:.1f} -> {last / 1024:.1f} MiB, slope "
                   f"{slope / 1024:+.2f} MiB/min over {count} samples; start "
                   f"{base_rss / 1024:.1f} MiB, peak {max(s[3] for s in sampler.samples) / 1024:.1f}"
                   f" MiB, after settle {(counts[2] if counts else 0) / 1024:.1f} MiB")

    status = broker.terminate(60)
    checks.add("tuqvu shut down on SIGTERM with status 0", status == 0, f"status {status}")
    bad, log_counts = scan_log(broker.log_path)
    checks.add("no error in the broker's log", not bad, "; ".join(line[:300] for line in bad[:5]))
    checks.add("no unexpected error, crash or hang seen by the clients", stats.failure_count == 0,
               f"{stats.failure_count} unexpected")

    print_summary(options, world, checks, stats, log_counts, elapsed)
    failed = checks.failed()
    if options.report:
        with open(options.report, "w") as out:
            json.dump({"clients": options.clients, "seconds": options.seconds,
                       "seed": options.seed,
                       "operations": {k: v[0] for k, v in stats.ops.items()},
                       "legitimate": stats.legit, "observations": stats.notes,
                       "checks": [{"check": n, "passed": p, "detail": d}
                                  for n, p, d in checks.rows],
                       "unexpected": [t for _, _, t in stats.failures]}, out, indent=1)
    print("\nsoak: %s (samples in %s/samples.csv, broker log %s)" %
          ("PASSED" if not failed else f"FAILED ({len(failed)} checks)", work, broker.log_path))
    return 0 if not failed else 1


if __name__ == "__main__":
    sys.exit(main())
