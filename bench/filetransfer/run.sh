#!/usr/bin/env bash
# GET and PUT of one large file over loopback, against the file-transfer server and
# against nginx (Debian's build, whose WebDAV module takes the PUT) serving the same
# directory, in the same run. Reports throughput (median of the runs) and the growth of
# each server's resident memory during the transfers.
#
#   bench/filetransfer/run.sh [size-in-MiB] [runs]      defaults: 1024 MiB, 3 runs
#
# Environment: BUILD_DIR (default <repo>/build-bench, configured Release with the benches),
# WORK_DIR (default a fresh directory under /tmp; needs room for three copies of the file).
# nginx: the one on PATH if it has the DAV module, else Debian's package is fetched with
# `apt-get download` and unpacked into ~/.cache/tuqvu-bench: nothing is installed and no
# service is started.
set -euo pipefail

size_mib=${1:-1024}
runs=${2:-3}
repo=$(cd "$(dirname "$0")/../.." && pwd)
build=${BUILD_DIR:-$repo/build-bench}
work=${WORK_DIR:-$(mktemp -d /tmp/zrft-bench.XXXXXX)}
nginx_port=18080

log() { printf '%s\n' "$*" >&2; }

# --- nginx ------------------------------------------------------------------------------
find_nginx() {
  if command -v nginx >/dev/null 2>&1 && nginx -V 2>&1 | grep -q http_dav_module; then
    command -v nginx
    return
  fi
  local cache=${XDG_CACHE_HOME:-$HOME/.cache}/tuqvu-bench/nginx
  if [ ! -x "$cache/root/usr/sbin/nginx" ]; then
    log "fetching Debian's nginx package into $cache"
    mkdir -p "$cache"
    (cd "$cache" && apt-get download nginx >/dev/null 2>&1 && dpkg -x nginx_*.deb root)
  fi
  "$cache/root/usr/sbin/nginx" -V 2>&1 | grep -q http_dav_module ||
    { log "nginx without http_dav_module"; exit 1; }
  echo "$cache/root/usr/sbin/nginx"
}

# --- the file-transfer server -----------------------------------------------------------
if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DTUQVU_BUILD_BENCH=ON -DTUQVU_BUILD_TESTS=OFF >/dev/null
fi
ninja -C "$build" zrfiletransfer_server >/dev/null
server_bin=$build/bin/zrfiletransfer_server
nginx_bin=$(find_nginx)

mkdir -p "$work"/{home,tmp,data,prefix,nginx}
served=$work/tmp  # /tmp/... for the file-transfer server, / for nginx
source=$work/source.bin
log "work directory: $work"
log "writing a ${size_mib} MiB file of random bytes"
head -c $((size_mib * 1024 * 1024)) /dev/urandom >"$source"
cp "$source" "$served/get.bin"

cat >"$work/nginx/nginx.conf" <<EOF
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log warn;
events { worker_connections 64; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server {
    listen 127.0.0.1:$nginx_port;
    root $served;
    client_max_body_size 0;
    location / {
      dav_methods PUT DELETE;
      create_full_put_path on;
    }
  }
}
EOF

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

"$nginx_bin" -e "$work/nginx/error.log" -c "$work/nginx/nginx.conf" &
nginx_pid=$!
pids+=("$nginx_pid")

HOME=$work/home TMPDIR=$work/tmp XDG_DATA_HOME=$work/data TUQVU_SDK_PREFIX=$work/prefix \
  "$server_bin" >"$work/server.out" &
server_pid=$!
pids+=("$server_pid")
for _ in $(seq 50); do
  [ -s "$work/server.out" ] && curl -s -o /dev/null "http://127.0.0.1:$nginx_port/" && break
  sleep 0.1
done
server_port=$(head -1 "$work/server.out")

kib() { awk -v k="$2" '$1 == k":" { print $2 }' "/proc/$1/status"; }

# CPU time (user + system) of a process so far, in clock ticks.
ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
hz=$(getconf CLK_TCK)

