#!/bin/bash
# The throwaway realm: an MIT KDC and an OpenLDAP slapd on 127.0.0.1, created
# in one directory and run as plain processes of whoever starts it.
#
#   realm.sh start DIR [--bulk N] [--sizelimit N | --size-limit SPEC]
#   realm.sh stop DIR
#
# Everything a test needs is written to DIR/realm.env (see README.md).
# Nothing of the machine's own Kerberos or LDAP configuration is read by the
# servers: each gets its configuration files from DIR through its command line
# or KRB5_CONFIG / KRB5_KDC_PROFILE.
set -euo pipefail
umask 022
export PATH="$PATH:/usr/sbin:/usr/bin:/sbin:/bin"
export LC_ALL=C.UTF-8

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

REALM=ZMAUTH.TEST
BASE_DN=dc=zmauth,dc=test
USERS_DN=ou=users,$BASE_DN
STAFF_DN=ou=staff,$BASE_DN
BULK_DN=ou=bulk,$BASE_DN
REFERRAL_DN=ou=elsewhere,$BASE_DN
ADMIN_DN=cn=admin,$BASE_DN
ADMIN_PASSWORD=admin-secret

USER_NAME=alice
USER_PASSWORD=Alice-Secret-1
USER2_NAME=bob
USER2_PASSWORD=Bob-Secret-2
CYR_USER_NAME=ivan
CYR_USER_PASSWORD='Пароль-Ивана-3'

SERVICE_NAME=HTTP@localhost
SERVICE_PRINCIPAL=HTTP/localhost@$REALM

# Logins of the entries the default user filter returns under BASE_DN; twin is
# there twice (one entry under ou=users, one under ou=staff).
FIXED_USERS='alice bob carol dave ivan twin twin'
FIXED_USER_COUNT=7

MARKER=.zmauth-realm

die() { echo "realm.sh: $*" >&2; exit 1; }
now_ms() { date +%s%3N; }

usage() {
    cat >&2 <<'EOF'
usage: realm.sh start DIR [--bulk N] [--sizelimit N | --size-limit SPEC]
       realm.sh stop DIR
EOF
    exit 2
}

# ---------------------------------------------------------------- processes

# True when PID is a live (not zombie) process whose command line names DIR,
# i.e. one of the servers this realm started and not a recycled PID.
is_ours() {
    local pid=$1 dir=$2 cmd
    [[ $pid =~ ^[0-9]+$ ]] || return 1
    running "$pid" || return 1
    cmd=$(tr '\0' ' ' 2>/dev/null <"/proc/$pid/cmdline") || return 1
    [[ $cmd == *"$dir/"* ]]
}

