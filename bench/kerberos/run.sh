#!/usr/bin/env bash
# Kerberos benchmarks against a throwaway realm of their own:
#   bash bench/kerberos/run.sh [BUILD_DIR] [tokens] [logins] [memory-tokens]
# (defaults: build, 2000, 300, 10000). Builds the programs if needed, starts
# the realm in a temporary directory, runs the acceptor comparison, the login
# rate and the acceptor's memory per token, stops the realm.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build}
tokens=${2:-2000}
logins=${3:-300}
memory_tokens=${4:-10000}
programs=(bench_krb_acceptor bench_krb_authorize bench_krb_acceptor_memory)

for p in "${programs[@]}"; do
    if [ ! -x "$build/bench/kerberos/$p" ]; then
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
        cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target "${programs[@]}" >/dev/null
        break
    fi
done

realm=$(mktemp -d /tmp/zmauth-bench-realm.XXXXXX)
rmdir "$realm"
trap 'bash "$root/tests/realm/realm.sh" stop "$realm" >/dev/null 2>&1 || true; rm -rf "$realm"' EXIT
bash "$root/tests/realm/realm.sh" start "$realm" >/dev/null

"$build/bench/kerberos/bench_krb_acceptor" "$realm" "$tokens" 5
"$build/bench/kerberos/bench_krb_authorize" "$realm" "$logins"

# Peak resident set after 100 accepted tokens and after memory-tokens, each
# kind in a process of its own (a peak never goes down).
echo "acceptor memory: peak resident set after 100 and after $memory_tokens accepted tokens, replay cache none"
for mode in library reference; do
    line=$("$build/bench/kerberos/bench_krb_acceptor_memory" "$realm" "$mode" "$memory_tokens" 100)
    read -r _ _ _ first all per_token <<<"$line"
    case $mode in
        library) what="Service::acceptNew (keeps every context)" ;;
        reference) what="gss_accept_sec_context, context deleted" ;;
    esac
    awk -v w="$what" -v f="$first" -v a="$all" -v b="$per_token" \
        'BEGIN { printf "  %-42s %6.1f MiB -> %6.1f MiB  %6d bytes/token\n", w, f / 1024, a / 1024, b }'
done
