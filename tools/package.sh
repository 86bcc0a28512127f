#!/usr/bin/env bash
# Builds the Debian packages from a clean copy of the tree into build-deb/ and
# runs lintian on them; with --check, also installs them on this machine,
# builds and runs the consumer program against /usr, and purges them again.
#
#   bash tools/package.sh [--check]      (tools/run.sh package installs the tools first)
#
# Exit status 0 when the packages built, lintian found no error or warning
# and, with --check, everything installed, built and ran.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out="$root/build-deb"
check=0
case "${1:-}" in
    "") ;;
    --check) check=1 ;;
    *) echo "usage: $0 [--check]" >&2; exit 2 ;;
esac

work=$(mktemp -d "${TMPDIR:-/tmp}/zmauth-deb.XXXXXX")
cleanup_work() { rm -rf "$work"; }
trap cleanup_work EXIT

# dpkg-buildpackage writes next to the source tree, and the tree's own build
# directories must not leak into the package build: a copy without them.
mkdir "$work/src"
tar -C "$root" --anchored --exclude=./.git --exclude='./build*' --exclude='./_*' -cf - . |
    tar -C "$work/src" -xf -

echo "== dpkg-buildpackage"
(
    cd "$work/src"
    DEB_BUILD_OPTIONS="parallel=$(nproc 2>/dev/null || echo 2) ${DEB_BUILD_OPTIONS:-}" \
        dpkg-buildpackage -us -uc -b
) >"$work/build.log" 2>&1 || { tail -n 80 "$work/build.log" >&2; echo "dpkg-buildpackage failed (log above)" >&2; exit 1; }
# What dpkg-gensymbols says of symbols added since the symbols file.
grep -A40 '^dpkg-gensymbols: warning' "$work/build.log" || true

rm -rf "$out"
mkdir -p "$out"
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$out"/
ls -l "$out"

echo "== lintian"
lintian --fail-on error,warning "$out"/*.changes
echo "lintian: no errors, no warnings"

[ "$check" = 1 ] || exit 0

echo "== install"
mapfile -t ours < <(for deb in "$out"/*.deb; do dpkg-deb -f "$deb" Package; done)
# Everything apt is about to install anew (our packages and any dependency
# that is missing) is purged again afterwards, so the machine is left as it
# was, however this script ends.
mapfile -t added < <(apt-get install -s -y "$out"/*.deb | awk '$1 == "Inst" && $3 !~ /^\[/ { print $2 }')
for p in "${ours[@]}"; do
    if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        echo "note: $p was installed before (left by an interrupted check?); it is purged too"
        added+=("$p")
    fi
done
purge() {
    local status=$?
    echo "== purge: ${added[*]}"
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -q -o DPkg::Lock::Timeout=300 "${added[@]}" >"$work/purge.log" 2>&1 ||
        { cat "$work/purge.log" >&2; status=1; }
    for p in "${added[@]}"; do
        if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "installed"; then
            echo "still installed after purge: $p" >&2
            status=1
        fi
    done
    cleanup_work
    exit $status
}
trap purge EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
DEBIAN_FRONTEND=noninteractive apt-get install -y -q -o DPkg::Lock::Timeout=300 --no-install-recommends "$out"/*.deb

echo "== consumer against /usr"
bash "$root/tests/consumer/check.sh" /usr

echo "== zmauth version"
zmauth version
echo "== man -w zmauth"
man -w zmauth
echo "package check passed"
