#!/usr/bin/env bash
# Round-trip latency of a trivial call over one keep-alive connection (p50, p99), and
# calls per second and the server's CPU time per call over 1, 16 and 64 connections, for
# tuqvu's POST /rpc and, in the same run, for nginx serving a small static JSON file on
# loopback (the practical ceiling for one HTTP request here) and for a single-process Node
# JSON-RPC server (bench/broker/jsonrpc_peer.mjs). The same client (broker_bench) measures
# all three.
# Then the same over HTTPS, for tuqvu (a second instance, started with --https) and nginx
# (`listen ... ssl`, with the certificate and key tuqvu made at its first start): latency
# and keep-alive calls per second as above, and the handshake rate: calls per second when
# every call opens a new TLS connection (full handshake, no resumption) and closes it.
#
#   bench/broker/run.sh [runs]        default 3 runs; the median of each figure is reported
#
# Environment: BUILD_DIR (default <repo>/build-bench, configured Release with the benches),
# REQUESTS (latency samples per run, default 20000), DURATION (seconds of each throughput run,
# default 5),
# CONNECTIONS (the connection counts of the throughput runs, default "1 16 64"),
# HANDSHAKE_CLIENTS (the concurrent clients of the handshake runs, default 16),
# HTTPS_ADDRESS (where the HTTPS servers listen and the client connects, default 127.0.0.1;
# an address of this machine's network interface makes the client a non-loopback one, as a
# remote client is: the servers are then open to that network for the run).
# nginx: the one on PATH, else Debian's package is fetched with `apt-get download` and
# unpacked into ~/.cache/tuqvu-bench: nothing is installed and no service is started.
set -euo pipefail

runs=${1:-3}
requests=${REQUESTS:-20000}
seconds=${DURATION:-5}
connections=${CONNECTIONS:-1 16 64}
handshake_clients=${HANDSHAKE_CLIENTS:-16}
https_address=${HTTPS_ADDRESS:-127.0.0.1}
repo=$(cd "$(dirname "$0")/../.." && pwd)
build=${BUILD_DIR:-$repo/build-bench}
work=$(mktemp -d /tmp/tuqvu-broker-bench.XXXXXX)
chmod 755 "$work"
nginx_port=18090
nginx_tls_port=18092

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

mkdir -p "$work"/{www,nginx,home,prefix,home-tls,prefix-tls}

# The HTTPS broker: it makes its certificate (ECDSA P-256) at its first start; nginx is
# given the same certificate and key.
HOME=$work/home-tls TUQVU_SDK_PREFIX=$work/prefix-tls "$build/bin/tuqvu" --port 0 \
  --bind "$https_address" --https --log-level 2 --module "BenchPing=$build/lib/libbenchping.so" \
  >"$work/tuqvu-tls.out" &
pids+=("$!")
tuqvu_tls_pid=$!
for _ in $(seq 100); do grep -q 'listening on' "$work/tuqvu-tls.out" 2>/dev/null && break; sleep 0.1; done
tuqvu_tls_port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' "$work/tuqvu-tls.out")
[ -n "$tuqvu_tls_port" ] || { log "tuqvu --https did not start"; exit 1; }
certificate=$work/home-tls/.config/tuqvu/certificate.pem
certificate_key=$work/home-tls/.config/tuqvu/certificate.key
cp "$certificate" "$certificate_key" "$work/nginx/"  # readable by nginx's workers
chmod a+r "$work/nginx/certificate.pem" "$work/nginx/certificate.key"

