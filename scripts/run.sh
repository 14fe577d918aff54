#!/usr/bin/env bash
# Installs what building and running need (scripts/deps.sh --run), builds what running needs
# (the CMake target tuqvu_run: the broker, tuqvu-call, the platform modules and the behavior
# manager), starts the broker with every module loaded and, once it answers a call, prints
# where its pages are and how to reach it. Arguments are passed to tuqvu (try --help).
# Ctrl-C stops the broker; run.sh ends with the broker's exit status.
#   TUQVU_BUILD_DIR   the build folder (default build/, the one scripts/test.sh builds in
#                     too); an existing one keeps its settings
#   TUQVU_JOBS        parallel compile jobs (default: the number of processors)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${TUQVU_BUILD_DIR:-build}
bash scripts/deps.sh --run
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" >/dev/null
else
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
echo "run: building the broker and its modules (log: $build/run-build.log)"
if ! cmake --build "$build" -j "${TUQVU_JOBS:-$(nproc)}" --target tuqvu_run \
     >"$build/run-build.log" 2>&1; then
  tail -n 40 "$build/run-build.log" >&2
  echo "run: the build failed; the whole log is $build/run-build.log" >&2
  exit 1
fi

tuqvu=$build/bin/tuqvu
call=$build/bin/tuqvu-call
secret=""
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
  case "${args[i]}" in
    -h|--help|--version) exec "$tuqvu" "$@" ;;
    --secret-file) secret=${args[i + 1]:-} ;;
    --secret-file=*) secret=${args[i]#--secret-file=} ;;
  esac
done
default_secret=1
if [ -n "$secret" ]; then
  default_secret=0
  secret=$(realpath -m -- "$secret")
else
  config=${XDG_CONFIG_HOME:-}
  [ "${config:0:1}" = / ] || config=$HOME/.config
  secret=$config/tuqvu/secret
fi

# The broker runs in a session of its own, so that Ctrl-C reaches it once, from here, and
# not a second time from the terminal (a second signal ends it at once); should this script
# be killed, the broker gets SIGTERM. Its standard output goes through a file, where its
# "listening" line tells where it is.
out=$(mktemp "${TMPDIR:-/tmp}/tuqvu-run.XXXXXX")
setsid setpriv --pdeathsig TERM -- "$tuqvu" "$@" >"$out" &
pid=$!
tail -n +1 -s 0.2 -f --pid="$pid" "$out" &
relay=$!
forward() { kill -s "$1" "$pid" 2>/dev/null || true; }
trap 'forward INT' INT
trap 'forward TERM' TERM HUP
trap 'kill -s TERM "$pid" 2>/dev/null || true; rm -f "$out"' EXIT

finish() {  # waits for the broker, then exits with its status
  local status
  while :; do
    status=0
    wait "$pid" || status=$?
    kill -0 "$pid" 2>/dev/null || break  # else a forwarded signal interrupted the wait
  done
  wait "$relay" 2>/dev/null || true
  trap - EXIT
  rm -f "$out"
  exit "$status"
}

address=""
while [ -z "$address" ] && kill -0 "$pid" 2>/dev/null; do
  address=$(sed -n 's/^tuqvu: listening on //p' "$out" | head -n 1)
  [ -n "$address" ] || sleep 0.1 || true
done
[ -n "$address" ] || finish

host=${address%:*}
port=${address##*:}
case "$host" in
  0.0.0.0) host=127.0.0.1 ;;
  ::) host=[::1] ;;
  *:*) host=[$host] ;;
esac
url=http://$host:$port

# The first answered call. tuqvu-call sends the secret of this user by itself; a secret file
# of another place is handed to it.
probe() {
  if ((default_secret)) || [ ! -r "$secret" ]; then
    "$call" --url "$url" ZRBroker.getModules
  else
    TUQVU_SECRET=$(cat "$secret") "$call" --url "$url" ZRBroker.getModules
  fi
}
answered=0
for ((try = 0; try < 300; try++)); do
  kill -0 "$pid" 2>/dev/null || finish
  if probe >/dev/null 2>&1; then
    answered=1
    break
  fi
  sleep 0.1 || true
done

command=$call
[ "$url" = http://127.0.0.1:9600 ] || command+=" --url $url"
((default_secret)) || command="TUQVU_SECRET=\$(cat $secret) $command"
if ((answered)); then
  echo "run: the broker answers on $url"
else
  echo "run: the broker listens on $url but has not answered ZRBroker.getModules" >&2
fi
cat <<EOF
  pages    $url/ui/ (the dashboard: behaviors, installs, events, health, live)
           $url/ (the modules, each with a console)
           $url/ZRBehaviorManager/ (the behavior manager's status page)
  call     $command ZRBroker.getModules
           $call --help tells the rest
  secret   $secret
           tuqvu-call sends it by itself when run as this user
  browser  when a page asks you to sign in: any user name, the secret as the password
  stop     Ctrl-C
EOF
finish
