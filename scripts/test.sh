#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite.
#   scripts/test.sh            normal build in build/
#   scripts/test.sh --asan     AddressSanitizer + UBSan build in build-asan/
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
args=()
build="$root/build"
if [ "${1:-}" = "--asan" ]; then
  args+=(-DORVEX_SANITIZE=ON)
  build="$root/build-asan"
fi
BUILD_DIR="$build" "$root/scripts/build.sh" "${args[@]}"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 300
