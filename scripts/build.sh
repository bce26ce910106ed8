#!/usr/bin/env bash
# Configures and builds into build/ (or the directory in BUILD_DIR).
# Extra arguments go to the CMake configure step, e.g. -DORVEX_SANITIZE=ON.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build}"
cmake -S "$root" -B "$build" "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
