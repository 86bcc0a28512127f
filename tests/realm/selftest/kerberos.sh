#!/bin/bash
# The KDC: passwords, pre-authentication, keytabs, UDP and TCP.
. "$(dirname "$0")/lib.sh"
load_realm_env "${ZMAUTH_REALM_DIR:?ZMAUTH_REALM_DIR is not set}"
export KRB5CCNAME=FILE:$SCRATCH/ccache

expect_rc "kinit alice with her password" 0 kinit "$USER_NAME" <<<"$USER_PASSWORD"
expect_eq "the cache holds alice's ticket-granting ticket" \
    "$(klist 2>/dev/null | sed -n 's/^Default principal: //p')" "$USER_NAME@$KRB5_REALM"
expect_rc "kinit alice with a wrong password fails" 1 kinit "$USER_NAME" <<<"${USER_PASSWORD}x"
grep -q 'Password incorrect' "$SCRATCH/err" && pass "wrong password: Password incorrect" ||
    fail "wrong password: $(cat "$SCRATCH/err")"
expect_rc "kinit bob" 0 kinit "$USER2_NAME" <<<"$USER2_PASSWORD"
expect_rc "kinit ivan with the Cyrillic password" 0 kinit "$CYR_USER_NAME" <<<"$CYR_USER_PASSWORD"
expect_rc "kinit ivan with the password's Latin look-alike fails" 1 kinit "$CYR_USER_NAME" <<<"Parol-Ivana-3"
expect_rc "kinit of an unknown principal fails" 1 kinit nobody <<<"x"
grep -q 'not found in Kerberos database' "$SCRATCH/err" && pass "unknown principal: not found" ||
    fail "unknown principal: $(cat "$SCRATCH/err")"

for u in "$USER_NAME" "$USER2_NAME" "$CYR_USER_NAME"; do
    expect_eq "$u needs pre-authentication" \
        "$(kadmin.local -r "$KRB5_REALM" -q "getprinc $u" 2>/dev/null | grep -c 'Attributes: REQUIRES_PRE_AUTH')" 1
done

principals() { klist -k "$1" 2>/dev/null | awk 'NR > 3 { print $2 }' | sort -u | tr '\n' ' '; }
expect_eq "SERVICE_KEYTAB holds only the service" "$(principals "$SERVICE_KEYTAB")" "$SERVICE_PRINCIPAL "
expect_eq "SSO_KEYTAB holds the service and the users" "$(principals "$SSO_KEYTAB")" \
    "$(printf '%s\n' "$SERVICE_PRINCIPAL" "$USER_NAME@$KRB5_REALM" "$USER2_NAME@$KRB5_REALM" "$CYR_USER_NAME@$KRB5_REALM" | sort | tr '\n' ' ')"
expect_eq "LDAP_KEYTAB holds the ldap principals" "$(principals "$LDAP_KEYTAB")" \
    "$(for p in $LDAP_PRINCIPALS; do echo "$p@$KRB5_REALM"; done | sort | tr '\n' ' ')"
short=$(hostname)
full=$(hostname -f 2>/dev/null || hostname)
expect_eq "LDAP_PRINCIPALS name localhost, 127.0.0.1 and this host" \
    "$LDAP_PRINCIPALS" \
    "$(printf '%s\n' ldap/localhost ldap/127.0.0.1 "ldap/${short,,}" "ldap/${full,,}" | awk '!seen[$0]++' | xargs)"

# The keytab keys are the password keys (the export did not re-key them).
expect_rc "kinit alice from SSO_KEYTAB" 0 kinit -k -t "$SSO_KEYTAB" "$USER_NAME"
expect_rc "kinit alice with her password still works" 0 kinit "$USER_NAME" <<<"$USER_PASSWORD"
expect_rc "service ticket for the service principal" 0 kvno "$SERVICE_PRINCIPAL"
expect_eq "the service ticket's kvno is the keytab's" \
    "$(kvno "$SERVICE_PRINCIPAL" 2>/dev/null | sed -n 's/.*kvno = //p')" \
    "$(klist -k "$SERVICE_KEYTAB" | awk 'NR > 3 { print $1; exit }')"
expect_rc "service ticket for HTTP@localhost by host-based name" 0 kvno -S HTTP localhost

# The KDC answers on TCP as well as UDP.
sed 's/udp_preference_limit = .*/udp_preference_limit = 1/' "$KRB5_CONFIG" >"$SCRATCH/tcp.conf"
expect_rc "kinit over TCP" 0 env KRB5_CONFIG="$SCRATCH/tcp.conf" KRB5_TRACE=/dev/stderr kinit "$USER_NAME" <<<"$USER_PASSWORD"
grep -q "Sending TCP request" "$SCRATCH/err" && pass "the request went by TCP" || fail "no TCP request in the trace"

finish
