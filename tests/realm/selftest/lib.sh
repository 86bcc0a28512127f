# Helpers of the realm's own tests: exact checks that count failures.
set -uo pipefail
export LC_ALL=C.UTF-8 LDAPNOINIT=1
export PATH="$PATH:/usr/sbin:/usr/bin:/sbin:/bin"

REALM_SH=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/realm.sh
FAILURES=0
CHECKS=0

fail() { echo "FAIL: $*" >&2; FAILURES=$((FAILURES + 1)); }
pass() { echo "ok: $*"; }

# expect_eq WHAT ACTUAL EXPECTED
expect_eq() {
    CHECKS=$((CHECKS + 1))
    if [ "$2" == "$3" ]; then pass "$1"; else fail "$1: got [$2], expected [$3]"; fi
}

# expect_rc WHAT RC COMMAND...: the command's exit status is RC.
expect_rc() {
    local what=$1 want=$2 got
    shift 2
    CHECKS=$((CHECKS + 1))
    "$@" >"$SCRATCH/out" 2>"$SCRATCH/err"
    got=$?
    if [ "$got" = "$want" ]; then pass "$what"; else
        fail "$what: exit status $got, expected $want: $(head -c 600 "$SCRATCH/err")"
    fi
}

# The sources of realm.env, exported.
load_realm_env() {
    local dir=$1
    [ -r "$dir/realm.env" ] || { echo "no realm in $dir" >&2; exit 1; }
    set -a
    # shellcheck disable=SC1091
    . "$dir/realm.env"
    set +a
}

# Values of one attribute in ldapsearch -LLL output (stdin), base64 decoded,
# one per line.
attr_values() {
    local name=$1 line
    # Unfold continuation lines first.
    sed -e ':a' -e '$!N' -e 's/\n //' -e 'ta' -e 'P' -e 'D' | while IFS= read -r line; do
        case $line in
        "$name: "*) printf '%s\n' "${line#"$name: "}" ;;
        "$name:: "*) printf '%s' "${line#"$name:: "}" | base64 -d; echo ;;
        esac
    done
}

# True when PID is a live process (a zombie counts as ended).
alive() {
    local state
    [ -r "/proc/$1/stat" ] || return 1
    state=$(sed -e 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)
    [ -n "$state" ] && [ "$state" != Z ]
}

# PIDs of live processes whose command line names DIR.
processes_of() {
    local dir=$1 p cmd
    for p in /proc/[0-9]*; do
        p=${p#/proc/}
        [ "$p" != $$ ] && [ "$p" != "$BASHPID" ] || continue
        cmd=$(tr '\0' ' ' 2>/dev/null <"/proc/$p/cmdline") || continue
        [[ $cmd == *"$dir/"* ]] || continue
        alive "$p" && echo "$p"
    done
}

SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/zmauth-realm-test.XXXXXX")
# A test that starts realms of its own redefines cleanup_hook to stop them.
cleanup_hook() { :; }
trap 'cleanup_hook; rm -rf "$SCRATCH"' EXIT

finish() {
    echo "$CHECKS checks, $FAILURES failed"
    [ "$FAILURES" -eq 0 ] && [ "$CHECKS" -gt 0 ]
    exit $?
}
