#!/usr/bin/env bash
# Every fuzz target for 20 s on its corpus (see scripts/fuzz.sh): a short run that keeps
# the harnesses building and catches what the seeds and their near mutations reach.
set -euo pipefail
cd "$(dirname "$0")/../.."
exec bash scripts/fuzz.sh "${TUQVU_FUZZ_SECONDS:-20}"
