#!/bin/bash
# Runs the whole ctest suite RUNS times in a row (20 unless told) while stress-ng keeps
# every core half busy, with twice as many tests at once as there are cores. A test that
# fails once in twenty runs under load is a defect; this is how such a test is found.
#
#   scripts/ctest-under-load.sh [BUILD_DIR] [RUNS]        BUILD_DIR: build (already built)
#
# Every run is done even after a failure, so that one pass shows every unsteady test; the
# exit status is 1 if any run failed. Each run's output is kept in BUILD_DIR/under-load/.
# stress-ng is Debian's package of that name (apt-get install stress-ng).
set -euo pipefail

build=${1:-build}
runs=${2:-20}
if ! command -v stress-ng >/dev/null; then
  echo "ctest-under-load: stress-ng is not installed (apt-get install stress-ng)" >&2
  exit 2
fi
if [ ! -f "$build/CTestTestfile.cmake" ]; then
  echo "ctest-under-load: $build is not a build folder with tests" >&2
  exit 2
fi

cores=$(nproc)
logs="$build/under-load"
mkdir -p "$logs"

stress-ng --cpu "$cores" --cpu-load 50 --quiet &
load=$!
trap 'kill "$load" 2>/dev/null || true; wait "$load" 2>/dev/null || true' EXIT

failed=0
for run in $(seq 1 "$runs"); do
  started=$(date +%s)
  log="$logs/run-$run.log"
  if ctest --test-dir "$build" --output-on-failure -j $((2 * cores)) --timeout 600 >"$log" 2>&1; then
    echo "run $run of $runs: passed in $(($(date +%s) - started)) s"
  else
    failed=$((failed + 1))
    echo "run $run of $runs: FAILED in $(($(date +%s) - started)) s ($log)"
    grep -E '^ *[0-9]+ - .*\((Failed|Timeout|SEGFAULT|Subprocess aborted|Not Run)\)' "$log" || true
  fi
done

if [ "$failed" -ne 0 ]; then
  echo "ctest-under-load: $failed of $runs runs failed"
  exit 1
fi
echo "ctest-under-load: all $runs runs passed"
