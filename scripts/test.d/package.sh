#!/usr/bin/env bash
# Builds the Debian package from the tested build (build/, or $TUQVU_BUILD_DIR), installs
# it on this machine with apt-get, starts the service, calls it, stops it and purges the
# package again. Needs root (it installs into /usr); skipped otherwise. Alone:
#   bash scripts/test.d/package.sh
# With systemd running this machine the unit is started with systemctl; without it, the
# unit's own ExecStart runs as the unit's user, in its working directory and with its
# environment, which is what systemd would do.
set -euo pipefail
cd "$(dirname "$0")/../.."

say() { echo "package test: $*"; }
if [ "$(id -u)" -ne 0 ]; then
  say "skipped, needs root" >&2
  exit 0
fi
if dpkg-query -W -f='${Status}' tuqvu 2>/dev/null | grep -q "ok installed"; then
  say "a tuqvu package is already installed here; not touching it" >&2
  exit 1
fi

deb=$(TUQVU_BUILD_DIR=${TUQVU_BUILD_DIR:-build} bash scripts/package.sh | tail -n 1)
say "$deb"
fields=$(dpkg-deb --field "$deb" Package Depends)
echo "$fields" | grep -q "^Depends: .*libgsoap-2.8.124" || { say "no dependencies declared: $fields" >&2; exit 1; }

pid=""
cleanup() {
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  if [ -d /run/systemd/system ]; then systemctl stop tuqvu.service 2>/dev/null || true; fi
  dpkg --purge tuqvu >/dev/null 2>&1 || true
}
trap cleanup EXIT

if ! DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "./$deb" >/tmp/tuqvu-package-apt.log 2>&1; then
  cat /tmp/tuqvu-package-apt.log >&2
  exit 1
fi
rm -f /tmp/tuqvu-package-apt.log

# What the package laid out.
unit=/usr/lib/systemd/system/tuqvu.service
for file in /usr/bin/tuqvu /usr/bin/tuqvu-call /usr/lib/libtuqvucore.so \
            /usr/lib/libzrbehaviormanager.so /usr/share/tuqvu/behaviors/stand/behavior.xar \
            /usr/share/tuqvu/ui/index.html \
            /usr/include/tuqvu/zr/zrmodule.h /usr/share/man/man1/tuqvu-call.1 \
            /usr/share/bash-completion/completions/tuqvu-call "$unit"; do
  test -e "$file" || { say "missing $file" >&2; exit 1; }
done
grep -qx "prefix=/usr" /usr/lib/pkgconfig/tuqvu.pc
pkg-config --exists --print-errors tuqvu
grep -qx "User=tuqvu" "$unit"
grep -qx "Restart=on-failure" "$unit"
grep -qx "ExecStart=/usr/bin/tuqvu --port 9600" "$unit"
getent passwd tuqvu >/dev/null || { say "postinst made no tuqvu account" >&2; exit 1; }
[ "$(stat -c %U /var/lib/tuqvu)" = tuqvu ]
if command -v systemd-analyze >/dev/null && command -v man >/dev/null; then
  systemd-analyze verify "$unit"
fi

if [ -d /run/systemd/system ]; then
  port=9600
  systemctl start tuqvu.service
else
  # The unit's port is moved so that a broker a developer runs on 9600 is left alone.
  port=9681
  exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
  user=$(sed -n 's/^User=//p' "$unit")
  group=$(sed -n 's/^Group=//p' "$unit")
  workdir=$(sed -n 's/^WorkingDirectory=//p' "$unit")
  environment=$(sed -n 's/^Environment=//p' "$unit")
  # A clean environment like systemd's: the unit's variables and the account's names.
  # shellcheck disable=SC2086
  (cd "$workdir" && exec setpriv --reuid="$user" --regid="$group" --init-groups \
     env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
     USER="$user" LOGNAME="$user" $environment ${exec_start/--port 9600/--port $port} \
     >/dev/null 2>"$workdir/test-stderr.log") &
  pid=$!
fi

url="http://127.0.0.1:$port"
# Every client presents the secret the service made at its first start; root reads it as
# the postinst says.
secret_file=/var/lib/tuqvu/.config/tuqvu/secret
for _ in $(seq 1 150); do
  if [ -s "$secret_file" ]; then
    TUQVU_SECRET=$(cat "$secret_file")
    export TUQVU_SECRET
    if tuqvu-call --url "$url" ZRBroker.getModules >/dev/null 2>&1; then break; fi
  fi
  sleep 0.2
done
[ "$(stat -c '%U %a' "$secret_file")" = "tuqvu 600" ]
status=0
env -u TUQVU_SECRET HOME=/nonexistent tuqvu-call --url "$url" ZRBroker.getModules \
  >/dev/null 2>&1 || status=$?
[ "$status" -ne 0 ] || { say "a client without the secret was served" >&2; exit 1; }
modules=$(tuqvu-call --url "$url" ZRBroker.getModules)
echo "$modules" | grep -q '"ZRBehaviorManager"' || { say "modules: $modules" >&2; exit 1; }
names=$(tuqvu-call --url "$url" ZRBehaviorManager.getSystemBehaviorNames | tr -d ' \n')
say "system behaviors $names"
echo "$names" | grep -q '"System/stand"'

# A behavior uploaded, installed and run: the service writes into its own home.
work=$(mktemp -d)
mkdir -p "$work/hello"
printf '<behavior>\n  <set key="Package/Hello" type="int" value="7"/>\n</behavior>\n' \
  >"$work/hello/behavior.xar"
tuqvu-call --url "$url" --put "$work/hello" /behaviors/User/ >/dev/null 2>&1
rm -rf "$work"
test -f /var/lib/tuqvu/.tuqvu/behaviors/hello/behavior.xar
[ "$(stat -c %U /var/lib/tuqvu/.tuqvu/behaviors/hello/behavior.xar)" = tuqvu ]
[ "$(tuqvu-call --url "$url" ZRBehaviorManager.installBehavior hello)" = true ]
[ "$(tuqvu-call --url "$url" ZRBehaviorManager.runBehavior hello)" = null ]
[ "$(tuqvu-call --url "$url" ZRMemory.getData Package/Hello)" = 7 ]

if [ -n "$pid" ]; then
  kill -TERM "$pid"
  status=0
  wait "$pid" || status=$?
  pid=""
  if [ "$status" -ne 0 ]; then
    say "tuqvu exited with $status" >&2
    cat /var/lib/tuqvu/test-stderr.log >&2
    exit 1
  fi
else
  systemctl stop tuqvu.service
fi

dpkg --purge tuqvu >/dev/null
trap - EXIT
for gone in /usr/bin/tuqvu /usr/lib/libtuqvucore.so /usr/share/tuqvu "$unit" /var/lib/tuqvu; do
  if [ -e "$gone" ]; then say "$gone is left after the purge" >&2; exit 1; fi
done
if getent passwd tuqvu >/dev/null; then say "the tuqvu account is left after the purge" >&2; exit 1; fi
say "installed, started, answered, ran an uploaded behavior, stopped (exit 0), purged"
