#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
#   scripts/setup.sh --fuzz   also clang and its libFuzzer runtime
#                             (libclang-rt-dev: libclang-rt-14-dev on Debian 12)
set -euo pipefail

packages=(g++ cmake make zlib1g-dev rapidjson-dev libgtest-dev pkg-config
          python3 python3-dev pybind11-dev python3-numpy python3-pytest
          libsqlite3-dev sqlite3 python3-pandas
          redis-server libhiredis-dev python3-redis)
if [ "${1:-}" = "--fuzz" ]; then
  packages+=(clang libclang-rt-dev)
fi

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
for p in "${packages[@]}"; do
  have_pkg "$p" || need+=("$p")
done
if [ "${#need[@]}" -gt 0 ]; then
  echo "Installing: ${need[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${need[@]}"
fi
