#!/bin/bash
# Builds the consumer program against an installed libzmauth, once with
# find_package(zmauth) and once with pkg-config (zmauth.pc), and runs both;
# then runs the installed zmauth tool if it is there.
#
#   bash tests/consumer/check.sh INSTALL_PREFIX
#
# Exit status 0 when everything built and ran.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 INSTALL_PREFIX" >&2
    exit 2
fi
prefix=$(cd "$1" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/zmauth-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT

pcfile=$(find "$prefix" -path '*/pkgconfig/zmauth.pc' -print -quit)
if [ -z "$pcfile" ]; then
    echo "check.sh: no zmauth.pc under $prefix" >&2
    exit 1
fi
pcdir=$(dirname "$pcfile")

echo "== find_package(zmauth) from $prefix"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >"$work/cmake.log" 2>&1 \
    || { cat "$work/cmake.log" >&2; exit 1; }
cmake --build "$work/cmake" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log" >&2; exit 1; }
"$work/cmake/consumer"

echo "== pkg-config zmauth ($pcfile)"
export PKG_CONFIG_PATH="$pcdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
echo "   version $(pkg-config --modversion zmauth)"
libdir=$(pkg-config --variable=libdir zmauth)
# shellcheck disable=SC2046 # the flags are meant to be split
c++ -std=c++17 -o "$work/consumer-pc" "$here/main.cpp" $(pkg-config --cflags --libs zmauth) -Wl,-rpath,"$libdir"
"$work/consumer-pc"

if [ -x "$prefix/bin/zmauth" ]; then
    echo "== installed zmauth tool"
    "$prefix/bin/zmauth" version
    printf '' | "$prefix/bin/zmauth" hash --algorithm md5
fi
echo "consumer check passed"
