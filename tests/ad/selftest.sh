#!/bin/bash
# The test domain itself, through the command-line tools, run inside its
# namespace by in-ns.sh: the network, the DC's answers, the accounts, the
# keytabs and the files that must stay the DC's own.
. "$(dirname "$0")/../realm/selftest/lib.sh"
: "${AD_DIR:?run through in-ns.sh}"
export KRB5CCNAME=FILE:$SCRATCH/ccache
AD_SH=$(cd "$(dirname "$0")" && pwd)/ad.sh
URI=ldap://$AD_DC_HOST/

# --- network: the DC's address exists only in this namespace, and nothing
# routes out of it.
expect_eq "the DC's address is on the namespace's veth" \
    "$(ip -o -4 addr show | awk -v a="$AD_DC_IP/24" '$4 == a { print $2 }' | grep -c '^zm')" 1
expect_eq "no default route" "$(ip route show default)" ""
expect_eq "the DC's name resolves to its address" "$(getent hosts "$AD_DC_HOST" | awk '{ print $1 }')" "$AD_DC_IP"
expect_eq "its address resolves back to its name" "$(getent hosts "$AD_DC_IP" | awk '{ print $2 }')" "$AD_DC_HOST"
expect_eq "the machine's krb5.conf is the domain's here" "$(cmp -s /etc/krb5.conf "$AD_KRB5_CONFIG" && echo same)" same

# --- the DC's answers
rootdse() { ldapsearch -x -LLL -o ldif-wrap=no -H "$URI" -s base -b '' "$@" 2>&1; }
expect_eq "root DSE: naming context" "$(rootdse defaultNamingContext | attr_values defaultNamingContext)" "$AD_BASE_DN"
expect_eq "root DSE: SASL mechanisms (no DIGEST-MD5)" \
    "$(rootdse supportedSASLMechanisms | attr_values supportedSASLMechanisms | xargs)" "GSS-SPNEGO GSSAPI NTLM"
expect_rc "an anonymous search is refused (1)" 1 \
    ldapsearch -x -LLL -H "$URI" -b "$AD_BASE_DN" "(sAMAccountName=$AD_USER_NAME)" cn
grep -q '00002020: Operation unavailable without authentication' "$SCRATCH/out" "$SCRATCH/err" &&
    pass "anonymous: 00002020" || fail "anonymous: $(cat "$SCRATCH/err")"

# --- accounts
for u in AD_USER AD_USER2 AD_CYR_USER AD_CYR_LOGIN; do
    name=${u}_NAME password=${u}_PASSWORD
    expect_rc "kinit ${!name}" 0 kinit "${!name}" <<<"${!password}"
done
expect_rc "kinit of the disabled account fails" 1 kinit "$AD_DISABLED_USER_NAME" <<<"$AD_DISABLED_USER_PASSWORD"
grep -q "Client's credentials have been revoked" "$SCRATCH/err" && pass "disabled: revoked" ||
    fail "disabled: $(cat "$SCRATCH/err")"
expect_rc "kinit with a wrong password fails" 1 kinit "$AD_USER_NAME" <<<"x$AD_USER_PASSWORD"
grep -q "Password incorrect" "$SCRATCH/err" && pass "wrong password: Password incorrect" ||
    fail "wrong password: $(cat "$SCRATCH/err")"

kinit "$AD_USER_NAME" <<<"$AD_USER_PASSWORD" >/dev/null 2>&1
gsearch() { ldapsearch -Q -LLL -o ldif-wrap=no -Y GSSAPI -H "$URI" "$@" 2>&1; }
expect_eq "the people's logins" \
    "$(gsearch -b "$AD_PEOPLE_DN" '(&(objectClass=user)(objectCategory=person))' sAMAccountName | attr_values sAMAccountName | sort | xargs)" \
    "$AD_PEOPLE_USERS"
expect_eq "the comma's escaped DN" \
    "$(gsearch -b "$AD_PEOPLE_DN" "(sAMAccountName=$AD_COMMA_USER_NAME)" 1.1 | sed -n 's/^dn: //p')" \
    "CN=Doe\\, John,$AD_PEOPLE_DN"
expect_eq "the disabled account's flags (normal + disabled)" \
    "$(gsearch -b "$AD_PEOPLE_DN" "(sAMAccountName=$AD_DISABLED_USER_NAME)" userAccountControl | attr_values userAccountControl)" 514
expect_eq "the group has alice only" \
    "$(gsearch -b "$AD_BASE_DN" "(sAMAccountName=$AD_GROUP_NAME)" member | attr_values member)" \
    "CN=Smith Alice Marie,$AD_PEOPLE_DN"
expect_eq "the service account: SPN and AES only (24)" \
    "$(gsearch -b "$AD_PEOPLE_DN" "(sAMAccountName=$AD_SERVICE_ACCOUNT)" servicePrincipalName msDS-SupportedEncryptionTypes |
        grep -E '^(servicePrincipalName|msDS-SupportedEncryptionTypes):' | sort | xargs)" \
    "msDS-SupportedEncryptionTypes: 24 servicePrincipalName: ${AD_SERVICE_PRINCIPAL%@*}"
