#!/bin/bash
# The fixed directory content as the library's searches see it.
. "$(dirname "$0")/lib.sh"
load_realm_env "${ZMAUTH_REALM_DIR:?ZMAUTH_REALM_DIR is not set}"

search() { ldapsearch -x -LLL -H "$LDAP_URI" "$@" 2>/dev/null; }
DEFAULT_FILTER='(&(objectClass=user)(objectCategory=person))'

logins=$(search -b "$BASE_DN" "$DEFAULT_FILTER" sAMAccountName | attr_values sAMAccountName | sort | tr '\n' ' ')
expect_eq "default filter under BASE_DN returns FIXED_USERS" "$logins" "$FIXED_USERS "
expect_eq "default filter entry count is FIXED_USER_COUNT" \
    "$(search -b "$BASE_DN" "$DEFAULT_FILTER" 1.1 | grep -c '^dn')" "$FIXED_USER_COUNT"
expect_eq "FIXED_USER_COUNT matches FIXED_USERS" "$(wc -w <<<"$FIXED_USERS")" "$FIXED_USER_COUNT"
expect_eq "objectClass=user also holds the computer" \
    "$(search -b "$BASE_DN" '(objectClass=user)' sAMAccountName | attr_values sAMAccountName | sort | tr '\n' ' ')" \
    "WS01\$ $FIXED_USERS "
expect_eq "the group is found by objectCategory=group" \
    "$(search -b "$BASE_DN" '(objectCategory=group)' member | attr_values member)" \
    "cn=Smith Alice Marie,$USERS_DN"

expect_eq "sAMAccountName compares without case" \
    "$(search -b "$BASE_DN" '(sAMAccountName=ALICE)' 1.1 | grep '^dn')" "dn: cn=Smith Alice Marie,$USERS_DN"
expect_eq "two entries share the login twin" \
    "$(search -b "$BASE_DN" '(sAMAccountName=twin)' sn | attr_values sn | sort | tr '\n' ' ')" 'One Two '
expect_eq "twin under STAFF_DN" \
    "$(search -b "$STAFF_DN" '(sAMAccountName=twin)' cn | attr_values cn)" 'Twin Two'
expect_eq "alice: cn, displayName, userPrincipalName, objectCategory" \
    "$(search -b "$BASE_DN" '(sAMAccountName=alice)' cn displayName userPrincipalName objectCategory givenName sn |
        grep -v -e '^dn' -e '^#' | grep . | sort | tr '\n' '|')" \
    "cn: Smith Alice Marie|displayName: Alice Smith|givenName: Alice|objectCategory: person|sn: Smith|userPrincipalName: alice@ZMAUTH.TEST|"
expect_eq "bob: two description values" \
    "$(search -b "$BASE_DN" '(sAMAccountName=bob)' description | attr_values description | sort | tr '\n' '|')" 'x y|z|'
expect_eq "ivan: Cyrillic cn, sn and givenName" \
    "$(search -b "$BASE_DN" '(sAMAccountName=ivan)' cn sn givenName |
        { v=$(cat); for a in cn sn givenName; do attr_values $a <<<"$v"; done; } | tr '\n' '|')" \
    'Иванов Иван Иванович|Иванов|Иван|'
expect_eq "ivan found by his Cyrillic cn" \
    "$(search -b "$BASE_DN" '(cn=Иванов Иван Иванович)' sAMAccountName | attr_values sAMAccountName)" 'ivan'
expect_eq "carol: four-word cn" \
    "$(search -b "$BASE_DN" '(sAMAccountName=carol)' cn | attr_values cn)" 'Brown Carol Ann Jr'
expect_eq "dave: objectGUID holds the bytes 61 62 00 63 64" \
    "$(search -b "$BASE_DN" '(sAMAccountName=dave)' objectGUID | sed -n 's/^objectGUID:: //p' | base64 -d | od -An -tx1 | xargs)" \
    '61 62 00 63 64'
expect_eq "userPrincipalName of every fixed user" \
    "$(search -b "$BASE_DN" "$DEFAULT_FILTER" userPrincipalName | attr_values userPrincipalName | sort | tr '\n' ' ')" \
    "$(for u in $FIXED_USERS; do echo "$u@$KRB5_REALM"; done | sort | tr '\n' ' ')"

expect_rc "a base under the referral object answers 10" 10 \
    ldapsearch -x -LLL -H "$LDAP_URI" -b "ou=x,$REFERRAL_DN" '(objectClass=*)'
expect_rc "the referral object itself answers 10" 10 \
    ldapsearch -x -LLL -H "$LDAP_URI" -b "$REFERRAL_DN" -s base '(objectClass=*)'
expect_rc "a base that does not exist answers 32" 32 \
    ldapsearch -x -LLL -H "$LDAP_URI" -b "ou=nothing,$BASE_DN" '(objectClass=*)'
expect_eq "BULK_DN holds BULK_USERS users" \
    "$(search -b "$BULK_DN" -s one "$DEFAULT_FILTER" 1.1 | grep -c '^dn')" "$BULK_USERS"

finish
