#!/usr/bin/env python3
"""How long stopping behaviors takes, measured against real tuqvu processes.

    bench/behaviormanager/stops_bench.py BUILD [BUILD ...] [--stops 200] [--rounds 1]
                                         [--sizes 10,50,200]

Each BUILD is a build folder holding bin/tuqvu and lib/libzrbehaviormanager.so (configure
it with -DCMAKE_BUILD_TYPE=Release). Builds given together are measured side by side in
the same run: every measure is taken for each build in turn, so that a change of machine
load hits them alike. For every build the program starts a broker of its own on
loopback, with a fresh home holding 200 user behaviors that wait until they are stopped,
and measures through JSON-RPC, each run being a remote `runBehavior` on a connection of
its own (the call stays open for the whole run):

- `stopBehavior` of one running behavior: the round trip of the call, `--stops` times,
  each once the frame manager runs the behavior; p50, p99 and max;
- `stopAllBehaviors` with 10, 50 and 200 behaviors running (`--sizes`): the round trip
  of the call;
- SIGTERM with 200 behaviors running (the largest size): from the signal to the end of
  the process, and how many of the `runBehavior` calls received their answer.

Every run must be answered once stopped; the program fails when one is not.
"""
import argparse
import base64
import http.client
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

UNTIL_STOPPED = '<behavior>\n  <repeat>\n    <wait ms="60000"/>\n  </repeat>\n</behavior>\n'
PROJECT = '<project>\n  <metadata key="Type" value="Behavior"/>\n</project>\n'
BEHAVIORS = 200
GUARD_S = 120  # a hang guard, not a measure


class Broker:
    """One tuqvu process with its own home, prefix and temporary folder."""

    def __init__(self, build):
        self.build = build
        self.work = tempfile.mkdtemp(prefix='tuqvu-stops-bench.')
        home = os.path.join(self.work, 'home')
        for i in range(BEHAVIORS):
            folder = os.path.join(home, '.tuqvu', 'behaviors', behavior_name(i))
            os.makedirs(folder)
            with open(os.path.join(folder, 'behavior.xar'), 'w') as out:
                out.write(UNTIL_STOPPED)
            with open(os.path.join(folder, 'project.xml'), 'w') as out:
                out.write(PROJECT)
        for sub in ('prefix', 'tmp'):
            os.makedirs(os.path.join(self.work, sub))
        env = dict(os.environ, HOME=home, TUQVU_SDK_PREFIX=os.path.join(self.work, 'prefix'),
                   TMPDIR=os.path.join(self.work, 'tmp'))
        self.stderr = open(os.path.join(self.work, 'stderr.log'), 'w+')
        secret_file = os.path.join(self.work, 'secret')
        self.process = subprocess.Popen(
            [os.path.join(build, 'bin', 'tuqvu'), '--port', '0', '--bind', '127.0.0.1',
             '--secret-file', secret_file, '--log-level', '2',
             '--module', os.path.join(build, 'lib', 'libzrbehaviormanager.so')],
            stdout=subprocess.PIPE, stderr=self.stderr, env=env, text=True)
        self.port = None
        for line in self.process.stdout:
            if 'listening on' in line:
                self.port = int(line.rsplit(':', 1)[1])
                break
        if self.port is None:
            raise RuntimeError('tuqvu of %s did not start: %s' % (build, self.stderr_text()))
        # Keep reading so that the broker never blocks on a full pipe.
        threading.Thread(target=self.process.stdout.read, daemon=True).start()
        # Every client presents the broker's secret (made at its first start), loopback
        # included; a build that does not ask for it ignores the header.
        with open(secret_file) as secret:
            self.authorization = 'Basic ' + base64.b64encode(
                ('tuqvu:' + secret.readline().strip()).encode()).decode()
        self.control = Client(self)

    def stderr_text(self):
        self.stderr.seek(0)
        return self.stderr.read()

    def terminate(self):
        """Sends SIGTERM; returns the seconds until the process has ended."""
        start = time.perf_counter()
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(GUARD_S)
        elapsed = time.perf_counter() - start
        if status != 0:
            raise RuntimeError('tuqvu exited with %d: %s' % (status, self.stderr_text()))
        return elapsed

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.stderr.close()
        shutil.rmtree(self.work, ignore_errors=True)


class Client:
    """One keep-alive connection making JSON-RPC calls one after the other."""

    def __init__(self, broker):
        self.authorization = broker.authorization
        self.connection = http.client.HTTPConnection('127.0.0.1', broker.port, timeout=GUARD_S)
        self.connection.connect()

    def call(self, method, *params):
        body = json.dumps({'jsonrpc': '2.0', 'id': 1, 'method': method, 'params': list(params)})
        self.connection.request('POST', '/rpc', body, {'Content-Type': 'application/json',
                                                       'Authorization': self.authorization})
        answer = json.loads(self.connection.getresponse().read())
        if 'error' in answer:
            raise RuntimeError('%s: %s' % (method, answer['error']))
        return answer.get('result')


def behavior_name(i):
    return 'loop%03d' % i


