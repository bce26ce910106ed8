#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) in build-fuzz/ and
# fuzzes each one in turn, starting from a copy of its seed corpus.
#
#   scripts/fuzz.sh [seconds-per-target] [target...]
#
# seconds-per-target defaults to 60; targets are names like decoder or
# decoder_fuzz (default: all of fuzz/*_fuzz.cpp). Each run keeps its corpus,
# log and reproducers under build-fuzz/fuzz-runs/<target>/. Exits non-zero
# when any target crashed, leaked, timed out or ran out of memory.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-60}"
if [ "$#" -gt 0 ]; then shift; fi
case "$seconds" in
  ''|*[!0-9]*) echo "usage: $0 [seconds-per-target] [target...]" >&2; exit 2 ;;
esac

if ! command -v clang++ >/dev/null 2>&1 || ! compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a" >/dev/null; then
  "$root/scripts/setup.sh" --fuzz
else
  "$root/scripts/setup.sh"
fi

build="${BUILD_DIR:-$root/build-fuzz}"
cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DORVEX_FUZZ=ON -DORVEX_BUILD_TESTS=OFF >/dev/null

targets=()
if [ "$#" -gt 0 ]; then
  for t in "$@"; do targets+=("${t%_fuzz}_fuzz"); done
else
  for f in "$root"/fuzz/*_fuzz.cpp; do
    n="$(basename "$f" .cpp)"
    targets+=("$n")
  done
fi
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

runs="$build/fuzz-runs"
failed=()
for t in "${targets[@]}"; do
  name="${t%_fuzz}"
  work="$runs/$name"
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp "$root/fuzz/corpus/$name/"* "$work/corpus/" 2>/dev/null || true
  echo "== $t: ${seconds}s"
  set +e
  "$build/fuzz/$t" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 -close_fd_mask=1 \
    -artifact_prefix="$work/artifacts/" "$work/corpus" >"$work/log" 2>&1
  rc=$?
  set -e
  grep -E '^#[0-9]+.*DONE|^stat::(number_of_executed_units|new_units_added|peak_rss_mb)' "$work/log" || true
  if [ "$rc" -ne 0 ] || compgen -G "$work/artifacts/*" >/dev/null; then
    echo "!! $t failed (exit $rc); log: $work/log"
    ls "$work/artifacts" || true
    grep -m1 -E 'ERROR: |runtime error|SUMMARY' "$work/log" || true
    failed+=("$t")
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "crashed: ${failed[*]}"
  exit 1
fi
echo "no crash in: ${targets[*]}"
