#!/usr/bin/env bash
# Runs the benchmarks against a build directory: bench/run.sh BUILD_DIR [ldap|kerberos]...
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=${1:?usage: bench/run.sh BUILD_DIR [ldap|kerberos]...}
shift
areas=("$@")
[ ${#areas[@]} -eq 0 ] && areas=(ldap kerberos)
for area in "${areas[@]}"; do
    echo "== $area"
    bash "$here/$area/run.sh" "$build"
done
