#!/bin/bash
# Binds the way the library binds: anonymous, SASL DIGEST-MD5 with a user's
# login and password, SASL GSSAPI with a ticket and no client SASL option.
. "$(dirname "$0")/lib.sh"
load_realm_env "${ZMAUTH_REALM_DIR:?ZMAUTH_REALM_DIR is not set}"
export KRB5CCNAME=FILE:$SCRATCH/ccache

ALICE_DN='dn:cn=smith alice marie,ou=users,dc=zmauth,dc=test'
IVAN_DN='dn:cn=иванов иван иванович,ou=users,dc=zmauth,dc=test'
BOB_DN='dn:cn=jones,ou=users,dc=zmauth,dc=test'

expect_eq "anonymous whoami" "$(ldapwhoami -x -H "$LDAP_URI" 2>&1)" anonymous
expect_eq "anonymous read of alice's mail values" \
    "$(ldapsearch -x -LLL -H "$LDAP_URI" -b "$BASE_DN" "(sAMAccountName=$USER_NAME)" mail | attr_values mail | sort | tr '\n' ' ')" \
    'alice.smith@zmauth.test alice@zmauth.test '
expect_eq "anonymous sees no userPassword" \
    "$(ldapsearch -x -LLL -H "$LDAP_URI" -b "$BASE_DN" "(sAMAccountName=$USER_NAME)" userPassword | attr_values userPassword)" ''

digest() { ldapwhoami -Q -H "$LDAP_URI" -Y DIGEST-MD5 "$@" 2>&1; }
expect_eq "DIGEST-MD5 alice" "$(digest -U "$USER_NAME" -w "$USER_PASSWORD")" "$ALICE_DN"
# What the library answers: the login as authcid and authzid, the host as realm.
expect_eq "DIGEST-MD5 alice with authzid and realm answered" \
    "$(digest -U "$USER_NAME" -X "$USER_NAME" -R "$LDAP_HOST" -w "$USER_PASSWORD")" "$ALICE_DN"
expect_eq "DIGEST-MD5 alice with another realm answered" \
    "$(digest -U "$USER_NAME" -R SOMEWHERE.ELSE -w "$USER_PASSWORD")" "$ALICE_DN"
expect_eq "DIGEST-MD5 bob" "$(digest -U "$USER2_NAME" -w "$USER2_PASSWORD")" "$BOB_DN"
expect_eq "DIGEST-MD5 ivan with the Cyrillic password" \
    "$(digest -U "$CYR_USER_NAME" -X "$CYR_USER_NAME" -R "$LDAP_HOST" -w "$CYR_USER_PASSWORD")" "$IVAN_DN"
expect_rc "DIGEST-MD5 alice with a wrong password is refused (49)" 49 \
    ldapwhoami -Q -H "$LDAP_URI" -Y DIGEST-MD5 -U "$USER_NAME" -w "${USER_PASSWORD}x"
expect_rc "DIGEST-MD5 with bob's password for alice is refused (49)" 49 \
    ldapwhoami -Q -H "$LDAP_URI" -Y DIGEST-MD5 -U "$USER_NAME" -w "$USER2_PASSWORD"
expect_rc "DIGEST-MD5 carol, who has no password, is refused (49)" 49 \
    ldapwhoami -Q -H "$LDAP_URI" -Y DIGEST-MD5 -U carol -w anything
expect_rc "DIGEST-MD5 unknown user is refused (49)" 49 \
    ldapwhoami -Q -H "$LDAP_URI" -Y DIGEST-MD5 -U nobody -w anything

gssapi() { ldapwhoami -Q -H "$LDAP_URI" -Y GSSAPI "$@" 2>&1; }
expect_rc "GSSAPI without a ticket fails" 254 ldapwhoami -Q -H "$LDAP_URI" -Y GSSAPI
expect_rc "kinit alice" 0 kinit "$USER_NAME" <<<"$USER_PASSWORD"
expect_eq "GSSAPI alice" "$(gssapi)" "$ALICE_DN"
# libldap names the machine's canonical host name when the server is 127.0.0.1.
host=$(hostname -f 2>/dev/null || hostname)
expect_eq "GSSAPI alice asked for the ticket of ldap/<this host>" \
    "$(klist 2>/dev/null | grep -o "ldap/[^ ]*" | sort -u)" "ldap/${host,,}@$KRB5_REALM"
expect_eq "GSSAPI alice with authzid u:alice" "$(gssapi -X "u:$USER_NAME")" "$ALICE_DN"
# slapd takes an authzid only in the u: or dn: form: the bare login that a
# directory setting with a user name sends is refused.
expect_rc "GSSAPI alice with the bare authzid alice is refused (50)" 50 \
    ldapwhoami -Q -H "$LDAP_URI" -Y GSSAPI -X "$USER_NAME"
expect_eq "GSSAPI search as alice reads her entry" \
    "$(ldapsearch -Q -LLL -H "$LDAP_URI" -Y GSSAPI -b "$BASE_DN" "(sAMAccountName=$USER_NAME)" cn | attr_values cn)" \
    'Smith Alice Marie'
expect_rc "kinit ivan with the Cyrillic password" 0 kinit "$CYR_USER_NAME" <<<"$CYR_USER_PASSWORD"
expect_eq "GSSAPI ivan" "$(gssapi)" "$IVAN_DN"
expect_rc "kinit with the service keytab" 0 kinit -k -t "$SERVICE_KEYTAB" "$SERVICE_PRINCIPAL"
expect_eq "GSSAPI as the service principal (no entry)" "$(gssapi)" \
    'dn:uid=http/localhost,cn=gssapi,cn=auth'
kdestroy -q 2>/dev/null
expect_rc "GSSAPI after kdestroy fails" 254 ldapwhoami -Q -H "$LDAP_URI" -Y GSSAPI

finish
