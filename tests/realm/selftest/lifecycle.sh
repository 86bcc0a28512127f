#!/bin/bash
# Two realms in two directories at once, bulk loading, the size limit, and a
# stop that leaves no process behind and the directory removable.
. "$(dirname "$0")/lib.sh"

A=$SCRATCH/a
B=$SCRATCH/b
cleanup_hook() { bash "$REALM_SH" stop "$A" >/dev/null 2>&1; bash "$REALM_SH" stop "$B" >/dev/null 2>&1; }

# Started at the same moment, so that both choose their ports together. How
# long each took goes to the log only: a busy machine is slower, not wrong.
start_logged() {
    local dir=$1 t0
    shift
    t0=$(date +%s%3N)
    bash "$REALM_SH" start "$dir" "$@" >"$dir.log" 2>&1
    echo "$? $(($(date +%s%3N) - t0))" >"$dir.result"
}
start_logged "$A" --bulk 1500 --sizelimit 1000 &
start_logged "$B" &
wait
cat "$A.log" "$B.log"
read -r rc_a ms_a <"$A.result"
read -r rc_b ms_b <"$B.result"
echo "realm A (1500 bulk users) started in $ms_a ms, realm B in $ms_b ms"
expect_eq "realm A started" "$rc_a" 0
expect_eq "realm B started" "$rc_b" 0
[ "$rc_a$rc_b" = 00 ] || finish

(load_realm_env "$A"; declare -p | grep -E ' (KDC_PORT|LDAP_PORT|LDAP_URI|KDC_PID|SLAPD_PID|KRB5_CONFIG|USER_NAME|USER_PASSWORD|BASE_DN|BULK_DN|SIZE_LIMIT|BULK_USERS)=' | sed 's/^declare -x /A_/') >"$SCRATCH/a.env"
(load_realm_env "$B"; declare -p | grep -E ' (KDC_PORT|LDAP_PORT|LDAP_URI|KDC_PID|SLAPD_PID|KRB5_CONFIG|USER_NAME|USER_PASSWORD|BASE_DN|BULK_DN|SIZE_LIMIT|BULK_USERS)=' | sed 's/^declare -x /B_/') >"$SCRATCH/b.env"
. "$SCRATCH/a.env"
. "$SCRATCH/b.env"

expect_eq "four distinct ports" "$(printf '%s\n' "$A_KDC_PORT" "$A_LDAP_PORT" "$B_KDC_PORT" "$B_LDAP_PORT" | sort -u | wc -l)" 4
expect_eq "realm A: size limit and bulk count" "$A_SIZE_LIMIT $A_BULK_USERS" "1000 1500"
expect_eq "realm B: defaults" "$B_SIZE_LIMIT $B_BULK_USERS" "unlimited 0"
for p in "$A_KDC_PID" "$A_SLAPD_PID" "$B_KDC_PID" "$B_SLAPD_PID"; do
    alive "$p" && pass "process $p runs" || fail "process $p is not running"
done
expect_eq "realm.pids of A names realm.env's PIDs" "$(awk '{ print $2 }' "$A/realm.pids" | xargs)" "$A_KDC_PID $A_SLAPD_PID"

DEFAULT_FILTER='(&(objectClass=user)(objectCategory=person))'
expect_rc "A: the default filter over 1507 users stops at the size limit (4)" 4 \
    ldapsearch -x -LLL -H "$A_LDAP_URI" -b "$A_BASE_DN" "$DEFAULT_FILTER" 1.1
expect_eq "A: 1000 entries came before the limit" "$(grep -c '^dn' "$SCRATCH/out")" 1000
expect_rc "A: one level of ou=bulk with the admin identity (no limit)" 0 \
    ldapsearch -x -LLL -H "$A_LDAP_URI" -D "cn=admin,$A_BASE_DN" -w admin-secret -b "$A_BULK_DN" -s one "$DEFAULT_FILTER" \
    sAMAccountName cn sn givenName displayName mail userPrincipalName description telephoneNumber objectGUID
expect_eq "A: ou=bulk holds 1500 users" "$(grep -c '^dn' "$SCRATCH/out")" 1500
expect_eq "A: every bulk user has the ten attributes" \
    "$(grep -cE '^(sAMAccountName|cn|sn|givenName|displayName|mail|userPrincipalName|description|telephoneNumber|objectGUID):' "$SCRATCH/out")" 15000
expect_eq "A: bulk logins are unique" "$(attr_values sAMAccountName <"$SCRATCH/out" | sort -u | wc -l)" 1500
expect_eq "A: bulk cn values have three words" \
    "$(attr_values cn <"$SCRATCH/out" | awk 'NF == 3' | wc -l)" 1500
