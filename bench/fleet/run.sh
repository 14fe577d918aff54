#!/usr/bin/env bash
# The fleet over MQTT: five tuqvu robots on a local Mosquitto (passwords and an access
# list, as docs/fleet.md sets it up). Measures
#   - the time from `tuqvu-call --fleet --to all ZRBroker.getModules` starting to all five
#     answers printed (the client's whole run: connect, read the statuses, publish, collect),
#     and the part of it after the statuses were read (publish to the last answer), over
#     RUNS calls: median and worst;
#   - the messages each robot publishes per minute at rest, counted by mosquitto_sub over
#     REST_SECONDS (retained messages left out).
#
#   bench/fleet/run.sh            RUNS=20 REST_SECONDS=130 BUILD_DIR=build
set -euo pipefail
repo=$(cd "$(dirname "$0")/../.." && pwd)
build=${BUILD_DIR:-$repo/build}
runs=${RUNS:-20}
rest=${REST_SECONDS:-130}
work=$(mktemp -d /tmp/tuqvu-fleet-bench.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
touch "$work/passwords"
mosquitto_passwd -b "$work/passwords" robot robot-secret
mosquitto_passwd -b "$work/passwords" operator operator-secret
echo robot-secret >"$work/robot.password"
echo operator-secret >"$work/operator.password"
cat >"$work/acl" <<ACL
user robot
topic readwrite tuqvu/robots/#
topic read tuqvu/groups/#
topic read tuqvu/all/command/#
topic write tuqvu/clients/#

user operator
topic write tuqvu/all/command/#
topic write tuqvu/groups/+/command/#
topic write tuqvu/robots/+/command/#
topic read tuqvu/robots/#
topic readwrite tuqvu/clients/#
ACL
cat >"$work/mosquitto.conf" <<CONF
listener $port 127.0.0.1
user $(id -un)
allow_anonymous false
password_file $work/passwords
acl_file $work/acl
CONF
mosquitto -c "$work/mosquitto.conf" >"$work/mosquitto.log" 2>&1 &
pids+=($!)
sleep 0.5
url=mqtt://127.0.0.1:$port

for i in 1 2 3 4 5; do
  mkdir -p "$work/home$i"
  HOME=$work/home$i "$build/bin/tuqvu" --port 0 --no-file-server --log-level 3 \
    --mqtt "$url" --mqtt-user robot --mqtt-password-file "$work/robot.password" \
    --robot-id "robot-$i" >"$work/robot$i.out" 2>"$work/robot$i.err" &
  pids+=($!)
done
call=("$build/bin/tuqvu-call" --fleet "$url" --mqtt-user operator
      --mqtt-password-file "$work/operator.password")
for _ in $(seq 100); do
  [ "$("${call[@]}" | grep -c ' online')" = 5 ] && break
  sleep 0.2
done

python3 - "$runs" "${call[@]}" <<'PY'
import statistics, subprocess, sys, time
runs = int(sys.argv[1]); call = sys.argv[2:]
whole, after = [], []
for _ in range(runs):
    start = time.monotonic()
    list_done = None
    process = subprocess.Popen(call + ["--to", "all", "ZRBroker.getModules"],
                               stdout=subprocess.PIPE, text=True)
    answers = 0
    for line in process.stdout:
        answers += 1
    process.wait()
    end = time.monotonic()
    if process.returncode != 0 or answers != 5:
        sys.exit(f"a call did not get five answers ({answers}, status {process.returncode})")
    whole.append((end - start) * 1000)
    # The same without the statuses: a list alone, timed, is taken off.
    start = time.monotonic()
    subprocess.run(call, stdout=subprocess.DEVNULL, check=True)
    after.append(whole[-1] - (time.monotonic() - start) * 1000)
print(f"command to all five answers (whole tuqvu-call run): median {statistics.median(whole):.0f} ms, "
      f"worst {max(whole):.0f} ms over {runs} calls")
print(f"  less the time of a list alone (connecting and reading the statuses): median {statistics.median(after):.0f} ms, "
      f"worst {max(after):.0f} ms")
PY

# At rest: nothing runs, nobody calls. Every message a robot sends is counted.
timeout "$rest" mosquitto_sub -p "$port" -u operator -P operator-secret -R \
  -t 'tuqvu/robots/#' -v >"$work/rest.txt" 2>/dev/null || true
python3 - "$work/rest.txt" "$rest" <<'PY'
import collections, sys
counts = collections.Counter(line.split("/")[2] for line in open(sys.argv[1]) if line.strip())
minutes = int(sys.argv[2]) / 60
for robot in sorted(counts) or ["(none)"]:
    print(f"at rest, {robot}: {counts[robot] / minutes:.2f} messages per minute "
          f"({counts[robot]} in {sys.argv[2]} s)")
if not counts:
    print(f"at rest: no message in {sys.argv[2]} s")
PY
