#!/usr/bin/env bash
# The user listing's benchmark, in one command:
#
#   bash bench/ldap/run.sh BUILD_DIR [USERS...]      (default: 10000 100000)
#
# For each size it starts a throwaway realm whose slapd holds that many
# generated users (tests/realm/realm.sh --bulk), and measures on that one
# server, with the same base, filter and attributes:
#   ldapsearch   ldapsearch -LLL to /dev/null (streams; the reference point)
#   floor        bench_ldap_floor: one ldap_search_ext_s, then a walk of every
#                entry, attribute and value (the floor for this design)
#   getUserList  bench_ldap_userlist: ZMLDAP::getUserList with the mapping
#   paged        the same with PT_PAGE_SIZE 1000 (PAGE_SIZE=N to change it):
#                the paged listing, which streams
# Each is run once to warm the server, then RUNS times interleaved; the table
# shows the fastest and the median wall time and the median peak resident
# memory; the ratios are to the floor's fastest time and median memory.
# PROGRAMS="paged" (any of the four, blank-separated) runs only those.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:?usage: bench/ldap/run.sh BUILD_DIR [USERS...]}" && pwd)
shift
sizes=("$@")
[ ${#sizes[@]} -eq 0 ] && sizes=(10000 100000)
runs=${RUNS:-5}

floor=$build/bench/ldap/bench_ldap_floor
userlist=$build/bench/ldap/bench_ldap_userlist
[ -x "$floor" ] && [ -x "$userlist" ] || cmake --build "$build" --target bench_ldap_floor bench_ldap_userlist >/dev/null
command -v ldapsearch >/dev/null || { echo "ldapsearch is missing (ldap-utils)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "/usr/bin/time is missing (time)" >&2; exit 1; }

filter='(&(objectClass=user)(objectCategory=person))'
# Two mappings: the login, the three name fields and a few more ("typical"),
# and the same with two more fields that differ for every user ("wide").
declare -A attributes mapping
attributes[typical]="sAMAccountName cn mail title department"
mapping[typical]="sAMAccountName=PT_LOGIN|cn=PT_SURNAME PT_NAME PT_PATRONYMIC|mail=PT_EMAIL|title=JOB|department=DEPARTMENT"
attributes[wide]="${attributes[typical]} telephoneNumber employeeID"
mapping[wide]="${mapping[typical]}|telephoneNumber=PT_PHONE|employeeID=PT_WORKERNUM"

realm=
# Also the EXIT trap: it must end in success when there is nothing to stop,
# or set -e turns a finished run into a failed one.
cleanup() {
    if [ -n "$realm" ]; then
        bash "$root/tests/realm/realm.sh" stop "$realm" >/dev/null 2>&1 || true
        rm -rf "$realm"
        realm=
    fi
}
trap cleanup EXIT

# "seconds KiB" of one run; the program's own output goes to /dev/null.
measure() {
    local out
    out=$(mktemp)
    /usr/bin/time -o "$out" -f "%e %M" "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; cat "$out" >&2; rm -f "$out"; exit 1; }
    tail -1 "$out"
    rm -f "$out"
}

min() { sort -n | head -1; }
median() { sort -n | awk '{a[NR]=$1} END{print a[int((NR+1)/2)]}'; }

printf '%-8s %-8s %-12s %9s %9s %10s %9s %9s\n' users mapping program "wall s" "wall med" "peak MiB" "x wall" "x memory"
for users in "${sizes[@]}"; do
    realm=$(mktemp -d /tmp/zmauth-bench.XXXXXX)
    rmdir "$realm"
    bash "$root/tests/realm/realm.sh" start "$realm" --bulk "$users" >/dev/null
    # shellcheck disable=SC1091
    . "$realm/realm.env"
    for set in typical wide; do
        read -r -a attrs <<<"${attributes[$set]}"
        IFS='|' read -r -a pairs <<<"${mapping[$set]}"
        declare -A walls=() mems=()
        read -r -a commands <<<"${PROGRAMS:-ldapsearch floor getUserList paged}"
        run_one() {
            case $1 in
                ldapsearch) measure ldapsearch -x -LLL -H "$LDAP_URI" -b "$BULK_DN" "$filter" "${attrs[@]}" ;;
                floor) measure "$floor" "$LDAP_URI" "$BULK_DN" "$filter" "${attrs[@]}" ;;
                getUserList) QT_LOGGING_RULES='platform.lib.zmauth.ldap.debug=false' \
                    measure "$userlist" "$LDAP_HOST" "$LDAP_PORT" "$BULK_DN" "$filter" "${pairs[@]}" ;;
                paged) QT_LOGGING_RULES='platform.lib.zmauth.ldap.debug=false' PAGE_SIZE=${PAGE_SIZE:-1000} \
                    measure "$userlist" "$LDAP_HOST" "$LDAP_PORT" "$BULK_DN" "$filter" "${pairs[@]}" ;;
            esac
        }
        for c in "${commands[@]}"; do run_one "$c" >/dev/null; done
        for ((i = 0; i < runs; i++)); do
            for c in "${commands[@]}"; do
                # Not read from a process substitution: a failed run must end
                # the benchmark.
                out=$(run_one "$c")
                read -r s k <<<"$out"
                walls[$c]+="$s "
                mems[$c]+="$k "
            done
        done
        fw=$(tr ' ' '\n' <<<"${walls[floor]:-}" | grep . | min || true)
        fm=$(tr ' ' '\n' <<<"${mems[floor]:-}" | grep . | median || true)
        for c in "${commands[@]}"; do
            w=$(tr ' ' '\n' <<<"${walls[$c]}" | grep . | min)
            wm=$(tr ' ' '\n' <<<"${walls[$c]}" | grep . | median)
            m=$(tr ' ' '\n' <<<"${mems[$c]}" | grep . | median)
            # Without the floor in the run there are no ratios.
            awk -v u="$users" -v set="$set" -v c="$c" -v w="$w" -v wm="$wm" -v m="$m" -v fw="$fw" -v fm="$fm" \
                'BEGIN { printf "%-8s %-8s %-12s %9.2f %9.2f %10.1f", u, set, c, w, wm, m / 1024
                         if (fw > 0) printf " %9.2f %9.2f\n", w / fw, m / fm; else printf " %9s %9s\n", "-", "-" }'
        done
    done
    cleanup
done
