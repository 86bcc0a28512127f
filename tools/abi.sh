#!/usr/bin/env bash
# The ABI gate: writes the ABI of BUILD_DIR's libzmauth.so.1 with abidw,
# restricted to the types of the installed headers (include/ and the shared
# system header in common/), and compares it with the committed baseline
# abi/libzmauth.so.1.abi with abidiff. Any change fails except added
# functions (abi/added-functions.abignore).
#
#   bash tools/abi.sh BUILD_DIR            compare (tools/run.sh abi builds build/ first)
#   bash tools/abi.sh BUILD_DIR --update   write the baseline anew
#
# The baseline comes from tools/run.sh's RelWithDebInfo build with Debian 12's
# g++; a deliberate change of the ABI updates it in the same commit, whose
# message says why.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ $# -lt 1 ] || [ $# -gt 2 ] || { [ $# -eq 2 ] && [ "$2" != --update ]; }; then
    sed -n '2,10p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
    exit 2
fi
build=$(cd "$1" && pwd)
lib="$build/libzmauth.so.1"
baseline="$root/abi/libzmauth.so.1.abi"
suppressions="$root/abi/added-functions.abignore"
current="$build/abi/libzmauth.so.1.abi"

if [ ! -e "$lib" ]; then
    echo "abi.sh: no $lib; build the library first" >&2
    exit 2
fi
mkdir -p "$build/abi"
# No paths, locations or build directory in the output, so that the same
# sources give the same file wherever the tree is.
abidw --headers-dir "$root/include" --headers-dir "$root/common" --drop-private-types \
    --no-show-locs --no-corpus-path --no-comp-dir-path \
    --out-file "$current" "$lib"
# The translation units keep their names relative to the tree, not where
# this clone happens to lie.
sed -i -E "s|path='[^']*/(src/[^']*)'|path='\\1'|" "$current"

if [ "${2:-}" = --update ]; then
    cp "$current" "$baseline"
    echo "abi: baseline written to abi/libzmauth.so.1.abi; commit it and say why in the message"
    exit 0
fi

# abidiff's exit status is a bit field: 1 error, 2 usage error, 4 the ABI
# changed, 8 the change is incompatible. Without the default suppression
# files, so that nothing on the machine or in the home directory changes
# what the gate lets through.
status=0
report=$(abidiff --no-default-suppression --suppressions "$suppressions" "$baseline" "$current") || status=$?
if [ $((status & 3)) -ne 0 ]; then
    echo "$report"
    echo "abi: abidiff failed (exit status $status)" >&2
    exit 1
fi
if [ $((status & 12)) -ne 0 ]; then
    echo "$report"
    kind="changed"
    [ $((status & 8)) -ne 0 ] && kind="changed incompatibly"
    echo "abi: the ABI of libzmauth.so.1 $kind against abi/libzmauth.so.1.abi (abidiff exit status $status)." >&2
    echo "abi: if the change is deliberate, run 'bash tools/run.sh abi --update' and commit the baseline with the reason." >&2
    exit 1
fi
# Only added functions, if anything: say which.
added=$(abidiff --no-default-suppression "$baseline" "$current" || true)
if [ -n "$added" ]; then
    echo "$added"
fi
echo "abi: libzmauth.so.1 matches abi/libzmauth.so.1.abi (added functions allowed)"
