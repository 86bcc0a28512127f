#!/usr/bin/env bash
# Makes the acceptor target's keytab and seed tokens afresh from a throwaway
# realm (tests/realm/realm.sh), then stops it:
#   bash tests/fuzz/acceptor/capture.sh
# Writes service.keytab (the service key of HTTP/localhost@ZMAUTH.TEST) here
# and replaces the tokens in ../corpus/acceptor. Keytab and tokens belong
# together: commit them together. krb5.conf stays as it is (the realm's name
# and a clock skew that keeps the tokens acceptable).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../../.." && pwd)
corpus=$here/../corpus/acceptor
work=$(mktemp -d)
realm=$work/realm
cleanup() {
    bash "$root/tests/realm/realm.sh" stop "$realm" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

c++ -std=c++17 -O1 -o "$work/capture" "$here/capture.cpp" $(pkg-config --cflags --libs krb5-gssapi)
bash "$root/tests/realm/realm.sh" start "$realm" >/dev/null
# shellcheck disable=SC1091
. "$realm/realm.env"
export KRB5_CONFIG
unset KRB5_KTNAME KRB5_TRACE

mkdir -p "$work/tokens"
# Session keys of both enctypes the realm has; a forwardable ticket for the
# delegating token.
tgs_conf=$work/krb5-aes128.conf
sed 's/^\[libdefaults\]$/&\n    default_tkt_enctypes = aes128-cts-hmac-sha1-96\n    default_tgs_enctypes = aes128-cts-hmac-sha1-96/' \
    "$KRB5_CONFIG" >"$tgs_conf"
for enctype in aes256 aes128; do
    conf=$KRB5_CONFIG
    [ "$enctype" = aes128 ] && conf=$tgs_conf
    export KRB5CCNAME=FILE:$work/cc-$enctype
    printf '%s\n' "$USER_PASSWORD" | KRB5_CONFIG=$conf kinit -f "$USER_NAME" >/dev/null
    KRB5_CONFIG=$conf "$work/capture" "$work/tokens" "$USER_NAME-$enctype" "$SERVICE_NAME"
    kdestroy
done

rm -rf "$corpus"
mkdir -p "$corpus"
cp "$work"/tokens/* "$corpus/"
cp "$SERVICE_KEYTAB" "$here/service.keytab"
echo "$(ls "$corpus" | wc -l) tokens in $corpus; keytab $here/service.keytab"
