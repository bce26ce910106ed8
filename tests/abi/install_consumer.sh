#!/bin/sh
# Installs the built library into a scratch prefix and builds and runs a
# small application against the installed headers and library alone.
set -eu
build="$1"; cxx="$2"; src="$3"; flags="${4:-}"
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir="$prefix/lib"
[ -d "$libdir" ] || libdir="$(dirname "$(find "$prefix" -name 'libOrvexMdUserApi.so' | head -n1)")"
# shellcheck disable=SC2086
"$cxx" -std=c++17 $flags -I"$prefix/include/orvex" "$src" -o "$prefix/consumer" -L"$libdir" -lOrvexMdUserApi -lpthread
cd "$prefix"
LD_LIBRARY_PATH="$libdir" "$prefix/consumer"
