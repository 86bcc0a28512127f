#!/usr/bin/env bash
# The demo walk-through: the library's four jobs with the zmauth tool, and the
# doctor on a healthy realm and on one broken setting, against
# a throwaway realm (an MIT KDC and an OpenLDAP slapd on 127.0.0.1) that lives
# in a temporary directory for the length of the demo.
#
#   bash tools/demo.sh BUILD_DIR
#
# BUILD_DIR is a finished build of this tree. The realm is stopped and the
# temporary directory removed however the demo ends.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "$1" && pwd)
tool="$build/tools/zmauth/zmauth"
if [ ! -x "$tool" ]; then
    echo "demo: $tool not found; build the tree first" >&2
    exit 1
fi

started=$(date +%s%3N)
work=$(mktemp -d "${TMPDIR:-/tmp}/zmauth-demo.XXXXXX")
realm_started=0
cleanup() {
    local status=$?
    if [ "$realm_started" = 1 ]; then
        echo
        echo "Stopping the realm."
        bash "$root/tests/realm/realm.sh" stop "$work/realm" >/dev/null 2>&1 \
            || echo "demo: stopping the realm failed; see $work" >&2
    fi
    rm -rf "$work"
    if [ "$status" -ne 0 ]; then
        echo "demo: FAILED (exit status $status)" >&2
    fi
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

bold=$(tput bold 2>/dev/null || true)
plain=$(tput sgr0 2>/dev/null || true)
[ -t 1 ] || { bold=; plain=; }

section() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"; }
say() { printf '%s\n' "$*"; }
# Shows a command as a user would type it, then runs it; the exit status must
# be the expected one (default 0).
run() {
    local expect=0
    if [ "$1" = "--expect" ]; then expect=$2; shift 2; fi
    printf '%s$ %s%s\n' "$bold" "$*" "$plain"
    local status=0
    # One stream, so that an error line stays next to its command.
    "$@" 2>&1 || status=$?
    if [ "$status" -ne "$expect" ]; then
        echo "demo: '$*' ended with exit status $status, expected $expect" >&2
        exit 1
    fi
    [ "$expect" -eq 0 ] || say "(exit status $status)"
}
# The same with the password fed on standard input, as a pipe would; SHOWN
# is how the password appears in the printed command.
run_with_password() {
    local password=$1 shown=$2; shift 2
    printf '%s$ printf '"'"'%%s\\n'"'"' '"'"'%s'"'"' | %s%s\n' "$bold" "$shown" "$*" "$plain"
    printf '%s\n' "$password" | "$@" 2>&1
}
json_string() {
    local s=${1//\\/\\\\}
    printf '"%s"' "${s//\"/\\\"}"
}

# The commands read as a user types them: zmauth on the PATH, files in the
# working directory.
export PATH="$build/tools/zmauth:$PATH"
cd "$work"

say "${bold}libzmauth demo${plain}: the library's four jobs with the zmauth tool"
say "library $(zmauth version), build $build"

section "Throwaway realm"
bash "$root/tests/realm/realm.sh" start "$work/realm"
realm_started=1
set -a
# shellcheck disable=SC1091
. "$work/realm/realm.env"
set +a
# Kerberos tools and the library read the realm's configuration and keep any
# credential cache in the realm directory, never in the user's own.
export KRB5_CONFIG KRB5RCACHEDIR
export KRB5CCNAME="FILE:$CCACHE_DIR/demo"
say "Kerberos realm $KRB5_REALM (KDC on 127.0.0.1:$KDC_PORT), directory $LDAP_URI under $BASE_DN"
say "users: alice, bob, ivan, carol, dave and two entries with the login twin"

section "1/4  Password hash"
say "The system stores its own accounts' passwords as a tagged, unsalted digest."
say "The password is read from standard input (without echo on a terminal)."
run_with_password 'correct horse' 'correct horse' zmauth hash --algorithm sha3-256
run_with_password 'correct horse' 'correct horse' zmauth hash --algorithm md5
say "Algorithms without a tag are stored with a bare colon in front:"
run_with_password 'correct horse' 'correct horse' zmauth hash --algorithm sha256

section "2/4  User import preview"
say "settings.json is the directory settings record as the system stores it"
say "(SASL DIGEST-MD5 bind as alice; every value is text):"
cat > settings.json <<JSON
{
    "PT_HOST": $(json_string "$LDAP_HOST"),
    "PT_PORT": $(json_string "$LDAP_PORT"),
    "PT_METHOD": "1",
    "PT_USER": $(json_string "$USER_NAME"),
    "PT_USER_PASSWORD": $(json_string "$USER_PASSWORD"),
    "PT_BASE_DN": $(json_string "$BASE_DN")
}
JSON
sed "s/\"PT_USER_PASSWORD\": .*/\"PT_USER_PASSWORD\": \"********\",/" settings.json
say "mapping.json maps the common name onto the three name fields and the account name onto the login:"
cat > mapping.json <<'JSON'
[{"cn": "PT_SURNAME PT_NAME PT_PATRONYMIC"}, {"sAMAccountName": "PT_LOGIN"}]
JSON
cat mapping.json
say
say "Every record the import would create (the last name field takes the rest of the words):"
run zmauth ldap users --settings settings.json --mapping mapping.json
say
say "The same as JSON, for scripts (first record):"
printf '%s$ %s%s\n' "$bold" "zmauth ldap users --settings settings.json --mapping mapping.json --format json | head -9" "$plain"
zmauth ldap users --settings settings.json --mapping mapping.json --format json | head -9
say
say "A wrong bind password fails in one line, the library's own record:"
sed "s/\"PT_USER_PASSWORD\": .*/\"PT_USER_PASSWORD\": \"wrong\",/" settings.json > wrong.json
run --expect 3 zmauth ldap users --settings wrong.json --mapping mapping.json

section "3/4  Account check"
run zmauth ldap check alice --settings settings.json
run --expect 1 zmauth ldap check mallory --settings settings.json

section "4/4  Single sign-on"
say "Initiator and acceptor in one process: alice gets a ticket with her password, the"
say "acceptor validates the token with the keytab and names the client; the initiator"
say "checks the acceptor's reply (mutual authentication)."
run_with_password "$USER_PASSWORD" "********" zmauth sso --user "$USER_NAME" --realm "$KRB5_REALM" \
    --target "$SERVICE_NAME" --keytab "$SSO_KEYTAB"
say
say "With a wrong password the Kerberos text the library logged is shown:"
printf '%s$ printf '"'"'%%s\\n'"'"' '"'"'wrong'"'"' | zmauth sso --user %s --realm %s --target %s --keytab %s%s\n' \
    "$bold" "$USER_NAME" "$KRB5_REALM" "$SERVICE_NAME" "$SSO_KEYTAB" "$plain"
status=0
printf 'wrong\n' | zmauth sso --user "$USER_NAME" --realm "$KRB5_REALM" --target "$SERVICE_NAME" \
    --keytab "$SSO_KEYTAB" 2>&1 || status=$?
[ "$status" -eq 5 ] || { echo "demo: expected exit status 5, got $status" >&2; exit 1; }
say "(exit status $status)"

section "Doctor"
say "zmauth doctor runs nineteen checks over a deployment's settings, in order, each with"
say "what it found and, when something is wrong, what to change. gssapi.json binds by"
say "GSSAPI (PT_METHOD 8) with alice's ticket, as against a domain controller:"
cat > gssapi.json <<JSON
{
    "PT_HOST": $(json_string "$LDAP_HOST"),
    "PT_PORT": $(json_string "$LDAP_PORT"),
    "PT_METHOD": "8",
    "PT_BASE_DN": $(json_string "$BASE_DN"),
    "PT_USER_CUSTOM_FIELDS_PARAMETER": "[{\"cn\": \"PT_SURNAME PT_NAME PT_PATRONYMIC\"}, {\"sAMAccountName\": \"PT_LOGIN\"}]"
}
JSON
cat gssapi.json
printf '%s$ printf '"'"'%%s\\n'"'"' '"'"'********'"'"' | kinit %s%s\n' "$bold" "$USER_NAME" "$plain"
printf '%s\n' "$USER_PASSWORD" | kinit "$USER_NAME" >/dev/null
run zmauth doctor --settings gssapi.json --keytab "$SERVICE_KEYTAB" --service "$SERVICE_NAME" --user "$USER_NAME"
say
say "One broken setting: a base DN that does not exist. The checks that need it are"
say "skipped, and the exit status is 6:"
sed "s/\"PT_BASE_DN\": .*/\"PT_BASE_DN\": \"ou=people,$BASE_DN\",/" gssapi.json > broken.json
run --expect 6 zmauth doctor --settings broken.json

elapsed=$(( $(date +%s%3N) - started ))
section "Done"
say "All four jobs ran in $((elapsed / 1000)).$(printf '%03d' $((elapsed % 1000))) s, realm start included."
