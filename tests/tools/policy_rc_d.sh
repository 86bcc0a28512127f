#!/bin/bash
# tools/run.sh keeps services from starting while it installs packages by
# putting a policy-rc.d in place. It removes the one it created on every way
# out (apt-get failing, success, a signal) and never touches one that was there
# before. apt-get, dpkg-query, id, cmake and ctest are stand-ins on PATH, and
# ZMAUTH_POLICY_RC_D points into a scratch directory: nothing is installed and
# the machine's own policy-rc.d is not looked at.
. "$(dirname "$0")/../realm/selftest/lib.sh"

RUN_SH=$(cd "$(dirname "$0")/../.." && pwd)/tools/run.sh
BIN=$SCRATCH/bin
LOG=$SCRATCH/log
POLICY=$SCRATCH/policy-rc.d
mkdir -p "$BIN" "$LOG"

# Every package is missing; the caller is root.
printf '#!/bin/sh\nexit 1\n' >"$BIN/dpkg-query"
printf '#!/bin/sh\n[ "$1" = -u ] && { echo 0; exit 0; }\nexec /usr/bin/id "$@"\n' >"$BIN/id"
printf '#!/bin/sh\necho "$(basename "$0") $*" >>"%s/tools"\nexit 0\n' "$LOG" >"$BIN/cmake"
cp "$BIN/cmake" "$BIN/ctest"
# apt-get as APT_MODE says: ok, fail-update, fail-install, or wait (install
# hangs until it is ended). install notes what policy-rc.d said meanwhile.
cat >"$BIN/apt-get" <<'SHIM'
#!/bin/bash
case $1 in
update) [ "$APT_MODE" != fail-update ] || exit 100 ;;
install)
    if [ -e "$ZMAUTH_POLICY_RC_D" ]; then cat "$ZMAUTH_POLICY_RC_D"; else echo absent; fi >"$LOG/policy-during-install"
    case $APT_MODE in
    fail-install) exit 100 ;;
    wait) echo $$ >"$LOG/apt-get.pid"; exec sleep 120 ;;
    esac
    ;;
esac
exit 0
SHIM
chmod 755 "$BIN"/*
export PATH="$BIN:$PATH" LOG ZMAUTH_POLICY_RC_D=$POLICY

run() { APT_MODE=$1 bash "$RUN_SH" test; }
during_install() { cat "$LOG/policy-during-install" 2>/dev/null; }
OURS=$'#!/bin/sh\nexit 101'

rm -f "$LOG"/*
expect_rc "apt-get install fails: run.sh fails" 100 run fail-install
expect_eq "while apt-get ran, services were refused" "$(during_install)" "$OURS"
[ -e "$POLICY" ] || [ -L "$POLICY" ] && fail "policy-rc.d left behind after a failed install" ||
    pass "no policy-rc.d left after a failed install"

rm -f "$LOG"/*
expect_rc "apt-get update fails: run.sh fails" 100 run fail-update
[ -e "$POLICY" ] && fail "policy-rc.d left behind after a failed update" || pass "no policy-rc.d left after a failed update"

rm -f "$LOG"/*
expect_rc "apt-get succeeds: run.sh test goes on" 0 run ok
expect_eq "while apt-get ran, services were refused" "$(during_install)" "$OURS"
[ -e "$POLICY" ] && fail "policy-rc.d left behind after an install" || pass "no policy-rc.d left after an install"
grep -q '^ctest ' "$LOG/tools" && pass "the tests ran after the install" || fail "no ctest after the install"

# Ended by a signal while apt-get runs, as Ctrl-C ends the foreground job.
# Started as a job of its own (set -m): a plain background command would
# ignore SIGINT.
for signal in TERM INT HUP; do
    rm -f "$LOG"/*
    set -m
    APT_MODE=wait bash "$RUN_SH" test >"$SCRATCH/out" 2>&1 &
    runner=$!
    set +m
    for ((i = 0; i < 600; i++)); do   # a hang guard only
        [ -s "$LOG/apt-get.pid" ] && break
        sleep 0.05
    done
    if [ -s "$LOG/apt-get.pid" ]; then
        expect_eq "$signal: policy-rc.d in place while apt-get runs" "$(cat "$POLICY")" "$OURS"
        kill -"$signal" "$runner" "$(cat "$LOG/apt-get.pid")"
        wait "$runner"
        rc=$?
        [ "$rc" -ne 0 ] && pass "$signal: run.sh ended with status $rc" || fail "$signal: run.sh ended with status 0"
        [ -e "$POLICY" ] && fail "$signal: policy-rc.d left behind" || pass "$signal: no policy-rc.d left"
    else
        kill "$runner" 2>/dev/null
        fail "$signal: apt-get never ran: $(cat "$SCRATCH/out")"
    fi
done

# A policy-rc.d that was there before stays as it was, whatever apt-get does.
printf '#!/bin/sh\n# the machine'"'"'s own\nexit 0\n' >"$POLICY"
chmod 700 "$POLICY"
before=$(stat -c '%i %a %s %Y' "$POLICY"; md5sum <"$POLICY")
for mode in fail-install fail-update ok; do
    rm -f "$LOG"/*
    run "$mode" >/dev/null 2>&1
    expect_eq "existing policy-rc.d untouched ($mode)" "$(stat -c '%i %a %s %Y' "$POLICY"; md5sum <"$POLICY")" "$before"
done
expect_eq "apt-get saw the existing policy-rc.d" "$(during_install)" "$(cat "$POLICY")"

finish
