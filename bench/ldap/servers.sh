#!/usr/bin/env bash
# connect() plus checkADUser through DNS discovery and past a dead first
# server, against the test domain (tests/ad/ad.sh; needs root):
#
#   bash bench/ldap/servers.sh BUILD_DIR [ROUNDS]      (default 20; TIMEOUT=1)
#
# Side by side, in one run: "PT_HOST" fixed to the DC's name; "PT_DOMAIN"
# (the SRV look-up, at every connect()); a failover list whose first entry is
# an address of the domain's network where nothing answers, each round in a
# fresh process (the dead server costs a timeout), and the same in one
# process (after its first failure it is remembered and tried last).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:?usage: bench/ldap/servers.sh BUILD_DIR [ROUNDS]}" && pwd)
rounds=${2:-20}
export TIMEOUT=${TIMEOUT:-1}
program=$build/bench/ldap/bench_ldap_servers
[ -x "$program" ] || cmake --build "$build" --target bench_ldap_servers >/dev/null

dir=$(mktemp -d "${TMPDIR:-/tmp}/zmauth-bench-servers.XXXXXX")
cleanup() { bash "$root/tests/ad/ad.sh" stop "$dir/ad" >/dev/null 2>&1 || true; rm -rf "$dir"; }
trap cleanup EXIT
bash "$root/tests/ad/ad.sh" start "$dir/ad" >"$dir/start.log" 2>&1 || { cat "$dir/start.log" >&2; exit 1; }

# Runs inside the domain's namespace with alice's ticket.
cat >"$dir/inside.sh" <<INSIDE
set -euo pipefail
export KRB5CCNAME=FILE:\$AD_CCACHE_DIR/bench-servers
kinit "\$AD_USER_NAME" <<<"\$AD_USER_PASSWORD" >/dev/null
"$program" fixed 1 >/dev/null                       # warm the DC and the ticket cache
"$program" fixed $rounds >"$dir/fixed"
"$program" discovery $rounds >"$dir/discovery"
: >"$dir/dead-fresh"
for i in \$(seq $rounds); do "$program" dead-first 1 >>"$dir/dead-fresh"; done
"$program" dead-first $rounds >"$dir/dead-remembered"
INSIDE
bash "$root/tests/ad/in-ns.sh" "$dir/ad" bash "$dir/inside.sh"

# "fastest median slowest" in ms.
stats() { sort -n "$1" | awk '{v[NR]=$1} END {printf "%.1f %.1f %.1f\n", v[1], (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2), v[NR]}'; }
stats_tail() { tail -n +2 "$1" | sort -n | awk '{v[NR]=$1} END {printf "%.1f %.1f %.1f\n", v[1], (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2), v[NR]}'; }
printf '| how the DC is reached | rounds | fastest ms | median ms | slowest ms |\n|---|---|---|---|---|\n'
read -r a b c < <(stats "$dir/fixed");           printf '| PT_HOST fixed | %s | %s | %s | %s |\n' "$rounds" "$a" "$b" "$c"
read -r a b c < <(stats "$dir/discovery");       printf '| PT_DOMAIN (SRV look-up) | %s | %s | %s | %s |\n' "$rounds" "$a" "$b" "$c"
read -r a b c < <(stats "$dir/dead-fresh");      printf '| dead first, fresh process (timeout %s s) | %s | %s | %s | %s |\n' "$TIMEOUT" "$rounds" "$a" "$b" "$c"
read -r a b c < <(stats_tail "$dir/dead-remembered"); printf '| dead first, remembered (rounds 2..) | %s | %s | %s | %s |\n' "$((rounds - 1))" "$a" "$b" "$c"
