#!/usr/bin/env bash
# Runs one test program, under valgrind memcheck when ZMAUTH_VALGRIND is set
# (bash tools/run.sh test --valgrind), natively otherwise.
#
# Our own child processes (the zmauth tool) are checked too; programs of the
# system (slapd, krb5kdc, kinit, bash and the realm script's tools) run natively.
# Each process writes its report to ZMAUTH_VALGRIND_LOGS/<program>.<pid>.log,
# not to standard error, which some tests read; the report ends with its
# "ERROR SUMMARY" line (definite leaks count as errors).
set -euo pipefail
if [ -z "${ZMAUTH_VALGRIND:-}" ]; then
    exec "$@"
fi
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
logs=${ZMAUTH_VALGRIND_LOGS:-${TMPDIR:-/tmp}}
suppressions=(--suppressions="$here/valgrind.supp")
# A test may add its own (ZMAUTH_VALGRIND_SUPPRESSIONS, set by its CMake file).
if [ -n "${ZMAUTH_VALGRIND_SUPPRESSIONS:-}" ]; then
    suppressions+=(--suppressions="$ZMAUTH_VALGRIND_SUPPRESSIONS")
fi
# Qt's regular expressions run as code that PCRE2 compiles at run time, in
# which memcheck cannot follow what is defined and reports branches on
# uninitialised values that are not there; Qt's interpreter gives the same
# matches and is checked like any other code.
export QT_ENABLE_REGEXP_JIT=0
# nouserintercepts: a test program that defines its own operator new[] (to
# fail an allocation on demand) keeps it; memcheck still sees the malloc and
# free underneath.
exec valgrind --tool=memcheck \
    --error-exitcode=99 \
    --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
    --num-callers=40 \
    --trace-children=yes --trace-children-skip='/usr/*,/bin/*,/sbin/*,/lib/*,/lib64/*' \
    --soname-synonyms=somalloc=nouserintercepts \
    "${suppressions[@]}" \
    --log-file="$logs/$(basename "$1").%p.log" \
    "$@"