expect_rc "B: the default filter answers all" 0 ldapsearch -x -LLL -H "$B_LDAP_URI" -b "$B_BASE_DN" "$DEFAULT_FILTER" 1.1
expect_eq "B: the fixed users only" "$(grep -c '^dn' "$SCRATCH/out")" 7

# Each realm has its own KDC and keys: a ticket of A is no use to B's slapd.
export KRB5CCNAME=FILE:$SCRATCH/ccache-a
expect_rc "kinit in A" 0 env KRB5_CONFIG="$A_KRB5_CONFIG" kinit "$A_USER_NAME" <<<"$A_USER_PASSWORD"
expect_rc "GSSAPI to A with A's ticket" 0 env KRB5_CONFIG="$A_KRB5_CONFIG" ldapwhoami -Q -Y GSSAPI -H "$A_LDAP_URI"
expect_rc "GSSAPI to B with A's ticket is refused (49)" 49 env KRB5_CONFIG="$A_KRB5_CONFIG" ldapwhoami -Q -Y GSSAPI -H "$B_LDAP_URI"
export KRB5CCNAME=FILE:$SCRATCH/ccache-b
expect_rc "kinit in B" 0 env KRB5_CONFIG="$B_KRB5_CONFIG" kinit "$B_USER_NAME" <<<"$B_USER_PASSWORD"
expect_rc "GSSAPI to B with B's ticket" 0 env KRB5_CONFIG="$B_KRB5_CONFIG" ldapwhoami -Q -Y GSSAPI -H "$B_LDAP_URI"

# A KDC that comes up on a port another KDC holds (both bind with address
# reuse, so neither fails) is noticed, and the start moves to other ports.
C=$SCRATCH/c
cleanup_hook() { for d in "$A" "$B" "$C"; do bash "$REALM_SH" stop "$d" >/dev/null 2>&1; done; }
expect_rc "start C on A's busy KDC port" 0 env ZMAUTH_REALM_FIRST_PORTS="$A_KDC_PORT $A_LDAP_PORT" bash "$REALM_SH" start "$C"
grep -q "attempt 1 on ports $A_KDC_PORT/$A_LDAP_PORT failed" "$SCRATCH/err" &&
    pass "the first attempt on A's ports was refused" || fail "no refused first attempt: $(cat "$SCRATCH/err")"
C_KDC_PORT=$(. "$C/realm.env"; echo "$KDC_PORT")
C_LDAP_PORT=$(. "$C/realm.env"; echo "$LDAP_PORT")
[ "$C_KDC_PORT" != "$A_KDC_PORT" ] && [ "$C_LDAP_PORT" != "$A_LDAP_PORT" ] &&
    pass "C runs on ports of its own" || fail "C shares A's ports"
expect_rc "kinit in A still answered by A's KDC" 0 env KRB5_CONFIG="$A_KRB5_CONFIG" KRB5CCNAME="FILE:$SCRATCH/ccache-a2" kinit "$A_USER_NAME" <<<"$A_USER_PASSWORD"
expect_rc "stop C" 0 bash "$REALM_SH" stop "$C"
expect_eq "no process names C's directory" "$(processes_of "$C")" ''

# Stop A; B goes on.
expect_rc "stop A" 0 bash "$REALM_SH" stop "$A"
for p in "$A_KDC_PID" "$A_SLAPD_PID"; do
    alive "$p" && fail "process $p of A still runs after stop" || pass "process $p of A ended"
done
expect_eq "no process names A's directory" "$(processes_of "$A")" ''
expect_rc "stop A again does nothing and succeeds" 0 bash "$REALM_SH" stop "$A"
expect_rc "B still answers" 0 ldapwhoami -x -H "$B_LDAP_URI"
alive "$B_KDC_PID" && pass "B's KDC still runs" || fail "B's KDC ended with A"

# A realm directory is started again in place; something else is not touched.
expect_rc "restart B in its directory" 0 bash "$REALM_SH" start "$B"
for p in "$B_KDC_PID" "$B_SLAPD_PID"; do
    alive "$p" && fail "old process $p of B survived the restart" || pass "old process $p of B ended"
done
expect_rc "the restarted B answers" 0 ldapwhoami -x -H "$(. "$B/realm.env"; echo "$LDAP_URI")"
mkdir "$SCRATCH/other" && echo keep >"$SCRATCH/other/file"
expect_rc "start refuses a directory that is not a realm's" 1 bash "$REALM_SH" start "$SCRATCH/other"
expect_eq "and leaves it alone" "$(cat "$SCRATCH/other/file")" keep

expect_rc "stop B" 0 bash "$REALM_SH" stop "$B"
expect_eq "no process names B's directory" "$(processes_of "$B")" ''
expect_rc "A's directory is removable" 0 rm -r "$A"
expect_rc "B's directory is removable" 0 rm -r "$B"
expect_rc "stop of a removed directory succeeds" 0 bash "$REALM_SH" stop "$A"

finish
