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

# Every compile of the three builds goes through ccache: a run after another one (CI after
# a local run, on any clone) compiles only what changed. Paths are taken relative to the
# clone and the folder is left out of the key, so clones in other places share the cache.
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache
  export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1 CCACHE_MAXSIZE=${CCACHE_MAXSIZE:-12G}
fi

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
for extra in asan tsan fuzz soak install package tls; do
  [ -e "scripts/test.d/$extra.sh" ] || continue
  echo "== $extra"
  bash "scripts/test.d/$extra.sh"
done
echo "== all tests passed"