# True while PID exists and is not a zombie. An exiting process loses its
# command line before it ends, so waiting for an end checks this, not is_ours.
running() {
    local state
    [ -r "/proc/$1/stat" ] || return 1
    state=$(sed -e 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1) || return 1
    [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

# The PIDs recorded in DIR/realm.pids (one "name pid" line per server).
recorded_pids() {
    local dir=$1
    [ -f "$dir/realm.pids" ] || return 0
    awk '{ print $2 }' "$dir/realm.pids"
}

stop_realm() {
    local dir=$1 pid live=() i
    [ -d "$dir" ] || return 0
    for pid in $(recorded_pids "$dir"); do
        if is_ours "$pid" "$dir"; then
            kill -TERM "$pid" 2>/dev/null || true
            live+=("$pid")
        fi
    done
    [ ${#live[@]} -gt 0 ] || return 0
    # slapd flushes its database on TERM; give both servers up to 10 s.
    for ((i = 0; i < 200; i++)); do
        local left=()
        for pid in "${live[@]}"; do
            running "$pid" && left+=("$pid")
        done
        [ ${#left[@]} -gt 0 ] || return 0
        sleep 0.05
    done
    for pid in "${live[@]}"; do
        if is_ours "$pid" "$dir"; then
            echo "realm.sh: process $pid did not end on TERM, killing it" >&2
            kill -KILL "$pid" 2>/dev/null || true
        fi
    done
    for ((i = 0; i < 100; i++)); do
        local left=()
        for pid in "${live[@]}"; do
            running "$pid" && left+=("$pid")
        done
        [ ${#left[@]} -gt 0 ] || return 0
        sleep 0.05
    done
    die "processes ${live[*]} of $dir are still running"
}

# ---------------------------------------------------------------- ports

# Socket inodes bound to 127.0.0.1/any address on PORT (tcp, tcp6, udp, udp6).
port_inodes() {
    local port=$1 hex
    hex=$(printf ':%04X' "$port")
    awk -v h="$hex" 'FNR > 1 && substr($2, length($2) - 4) == h { print $10 }' \
        /proc/net/tcp /proc/net/tcp6 /proc/net/udp /proc/net/udp6 2>/dev/null
}

port_free() { [ -z "$(port_inodes "$1")" ]; }

# Socket inodes held open by PID.
pid_inodes() {
    local pid=$1 fd
    for fd in /proc/"$pid"/fd/*; do
        fd=$(readlink "$fd" 2>/dev/null) || continue
        [[ $fd =~ ^socket:\[([0-9]+)\]$ ]] && echo "${BASH_REMATCH[1]}"
    done
}

# True when PORT has at least WANT sockets and all of them belong to PID.
# krb5kdc binds with address reuse, so a second server on the same port would
# start without complaint; this is how a shared port is noticed.
port_owned_by() {
    local port=$1 pid=$2 want=$3 mine all n=0 inode
    all=$(port_inodes "$port")
    mine=" $(pid_inodes "$pid" | tr '\n' ' ') "
    for inode in $all; do
        [[ $mine == *" $inode "* ]] || return 1
        n=$((n + 1))
    done
    [ "$n" -ge "$want" ]
}

random_port() {
    local p
    while :; do
        p=$(( ((RANDOM << 15) | RANDOM) % 35000 + 20000 ))
        port_free "$p" && { echo "$p"; return; }
    done
}

# ---------------------------------------------------------------- files

# One KEY=VALUE line of realm.env; values with blanks or non-ASCII text are
# single-quoted so that the file can be sourced by a shell.
env_line() {
    local key=$1 value=$2
    if [[ $value =~ ^[A-Za-z0-9_./:@,=+%-]*$ ]]; then
        printf '%s=%s\n' "$key" "$value"
    else
        [[ $value != *"'"* ]] || die "value of $key holds a single quote"
        printf "%s='%s'\n" "$key" "$value"
    fi
}

# An LDIF line; values that are not plain ASCII (or start with a blank, colon
# or '<') are base64-encoded, as LDIF wants.
ldif() {
    local name=$1 value=$2
    local LC_ALL=C
    if [[ $value =~ ^[\ -~]*$ && ! $value =~ ^[\ :\<] && ! $value =~ \ $ ]]; then
        printf '%s: %s\n' "$name" "$value"
    else
        printf '%s:: %s\n' "$name" "$(printf '%s' "$value" | base64 -w0)"
    fi
}

write_krb5_conf() {
    local file=$1 kdc_port=$2 extra=$3
    cat >"$file" <<EOF
# Client configuration of the throwaway realm $REALM (generated).
[libdefaults]
    default_realm = $REALM
    dns_lookup_realm = false
    dns_lookup_kdc = false
    # Host-based names (HTTP@localhost, ldap@<host>) are used as written:
    # no reverse lookup, no canonicalisation, no search-domain suffix.
    rdns = false
    dns_canonicalize_hostname = false
    qualify_shortname = ""
    forwardable = false
    udp_preference_limit = 1465
$extra
[realms]
    $REALM = {
        kdc = 127.0.0.1:$kdc_port
    }

[domain_realm]
    localhost = $REALM
    127.0.0.1 = $REALM
    $HOST_SHORT = $REALM
    $HOST_FQDN = $REALM
EOF
}

write_kdc_conf() {
    local dir=$1 kdc_port=$2
    cat >"$dir/kdc.conf" <<EOF
# KDC profile of the throwaway realm $REALM (generated).
[kdcdefaults]
    kdc_listen = 127.0.0.1:$kdc_port
    kdc_tcp_listen = 127.0.0.1:$kdc_port

[realms]
    $REALM = {
        database_name = $dir/krb5kdc/principal
        key_stash_file = $dir/krb5kdc/stash
        acl_file = $dir/krb5kdc/kadm5.acl
        kdc_listen = 127.0.0.1:$kdc_port
        kdc_tcp_listen = 127.0.0.1:$kdc_port
        master_key_type = aes256-cts-hmac-sha1-96
        supported_enctypes = aes256-cts-hmac-sha1-96:normal aes128-cts-hmac-sha1-96:normal
        max_life = 10h
        max_renewable_life = 7d
    }

[logging]
    kdc = FILE:$dir/kdc.log
    default = FILE:$dir/kdc.log
EOF
}

write_slapd_conf() {
    local dir=$1 sizelimit=$2
    cat >"$dir/slapd.conf" <<EOF
# slapd configuration of the throwaway realm (generated).
include     /etc/ldap/schema/core.schema
include     $dir/zmauth.schema

pidfile     $dir/slapd.pid
argsfile    $dir/slapd.args

modulepath  /usr/lib/ldap
moduleload  back_mdb

# slapd stops at 500 entries by default; a domain controller answers 1000.
sizelimit   $sizelimit

# SASL identities become directory entries by login name, whatever realm the
# client named: DIGEST-MD5 then checks the digest against the entry's
# cleartext userPassword (no sasldb), and a GSSAPI principal alice@$REALM
# becomes alice's entry.
authz-regexp
    "^uid=([^,/]+)(,cn=[^,]*)?,cn=(digest-md5|gssapi),cn=auth\$"
    "ldap:///$BASE_DN??sub?(sAMAccountName=\$1)"

database    mdb
maxsize     4294967296
suffix      "$BASE_DN"
rootdn      "$ADMIN_DN"
rootpw      $ADMIN_PASSWORD
directory   $dir/db
index       objectClass eq
index       objectCategory eq
index       sAMAccountName eq
index       userPrincipalName eq

access to attrs=userPassword
    by anonymous auth
    by self read
    by * none
access to *
    by * read
EOF
}

write_fixed_ldif() {
    cat <<EOF
dn: $BASE_DN
objectClass: top
objectClass: dcObject
objectClass: organization
dc: zmauth
o: zmauth test realm

dn: $USERS_DN
objectClass: top
objectClass: organizationalUnit
ou: users

dn: $STAFF_DN
objectClass: top
objectClass: organizationalUnit
ou: staff

dn: $BULK_DN
objectClass: top
objectClass: organizationalUnit
ou: bulk

dn: $REFERRAL_DN
objectClass: referral
objectClass: extensibleObject
ou: elsewhere
ref: ldap://elsewhere.zmauth.invalid/ou=elsewhere,dc=other,dc=test

EOF
    user_entry "cn=Smith Alice Marie,$USERS_DN" alice \
        sn Smith givenName Alice displayName 'Alice Smith' \
        mail alice@zmauth.test mail alice.smith@zmauth.test \
        userPassword "$USER_PASSWORD"
    user_entry "cn=Jones,$USERS_DN" bob \
        sn Jones description 'x y' description z mail bob@zmauth.test \
        userPassword "$USER2_PASSWORD"
    user_entry "cn=Иванов Иван Иванович,$USERS_DN" ivan \
        sn 'Иванов' givenName 'Иван' userPassword "$CYR_USER_PASSWORD"
    user_entry "cn=Brown Carol Ann Jr,$USERS_DN" carol sn Brown givenName Carol
    user_entry "cn=Doe Dave,$USERS_DN" dave sn Doe objectGUID 'ab<NUL>cd'
    user_entry "cn=Twin One,$USERS_DN" twin sn One
    user_entry "cn=Twin Two,$STAFF_DN" twin sn Two
    cat <<EOF
dn: cn=admins,$BASE_DN
objectClass: top
objectClass: group
cn: admins
sAMAccountName: admins
objectCategory: group
member: cn=Smith Alice Marie,$USERS_DN

dn: cn=WS01,$BASE_DN
objectClass: top
objectClass: person
objectClass: organizationalPerson
objectClass: user
objectClass: computer
cn: WS01
sn: WS01
sAMAccountName: WS01\$
objectCategory: computer

EOF
}

# user_entry DN LOGIN [ATTR VALUE]...: a user entry as a domain controller
# holds it. objectGUID's value is replaced by dave's five bytes 61 62 00 63 64
# (bash strings cannot hold a zero byte).
user_entry() {
    local dn=$1 login=$2 rdn
    shift 2
    rdn=${dn%%,*}
    ldif dn "$dn"
    printf 'objectClass: top\nobjectClass: person\nobjectClass: organizationalPerson\nobjectClass: user\n'
    ldif cn "${rdn#cn=}"
    ldif sAMAccountName "$login"
    ldif userPrincipalName "$login@$REALM"
    printf 'objectCategory: person\n'
    while [ $# -ge 2 ]; do
        if [ "$1" = objectGUID ]; then
            printf 'objectGUID:: %s\n' "$(printf 'ab\0cd' | base64 -w0)"
        else
            ldif "$1" "$2"
        fi
        shift 2
    done
    echo
}

# N generated users under BULK_DN, shaped like a domain's user entries.
write_bulk_ldif() {
    local n=$1
    awk -v n="$n" -v bulk="$BULK_DN" -v realm="$REALM" '
    # Base64 of the n bytes b[1..n].
    function b64(b, n,    i, v, out) {
        out = ""
        for (i = 1; i <= n; i += 3) {
            v = b[i] * 65536 + (i + 1 <= n ? b[i + 1] * 256 : 0) + (i + 2 <= n ? b[i + 2] : 0)
            out = out substr(B, int(v / 262144) + 1, 1) substr(B, int(v / 4096) % 64 + 1, 1)
            out = out (i + 1 <= n ? substr(B, int(v / 64) % 64 + 1, 1) : "=")
            out = out (i + 2 <= n ? substr(B, v % 64 + 1, 1) : "=")
        }
        return out
    }
    # Sixteen binary bytes, unique per user: the number in the first four,
    # pseudo-random bytes after it.
    function guid(i,    b, k, x) {
        x = i
        for (k = 1; k <= 4; k++) { b[k] = x % 256; x = int(x / 256) }
        x = i
        for (k = 5; k <= 16; k++) { x = (x * 69069 + 1) % 4294967296; b[k] = int(x / 16777216) }
        return b64(b, 16)
    }
    # A name made of two syllables: k < 400 picks one of 400 pairs.
    function name(pre, suf, k) { return pre[k % 20 + 1] suf[int(k / 20) + 1] }
    BEGIN {
        B = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
        split("Mar Tes Dor Bel Kal Ros Fen Lin Hal Wes Car Ben Mor Ash Gil Pet Ald Cor Ver Sta", sp, " ")
        split("low ford ton ley wood man field berg stein dale more wick rich ridge well by croft hurst shaw mont", ss, " ")
        split("An El Ma Da Lu So Vi Ro Ka Ni Ju Fe Ce Pa Te Mi Ol Ha Sa Be", gp, " ")
        split("na ra lia dro vin ka ter mon rik lo sa mir den tha ris nor bel ya ko wen", gs, " ")
        split("Jo Ra Ev Li Ar Ma Ni Le Da Si Ro Ta Ge Fa Hu Be Al Mi Ca Pe", mp, " ")
        split("hn y an ne thur rie cole on vid mon bert ylor orge ith go rt ex les rl ter", ms, " ")
        split("Engineer Accountant Operator Guard Manager Analyst Clerk Technician", titles, " ")
        split("Production Finance Security Logistics Research Sales Support Facilities", depts, " ")
        for (i = 1; i <= n; i++) {
            s = name(sp, ss, i % 397); g = name(gp, gs, i % 389); m = name(mp, ms, i % 383)
            # 397 * 389 * 383 names are distinct; beyond that a number keeps cn unique.
            if (i >= 397 * 389 * 383) m = m int(i / (397 * 389 * 383))
            login = tolower(substr(g, 1, 1) s) i
            print "dn: cn=" s " " g " " m "," bulk
            print "objectClass: top"
            print "objectClass: person"
            print "objectClass: organizationalPerson"
            print "objectClass: user"
            print "cn: " s " " g " " m
            print "sn: " s
            print "givenName: " g
            print "middleName: " m
            print "displayName: " g " " s
            print "sAMAccountName: " login
            print "userPrincipalName: " login "@" realm
            print "mail: " login "@zmauth.test"
            print "objectCategory: person"
            print "description: Generated user number " i
            printf "telephoneNumber: +1 555 %07d\n", i
            print "title: " titles[i % 8 + 1]
            print "department: " depts[int(i / 8) % 8 + 1]
            print "company: Zmauth Test Works"
            printf "employeeID: E%07d\n", i
            print "objectGUID:: " guid(i)
            print ""
        }
    }'
}

# ---------------------------------------------------------------- start

start_realm() {
    local dir=$1 bulk=$2 sizelimit=$3 t0 t1
    t0=$(now_ms)
    [[ $dir != *[[:space:]\'\"]* ]] || die "the directory path must not contain blanks or quotes: $dir"

    if [ -e "$dir" ]; then
        if [ -e "$dir/$MARKER" ]; then
            stop_realm "$dir"
            rm -rf "$dir"
        elif [ -d "$dir" ] && [ -z "$(ls -A "$dir")" ]; then
            rmdir "$dir"
        else
            die "$dir exists and is not a realm directory; refusing to overwrite it"
        fi
    fi
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd -P)
    touch "$dir/$MARKER"
    mkdir -p "$dir/krb5kdc" "$dir/db" "$dir/rcache" "$dir/ccache"
    cp "$HERE/zmauth.schema" "$dir/zmauth.schema"
    : >"$dir/realm.pids"

    # libldap names the machine's own canonical host name when the peer is
    # 127.0.0.1 (what hostname -f finds); Kerberos lowercases host names.
    HOST_SHORT=$(hostname)
    HOST_FQDN=$(hostname -f 2>/dev/null || true)
    [ -n "$HOST_FQDN" ] || HOST_FQDN=$HOST_SHORT
    HOST_SHORT=${HOST_SHORT,,}
    HOST_FQDN=${HOST_FQDN,,}

    export KRB5_CONFIG=$dir/krb5.conf
    export KRB5_KDC_PROFILE=$dir/kdc.conf
    export KRB5RCACHEDIR=$dir/rcache
    export KRB5CCNAME=FILE:$dir/ccache/realm-start
    unset KRB5_KTNAME KRB5_CLIENT_KTNAME KRB5_TRACE
    export LDAPNOINIT=1

    # Configuration for the database tools; the ports are filled in later.
    write_krb5_conf "$dir/krb5.conf" 88 ""
    write_kdc_conf "$dir" 88
    write_slapd_conf "$dir" "$sizelimit"
    : >"$dir/krb5kdc/kadm5.acl"

    # --- Kerberos database, principals and keytabs
    kdb5_util -r "$REALM" create -s -P "master-$RANDOM$RANDOM" >"$dir/kdb5_util.log" 2>&1 ||
        { cat "$dir/kdb5_util.log" >&2; die "kdb5_util create failed"; }
    local hosts=(localhost 127.0.0.1 "$HOST_SHORT") h ldap_princs=()
    [ "$HOST_FQDN" = "$HOST_SHORT" ] || hosts+=("$HOST_FQDN")
    for h in "${hosts[@]}"; do ldap_princs+=("ldap/$h"); done
    {
        # Users need pre-authentication, as on a domain controller.
        echo "addprinc +requires_preauth -pw $USER_PASSWORD $USER_NAME"
        echo "addprinc +requires_preauth -pw $USER2_PASSWORD $USER2_NAME"
        echo "addprinc +requires_preauth -pw $CYR_USER_PASSWORD $CYR_USER_NAME"
        echo "addprinc -randkey ${SERVICE_PRINCIPAL%@*}"
        for h in "${ldap_princs[@]}"; do echo "addprinc -randkey $h"; done
        # -norandkey: without it ktadd gives each principal new random keys,
        # and a user's password would no longer match the keytab.
        echo "ktadd -k $dir/service.keytab -norandkey ${SERVICE_PRINCIPAL%@*}"
        echo "ktadd -k $dir/sso.keytab -norandkey ${SERVICE_PRINCIPAL%@*} $USER_NAME $USER2_NAME $CYR_USER_NAME"
        echo "ktadd -k $dir/ldap.keytab -norandkey ${ldap_princs[*]}"
    } | kadmin.local -r "$REALM" >"$dir/kadmin.log" 2>&1 ||
        { cat "$dir/kadmin.log" >&2; die "kadmin.local failed"; }
    if grep -qiE 'error|fail|usage' "$dir/kadmin.log"; then
        cat "$dir/kadmin.log" >&2
        die "kadmin.local reported an error"
    fi

    # --- directory database
    { write_fixed_ldif; [ "$bulk" -eq 0 ] || write_bulk_ldif "$bulk"; } |
        slapadd -q -f "$dir/slapd.conf" >"$dir/slapadd.log" 2>&1 ||
        { cat "$dir/slapadd.log" >&2; die "slapadd failed"; }
    t1=$(now_ms)

    # --- servers. Ports are chosen and bound under one lock per machine so
    # that realms started at the same moment do not pick the same port.
    local lock=${TMPDIR:-/tmp}/zmauth-realm-ports.lock attempt kdc_port ldap_port kdc_pid slapd_pid ok
    # Opened for reading: the file may belong to another user (flock does not
    # care about the open mode).
    [ -e "$lock" ] || (umask 0 && : >>"$lock") 2>/dev/null || true
    exec 9<"$lock" || die "cannot open $lock"
    flock -w 60 9 || die "could not lock $lock"
    for attempt in 1 2 3 4 5; do
        kdc_port=$(random_port)
        ldap_port=$(random_port)
        # Test hook: the first attempt takes these ports even if they are
        # busy, to imitate another server binding them at the same moment.
        if [ $attempt = 1 ] && [ -n "${ZMAUTH_REALM_FIRST_PORTS:-}" ]; then
            read -r kdc_port ldap_port <<<"$ZMAUTH_REALM_FIRST_PORTS"
        fi
        [ "$kdc_port" != "$ldap_port" ] || continue
        write_krb5_conf "$dir/krb5.conf" "$kdc_port" ""
        # slapd accepts a ticket for any ldap/<host> key of its keytab: the
        # client names the machine's own host name when it talks to 127.0.0.1.
        write_krb5_conf "$dir/slapd-krb5.conf" "$kdc_port" "    ignore_acceptor_hostname = true"
        write_kdc_conf "$dir" "$kdc_port"

        # Detached (own session, stdio on files, lock fd closed) so that
        # whoever started the realm, ctest included, is not kept waiting.
        setsid krb5kdc -n -r "$REALM" -P "$dir/kdc.pid" \
            </dev/null >"$dir/kdc.out" 2>&1 9>&- &
        kdc_pid=$!
        echo "krb5kdc $kdc_pid" >>"$dir/realm.pids"
        KRB5_CONFIG=$dir/slapd-krb5.conf KRB5_KTNAME=FILE:$dir/ldap.keytab \
            setsid slapd -d 256 -f "$dir/slapd.conf" -h "ldap://127.0.0.1:$ldap_port/" \
            </dev/null >"$dir/slapd.log" 2>&1 9>&- &
        slapd_pid=$!
        echo "slapd $slapd_pid" >>"$dir/realm.pids"

        ok=0
        local i
        for ((i = 0; i < 200; i++)); do
            if ! is_ours "$kdc_pid" "$dir" || ! is_ours "$slapd_pid" "$dir"; then
                break
            fi
            # The KDC holds a UDP and a TCP socket, slapd one TCP socket.
            if port_owned_by "$kdc_port" "$kdc_pid" 2 && port_owned_by "$ldap_port" "$slapd_pid" 1; then
                ok=1
                break
            fi
            sleep 0.025
        done
        if [ $ok = 1 ] && ldapwhoami -x -H "ldap://127.0.0.1:$ldap_port/" >/dev/null 2>&1 &&
            port_owned_by "$kdc_port" "$kdc_pid" 2 && port_owned_by "$ldap_port" "$slapd_pid" 1; then
            break
        fi
        ok=0
        echo "realm.sh: attempt $attempt on ports $kdc_port/$ldap_port failed (see $dir/kdc.log, $dir/slapd.log)" >&2
        stop_realm "$dir"
        : >"$dir/realm.pids"
    done
    flock -u 9
    exec 9>&-
    [ $ok = 1 ] || { tail -n 20 "$dir/kdc.out" "$dir/kdc.log" "$dir/slapd.log" >&2 || true; die "the servers did not start"; }

    local ldap_uri=ldap://127.0.0.1:$ldap_port/
    {
        echo "# The throwaway realm in $dir (generated by realm.sh; source it or read it)."
        env_line REALM_DIR "$dir"
        env_line KRB5_REALM "$REALM"
        env_line KDC_PORT "$kdc_port"
        env_line KRB5_CONFIG "$dir/krb5.conf"
        env_line KRB5_KDC_PROFILE "$dir/kdc.conf"
        env_line KRB5RCACHEDIR "$dir/rcache"
        env_line CCACHE_DIR "$dir/ccache"
        env_line LDAP_HOST 127.0.0.1
        env_line LDAP_PORT "$ldap_port"
        env_line LDAP_URI "$ldap_uri"
        env_line BASE_DN "$BASE_DN"
        env_line USERS_DN "$USERS_DN"
        env_line STAFF_DN "$STAFF_DN"
        env_line REFERRAL_DN "$REFERRAL_DN"
        env_line BULK_DN "$BULK_DN"
        env_line BULK_USERS "$bulk"
        env_line SIZE_LIMIT "$sizelimit"
        env_line ADMIN_DN "$ADMIN_DN"
        env_line ADMIN_PASSWORD "$ADMIN_PASSWORD"
        env_line USER_NAME "$USER_NAME"
        env_line USER_PASSWORD "$USER_PASSWORD"
        env_line USER2_NAME "$USER2_NAME"
        env_line USER2_PASSWORD "$USER2_PASSWORD"
        env_line CYR_USER_NAME "$CYR_USER_NAME"
        env_line CYR_USER_PASSWORD "$CYR_USER_PASSWORD"
        env_line SERVICE_NAME "$SERVICE_NAME"
        env_line SERVICE_PRINCIPAL "$SERVICE_PRINCIPAL"
        env_line SERVICE_KEYTAB "$dir/service.keytab"
        env_line SSO_KEYTAB "$dir/sso.keytab"
        env_line LDAP_KEYTAB "$dir/ldap.keytab"
        env_line LDAP_PRINCIPALS "${ldap_princs[*]}"
        env_line FIXED_USERS "$FIXED_USERS"
        env_line FIXED_USER_COUNT "$FIXED_USER_COUNT"
        env_line KDC_PID "$kdc_pid"
        env_line SLAPD_PID "$slapd_pid"
    } >"$dir/realm.env.tmp"
    mv "$dir/realm.env.tmp" "$dir/realm.env"
    rm -f "$dir/ccache/realm-start"
    echo "realm $REALM in $dir: kdc 127.0.0.1:$kdc_port (pid $kdc_pid), ldap $ldap_uri (pid $slapd_pid), $bulk bulk users; set up in $((t1 - t0)) ms, started in $(($(now_ms) - t0)) ms"
}

# ---------------------------------------------------------------- main

[ $# -ge 2 ] || usage
cmd=$1
dir=$2
shift 2
case $cmd in
start)
    bulk=0
    sizelimit=unlimited
    while [ $# -gt 0 ]; do
        case $1 in
        --bulk) [ $# -ge 2 ] && [[ $2 =~ ^[0-9]+$ ]] || usage; bulk=$2; shift 2 ;;
        --sizelimit) [ $# -ge 2 ] && [[ $2 =~ ^([0-9]+|unlimited)$ ]] || usage; sizelimit=$2; shift 2 ;;
        # slapd's own limit words, e.g. a domain controller's MaxPageSize:
        # 'size.soft=1000 size.hard=1000 size.pr=1000 size.prtotal=unlimited'
        --size-limit)
            [ $# -ge 2 ] && [[ $2 =~ ^size(\.[a-z]+)?=([0-9]+|unlimited|none|disabled|noEstimate)(\ +size(\.[a-z]+)?=([0-9]+|unlimited|none|disabled|noEstimate))*$ ]] || usage
            sizelimit=$2; shift 2 ;;
        *) usage ;;
        esac
    done
    [ "$sizelimit" != 0 ] || sizelimit=unlimited
    start_realm "$dir" "$bulk" "$sizelimit"
    ;;
stop)
    [ $# -eq 0 ] || usage
    [ -d "$dir" ] || exit 0
    stop_realm "$(cd "$dir" && pwd -P)"
    ;;
*) usage ;;
esac
