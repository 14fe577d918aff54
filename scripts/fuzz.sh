#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer and UndefinedBehaviorSanitizer)
# in build-fuzz/ and runs each for a bounded time.
#   scripts/fuzz.sh                  every target, 300 s each
#   scripts/fuzz.sh 3600             every target, an hour each
#   scripts/fuzz.sh 600 package eval two targets, 10 minutes each
# Each target starts from its seed corpus (fuzz/<target>/corpus/, read only) and the
# inputs found by earlier runs (build-fuzz/corpus/<target>/, where new ones are added).
# A crash, leak, time-out (10 s for one input) or failed check leaves the input in
# build-fuzz/findings/<target>/ and makes the script fail once every target has run.
# Reproduce one: build-fuzz/bin/fuzz_<target> <file>
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-300}
shift || true
all=(filetransfer_path filetransfer_http behaviorfile projectxml package jsonrpc eval fileheaders)
targets=("$@")
((${#targets[@]})) || targets=("${all[@]}")
jobs=${TUQVU_JOBS:-2}

cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
  -DTUQVU_SANITIZE=address -DTUQVU_BUILD_FUZZ=ON -DTUQVU_BUILD_TESTS=OFF >/dev/null
cmake --build build-fuzz -j "$jobs" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# Each target in its own process, $jobs at a time; a target prints one line when done
# (and its findings when it failed) and leaves build-fuzz/failed/<target> on failure.
run_target() {
  local target=$1 corpus=build-fuzz/corpus/$1 findings=build-fuzz/findings/$1
  local log=build-fuzz/logs/$1.log started=$SECONDS dict=()
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  [ -f "fuzz/$target/fuzz.dict" ] && dict=(-dict="fuzz/$target/fuzz.dict")
  if build-fuzz/bin/fuzz_"$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -max_len=65536 -print_final_stats=1 "${dict[@]}" -artifact_prefix="$findings/" \
      "$corpus" "fuzz/$target/corpus" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')
    echo "fuzz $target: held, $runs inputs in $((SECONDS - started)) s"
  else
    echo "fuzz $target: FAILED after $((SECONDS - started)) s; input in $findings/, log $log"
    grep -E 'ERROR|SUMMARY|fuzz sandbox|path mapping|behavior file:|project.xml:|package:|json-rpc:|eval:|file headers:|http harness' \
      "$log" | head -20 || true
    touch "build-fuzz/failed/$target"
  fi
}
export -f run_target
export seconds
rm -rf build-fuzz/failed
mkdir -p build-fuzz/failed
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target "$1"' _ {}
failed=()
for target in "${targets[@]}"; do
  [ -e "build-fuzz/failed/$target" ] && failed+=("$target")
done
if ((${#failed[@]})); then
  echo "fuzz: findings in ${failed[*]}" >&2
  exit 1
fi
