#!/usr/bin/env bash
# testssl.sh (Debian's package) against the HTTPS of a real tuqvu, twice:
#   - with the certificate the broker makes for itself, trusted as a client that pinned it
#     trusts it (--add-ca with the certificate itself);
#   - with an owner's certificate issued by a certificate authority (one this script makes,
#     as an owner's would be: 90 days, a CRL address), given with --tls-cert/--tls-key.
# The second run must report no finding of severity HIGH or CRITICAL; the first none
# beyond what a self-signed certificate is (no CRL or OCSP address to revoke it by). The
# summaries are printed; docs/security.md quotes them. Alone:
#   bash scripts/test.d/tls.sh        (TUQVU_BUILD_DIR: the build to test, default build/)
set -euo pipefail
cd "$(dirname "$0")/../.."

build=${TUQVU_BUILD_DIR:-build}
say() { echo "tls test: $*"; }
command -v testssl >/dev/null || { say "testssl not found (scripts/deps.sh --test installs it)" >&2; exit 1; }
work=$(mktemp -d)
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# Starts the broker of this build with HTTPS in a fresh home; sets $pid and $port.
start_broker() {
  local home=$1
  shift
  mkdir -p "$home"
  env -u XDG_CONFIG_HOME HOME="$home" TMPDIR="$work" "$build/bin/tuqvu" --port 0 --https \
    --module "$build/lib/libzrbehaviormanager.so" "$@" >"$home/tuqvu.out" 2>"$home/tuqvu.err" &
  pid=$!
  port=""
  for _ in $(seq 1 150); do
    port=$(sed -n 's/^tuqvu: listening on .*:\([0-9]*\)$/\1/p' "$home/tuqvu.out")
    [ -n "$port" ] && return 0
    sleep 0.2
  done
  cat "$home/tuqvu.err" >&2
  say "tuqvu did not start" >&2
  exit 1
}

stop_broker() {
  kill -TERM "$pid"
  wait "$pid" || { say "tuqvu did not end cleanly" >&2; exit 1; }
  pid=""
}

# Runs testssl against $port trusting the CA file $1; prints the summary of findings of
# severity LOW and above and fails on any HIGH or CRITICAL not named in $2 (ids, '|').
check() {
  local trusted=$1 allowed=$2 name=$3
  local json="$work/$name.json"
  testssl --quiet --color 0 --warnings off --add-ca "$trusted" --jsonfile "$json" \
    --severity LOW "127.0.0.1:$port" >"$work/$name.txt" 2>&1 || true
  [ -s "$json" ] || { cat "$work/$name.txt" >&2; say "testssl wrote no findings" >&2; exit 1; }
  python3 - "$json" "$allowed" "$name" <<'PY'
import json, sys
findings = json.load(open(sys.argv[1]))
allowed = set(filter(None, sys.argv[2].split('|')))
name = sys.argv[3]
rank = {'LOW': 1, 'MEDIUM': 2, 'HIGH': 3, 'CRITICAL': 4}
shown = [f for f in findings if f['severity'] in rank]
print(f"tls test: {name}: findings of severity LOW and above:")
for f in shown:
    print(f"  {f['severity']:8} {f['id']}: {f['finding']}")
bad = [f for f in shown if rank[f['severity']] >= 3 and f['id'] not in allowed]
if bad:
    print(f"tls test: {name}: HIGH or CRITICAL findings: " + ', '.join(f['id'] for f in bad))
    sys.exit(1)
PY
}

# The broker's own certificate.
start_broker "$work/own"
check "$work/own/.config/tuqvu/certificate.pem" "cert_revocation" "own certificate"
stop_broker

# An owner's certificate from a certificate authority.
ca=$work/ca
mkdir -p "$ca"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3650 \
  -subj "/O=Robot Owner/CN=Robot Owner CA" -keyout "$ca/ca.key" -out "$ca/ca.pem" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
  2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=localhost" \
  -keyout "$ca/robot.key" -out "$ca/robot.csr" 2>/dev/null
cat >"$ca/robot.ext" <<EXT
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=serverAuth
subjectAltName=DNS:localhost,IP:127.0.0.1
crlDistributionPoints=URI:http://127.0.0.1:9/robot-owner.crl
EXT
openssl x509 -req -in "$ca/robot.csr" -CA "$ca/ca.pem" -CAkey "$ca/ca.key" -CAcreateserial \
  -days 90 -sha256 -extfile "$ca/robot.ext" -out "$ca/robot.pem" 2>/dev/null
start_broker "$work/owner" --tls-cert "$ca/robot.pem" --tls-key "$ca/robot.key"
check "$ca/ca.pem" "" "owner's certificate"
stop_broker
say "passed"