# nginx: as many workers as cores, keep-alive without a request limit, no logging. Over
# TLS its defaults otherwise: session tickets on, no shared session cache.
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
  server {
    listen $https_address:$nginx_tls_port ssl;
    root $work/www;
    ssl_certificate $work/nginx/certificate.pem;
    ssl_certificate_key $work/nginx/certificate.key;
    ssl_protocols TLSv1.2 TLSv1.3;
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

node_port=18091
node "$repo/bench/broker/jsonrpc_peer.mjs" "$node_port" >"$work/node.out" &
pids+=("$!")
node_pid=$!
for _ in $(seq 100); do grep -q listening "$work/node.out" 2>/dev/null && break; sleep 0.1; done

# Every request carries the broker's Authorization, the other servers' too, so that the
# requests are alike.
authorization() {
  printf 'Authorization: Basic %s' "$(printf 'bench:%s' "$(cat "$1/.config/tuqvu/secret")" | base64 -w0)"
}
plain_header=$(authorization "$work/home")
tls_header=$(authorization "$work/home-tls")
# The TLS client pins the certificate, as tuqvu-call does: the SHA-256 of its public key.
BENCH_PIN=$(openssl x509 -in "$certificate" -noout -pubkey | openssl pkey -pubin -outform der |
  openssl dgst -sha256 -c | sed 's/.*= //')
export BENCH_PIN
rpc_body='{"jsonrpc":"2.0","id":1,"method":"BenchPing.ping","params":[]}'
expected='{"jsonrpc":"2.0","id":1,"result":1}'
answer=$(curl -s -H "$plain_header" -H 'Content-Type: application/json' -X POST -d "$rpc_body" \
  "http://127.0.0.1:$tuqvu_port/rpc")
[ "$answer" = "$expected" ] || { log "unexpected answer: $answer"; exit 1; }
answer=$(curl -s -k -H "$tls_header" -H 'Content-Type: application/json' -X POST \
  -d "$rpc_body" "https://$https_address:$tuqvu_tls_port/rpc")
[ "$answer" = "$expected" ] || { log "unexpected answer over HTTPS: $answer"; exit 1; }
answer=$(curl -s -k "https://$https_address:$nginx_tls_port/ping.json")
[ "$answer" = "$expected" ] || { log "unexpected answer from nginx over HTTPS: $answer"; exit 1; }

nginx_master=${pids[1]}
tuqvu_pid=${pids[2]}
# The CPU time (user + system, in clock ticks) of a server's processes so far.
cpu_ticks() {
  local who=$1 list
  case $who in
    tuqvu) list=$tuqvu_pid ;;
    tuqvu-tls) list=$tuqvu_tls_pid ;;
    node) list=$node_pid ;;
    nginx | nginx-tls) list="$nginx_master $(pgrep -P "$nginx_master" | tr '\n' ' ')" ;;
  esac
  local total=0 pid
  for pid in $list; do
    total=$((total + $(awk '{ print $14 + $15 }' "/proc/$pid/stat")))
  done
  echo "$total"
}
ticks_per_second=$(getconf CLK_TCK)
# Runs the client with the arguments given, leaving its output in $out and the server's
# CPU time per request of the run (µs) in $cpu.
measure() {
  local who=$1 before after
  shift
  before=$(cpu_ticks "$who")
  out=$("$client" "$@")
  after=$(cpu_ticks "$who")
  cpu=$(awk -v t=$((after - before)) -v hz="$ticks_per_second" -v n="$(field all <<<"$out")" \
    'BEGIN { printf "%.1f", t / hz * 1e6 / n }')
}

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
declare -A results
servers=(tuqvu nginx node)
tls_servers=(tuqvu-tls nginx-tls)
for run in $(seq "$runs"); do
  for who in "${servers[@]}" "${tls_servers[@]}"; do
    case $who in
      tuqvu) set -- "$tuqvu_port" POST /rpc "$rpc_body" ;;
      nginx) set -- "$nginx_port" GET /ping.json "" ;;
      node) set -- "$node_port" POST /rpc "$rpc_body" ;;
      tuqvu-tls) set -- "$tuqvu_tls_port" POST /rpc "$rpc_body" ;;
      nginx-tls) set -- "$nginx_tls_port" GET /ping.json "" ;;
    esac
    case $who in
      *-tls) tls=tls- BENCH_HEADER=$tls_header BENCH_ADDRESS=$https_address ;;
      *) tls="" BENCH_HEADER=$plain_header BENCH_ADDRESS=127.0.0.1 ;;
    esac
    export BENCH_HEADER BENCH_ADDRESS
    lat=$("$client" "${tls}latency" "$@" "$requests")
    results[$who-p50]+="$(field p50_us <<<"$lat") "
    results[$who-p99]+="$(field p99_us <<<"$lat") "
    line="run $run $who: $lat"
    for n in $connections; do
      measure "$who" "${tls}throughput" "$@" "$n" "$seconds"
      results[$who-rps-$n]+="$(field rps <<<"$out") "
      results[$who-cpu-$n]+="$cpu "
      line+=" | $n connections: $(field rps <<<"$out")/s, ${cpu} µs CPU per request"
    done
    if [ -n "$tls" ]; then
      # Connections closed in the last minute (TIME_WAIT), for the record.
      time_wait=$(ss -tan state time-wait | tail -n +2 | wc -l)
      measure "$who" handshakes "$@" "$handshake_clients" "$seconds"
      results[$who-hs]+="$(field rps <<<"$out") "
      results[$who-hs-cpu]+="$cpu "
      results[$who-negotiated]=$(grep -o 'tls=.*' <<<"$out")
      line+=" | a handshake per request, $handshake_clients clients: $(field rps <<<"$out")/s,"
      line+=" ${cpu} µs CPU per request ($time_wait sockets in TIME_WAIT before)"
    fi
    log "$line"
  done
