#!/usr/bin/env bash
# Runs one Node.js test of this folder (the status page in chromium by default; --test
# names another). The npm packages of this folder (playwright-core, with Debian's
# /usr/bin/chromium as the browser; axe-core; ajv and the OpenRPC meta-schema; eventsource) are
# installed into tests/browser/node_modules once, and again only when package-lock.json
# changes.
#
#   tests/browser/run.sh [--test openrpc.test.mjs] --tuqvu build/bin/tuqvu \
#       --module build/lib/libzrbehaviormanager.so --out build/browser
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

for tool in node npm; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "browser: $tool not found; the browser test needs Node.js with npm" >&2
    exit 1
  fi
done

stamp="$here/node_modules/.tuqvu-lock.sha256"
wanted=$(sha256sum "$here/package-lock.json" | cut -d' ' -f1)
if [ ! -f "$here/node_modules/playwright-core/package.json" ] || [ ! -f "$stamp" ] ||
   [ "$(cat "$stamp")" != "$wanted" ]; then
  echo "browser: installing the npm packages of tests/browser"
  (cd "$here" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund --ignore-scripts)
  echo "$wanted" > "$stamp"
fi

test=status_page.test.mjs
if [ "${1:-}" = --test ]; then
  test=$2
  shift 2
fi
exec node "$here/$test" "$@"
