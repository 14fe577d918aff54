#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with.
# Only what is missing is installed, so a second run costs a few dpkg queries.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libboost-filesystem-dev libboost-system-dev libboost-thread-dev
  libboost-dev
  libgsoap-dev gsoap
  libpugixml-dev libarchive-dev libarchive-tools nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format-14
  python3 curl zip unzip
  chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "deps: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Node.js with npm comes with the machine (the browser test needs both); Debian's npm
# package conflicts with that installation, so it is only checked, not installed.
if ! command -v npm >/dev/null 2>&1; then
  echo "deps: npm not found; the browser test needs Node.js with npm" >&2
fi
