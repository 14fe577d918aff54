#!/usr/bin/env bash
# What scripts/run.sh installs and builds stands without what the tests add:
#  - the run set of scripts/deps.sh lies within the test set, and none of its packages
#    ships GoogleTest, Google Benchmark, clang, clang-format or the browser;
#  - with GoogleTest and Google Benchmark out of CMake's sight, the tree configures (and
#    refuses to when the tests are asked for), and its target tuqvu_run is made of the
#    broker, tuqvu-call and the module libraries and of no test.
#   runset_test.sh SCRATCH-FOLDER
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
scratch=$1
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

mapfile -t run_set < <(bash "$source/scripts/deps.sh" --run --list)
mapfile -t test_set < <(bash "$source/scripts/deps.sh" --test --list)
((${#run_set[@]} > 0)) || fail "the run set is empty"
for p in "${run_set[@]}"; do
  printf '%s\n' "${test_set[@]}" | grep -qxF "$p" || fail "$p is in the run set, not in the test set"
done
((${#test_set[@]} > ${#run_set[@]})) || fail "the tests add no package"

# What the tests load, by the files that make it up (the packages are installed here).
test_only='/(GTestConfig|benchmarkConfig)\.cmake$|/usr/bin/(clang(-format)?(-[0-9]+)?|chromium)$'
for p in "${run_set[@]}"; do
  if ! files=$(dpkg -L "$p" 2>/dev/null); then
    echo "note: $p is not installed; its files are not looked at"
    continue
  fi
  hit=$(grep -E "$test_only" <<<"$files" || true)
  [ -z "$hit" ] || fail "the run set's $p ships what only the tests need: $hit"
done

rm -rf "$scratch"
hidden=(-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON)
if cmake -S "$source" -B "$scratch/on" -G Ninja "${hidden[@]}" -DTUQVU_BUILD_TESTS=ON \
     >"$scratch-on.log" 2>&1; then
  fail "TUQVU_BUILD_TESTS=ON configured without GoogleTest"
fi
if ! cmake -S "$source" -B "$scratch/auto" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
     "${hidden[@]}" >"$scratch-auto.log" 2>&1; then
  cat "$scratch-auto.log" >&2
  fail "the tree does not configure without GoogleTest and Google Benchmark"
else
  grep -q "GoogleTest not found" "$scratch-auto.log" || fail "no word that the tests are left out"
  inputs=$(ninja -C "$scratch/auto" -t query tuqvu_run)
  for made in bin/tuqvu bin/tuqvu-call lib/libtuqvumodules.so lib/libzrbehaviormanager.so; do
    grep -qE "(^|[ /])$made\$" <<<"$inputs" || fail "tuqvu_run does not build $made"
  done
  targets=$(cmake --build "$scratch/auto" --target help)
  grep -qE '^tuqvu_run:' <<<"$targets" || fail "no target tuqvu_run"
  if grep -E '_test:' <<<"$targets"; then fail "test targets without GoogleTest"; fi
fi
rm -rf "$scratch" "$scratch-on.log" "$scratch-auto.log"

((failures == 0)) || exit 1
echo "run set: ${#run_set[@]} packages, the tests add $((${#test_set[@]} - ${#run_set[@]})); tuqvu_run builds without them"
