#!/usr/bin/env bash
# Load and soak test: a real tuqvu on loopback, N clients for M minutes mixing runs, stops,
# installs, removals, listings, default-list changes and file transfers; then checks that
# every behavior is consistent, nothing written is lost, threads and descriptors came
# back and memory stayed flat. Prints a summary table; exits non-zero on any failure.
#   scripts/soak.sh [--clients N] [--minutes M] [driver options...]
#   scripts/soak.sh --clients 50 --minutes 10            the full soak (the defaults)
#   scripts/soak.sh --clients 20 --minutes 1 --seed 7    a short one; the seed fixes each client's choices
# Extra options go to tests/soak/run_soak.py (see its --help), e.g. --think-ms.
#   TUQVU_BUILD_DIR   the build folder (default build/); built here when needed
#   TUQVU_SOAK_KEEP   1 keeps the scratch folder (HOME, logs, samples) also on success
set -euo pipefail
cd "$(dirname "$0")/.."

clients=50
minutes=10
extra=()
while [ $# -gt 0 ]; do
  case "$1" in
    --clients) clients=$2; shift 2 ;;
    --minutes) minutes=$2; shift 2 ;;
    -h|--help) sed -n '2,11p' "$0"; exit 0 ;;
    *) extra+=("$1"); shift ;;
  esac
done
case "$clients$minutes" in
  *[!0-9.]*|'') echo "soak: --clients and --minutes take numbers" >&2; exit 2 ;;
esac

build=${TUQVU_BUILD_DIR:-build}
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
mkdir -p "$build"
if ! cmake --build "$build" -j "${TUQVU_JOBS:-2}" --target tuqvu zrbehaviormanager \
     >"$build/soak-build.log" 2>&1; then
  tail -n 40 "$build/soak-build.log" >&2
  echo "soak: the build failed; the whole log is $build/soak-build.log" >&2
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/tuqvu-soak.XXXXXX")
seconds=$(awk -v m="$minutes" 'BEGIN { printf "%d", m * 60 }')
status=0
PYTHONDONTWRITEBYTECODE=1 python3 tests/soak/run_soak.py \
  --tuqvu "$build/bin/tuqvu" --module "$build/lib/libzrbehaviormanager.so" \
  --system-behaviors share/tuqvu/behaviors --work "$work" \
  --clients "$clients" --seconds "$seconds" --report "$work/report.json" \
  "${extra[@]}" || status=$?
if [ "$status" -eq 0 ] && [ "${TUQVU_SOAK_KEEP:-0}" != 1 ]; then
  rm -rf "$work"
else
  echo "soak: scratch folder kept: $work"
fi
exit "$status"
