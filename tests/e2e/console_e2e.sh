#!/usr/bin/env bash
# md-console against qxdc-sim over loopback, two runs side by side.
#
# Run 1 (JSON lines, ~11 s) against a simulator whose sessions last 3 s:
# quotes and the simulator's index template packages (with the template
# file it writes) flow, an instrument query for all exchanges is answered with the
# contract files' fields, the market closes, rolls to the next trading day,
# holds its auction and trades again, and quotes of the new day arrive.
# Run 2 (CSV, ~4 s) against a simulator that trades all the time, with
# subscription mode on: only the subscribed instruments are delivered; a
# query for an unknown exchange gets the error answer, one for CFFEX the
# instruments of the name table.
# Both console runs exit with 0, and both simulators stop cleanly on SIGTERM
# and SIGINT.
#   console_e2e.sh <qxdc-sim> <md-console>
set -euo pipefail
sim="$1"
console="$2"
work="$(mktemp -d)"
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAILED: $*"
    if [ -f "$work/run1/out.jsonl" ]; then grep -v '"type":"\(depth\|instrument\)"' "$work/run1/out.jsonl" | tail -n 20; fi
    for log in "$work"/sim*.log; do echo "--- $log"; tail -n 30 "$log" || true; done
    exit 1
}
count() { grep -c -- "$1" "$2" || true; }
# start_sim <name> <options...>: starts a simulator on free ports and sets
# <name>_front, <name>_file_front and <name>_pid.
start_sim() {
    local name="$1"
    shift
    "$sim" --port 0 --file-port 0 --ready-file "$name.ready" "$@" >"$name.out" 2>"$name.log" &
    local pid=$!
    pids+=("$pid")
    for _ in $(seq 100); do [ -f "$name.ready" ] && break; sleep 0.1; done
    [ -f "$name.ready" ] || fail "simulator $name did not start"
    local quote_port file_port
    quote_port=$(sed -n 's/^quote_port=//p' "$name.ready")
    file_port=$(sed -n 's/^file_port=//p' "$name.ready")
    printf -v "${name}_front" 'tcp://127.0.0.1:%s' "$quote_port"
    printf -v "${name}_file_front" 'ftp://127.0.0.1:%s' "$file_port"
    printf -v "${name}_pid" '%s' "$pid"
}
# stop_sim <name> <signal>
stop_sim() {
    local pid_var="${1}_pid" rc=0
    kill "-$2" "${!pid_var}"
    wait "${!pid_var}" || rc=$?
    [ "$rc" -eq 0 ] || fail "simulator $1 exited with $rc after SIG$2"
    grep -q "stopped:" "$1.log" || fail "simulator $1 did not report its end"
}

cd "$work"
start_sim sima --instruments 120 --rate 400 --session 3
start_sim simb --instruments 120 --rate 400
# The first SHFE contract the second simulator lists.
code=$(sed -n 's/.*SHFE market [0-9]*: [0-9]* instruments, \([A-Za-z0-9]*\).*/\1/p' simb.log | head -n1)
[ -n "$code" ] || fail "no SHFE contract listed"

# ---- run 2, in the background ----
mkdir run2
(cd run2 && "$console" --front "$simb_front" --sub "$code.SHFE" --sub CFFEX --write-config \
     --query NOPE --query CFFEX --format csv --duration 4 >out.csv 2>err.txt; echo $? >rc) &
run2=$!

# ---- run 1 ----
mkdir run1
# The simulator's template packages, described by the file it writes.
"$sim" --write-templates run1/qxdctrans.xml || fail "simulator could not write its templates"
rc=0
(cd run1 && "$console" --front "$sima_front" --file-front "$sima_file_front" --query \
     --format json --duration 11 --check >out.jsonl 2>err.txt) || rc=$?
[ "$rc" -eq 0 ] || { cat run1/err.txt; fail "md-console (run 1) exited with $rc"; }
out=run1/out.jsonl
# Every line is a JSON object (the library's own diagnostics went to stderr).
[ "$(grep -vc '^{"type":"' "$out" || true)" -eq 0 ] || fail "stray lines on standard output"
[ "$(count '"type":"login","error":0' "$out")" -ge 1 ] || fail "no successful login"
# Index packages as template records, one per market, read through the
# template file's layout.
for exchange in SHFE DCE CZCE CFFEX; do
    grep -q "\"type\":\"template\",\"package\":901,\"name\":\"ExchangeIndex\",\"Market\":\"$exchange\",\"IndexValue\":[0-9]" "$out" ||
        fail "no index record of $exchange"
done
grep -q '"Top":\[{"Instrument":"[A-Za-z0-9]*","Volume":[0-9]*}' "$out" || fail "no rows in an index record"
depth=$(count '"type":"depth"' "$out")
[ "$depth" -ge 200 ] || fail "only $depth depth records"
grep -q '"type":"query_end","request":[0-9]*,"count":120}' "$out" || fail "the query for all exchanges was not answered in full"
for exchange in SHFE DCE CZCE CFFEX; do
    [ "$(count "\"type\":\"instrument\".*\"exchange\":\"$exchange\"" "$out")" -gt 0 ] || fail "no $exchange instrument"
done
# Contract fields from the file server: the price tick and the last trading day.
grep -q '"instrument":"cu[0-9]*".*"number13":10,.*"text5":"2[0-9]\{7\}"' "$out" || fail "no contract fields in the answers"
# Status reports: login, trading, closed, auction.
for s in '\*' 2 6 4; do
    grep -q "\"type\":\"status\",\"exchange\":\"SHFE\",\"status\":\"$s\"" "$out" || fail "no SHFE status $s"
done
days=$(grep -o '"type":"depth".*"trading_day":"[0-9]*"' "$out" | grep -o '"trading_day":"[0-9]*"' | sort -u | wc -l)
[ "$days" -ge 2 ] || fail "no quotes of the new trading day"
[ "$(count '"type":"lost"' "$out")" -eq 1 ] || fail "unexpected disconnects"
[ -f run1/cache/shfe_base_"$(grep -m1 -o '"trading_day":"[0-9]*"' "$out" | tr -dc 0-9)".json ] ||
    fail "no contract file in the cache"
ls run1/flow/qxsf_*.log >/dev/null || fail "no file-service log in the flow directory"

# ---- run 2: results ----
wait "$run2"
rc=$(cat run2/rc)
[ "$rc" -eq 0 ] || { cat run2/err.txt; fail "md-console (run 2) exited with $rc"; }
grep -q '^Subscribe=1' run2/OrvexWiraMdApi.def || fail "no configuration written"
rows=$(($(wc -l <run2/out.csv) - 1))
[ "$rows" -ge 20 ] || fail "only $rows subscribed records"
others=$(tail -n +2 run2/out.csv | awk -F, -v c="$code" '!($2 == "CFFEX" || ($1 == c && $2 == "SHFE"))' | wc -l)
[ "$others" -eq 0 ] || fail "$others records outside the subscriptions"
grep -q "^$code,SHFE," run2/out.csv || fail "nothing of $code"
# The two queries: one for an exchange nobody serves, one answered from the
# name tables (no file front here).
grep -q "query #[0-9]* failed: 1 合约查询找不到指定市场" run2/err.txt || fail "no error answer for NOPE"
grep -q "query #[0-9]* answered: [0-9]* instruments (CFFEX [0-9]*)" run2/err.txt || fail "no answer for CFFEX"

# ---- the simulators stop cleanly ----
stop_sim sima TERM
stop_sim simb INT
pids=()
echo "ok: $depth depth records, $rows subscribed records"
