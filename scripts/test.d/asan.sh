#!/usr/bin/env bash
# The whole test suite under AddressSanitizer with UndefinedBehaviorSanitizer, in its
# own build folder (build-asan/). Any finding stops the test that made it, so the run
# fails. Run by scripts/test.sh after the normal tests; alone:
#   bash scripts/test.d/asan.sh
# Findings that are not ours are suppressed only with a reason, in the files named below
# (asan.supp.lsan, asan.supp.ubsan next to this script): today one, in asan.supp.lsan.
set -euo pipefail
cd "$(dirname "$0")/../.."
here=scripts/test.d
jobs=${TUQVU_JOBS:-2}
start=$SECONDS

# -O1 -g1: what the sanitizers need (line tables for the reports), and a third less
# compile time than -O2 -g for the whole tree.
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
  -DTUQVU_SANITIZE=address >/dev/null
cmake --build build-asan -j "$jobs"
built=$SECONDS

asan_options=detect_leaks=1:halt_on_error=1
ubsan_options=halt_on_error=1:print_stacktrace=1
if [ -s "$here/asan.supp.lsan" ]; then
  export LSAN_OPTIONS="suppressions=$PWD/$here/asan.supp.lsan"
fi
if [ -s "$here/asan.supp.ubsan" ]; then
  ubsan_options+=":suppressions=$PWD/$here/asan.supp.ubsan"
fi
export ASAN_OPTIONS=$asan_options UBSAN_OPTIONS=$ubsan_options

# Tests left out here, and why (each still runs in the normal build):
#   (none)
exclude=${TUQVU_ASAN_EXCLUDE:-}
status=0
ctest --test-dir build-asan --output-on-failure -j "$jobs" --timeout 900 \
  ${exclude:+-E "$exclude"} || status=$?
echo "asan: build $((built - start)) s, tests $((SECONDS - built)) s"
exit "$status"
