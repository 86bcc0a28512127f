#!/usr/bin/env bash
# Throughput by thread count against a throwaway realm of its own:
#   bash bench/threads/run.sh [BUILD_DIR] [tokens] [directory rounds]
# (defaults: build, 20000, 400 per thread count). Builds the program if needed,
# starts the realm in a temporary directory, runs it, stops the realm.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build}
tokens=${2:-20000}
rounds=${3:-400}

if [ ! -x "$build/bench/threads/bench_threads" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target bench_threads >/dev/null
fi

realm=$(mktemp -d /tmp/zmauth-bench-realm.XXXXXX)
rmdir "$realm"
trap 'bash "$root/tests/realm/realm.sh" stop "$realm" >/dev/null 2>&1 || true; rm -rf "$realm"' EXIT
bash "$root/tests/realm/realm.sh" start "$realm" >/dev/null
# The machine's ldap.conf must not change the sessions.
LDAPNOINIT=1 "$build/bench/threads/bench_threads" "$realm" "$tokens" "$rounds"