expect_eq "the domain root answers with 3 references" \
    "$(gsearch -b "$AD_BASE_DN" '(&(objectClass=user)(objectCategory=person))' 1.1 | grep -c '^# refldap://')" 3
expect_eq "bulk users" "$(gsearch -b "$AD_BULK_DN" '(objectClass=user)' 1.1 | grep -c '^dn:')" "$AD_BULK_USERS"

# --- keytabs and tickets
keys() { klist -ke "$1" 2>/dev/null | awk 'NR > 3 { print $2, $3 }' | sort | xargs; }
expect_eq "service keytab: AES keys of the service" "$(keys "$AD_SERVICE_KEYTAB")" \
    "$AD_SERVICE_PRINCIPAL (aes128-cts-hmac-sha1-96) $AD_SERVICE_PRINCIPAL (aes256-cts-hmac-sha1-96)"
expect_eq "SSO keytab: the service's and alice's keys" \
    "$(klist -k "$AD_SSO_KEYTAB" | awk 'NR > 3 { print $2 }' | sort -u | xargs)" \
    "$AD_SERVICE_PRINCIPAL $AD_USER_NAME@$AD_REALM"
expect_rc "a service ticket for the service" 0 kvno "${AD_SERVICE_PRINCIPAL%@*}"
expect_eq "the service ticket is AES" \
    "$(klist -e | grep -A1 " ${AD_SERVICE_PRINCIPAL}\$" | sed -n 's/.*Etype (skey, tkt): [^,]*, //p' | xargs)" aes256-cts-hmac-sha1-96
expect_rc "the keytab's key opens it" 0 kvno -k "$AD_SERVICE_KEYTAB" "${AD_SERVICE_PRINCIPAL%@*}"
# Without msDS-SupportedEncryptionTypes the DC encrypts the account's
# tickets with RC4 and exports only its RC4 key.
expect_eq "a service with the domain's defaults: no encryption types set" \
    "$(gsearch -b "$AD_PEOPLE_DN" "(sAMAccountName=$AD_PLAIN_SERVICE_ACCOUNT)" msDS-SupportedEncryptionTypes | grep -c '^msDS-')" 0
expect_eq "its keytab: the RC4 key only" "$(keys "$AD_PLAIN_SERVICE_KEYTAB")" \
    "$AD_PLAIN_SERVICE_PRINCIPAL (DEPRECATED:arcfour-hmac)"
expect_rc "a service ticket for it" 0 kvno "${AD_PLAIN_SERVICE_PRINCIPAL%@*}"
expect_eq "its ticket is RC4" \
    "$(klist -e | grep -A1 " ${AD_PLAIN_SERVICE_PRINCIPAL}\$" | sed -n 's/.*Etype (skey, tkt): [^,]*, //p' | xargs)" \
    DEPRECATED:arcfour-hmac
expect_rc "its keytab opens it" 0 kvno -k "$AD_PLAIN_SERVICE_KEYTAB" "${AD_PLAIN_SERVICE_PRINCIPAL%@*}"
expect_rc "no principal for the DC's address" 1 kvno "ldap/$AD_DC_IP"
grep -q 'Server not found in Kerberos database' "$SCRATCH/err" && pass "ldap/<address>: not found" ||
    fail "ldap/<address>: $(cat "$SCRATCH/err")"
kdestroy -q 2>/dev/null

# --- the DC's files stay in its directory
conf=$AD_DIR/samba/etc/smb.conf
expect_eq "no DNS forwarder" "$(grep -c 'dns forwarder' "$conf")" 0
expect_eq "bound to lo and the veth only" \
    "$(grep -E '^\s*(interfaces|bind interfaces only) =' "$conf" | sed 's/^\s*//' | sort | sed 's/zm[0-9a-f]*dc/VETH/' | xargs)" \
    "bind interfaces only = Yes interfaces = lo VETH"
expect_eq "the DC logs into its directory" "$([ -s "$AD_DIR/log/log.smbd" ] && echo yes)" yes
expect_eq "and nothing into the machine's /var/log/samba" \
    "$(find /var/log/samba -newer "$AD_DIR/provision.conf" -type f 2>/dev/null)" ""
expect_eq "its pid file is in its directory" "$(cat "$AD_DIR/run/samba.pid" 2>/dev/null)" 1

# --- ad.sh's own refusals (no second domain is started)
expect_rc "stop of a directory that does not exist succeeds" 0 bash "$AD_SH" stop "$SCRATCH/none"
mkdir -p "$SCRATCH/other" && touch "$SCRATCH/other/file"
expect_rc "start refuses a directory that is not a domain's" 1 bash "$AD_SH" start "$SCRATCH/other"
expect_rc "stop refuses a directory that is not a domain's" 1 bash "$AD_SH" stop "$SCRATCH/other"
expect_eq "and leaves it alone" "$(ls "$SCRATCH/other")" file

finish
