#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs two
# applications outside the tree: one that finds it with
# find_package(OrvexMdUserApi), one that takes its flags from pkg-config.
#   package_consumers.sh <build dir> <application source dir> <c++ compiler> [flags] [link flags]
set -euo pipefail
build="$1"; src="$2"; cxx="$3"; cflags="${4:-}"; lflags="${5:-}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

libdir="$(dirname "$(find "$prefix" -name 'libOrvexMdUserApi.so' | head -n1)")"
[ -f "$libdir/cmake/OrvexMdUserApi/OrvexMdUserApiConfig.cmake" ] || { echo "no CMake package installed"; exit 1; }
[ -f "$libdir/pkgconfig/orvex-md.pc" ] || { echo "no pkg-config file installed"; exit 1; }

[ -f "$libdir/pkgconfig/orvex-md-replay.pc" ] || { echo "no pkg-config file of the replay library"; exit 1; }

# A journal to replay: md-record against the simulator for a second.
(cd "$work" && "$build/sim/qxdc-sim" --port 0 --file-port -1 --ready-file sim.ready --duration 5 --quiet >/dev/null 2>&1 &)
for _ in $(seq 50); do [ -f "$work/sim.ready" ] && break; sleep 0.1; done
port="$(sed -n 's/^quote_port=//p' "$work/sim.ready")"
(cd "$work" && "$build/tools/md-record" --front "tcp://127.0.0.1:$port" --journal "$work/journal" --duration 1 2>/dev/null)

# 1. CMake package.
cmake -S "$src" -B "$work/cmake-app" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_CXX_FLAGS="$cflags" -DCMAKE_EXE_LINKER_FLAGS="$lflags" >/dev/null
cmake --build "$work/cmake-app" >/dev/null
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/cmake-app/orvex_app" find_package)
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/cmake-app/orvex_replay_app" find_package "$work/journal")

# 2. pkg-config.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$(pkg-config --modversion orvex-md)" != "" ]
# shellcheck disable=SC2046,SC2086
"$cxx" -std=c++17 -Wall -Wextra $cflags $(pkg-config --cflags orvex-md) "$src/app.cpp" -o "$work/pc-app" \
       $(pkg-config --libs orvex-md) $lflags -pthread
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/pc-app" pkg-config)
"$cxx" -std=c++17 -Wall -Wextra $cflags $(pkg-config --cflags orvex-md-replay) "$src/replay_app.cpp" -o "$work/pc-replay-app" \
       $(pkg-config --libs orvex-md-replay) $lflags -pthread
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/pc-replay-app" pkg-config "$work/journal")
