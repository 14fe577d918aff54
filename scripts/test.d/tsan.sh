#!/usr/bin/env bash
# ThreadSanitizer run of the suites whose tests use several threads: the behavior
# manager's lifecycle (states and waits, loading, running and stopping, concurrent
# callers, races met by the soak, destruction), concurrent default-list changes and
# installs, the project library's concurrent readers and writers, the memory module's
# notifications, the frame manager's runs, the core (broker, mutexes), the broker's
# event hub, the broker's daemon tests (its I/O lanes, calls that block and the standby
# that takes a lane over, in the tuqvu of this build that they start), a broker serving
# HTTPS (TLS handshakes and certificate renewal), and the fleet over MQTT (the
# robots' links and commands, tuqvu-call's fleet client, against a real Mosquitto).
# Builds only those executables (and what they link) in build-tsan/ and fails on the
# first report. The two tests that wait 10 s on purpose are left to the normal run.
set -euo pipefail
cd "$(dirname "$0")/../.."

dir=build-tsan
suites=(bm_states_test bm_loading_test bm_running_test bm_concurrency_test bm_races_test
        bm_destruction_test bm_defaults_test bm_install_test concurrency_test zrmemory_test
        zrframemanager_test core_test broker_unit_test broker_daemon_test integration_https_test
        fleet_unit_test integration_fleet_test integration_fleetmqtt311_test)

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTUQVU_SANITIZE=thread >/dev/null
cmake --build "$dir" -j 2 --target "${suites[@]}" tuqvu tuqvu-call

# Two suites at a time (most of their time is spent waiting on the module's threads);
# each writes its own log, shown whole when the suite fails.
# Findings that are not ours are suppressed only with a reason, in tsan.supp.
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/test.d/tsan.supp"
mkdir -p "$dir/logs"
run_suite() {
  local suite=$1 log=$dir/logs/$1.log started=$SECONDS
  if "$dir/bin/$suite" --gtest_filter='-*Slow*' --gtest_brief=1 >"$log" 2>&1; then
    echo "-- $suite (thread sanitizer): $(grep -oE 'PASSED  \] [0-9]+ tests?' "$log" | \
      grep -oE '[0-9]+ tests?') passed in $((SECONDS - started)) s"
  else
    echo "-- $suite (thread sanitizer): FAILED, log $log"
    cat "$log"
    return 1
  fi
}
export -f run_suite
export dir
printf '%s\n' "${suites[@]}" | xargs -P 2 -I{} bash -c 'run_suite "$1"' _ {}
