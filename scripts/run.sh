#!/usr/bin/env bash
# Installs what is missing, builds, and starts the broker in the foreground with every
# module loaded. Arguments are passed to tuqvu (try --help). Stop it with Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j 2 >/dev/null
if [ -x build/bin/tuqvu ]; then
  exec build/bin/tuqvu "$@"
fi
echo "run: the broker daemon is not built yet; built libraries:" >&2
ls build/lib >&2
