#!/usr/bin/env bash
# Round-trip latency of a trivial call over one keep-alive connection (p50, p99) and
# calls per second over 16 connections, for tuqvu's POST /rpc and, in the same run, for
# nginx serving a small static JSON file on loopback (the practical ceiling for one HTTP
# request here). The same client (broker_bench) measures both.
#
#   bench/broker/run.sh [runs]        default 3 runs; the median of each figure is reported
#
# Environment: BUILD_DIR (default <repo>/build-bench, configured Release with the benches),
# REQUESTS (latency samples per run, default 20000), DURATION (seconds of each throughput run,
# default 5),
# CONNECTIONS (default 16).
# nginx: the one on PATH, else Debian's package is fetched with `apt-get download` and
# unpacked into ~/.cache/tuqvu-bench: nothing is installed and no service is started.
set -euo pipefail

runs=${1:-3}
requests=${REQUESTS:-20000}
seconds=${DURATION:-5}
connections=${CONNECTIONS:-16}
repo=$(cd "$(dirname "$0")/../.." && pwd)
build=${BUILD_DIR:-$repo/build-bench}
work=$(mktemp -d /tmp/tuqvu-broker-bench.XXXXXX)
chmod 755 "$work"
nginx_port=18090

log() { printf '%s\n' "$*" >&2; }

find_nginx() {
  if command -v nginx >/dev/null 2>&1; then
    command -v nginx
    return
  fi
  local cache=${XDG_CACHE_HOME:-$HOME/.cache}/tuqvu-bench/nginx
  if [ ! -x "$cache/root/usr/sbin/nginx" ]; then
    log "fetching Debian's nginx package into $cache"
    mkdir -p "$cache"
    (cd "$cache" && apt-get download nginx >/dev/null 2>&1 && dpkg -x nginx_*.deb root)
  fi
  echo "$cache/root/usr/sbin/nginx"
}

if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DTUQVU_BUILD_BENCH=ON -DTUQVU_BUILD_TESTS=OFF >/dev/null
fi
ninja -C "$build" tuqvu broker_bench bench_ping_module >/dev/null
client=$build/bin/broker_bench
nginx_bin=$(find_nginx)

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# nginx: as many workers as cores, keep-alive without a request limit, no logging.
mkdir -p "$work"/{www,nginx,home,prefix}
printf '{"jsonrpc":"2.0","id":1,"result":1}' >"$work/www/ping.json"
chmod -R a+rX "$work/www"
user_line=""
[ "$(id -u)" -eq 0 ] && user_line="user root;"
cat >"$work/nginx/nginx.conf" <<CONF
daemon off;
$user_line
worker_processes auto;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events { worker_connections 256; }
http {
  access_log off;
  keepalive_requests 100000000;
  keepalive_timeout 60s;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  default_type application/json;
  server {
    listen 127.0.0.1:$nginx_port;
    root $work/www;
  }
}
CONF
"$nginx_bin" -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" &
pids+=("$!")

HOME=$work/home TUQVU_SDK_PREFIX=$work/prefix "$build/bin/tuqvu" --port 0 --bind 127.0.0.1 \
  --log-level 2 --module "BenchPing=$build/lib/libbenchping.so" >"$work/tuqvu.out" &
pids+=("$!")
for _ in $(seq 100); do
  grep -q 'listening on' "$work/tuqvu.out" 2>/dev/null &&
    curl -s -o /dev/null "http://127.0.0.1:$nginx_port/ping.json" && break
  sleep 0.1
done
tuqvu_port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' "$work/tuqvu.out")
[ -n "$tuqvu_port" ] || { log "tuqvu did not start"; exit 1; }

rpc_body='{"jsonrpc":"2.0","id":1,"method":"BenchPing.ping","params":[]}'
answer=$(curl -s -X POST -d "$rpc_body" "http://127.0.0.1:$tuqvu_port/rpc")
[ "$answer" = '{"jsonrpc":"2.0","id":1,"result":1}' ] || { log "unexpected answer: $answer"; exit 1; }

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
declare -A results
for run in $(seq "$runs"); do
  for who in tuqvu nginx; do
    if [ $who = tuqvu ]; then set -- "$tuqvu_port" POST /rpc "$rpc_body"
    else set -- "$nginx_port" GET /ping.json ""; fi
    lat=$("$client" latency "$@" "$requests")
    thr=$("$client" throughput "$@" "$connections" "$seconds")
    results[$who-p50]+="$(field p50_us <<<"$lat") "
    results[$who-p99]+="$(field p99_us <<<"$lat") "
    results[$who-rps]+="$(field rps <<<"$thr") "
    log "run $run $who: $lat | $thr"
  done
done

med() { tr ' ' '\n' <<<"${results[$1]}" | grep . | median; }
printf '\n%s runs, loopback, %s CPUs, latency over %s requests, throughput over %s s with %s connections\n' \
  "$runs" "$(nproc)" "$requests" "$seconds" "$connections"
printf '%-28s %10s %10s %12s\n' server "p50 µs" "p99 µs" "requests/s"
printf '%-28s %10s %10s %12s\n' "tuqvu POST /rpc (ping)" "$(med tuqvu-p50)" "$(med tuqvu-p99)" "$(med tuqvu-rps)"
printf '%-28s %10s %10s %12s\n' "nginx $("$nginx_bin" -v 2>&1 | sed 's/.*\///') GET static JSON" \
  "$(med nginx-p50)" "$(med nginx-p99)" "$(med nginx-rps)"
awk -v t="$(med tuqvu-rps)" -v n="$(med nginx-rps)" \
  'BEGIN { printf "tuqvu / nginx requests per second: %.0f%%\n", 100 * t / n }'