done

med() { tr ' ' '\n' <<<"${results[$1]}" | grep . | median; }
printf '\n%s runs, loopback, %s CPUs, latency over %s requests, throughput over %s s\n' \
  "$runs" "$(nproc)" "$requests" "$seconds"
header=$(printf '%-30s %8s %8s' server "p50 µs" "p99 µs")
for n in $connections; do header+=$(printf ' %10s %9s' "rps@$n" "cpu@$n"); done
echo "$header"
for who in "${servers[@]}"; do
  case $who in
    tuqvu) name="tuqvu POST /rpc (ping)" ;;
    nginx) name="nginx $("$nginx_bin" -v 2>&1 | sed 's/.*\///') GET static JSON" ;;
    node) name="node $(node --version) JSON-RPC" ;;
  esac
  row=$(printf '%-30s %8s %8s' "$name" "$(med "$who-p50")" "$(med "$who-p99")")
  for n in $connections; do
    row+=$(printf ' %10s %9s' "$(med "$who-rps-$n")" "$(med "$who-cpu-$n")")
  done
  echo "$row"
done
for n in $connections; do
  awk -v t="$(med "tuqvu-rps-$n")" -v g="$(med "nginx-rps-$n")" -v d="$(med "node-rps-$n")" \
    -v tc="$(med "tuqvu-cpu-$n")" -v gc="$(med "nginx-cpu-$n")" -v n="$n" \
    'BEGIN { printf "%d connections: tuqvu / nginx requests/s %.2f, tuqvu / node %.2f, CPU per request tuqvu / nginx %.2f\n", n, t / g, t / d, tc / gc }'
done

echo
printf 'HTTPS, client at %s; hs: a new connection, full handshake, per request, %s clients\n' \
  "$https_address" "$handshake_clients"
printf 'negotiated: tuqvu %s; nginx %s\n' "${results[tuqvu-tls-negotiated]}" \
  "${results[nginx-tls-negotiated]}"
header=$(printf '%-30s %8s %8s' server "p50 µs" "p99 µs")
for n in $connections; do header+=$(printf ' %10s %9s' "rps@$n" "cpu@$n"); done
header+=$(printf ' %10s %9s' "hs rps" "hs cpu")
echo "$header"
for who in "${tls_servers[@]}"; do
  case $who in
    tuqvu-tls) name="tuqvu POST /rpc (ping)" ;;
    nginx-tls) name="nginx $("$nginx_bin" -v 2>&1 | sed 's/.*\///') GET static JSON" ;;
  esac
  row=$(printf '%-30s %8s %8s' "$name" "$(med "$who-p50")" "$(med "$who-p99")")
  for n in $connections; do
    row+=$(printf ' %10s %9s' "$(med "$who-rps-$n")" "$(med "$who-cpu-$n")")
  done
  row+=$(printf ' %10s %9s' "$(med "$who-hs")" "$(med "$who-hs-cpu")")
  echo "$row"
done
for n in $connections; do
  awk -v t="$(med "tuqvu-tls-rps-$n")" -v g="$(med "nginx-tls-rps-$n")" \
    -v tc="$(med "tuqvu-tls-cpu-$n")" -v gc="$(med "nginx-tls-cpu-$n")" -v n="$n" \
    'BEGIN { printf "HTTPS %d connections: tuqvu / nginx requests/s %.2f, CPU per request tuqvu / nginx %.2f\n", n, t / g, tc / gc }'
done
awk -v t="$(med tuqvu-tls-hs)" -v g="$(med nginx-tls-hs)" -v tc="$(med tuqvu-tls-hs-cpu)" \
  -v gc="$(med nginx-tls-hs-cpu)" -v n="$handshake_clients" \
  'BEGIN { printf "HTTPS handshakes, %d clients: tuqvu / nginx requests/s %.2f, CPU per request tuqvu / nginx %.2f\n", n, t / g, tc / gc }'
