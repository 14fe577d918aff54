#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test suite.
#   scripts/test.sh            the full run (what CI runs)
# Build folders: build/ (the normal build), build-asan/ and build-tsan/ (sanitizer runs).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh

jobs=2
configure() {  # folder, extra cmake arguments...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
}

echo "== build"
configure build
cmake --build build -j "$jobs"

echo "== tests"
ctest --test-dir build --output-on-failure -j "$jobs" --timeout 600

for extra in scripts/test.d/*.sh; do
  [ -e "$extra" ] || continue
  echo "== $(basename "$extra")"
  bash "$extra"
done
echo "== all tests passed"
