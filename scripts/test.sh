#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test suite.
#   scripts/test.sh            the full run (what CI runs)
# Build folders: build/ (the normal build), build-asan/ and build-tsan/ (sanitizer runs).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh

echo "== format"
bash scripts/format.sh --check

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

# The further runs, in this order. A script in scripts/test.d/ joins CI by being listed
# here once its run time in CI is known.
for extra in asan tsan fuzz soak install package; do
  [ -e "scripts/test.d/$extra.sh" ] || continue
  echo "== $extra"
  bash "scripts/test.d/$extra.sh"
done
echo "== all tests passed"
