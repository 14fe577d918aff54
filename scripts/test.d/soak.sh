#!/usr/bin/env bash
# A short load and soak run (20 clients for 1 minute, about 2 minutes in all) against the
# build of scripts/test.sh; the full one is scripts/soak.sh with its defaults.
set -euo pipefail
cd "$(dirname "$0")/../.."
exec bash scripts/soak.sh --clients 20 --minutes 1
