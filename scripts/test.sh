#!/usr/bin/env bash
# Installs what is missing (scripts/deps.sh --test: building, running and what the tests
# add), builds everything and runs every test suite.
#   scripts/test.sh            the full run (what CI runs)
# Build folders: build/ (the normal build, the same configuration scripts/run.sh builds its
# part of, so that either goes on with what the other built), build-asan/ and build-tsan/
# (sanitizer runs).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh --test

echo "== format"
bash scripts/format.sh --check

jobs=2
configure() {  # folder, extra cmake arguments...
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
}

echo "== build"
configure build -DTUQVU_BUILD_TESTS=ON
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
