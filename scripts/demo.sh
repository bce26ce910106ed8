#!/usr/bin/env bash
# Sets up, builds, and shows the library at work: qxdc-sim serves a synthetic
# futures market on loopback, and md-console logs in, queries the SHFE
# instruments (answered with the contract files of the file server),
# and prints the live quotes of the busiest instruments.
#
#   scripts/demo.sh [SECONDS]        default 20, or DEMO_SECONDS
#
# Builds in build/ (or the directory in BUILD_DIR).
# Everything runs in a scratch working directory (the library's ./cache/,
# its logs and configuration files land there); DEMO_KEEP=1 keeps it.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-${DEMO_SECONDS:-20}}"
case "$seconds" in
    '' | *[!0-9]*) echo "usage: scripts/demo.sh [SECONDS]" >&2; exit 2 ;;
esac

build="${BUILD_DIR:-$root/build}"
"$root/scripts/setup.sh"
BUILD_DIR="$build" "$root/scripts/build.sh"
sim="$build/sim/qxdc-sim"
console="$build/tools/md-console"

work="$(mktemp -d "${TMPDIR:-/tmp}/orvex-demo.XXXXXX")"
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; fi
    if [ "${DEMO_KEEP:-0}" = 1 ]; then echo "kept $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

echo "== qxdc-sim: a quote server and a file server on free loopback ports"
# Trading sessions of 8 s: within the demo the market closes, rolls to the
# next trading day, holds its opening auction and trades again.
"$sim" --port 0 --file-port 0 --ready-file "$work/sim.ready" --session 8 >"$work/sim.out" 2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 100); do [ -f "$work/sim.ready" ] && break; sleep 0.1; done
if [ ! -f "$work/sim.ready" ]; then
    echo "qxdc-sim did not start:" >&2
    cat "$work/sim.log" >&2
    exit 1
fi
quote_port=$(sed -n 's/^quote_port=//p' "$work/sim.ready")
file_port=$(sed -n 's/^file_port=//p' "$work/sim.ready")
cat "$work/sim.out"

echo "== md-console for $seconds s (Ctrl-C stops it early)"
mkdir "$work/client"
cd "$work/client"
rc=0
"$console" --front "tcp://127.0.0.1:$quote_port" --file-front "ftp://127.0.0.1:$file_port" \
    --user demo --password demo --query SHFE --duration "$seconds" --rows 15 --interval 5 || rc=$?

echo "== stopping qxdc-sim"
kill -TERM "$sim_pid" 2>/dev/null || true
sim_rc=0
wait "$sim_pid" || sim_rc=$?
sim_pid=""
tail -n 8 "$work/sim.log"
echo "== files the library wrote in its working directory"
(cd "$work/client" && find . -type f | sort | sed 's/^/   /')
if [ "$rc" -ne 0 ] || [ "$sim_rc" -ne 0 ]; then
    echo "demo failed: md-console $rc, qxdc-sim $sim_rc" >&2
    exit 1
fi
echo "== done"
