#!/usr/bin/env bash
# Installs the Debian packages the project needs. Only what is missing is installed, so a
# second run costs a few dpkg queries.
#   scripts/deps.sh [--test]    building and running, and what the tests add (the default)
#   scripts/deps.sh --run       building and running only (what scripts/run.sh installs)
#   scripts/deps.sh --run --list, scripts/deps.sh --test --list
#                               print the packages of that set, one a line; install nothing
set -euo pipefail

# Building and running: the compiler, CMake with Ninja, and the libraries the broker, its
# modules and the behavior manager link (OpenSSL for the broker's HTTPS and the making of
# its certificate, Eclipse Paho for the fleet link over MQTT, prometheus-cpp whose core
# writes the text of /metrics; its package brings the library's HTTP parts along, which
# are not linked).
run_packages=(
  build-essential cmake ninja-build pkg-config
  libboost-filesystem-dev libboost-system-dev libboost-thread-dev
  libboost-dev
  libgsoap-dev gsoap
  libpugixml-dev libarchive-dev nlohmann-json3-dev
  libssl-dev openssl
  libpaho-mqtt-dev libpaho-mqttpp-dev
  prometheus-cpp-dev
)
# What the tests add: the test and benchmark libraries, clang with its sanitizer and fuzzer
# runtimes, the layout checker, git (which it asks for the files), the tools the tests make
# packages and requests with, the Prometheus client library whose parser reads /metrics,
# the browser of the status page's test, and ccache, which
# lets a second full run rebuild only what changed, and testssl.sh, which checks the
# broker's HTTPS, and Mosquitto with its clients, the MQTT broker of the fleet's tests.
test_packages=(
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format-14
  git python3 python3-requests python3-prometheus-client curl wget zip unzip libarchive-tools
  chromium ccache testssl.sh mosquitto mosquitto-clients
)

set_name=test
list=0
for argument in "$@"; do
  case "$argument" in
    --run) set_name=run ;;
    --test) set_name=test ;;
    --list) list=1 ;;
    -h|--help) sed -n '2,7p' "$0"; exit 0 ;;
    *) echo "deps: unknown argument $argument (try --help)" >&2; exit 2 ;;
  esac
done

packages=("${run_packages[@]}")
[ "$set_name" = run ] || packages+=("${test_packages[@]}")

if ((list)); then
  printf '%s\n' "${packages[@]}"
  exit 0
fi

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

# Node.js with npm comes with the machine (the browser test needs both, and installs its
# npm packages itself: tests/browser/run.sh); Debian's npm package conflicts with that
# installation, so it is only checked, not installed.
if [ "$set_name" = test ] && ! command -v npm >/dev/null 2>&1; then
  echo "deps: npm not found; the browser test needs Node.js with npm" >&2
fi
