#!/bin/bash
# --size-limit with slapd's own limit words imitates a domain controller's
# MaxPageSize of 1000: an unpaged search stops at 1000 entries with result 4,
# a paged one with pages of up to 1000 returns every entry, a larger page is
# refused with result 11.
. "$(dirname "$0")/lib.sh"

# The run's capped realm (see CMakeLists.txt), started with these words.
SPEC='size.soft=1000 size.hard=1000 size.pr=1000 size.prtotal=unlimited'
load_realm_env "${ZMAUTH_CAPPED_REALM_DIR:?ZMAUTH_CAPPED_REALM_DIR is not set}"

expect_eq "SIZE_LIMIT holds the limit words" "$SIZE_LIMIT" "$SPEC"
expect_eq "BULK_USERS" "$BULK_USERS" 1500
ALL=$((BULK_USERS + FIXED_USER_COUNT))
DEFAULT_FILTER='(&(objectClass=user)(objectCategory=person))'
search() { ldapsearch -x -LLL -H "$LDAP_URI" -b "$BASE_DN" "$@" "$DEFAULT_FILTER" sAMAccountName; }
entries() { grep -c '^dn:' "$SCRATCH/out"; }

expect_rc "unpaged: sizeLimitExceeded (4)" 4 search
expect_eq "unpaged: 1000 entries came before the limit" "$(entries)" 1000
expect_rc "pages of 500: success" 0 search -E pr=500/noprompt
expect_eq "pages of 500: all $ALL entries" "$(entries)" "$ALL"
expect_eq "pages of 500: no entry twice" "$(grep '^dn:' "$SCRATCH/out" | sort -u | wc -l)" "$ALL"
expect_rc "pages of 1000: success" 0 search -E pr=1000/noprompt
expect_eq "pages of 1000: all $ALL entries" "$(entries)" "$ALL"
expect_rc "a page of 1001: adminLimitExceeded (11)" 11 search -E pr=1001/noprompt
expect_eq "a page of 1001: no entry" "$(entries)" 0
expect_rc "the admin identity is not limited" 0 search -D "$ADMIN_DN" -w "$ADMIN_PASSWORD"
expect_eq "the admin identity: all $ALL entries unpaged" "$(entries)" "$ALL"

finish
