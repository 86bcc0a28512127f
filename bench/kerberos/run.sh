#!/usr/bin/env bash
# Kerberos benchmarks against a throwaway realm of their own:
#   bash bench/kerberos/run.sh [BUILD_DIR] [tokens] [logins]
# Builds the two programs if needed, starts the realm in a temporary
# directory, runs the acceptor comparison and the login rate, stops the realm.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build}
tokens=${2:-2000}
logins=${3:-300}

if [ ! -x "$build/bench/kerberos/bench_krb_acceptor" ] || [ ! -x "$build/bench/kerberos/bench_krb_authorize" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target bench_krb_acceptor bench_krb_authorize >/dev/null
fi

realm=$(mktemp -d /tmp/zmauth-bench-realm.XXXXXX)
rmdir "$realm"
trap 'bash "$root/tests/realm/realm.sh" stop "$realm" >/dev/null 2>&1 || true; rm -rf "$realm"' EXIT
bash "$root/tests/realm/realm.sh" start "$realm" >/dev/null

"$build/bench/kerberos/bench_krb_acceptor" "$realm" "$tokens" 5
"$build/bench/kerberos/bench_krb_authorize" "$realm" "$logins"
