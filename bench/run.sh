#!/usr/bin/env bash
# Runs the benchmarks against a build directory:
#   bench/run.sh BUILD_DIR [--smoke] [ldap|kerberos|threads]...
# --smoke runs every benchmark at small sizes, in well under a minute: it
# shows that they all still work (CI runs it); its figures mean little.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
usage() { echo "usage: bench/run.sh BUILD_DIR [--smoke] [ldap|kerberos|threads]..." >&2; exit 2; }
build=${1:-}
[ -n "$build" ] || usage
shift
smoke=0
areas=()
for arg in "$@"; do
    case $arg in
        --smoke) smoke=1 ;;
        ldap | kerberos | threads) areas+=("$arg") ;;
        *) usage ;;
    esac
done
[ ${#areas[@]} -gt 0 ] || areas=(ldap kerberos threads)
for area in "${areas[@]}"; do
    echo "== $area"
    if [ $smoke = 0 ]; then
        bash "$here/$area/run.sh" "$build"
    elif [ "$area" = ldap ]; then
        RUNS=1 bash "$here/ldap/run.sh" "$build" 1000
    elif [ "$area" = threads ]; then
        bash "$here/threads/run.sh" "$build" 200 40
    else
        bash "$here/kerberos/run.sh" "$build" 200 20 1000
    fi
done