# One transfer: prints "<MB/s> <peak RSS growth in KiB> <server CPU ms>". The peak is
# VmHWM after resetting it (clear_refs 5) just before the transfer. Fails unless the
# whole file moved.
transfer() {
  local pid=$1 method=$2 url=$3 before result speed bytes peak cpu
  before=$(kib "$pid" VmRSS)
  echo 5 >"/proc/$pid/clear_refs"
  cpu=$(ticks "$pid")
  if [ "$method" = GET ]; then
    result=$(curl -fsS -o /dev/null -w '%{speed_download} %{size_download}' "$url")
  else
    result=$(curl -fsS -o /dev/null -H 'Expect:' -T "$source" \
      -w '%{speed_upload} %{size_upload}' "$url")
  fi
  peak=$(kib "$pid" VmHWM)
  cpu=$((($(ticks "$pid") - cpu) * 1000 / hz))
  read -r speed bytes <<<"$result"
  [ "$bytes" = "$(stat -c %s "$source")" ] || { log "$method $url moved $bytes bytes"; exit 1; }
  echo "$(awk -v s="$speed" 'BEGIN { printf "%.0f", s / 1e6 }') $((peak - before)) $cpu"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
maximum() { sort -n | tail -1; }

cat "$source" >/dev/null  # page cache warm for both
declare -A speeds growth cpus
for run in $(seq "$runs"); do
  for who in tuqvu nginx; do
    if [ $who = tuqvu ]; then pid=$server_pid base=http://127.0.0.1:$server_port/tmp
    else pid=$nginx_pid base=http://127.0.0.1:$nginx_port; fi
    read -r s g c < <(transfer "$pid" GET "$base/get.bin")
    [ -n "$s" ] || exit 1
    speeds[$who-GET]+="$s "; growth[$who-GET]+="$g "; cpus[$who-GET]+="$c "
    read -r s g c < <(transfer "$pid" PUT "$base/put-$who.bin")
    [ -n "$s" ] || exit 1
    speeds[$who-PUT]+="$s "; growth[$who-PUT]+="$g "; cpus[$who-PUT]+="$c "
    cmp -s "$source" "$served/put-$who.bin" || { log "$who: PUT result differs"; exit 1; }
    rm -f "$served/put-$who.bin"
    log "run $run $who: GET $(awk '{ print $NF }' <<<"${speeds[$who-GET]}") MB/s,\
 PUT $(awk '{ print $NF }' <<<"${speeds[$who-PUT]}") MB/s"
  done
done

kill -TERM "$server_pid"
wait "$server_pid" 2>/dev/null || true
stop_line=$(sed -n 2p "$work/server.out")

printf '\n%s MiB file, %s runs, loopback, %s CPUs, load average %s\n' "$size_mib" "$runs" \
  "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
col() { tr ' ' '\n' <<<"$1" | grep . | "$2"; }
printf '%-16s %9s %9s %12s %12s %13s %13s\n' server "GET MB/s" "PUT MB/s" \
  "GET CPU ms" "PUT CPU ms" "GET RSS +KiB" "PUT RSS +KiB"
for who in tuqvu nginx; do
  name=$([ $who = tuqvu ] && echo "ZRFileTransfer" || echo "nginx $("$nginx_bin" -v 2>&1 | sed 's/.*\///')")
  printf '%-16s %9s %9s %12s %12s %13s %13s\n' "$name" \
    "$(col "${speeds[$who-GET]}" median)" "$(col "${speeds[$who-PUT]}" median)" \
    "$(col "${cpus[$who-GET]}" median)" "$(col "${cpus[$who-PUT]}" median)" \
    "$(col "${growth[$who-GET]}" maximum)" "$(col "${growth[$who-PUT]}" maximum)"
done
printf '(throughput and server CPU time: medians; RSS: largest rise of the peak (VmHWM)\n'
printf ' over the resident size just before a transfer)\n'
tg=$(col "${speeds[tuqvu-GET]}" median)
ng=$(col "${speeds[nginx-GET]}" median)
tp=$(col "${speeds[tuqvu-PUT]}" median)
np=$(col "${speeds[nginx-PUT]}" median)
printf 'ZRFileTransfer / nginx: GET %s%%, PUT %s%%\n' \
  "$((100 * tg / ng))" "$((100 * tp / np))"
printf 'ZRFileTransfer: %s (idle destruction)\n' "$stop_line"
printf 'all GET MB/s: tuqvu %s| nginx %s\n' "${speeds[tuqvu-GET]}" "${speeds[nginx-GET]}"
printf 'all PUT MB/s: tuqvu %s| nginx %s\n' "${speeds[tuqvu-PUT]}" "${speeds[nginx-PUT]}"