class Runs:
    """runBehavior calls, each on a thread and a connection of its own."""

    def __init__(self, broker, names):
        self.names = names
        self.answers = {}
        self.lock = threading.Lock()  # guards answers
        clients = [Client(broker) for _ in names]
        self.threads = [threading.Thread(target=self.run, args=(c, n), daemon=True)
                        for c, n in zip(clients, names)]
        for thread in self.threads:
            thread.start()
        wait_running(broker.control, names)

    def run(self, client, name):
        try:
            client.call('ZRBehaviorManager.runBehavior', name)
            answer = 'ok'
        except (RuntimeError, OSError, http.client.HTTPException) as error:
            answer = str(error)
        with self.lock:
            self.answers[name] = answer

    def join(self, plain=True):
        """The number of runs answered; with plain, every answer must be a plain return."""
        for thread in self.threads:
            thread.join(GUARD_S)
        with self.lock:
            failed = {n: a for n, a in self.answers.items() if a != 'ok'}
            if failed:
                log('%d runs answered with an error, e.g. %s' % (len(failed), sorted(failed.items())[0]))
                if plain:
                    raise RuntimeError('runs answered with errors')
            return len(self.answers)


def wait_running(control, names):
    """Until the frame manager runs every behavior of names (a stop made before that
    would end the run before it starts)."""
    deadline = time.monotonic() + GUARD_S
    pending = list(names)
    while pending:
        if time.monotonic() > deadline:
            raise RuntimeError('not running: %s' % pending[:5])
        still = []
        for name in pending:
            fid = control.call('ZRBehaviorManager._getBehaviorFrameManagerId', name)
            if not fid or not control.call('ZRFrameManager.isBehaviorRunning', fid):
                still.append(name)
        pending = still
        if pending:
            time.sleep(0.002)


def timed(work):
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(p / 100.0 * len(ordered)))]


def measure_stop(broker, stops):
    samples = []
    for i in range(stops):
        name = behavior_name(i % BEHAVIORS)
        runs = Runs(broker, [name])
        samples.append(timed(lambda: broker.control.call('ZRBehaviorManager.stopBehavior', name)))
        if runs.join() != 1:
            raise RuntimeError('the run of %s was not answered' % name)
    return samples


def measure_stop_all(broker, count):
    runs = Runs(broker, [behavior_name(i) for i in range(count)])
    elapsed = timed(lambda: broker.control.call('ZRBehaviorManager.stopAllBehaviors'))
    answered = runs.join()
    if answered != count:
        raise RuntimeError('%d of %d runs answered' % (answered, count))
    return elapsed


def measure_sigterm(build, count):
    broker = Broker(build)
    try:
        runs = Runs(broker, [behavior_name(i) for i in range(count)])
        elapsed = broker.terminate()
        return elapsed, runs.join(plain=False)
    finally:
        broker.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    parser.add_argument('builds', nargs='+', help='build folders, measured side by side')
    parser.add_argument('--stops', type=int, default=200, help='stopBehavior samples per round')
    parser.add_argument('--rounds', type=int, default=1, help='rounds of every measure')
    parser.add_argument('--sizes', default='10,50,200',
                        help='numbers of running behaviors for stopAllBehaviors (at most %d)' %
                        BEHAVIORS)
    args = parser.parse_args()
    sizes = [int(n) for n in args.sizes.split(',')]
    if not sizes or min(sizes) < 1 or max(sizes) > BEHAVIORS:
        parser.error('sizes between 1 and %d' % BEHAVIORS)

    results = {b: {'stop': [], 'all': {n: [] for n in sizes}, 'term': [], 'answered': []}
               for b in args.builds}
    brokers = {b: Broker(b) for b in args.builds}
    try:
        for round_ in range(args.rounds):
            for build in args.builds:
                samples = measure_stop(brokers[build], args.stops)
                results[build]['stop'] += samples
                log('round %d %s: stopBehavior p50 %.1f ms, p99 %.1f ms' %
                    (round_ + 1, build, 1000 * percentile(samples, 50),
                     1000 * percentile(samples, 99)))
            for count in sizes:
                for build in args.builds:
                    elapsed = measure_stop_all(brokers[build], count)
                    results[build]['all'][count].append(elapsed)
                    log('round %d %s: stopAllBehaviors of %d: %.3f s' %
                        (round_ + 1, build, count, elapsed))
    finally:
        for broker in brokers.values():
            broker.terminate()
            broker.close()
    for round_ in range(args.rounds):
        for build in args.builds:
            elapsed, answered = measure_sigterm(build, max(sizes))
            results[build]['term'].append(elapsed)
            results[build]['answered'].append(answered)
            log('round %d %s: SIGTERM with %d running: %.3f s, %d runs answered' %
                (round_ + 1, build, max(sizes), elapsed, answered))

    print('\n%d CPUs, load average %s, %d stopBehavior samples and %d round(s) per build' %
          (os.cpu_count(), ' '.join('%.1f' % v for v in os.getloadavg()),
           args.stops * args.rounds, args.rounds))
    header = (['build', 'stop p50 ms', 'stop p99 ms', 'stop max ms'] +
              ['all(%d) s' % n for n in sizes] + ['SIGTERM s', 'answered'])
    print(' | '.join(header))
    for build in args.builds:
        r = results[build]
        median = lambda values: percentile(values, 50)
        print(' | '.join([
            build,
            '%.1f' % (1000 * percentile(r['stop'], 50)),
            '%.1f' % (1000 * percentile(r['stop'], 99)),
            '%.1f' % (1000 * max(r['stop'])),
        ] + ['%.3f' % median(r['all'][n]) for n in sizes] + [
            '%.3f' % median(r['term']),
            '%d/%d' % (min(r['answered']), max(sizes)),
        ]))


def log(text):
    print(text, file=sys.stderr, flush=True)


if __name__ == '__main__':
    main()
