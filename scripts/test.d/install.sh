#!/usr/bin/env bash
# `cmake --install` of the tested build (build/, or $TUQVU_BUILD_DIR) into a temporary
# prefix: the layout, the installed tuqvu finding its default module library, its
# system behaviors and its dashboard by itself (TUQVU_SDK_PREFIX unset), tuqvu-call's completion, and a
# small module program outside the tree built with `pkg-config --cflags --libs tuqvu`.
# Alone:
#   bash scripts/test.d/install.sh
set -euo pipefail
cd "$(dirname "$0")/../.."

build=${TUQVU_BUILD_DIR:-build}
say() { echo "install test: $*"; }
work=$(mktemp -d)
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
for file in bin/tuqvu bin/tuqvu-call lib/libtuqvucore.so lib/libtuqvuproject.so \
            lib/libtuqvumodules.so lib/libzrbehaviormanager.so lib/pkgconfig/tuqvu.pc \
            include/tuqvu/zr/zrmodule.h include/tuqvu/zr/proxies/zrmemoryproxy.h \
            include/tuqvu/vu/project/package.h include/tuqvu/behaviormanager/binding/zrfunctor.h \
            share/tuqvu/behaviors/stand/behavior.xar share/tuqvu/ui/index.html \
            share/tuqvu/ui/app.js share/man/man1/tuqvu.1 \
            share/man/man1/tuqvu-call.1 share/bash-completion/completions/tuqvu-call \
            lib/systemd/system/tuqvu.service; do
  test -e "$prefix/$file" || { say "missing $file" >&2; exit 1; }
done
grep -qx "prefix=$prefix" "$prefix/lib/pkgconfig/tuqvu.pc"
grep -qx "ExecStart=$prefix/bin/tuqvu --port 9600" "$prefix/lib/systemd/system/tuqvu.service"
# Nothing installed still points into the build or source tree.
if ldd "$prefix/bin/tuqvu" "$prefix/lib/libzrbehaviormanager.so" | grep -q "$PWD"; then
  ldd "$prefix/bin/tuqvu" >&2
  say "an installed file links against the build tree" >&2
  exit 1
fi

# The installed broker on its own: no TUQVU_SDK_PREFIX, a fresh home.
mkdir -p "$work/home"
env -u TUQVU_SDK_PREFIX -u XDG_DATA_HOME -u XDG_CONFIG_HOME HOME="$work/home" TMPDIR="$work" \
  "$prefix/bin/tuqvu" --port 0 >"$work/tuqvu.out" 2>"$work/tuqvu.err" &
pid=$!
port=""
for _ in $(seq 1 150); do
  port=$(sed -n 's/^tuqvu: listening on .*:\([0-9]*\)$/\1/p' "$work/tuqvu.out")
  [ -n "$port" ] && break
  sleep 0.2
done
[ -n "$port" ] || { cat "$work/tuqvu.err" >&2; say "the installed tuqvu did not start" >&2; exit 1; }
# As the broker's user (its home), whose secret tuqvu-call sends by itself.
as_broker_user() { env -u XDG_CONFIG_HOME HOME="$work/home" "$@"; }
call() { as_broker_user "$prefix/bin/tuqvu-call" --url "http://127.0.0.1:$port" "$@"; }
grep -q "loaded module ZRBehaviorManager from $prefix/bin/../lib/libzrbehaviormanager.so" \
  "$work/tuqvu.err" || { cat "$work/tuqvu.err" >&2; exit 1; }
names=$(call ZRBehaviorManager.getSystemBehaviorNames | tr -d ' \n')
[ "$names" = '["System/animations/nod","System/animations/wave","System/idle","System/stand"]' ] ||
  { say "system behaviors: $names" >&2; exit 1; }
say "the installed tuqvu loaded $prefix/lib/libzrbehaviormanager.so and found $names"

# The dashboard from the installed files, to a client that presents the secret.
secret=$(cat "$work/home/.config/tuqvu/secret")
page=$(curl -sS -f -u "tuqvu:$secret" "http://127.0.0.1:$port/ui/")
[ "$page" = "$(cat "$prefix/share/tuqvu/ui/index.html")" ] ||
  { say "the installed tuqvu does not serve its dashboard at /ui/" >&2; exit 1; }
say "the installed tuqvu serves its dashboard from $prefix/share/tuqvu/ui"

# Completion of options, request paths and Module.method names asked from this broker.
completion() {  # the command line up to the cursor; prints the candidates, one a line
  COMP_LINE=$1 PATH="$prefix/bin:$PATH" as_broker_user bash -c 'source "$0"; COMP_POINT=${#COMP_LINE}
    _tuqvu_call; printf "%s\n" "${COMPREPLY[@]}"' \
    "$prefix/share/bash-completion/completions/tuqvu-call"
}
[ "$(completion "tuqvu-call --pr")" = "--progress" ]
completion "tuqvu-call --url http://127.0.0.1:$port ZRBehav" | grep -qx "ZRBehaviorManager."
completion "tuqvu-call --url http://127.0.0.1:$port ZRBehaviorManager.runB" |
  grep -qx "ZRBehaviorManager.runBehavior"
completion "tuqvu-call --put README.md /b" | grep -qx "/behaviors/User/"

kill -TERM "$pid"
status=0
wait "$pid" || status=$?
pid=""
[ "$status" -eq 0 ] || { cat "$work/tuqvu.err" >&2; say "tuqvu exited with $status" >&2; exit 1; }

# A module of one's own, outside the tree, against the installed headers and libraries.
cat >"$work/greeter.cpp" <<'CPP'
#include <iostream>

#include <boost/make_shared.hpp>

#include <zr/zrbroker.h>
#include <zr/zrfunctorbase.h>
#include <zr/zrmodule.h>
#include <zr/zrtypes.h>
#include <zr/zrvaluejson.h>

class Greeter : public ZR::ZRModule {
public:
  explicit Greeter(boost::shared_ptr<ZR::ZRBroker> broker) : ZR::ZRModule(broker, "Greeter") {
    functionName("greet", getName(), "greets someone", 0);
    addParam("who", "the name");
    getCurrentMethodDescription().parameters.back().type = ZR::getTypeString(ZR::TypeCodeString);
    setReturn("greeting", "the greeting");
    getCurrentMethodDescription().returnType = ZR::getTypeString(ZR::TypeCodeString);
    bindMethod(boost::make_shared<ZR::ZRCallableFunctor>(
        [](const ZR::ZRValue& args, ZR::ZRValue& result) {
          result = ZR::ZRValue("hello " + args[0].toString());
        }));
  }
};

int main() {
  boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::create();
  Greeter greeter(broker);
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue("robot"));
  std::cout << ZR::toJson(broker->call("Greeter", "greet", args)) << std::endl;
  return 0;
}
CPP
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046
g++ -o "$work/greeter" "$work/greeter.cpp" $(pkg-config --cflags --libs tuqvu) \
  -Wl,-rpath,"$(pkg-config --variable=libdir tuqvu)"
answer=$("$work/greeter")
[ "$answer" = '"hello robot"' ] || { say "greeter printed $answer" >&2; exit 1; }
say "an out-of-tree module built with pkg-config answered $answer"
