#!/usr/bin/env bash
# Builds the Debian package and prints its path: build-package/tuqvu_<version>_<arch>.deb
#   scripts/package.sh
#   TUQVU_BUILD_DIR=build scripts/package.sh   package an existing build folder instead
# (the test script does this with the build it has just tested). The package installs
# under /usr; the libraries go to /usr/lib in both cases, so the layout is the same.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${TUQVU_BUILD_DIR:-build-package}
bash scripts/deps.sh --run >&2
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" >/dev/null
else
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib -DTUQVU_BUILD_TESTS=OFF >/dev/null
fi
if ! cmake --build "$build" -j 2 >"$build/package-build.log" 2>&1; then
  tail -n 40 "$build/package-build.log" >&2
  echo "package: the build failed; the whole log is $build/package-build.log" >&2
  exit 1
fi
rm -f "$build"/tuqvu_*.deb
if ! (cd "$build" && cpack -G DEB >cpack.log 2>&1); then
  cat "$build/cpack.log" >&2
  exit 1
fi
ls "$build"/tuqvu_*.deb
