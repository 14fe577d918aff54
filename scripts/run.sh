#!/usr/bin/env bash
# Installs what is missing, builds, and starts the broker in the foreground with every
# module loaded. Arguments are passed to tuqvu (try --help). Stop it with Ctrl-C.
#   TUQVU_BUILD_DIR   the build folder (default build/); an existing one keeps its settings
set -euo pipefail
cd "$(dirname "$0")/.."

build=${TUQVU_BUILD_DIR:-build}
bash scripts/deps.sh
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" >/dev/null
else
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
if ! cmake --build "$build" -j 2 >"$build/run-build.log" 2>&1; then
  tail -n 40 "$build/run-build.log" >&2
  echo "run: the build failed; the whole log is $build/run-build.log" >&2
  exit 1
fi
exec "$build/bin/tuqvu" "$@"
