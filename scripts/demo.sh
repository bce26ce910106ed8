#!/usr/bin/env bash
# Sets up, builds, and runs the main job.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/setup.sh"
BUILD_DIR="$root/build" "$root/scripts/build.sh"
"$root/build/tools/record-layout"
