#!/bin/bash
# The throwaway realm: an MIT KDC and an OpenLDAP slapd on 127.0.0.1, created
# in one directory and run as plain processes of whoever starts it.
#
#   realm.sh start DIR [--bulk N] [--sizelimit N | --size-limit SPEC]
#                      [--server-cert good|other-name|expired] [--require-tls]
#   realm.sh stop DIR
#   realm.sh check-ports DIR
#
# Everything a test needs is written to DIR/realm.env (see README.md).
# Nothing of the machine's own Kerberos or LDAP configuration is read by the
# servers: each gets its configuration files from DIR through its command line
# or KRB5_CONFIG / KRB5_KDC_PROFILE.
#
# Read top to bottom: the fixed names, processes, ports, text helpers, the
# configuration files, the directory content, then the steps of a start in
# the order start_realm runs them, and the command line.
set -euo pipefail
shopt -s inherit_errexit
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
PORT_LOCK=${TMPDIR:-/tmp}/zmauth-realm-ports.lock

# Set by the start steps below, read by the later ones.
HOST_SHORT=
HOST_FQDN=
LDAP_PRINCIPALS=()
KDC_PORT=
LDAP_PORT=
LDAPS_PORT=
KDC_PID=
SLAPD_PID=
# Set by the command line.
SERVER_CERT=good
REQUIRE_TLS=0

die() { echo "realm.sh: $*" >&2; exit 1; }
now_ms() { date +%s%3N; }

usage() {
    cat >&2 <<'EOF'
usage: realm.sh start DIR [--bulk N] [--sizelimit N | --size-limit SPEC]
                          [--server-cert good|other-name|expired] [--require-tls]
       realm.sh stop DIR
       realm.sh check-ports DIR
EOF
    exit 2
}

# ---------------------------------------------------------------- processes

# stat_field PID N: field N of /proc/PID/stat after the command name
# (1 the state, 2 the parent's PID).
stat_field() {
    sed -e 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f"$2"
}

# True while PID exists and is not a zombie. An exiting process loses its
# command line before it ends, so waiting for an end checks this, not is_ours.
running() {
    local state
    [ -r "/proc/$1/stat" ] || return 1
    state=$(stat_field "$1" 1) || return 1
    [ -n "$state" ] && [ "$state" != Z ] && [ "$state" != X ]
}

# True when PID is a live process that this realm started and not a recycled
# PID: its command line names DIR, or, during a start, it is a child of this
# script (a server just forked still has this script's command line until it
# has executed its program).
is_ours() {
    local pid=$1 dir=$2 cmd
    [[ $pid =~ ^[0-9]+$ ]] || return 1
    running "$pid" || return 1
    [ "$(stat_field "$pid" 2)" != $$ ] || return 0
    cmd=$(tr '\0' ' ' 2>/dev/null <"/proc/$pid/cmdline") || return 1
    [[ $cmd == *"$dir/"* ]]
}

# The PIDs recorded in DIR/realm.pids (one "name pid" line per server).
recorded_pids() {
    local dir=$1
    [ -f "$dir/realm.pids" ] || return 0
    awk '{ print $2 }' "$dir/realm.pids"
}

# wait_ended TRIES PID...: true once none of the PIDs runs, polling every
# 50 ms at most TRIES times.
wait_ended() {
    local tries=$1 i pid left
    shift
    for ((i = 0; i < tries; i++)); do
        left=0
        for pid in "$@"; do
            running "$pid" && left=1
        done
        [ $left = 1 ] || return 0
        sleep 0.05
    done
    return 1
}

# Ends the servers recorded in DIR: TERM, and KILL for what is left after
# 10 s (slapd flushes its database on TERM).
stop_realm() {
    local dir=$1 pid live=()
    [ -d "$dir" ] || return 0
    for pid in $(recorded_pids "$dir"); do
        if is_ours "$pid" "$dir"; then
            kill -TERM "$pid" 2>/dev/null || true
            live+=("$pid")
        fi
    done
    [ ${#live[@]} -gt 0 ] || return 0
    wait_ended 200 "${live[@]}" && return 0
    for pid in "${live[@]}"; do
        if is_ours "$pid" "$dir"; then
            echo "realm.sh: process $pid did not end on TERM, killing it" >&2
            kill -KILL "$pid" 2>/dev/null || true
        fi
    done
    wait_ended 100 "${live[@]}" || die "processes ${live[*]} of $dir are still running"
}

# ---------------------------------------------------------------- ports

# "file state inode" of every socket whose local port is PORT, on any address
# (tcp, tcp6, udp, udp6). State is the kernel's hex code: 0A a listening TCP
# socket, 06 TIME_WAIT, 01 an established TCP or connected UDP socket, 07 an
# unconnected UDP socket.
port_sockets() {
    local port=$1 hex f files=()
    hex=$(printf ':%04X' "$port")
    for f in tcp tcp6 udp udp6; do
        [ -r "/proc/net/$f" ] && files+=("/proc/net/$f")
    done
    awk -v h="$hex" 'FNR > 1 && substr($2, length($2) - 4) == h {
        f = FILENAME; sub(/.*\//, "", f); print f, $4, $10 }' "${files[@]}"
}

# Free for a new server: no socket of any kind on the port.
port_free() { [ -z "$(port_sockets "$1")" ]; }

# Inodes of the sockets that serve PORT: listening TCP and unconnected UDP.
# TIME_WAIT sockets (inode 0, of no process), connections the server accepted
# and a client's connection that happens to use the port number do not serve
# it, and do not count.
listening_inodes() {
    port_sockets "$1" | awk '($1 ~ /^tcp/ && $2 == "0A") || ($1 ~ /^udp/ && $2 == "07") { print $3 }'
}

# Socket inodes held open by PID.
pid_inodes() {
    local pid=$1 fd
    for fd in /proc/"$pid"/fd/*; do
        fd=$(readlink "$fd" 2>/dev/null) || continue
        if [[ $fd =~ ^socket:\[([0-9]+)\]$ ]]; then echo "${BASH_REMATCH[1]}"; fi
    done
}

# "OWN OTHER": how many listening sockets on PORT belong to PID and how many
# to someone else. The sockets are listed before PID's descriptors are read,
# so a socket that PID is opening meanwhile is never taken for a stranger's.
port_holders() {
    local port=$1 pid=$2 listening mine inode own=0 other=0
    listening=$(listening_inodes "$port")
    mine=" $(pid_inodes "$pid" | tr '\n' ' ') "
    for inode in $listening; do
        if [[ $mine == *" $inode "* ]]; then own=$((own + 1)); else other=$((other + 1)); fi
    done
    echo "$own $other"
}

# True when PORT has at least WANT listening sockets and all of them belong to
# PID. krb5kdc binds with address reuse, so a second server on the same port
# would start without complaint; this is how a shared port is noticed.
port_owned_by() {
    local own other
    read -r own other < <(port_holders "$1" "$2")
    [ "$other" -eq 0 ] && [ "$own" -ge "$3" ]
}

# True when another process listens on PORT beside PID.
port_shared() {
    local own other
    read -r own other < <(port_holders "$1" "$2")
    [ "$other" -gt 0 ]
}

random_port() {
    local p
    while :; do
        p=$(( ((RANDOM << 15) | RANDOM) % 35000 + 20000 ))
        port_free "$p" && { echo "$p"; return; }
    done
}

# ---------------------------------------------------------------- text

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

# The values as words of a kadmin command line, blank-separated: kadmin
# splits its lines at blanks outside double quotes, and a doubled quote inside
# stands for one.
kadmin_words() {
    local word sep=
    for word in "$@"; do
        printf '%s"%s"' "$sep" "${word//\"/\"\"}"
        sep=' '
    done
}

# ---------------------------------------------------------------- configuration files

# krb5.conf for the clients: FILE, the KDC's port, extra [libdefaults] lines.
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

# The Kerberos files for a KDC on KDC_PORT: the clients' krb5.conf, slapd's
# own copy and the KDC profile.
write_kerberos_conf() {
    local dir=$1 kdc_port=$2
    write_krb5_conf "$dir/krb5.conf" "$kdc_port" ""
    # slapd accepts a ticket for any ldap/<host> key of its keytab: the
    # client names the machine's own host name when it talks to 127.0.0.1.
    write_krb5_conf "$dir/slapd-krb5.conf" "$kdc_port" "    ignore_acceptor_hostname = true"
    write_kdc_conf "$dir" "$kdc_port"
}

write_slapd_conf() {
    local dir=$1 sizelimit=$2 require_tls=$3 security=
    # A directory that takes no operation outside TLS.
    [ "$require_tls" = 0 ] || security="security    tls=1"
    cat >"$dir/slapd.conf" <<EOF
# slapd configuration of the throwaway realm (generated).
include     /etc/ldap/schema/core.schema
include     "$dir/zmauth.schema"

pidfile     "$dir/slapd.pid"
argsfile    "$dir/slapd.args"

modulepath  /usr/lib/ldap
moduleload  back_mdb

# slapd stops at 500 entries by default; a domain controller answers 1000.
sizelimit   $sizelimit

# StartTLS on the ldap:// listener and the ldaps:// listener, with the
# realm's own CA (tls/).
TLSCACertificateFile    "$dir/tls/ca.pem"
TLSCertificateFile      "$dir/tls/server.pem"
TLSCertificateKeyFile   "$dir/tls/server.key"
$security

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
rootpw      "$ADMIN_PASSWORD"
directory   "$dir/db"
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

# ---------------------------------------------------------------- directory content

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

# ---------------------------------------------------------------- certificates

# openssl ca's configuration: it signs with the realm's CA, copies the names
# from the request and takes the validity dates it is given.
write_ca_conf() {
    local tls=$1
    cat >"$tls/ca.cnf" <<EOF
[ ca ]
default_ca = realm_ca
[ realm_ca ]
database = $tls/index.txt
new_certs_dir = $tls/issued
serial = $tls/serial
certificate = $tls/ca.pem
private_key = $tls/ca.key
default_md = sha256
policy = any_name
copy_extensions = copy
unique_subject = no
[ any_name ]
commonName = supplied
EOF
}

# A CA of its own: KEY and self-signed PEM certificate.
make_ca() {
    local tls=$1 name=$2 cn=$3
    openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -keyout "$tls/$name.key" -out "$tls/$name.pem" -days 30 -subj "/CN=$cn" \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
}

# DIR/tls: the realm's CA (ca.pem), a CA that signed nothing of this realm
# (other-ca.pem), and slapd's certificate (server.pem, server.key) of the
# kind asked for: good (127.0.0.1, localhost and the host names, valid now),
# other-name (only a name nothing connects to) or expired (the good names,
# valid only in the past).
make_certificates() {
    local dir=$1 kind=$2 tls=$1/tls names dates=()
    mkdir -p "$tls/issued"
    : >"$tls/index.txt"
    echo 01 >"$tls/serial"
    write_ca_conf "$tls"
    {
        make_ca "$tls" ca "zmauth realm CA"
        make_ca "$tls" other-ca "zmauth unrelated CA"
        names="IP:127.0.0.1,DNS:localhost,DNS:$HOST_SHORT"
        [ "$HOST_FQDN" = "$HOST_SHORT" ] || names="$names,DNS:$HOST_FQDN"
        case $kind in
        good) dates=(-days 30) ;;
        other-name) names="DNS:elsewhere.zmauth.invalid"; dates=(-days 30) ;;
        expired) dates=(-startdate 20200101000000Z -enddate 20200201000000Z) ;;
        esac
        openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
            -keyout "$tls/server.key" -out "$tls/server.csr" -subj "/CN=zmauth realm slapd" \
            -addext "subjectAltName=$names" -addext extendedKeyUsage=serverAuth
        openssl ca -batch -notext -config "$tls/ca.cnf" "${dates[@]}" \
            -in "$tls/server.csr" -out "$tls/server.pem"
    } >"$dir/openssl.log" 2>&1 || { cat "$dir/openssl.log" >&2; die "making the certificates failed"; }
}

# ---------------------------------------------------------------- start, step by step

# Makes DIR an empty realm directory and prints its physical path. A realm
# already there is stopped and replaced; anything else is left alone.
prepare_dir() {
    local dir=$1
    [[ $dir != *[[:space:]\'\"]* ]] || die "the directory path must not contain blanks or quotes: $dir"
    if [ -e "$dir" ]; then
        if [ -e "$dir/$MARKER" ]; then
            stop_realm "$(cd "$dir" && pwd -P)"
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
    echo "$dir"
}

# HOST_SHORT, HOST_FQDN and LDAP_PRINCIPALS. libldap names the machine's own
# canonical host name when the peer is 127.0.0.1 (what hostname -f finds);
# Kerberos lowercases host names.
find_host_names() {
    local h
    HOST_SHORT=$(hostname)
    HOST_FQDN=$(hostname -f 2>/dev/null || true)
    [ -n "$HOST_FQDN" ] || HOST_FQDN=$HOST_SHORT
    HOST_SHORT=${HOST_SHORT,,}
    HOST_FQDN=${HOST_FQDN,,}
    LDAP_PRINCIPALS=()
    for h in localhost 127.0.0.1 "$HOST_SHORT" "$HOST_FQDN"; do
        [[ " ${LDAP_PRINCIPALS[*]} " == *" ldap/$h "* ]] || LDAP_PRINCIPALS+=("ldap/$h")
    done
}

# The environment of the set-up tools and the servers: this realm's files
# only, never the machine's.
use_realm_environment() {
    local dir=$1
    export KRB5_CONFIG=$dir/krb5.conf
    export KRB5_KDC_PROFILE=$dir/kdc.conf
    export KRB5RCACHEDIR=$dir/rcache
    export KRB5CCNAME=FILE:$dir/ccache/realm-start
    unset KRB5_KTNAME KRB5_CLIENT_KTNAME KRB5_TRACE
    export LDAPNOINIT=1
}

# Configuration for the database tools; the servers' ports are written when
# they are chosen.
write_config_files() {
    local dir=$1 sizelimit=$2 require_tls=$3
    write_kerberos_conf "$dir" 88
    write_slapd_conf "$dir" "$sizelimit" "$require_tls"
    : >"$dir/krb5kdc/kadm5.acl"
}

# run_logged LOG WHAT COMMAND...: runs the command with its output in LOG,
# and shows that output if it fails.
run_logged() {
    local log=$1 what=$2
    shift 2
    "$@" >"$log" 2>&1 || { cat "$log" >&2; die "$what failed"; }
}

create_kdc_database() {
    local dir=$1
    run_logged "$dir/kdb5_util.log" "kdb5_util create" \
        kdb5_util -r "$REALM" create -s -P "master-$RANDOM$RANDOM"
}

# The kadmin.local session that makes the principals and the three keytabs.
kadmin_commands() {
    local dir=$1 service=${SERVICE_PRINCIPAL%@*} p
    # Users need pre-authentication, as on a domain controller.
    echo "addprinc +requires_preauth -pw $(kadmin_words "$USER_PASSWORD" "$USER_NAME")"
    echo "addprinc +requires_preauth -pw $(kadmin_words "$USER2_PASSWORD" "$USER2_NAME")"
    echo "addprinc +requires_preauth -pw $(kadmin_words "$CYR_USER_PASSWORD" "$CYR_USER_NAME")"
    for p in "$service" "${LDAP_PRINCIPALS[@]}"; do
        echo "addprinc -randkey $(kadmin_words "$p")"
    done
    # -norandkey: without it ktadd gives each principal new random keys, and a
    # user's password would no longer match the keytab.
    echo "ktadd -k $(kadmin_words "$dir/service.keytab") -norandkey $(kadmin_words "$service")"
    echo "ktadd -k $(kadmin_words "$dir/sso.keytab") -norandkey $(kadmin_words "$service" "$USER_NAME" "$USER2_NAME" "$CYR_USER_NAME")"
    echo "ktadd -k $(kadmin_words "$dir/ldap.keytab") -norandkey $(kadmin_words "${LDAP_PRINCIPALS[@]}")"
}

# kadmin.local answers 0 even when a command of its session fails, so its
# output is read as well.
add_principals_and_keytabs() {
    local dir=$1
    kadmin_commands "$dir" | run_logged "$dir/kadmin.log" kadmin.local kadmin.local -r "$REALM"
    # The keytab paths it echoes hold the realm's directory, whose name (a
    # test's, say "failover") must not read as a failure.
    local log
    log=$(<"$dir/kadmin.log")
    if grep -qiE 'error|fail|usage' <<<"${log//"$dir"/DIR}"; then
        cat "$dir/kadmin.log" >&2
        die "kadmin.local reported an error"
    fi
}

# The fixed entries and BULK generated users, loaded before slapd runs.
load_directory() {
    local dir=$1 bulk=$2
    { write_fixed_ldif; [ "$bulk" -eq 0 ] || write_bulk_ldif "$bulk"; } |
        run_logged "$dir/slapadd.log" slapadd slapadd -q -f "$dir/slapd.conf"
}

# The servers run detached (own session, stdio on files, the port lock's
# descriptor closed) so that whoever started the realm, ctest included, is not
# kept waiting. Each sets KDC_PID or SLAPD_PID and records it in realm.pids.
start_kdc() {
    local dir=$1
    setsid krb5kdc -n -r "$REALM" -P "$dir/kdc.pid" \
        </dev/null >"$dir/kdc.out" 2>&1 9>&- &
    KDC_PID=$!
    echo "krb5kdc $KDC_PID" >>"$dir/realm.pids"
}

start_slapd() {
    local dir=$1
    KRB5_CONFIG=$dir/slapd-krb5.conf KRB5_KTNAME=FILE:$dir/ldap.keytab \
        setsid slapd -d 256 -f "$dir/slapd.conf" -h "ldap://127.0.0.1:$LDAP_PORT/ ldaps://127.0.0.1:$LDAPS_PORT/" \
        </dev/null >"$dir/slapd.log" 2>&1 9>&- &
    SLAPD_PID=$!
    echo "slapd $SLAPD_PID" >>"$dir/realm.pids"
}

# Both servers hold their ports alone: the KDC a UDP and a TCP socket, slapd
# one TCP socket on each of its two ports.
ports_owned() {
    port_owned_by "$KDC_PORT" "$KDC_PID" 2 && port_owned_by "$LDAP_PORT" "$SLAPD_PID" 1 &&
        port_owned_by "$LDAPS_PORT" "$SLAPD_PID" 1
}

# True once both servers listen on their ports, alone, and slapd answers an
# anonymous whoami. False, with the reason on stderr, as soon as either
# server has ended or another process listens on one of the ports, and after
# 20 s.
wait_until_ready() {
    local dir=$1 i
    for ((i = 0; i < 800; i++)); do
        is_ours "$KDC_PID" "$dir" || { not_ready "krb5kdc (pid $KDC_PID) ended"; return 1; }
        is_ours "$SLAPD_PID" "$dir" || { not_ready "slapd (pid $SLAPD_PID) ended"; return 1; }
        ! port_shared "$KDC_PORT" "$KDC_PID" || { not_ready "another process listens on port $KDC_PORT"; return 1; }
        ! port_shared "$LDAP_PORT" "$SLAPD_PID" || { not_ready "another process listens on port $LDAP_PORT"; return 1; }
        ! port_shared "$LDAPS_PORT" "$SLAPD_PID" || { not_ready "another process listens on port $LDAPS_PORT"; return 1; }
        ports_owned && break
        sleep 0.025
    done
    [ "$i" -lt 800 ] || { not_ready "the servers did not listen within 20 s"; return 1; }
    # A directory that requires TLS answers only inside it; the certificate
    # may be one made to fail, so this probe alone does not verify it (the
    # TLS setting comes from the environment: LDAPNOINIT is lifted for it,
    # and no ldap.conf or .ldaprc is read all the same).
    local probe=(ldapwhoami -x)
    [ "$REQUIRE_TLS" = 0 ] || probe=(env -u LDAPNOINIT LDAPCONF=/dev/null LDAPRC=.zmauth-no-ldaprc
                                     LDAPTLS_REQCERT=never ldapwhoami -x -ZZ)
    "${probe[@]}" -H "ldap://127.0.0.1:$LDAP_PORT/" >/dev/null 2>"$dir/whoami.err" ||
        { not_ready "slapd did not answer whoami: $(cat "$dir/whoami.err")"; return 1; }
    ports_owned || { not_ready "the ports were not the servers' alone after whoami"; return 1; }
}

not_ready() { echo "realm.sh: $*" >&2; }

# Ports are chosen and bound under one lock per machine, so that realms
# started at the same moment do not pick the same port. The lock file is
# opened for reading: it may belong to another user (flock does not care).
lock_ports() {
    [ -e "$PORT_LOCK" ] || (umask 0 && : >>"$PORT_LOCK") 2>/dev/null || true
    exec 9<"$PORT_LOCK" || die "cannot open $PORT_LOCK"
    flock -w 120 9 || die "could not lock $PORT_LOCK"
}

unlock_ports() {
    flock -u 9
    exec 9>&-
}

# Picks two free ports and starts both servers on them; on a failure it stops
# them and tries other ports, five times in all.
start_servers() {
    local dir=$1 attempt
    lock_ports
    for attempt in 1 2 3 4 5; do
        KDC_PORT=$(random_port)
        LDAP_PORT=$(random_port)
        LDAPS_PORT=$(random_port)
        # Test hook: the first attempt takes these ports even if they are
        # busy, to imitate another server binding them at the same moment.
        if [ $attempt = 1 ] && [ -n "${ZMAUTH_REALM_FIRST_PORTS:-}" ]; then
            read -r KDC_PORT LDAP_PORT <<<"$ZMAUTH_REALM_FIRST_PORTS"
        fi
        [ "$KDC_PORT" != "$LDAP_PORT" ] && [ "$LDAPS_PORT" != "$KDC_PORT" ] && [ "$LDAPS_PORT" != "$LDAP_PORT" ] || continue
        write_kerberos_conf "$dir" "$KDC_PORT"
        start_kdc "$dir"
        start_slapd "$dir"
        if wait_until_ready "$dir"; then
            unlock_ports
            return 0
        fi
        echo "realm.sh: attempt $attempt on ports $KDC_PORT/$LDAP_PORT failed (see $dir/kdc.log, $dir/slapd.log)" >&2
        stop_realm "$dir"
        : >"$dir/realm.pids"
    done
    unlock_ports
    tail -n 20 "$dir/kdc.out" "$dir/kdc.log" "$dir/slapd.log" >&2 || true
    die "the servers did not start"
}

# DIR/realm.env, written last and renamed into place, so that its presence
# means the realm is up.
write_realm_env() {
    local dir=$1 bulk=$2 sizelimit=$3
    {
        echo "# The throwaway realm in $dir (generated by realm.sh; source it or read it)."
        env_line REALM_DIR "$dir"
        env_line KRB5_REALM "$REALM"
        env_line KDC_PORT "$KDC_PORT"
        env_line KRB5_CONFIG "$dir/krb5.conf"
        env_line KRB5_KDC_PROFILE "$dir/kdc.conf"
        env_line KRB5RCACHEDIR "$dir/rcache"
        env_line CCACHE_DIR "$dir/ccache"
        env_line LDAP_HOST 127.0.0.1
        env_line LDAP_PORT "$LDAP_PORT"
        env_line LDAP_URI "ldap://127.0.0.1:$LDAP_PORT/"
        env_line LDAPS_PORT "$LDAPS_PORT"
        env_line LDAPS_URI "ldaps://127.0.0.1:$LDAPS_PORT/"
        env_line TLS_CA_FILE "$dir/tls/ca.pem"
        env_line OTHER_CA_FILE "$dir/tls/other-ca.pem"
        env_line SERVER_CERT "$SERVER_CERT"
        env_line REQUIRE_TLS "$REQUIRE_TLS"
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
        env_line LDAP_PRINCIPALS "${LDAP_PRINCIPALS[*]}"
        env_line FIXED_USERS "$FIXED_USERS"
        env_line FIXED_USER_COUNT "$FIXED_USER_COUNT"
        env_line KDC_PID "$KDC_PID"
        env_line SLAPD_PID "$SLAPD_PID"
    } >"$dir/realm.env.tmp"
    mv "$dir/realm.env.tmp" "$dir/realm.env"
}

start_realm() {
    local dir=$1 bulk=$2 sizelimit=$3 t0 t1
    t0=$(now_ms)
    dir=$(prepare_dir "$dir")
    find_host_names
    use_realm_environment "$dir"
    write_config_files "$dir" "$sizelimit" "$REQUIRE_TLS"
    make_certificates "$dir" "$SERVER_CERT"
    create_kdc_database "$dir"
    add_principals_and_keytabs "$dir"
    load_directory "$dir" "$bulk"
    t1=$(now_ms)
    start_servers "$dir"
    write_realm_env "$dir" "$bulk" "$sizelimit"
    rm -f "$dir/ccache/realm-start"
    echo "realm $REALM in $dir: kdc 127.0.0.1:$KDC_PORT (pid $KDC_PID), ldap ldap://127.0.0.1:$LDAP_PORT/ (pid $SLAPD_PID), $bulk bulk users; set up in $((t1 - t0)) ms, started in $(($(now_ms) - t0)) ms"
}

# ---------------------------------------------------------------- check-ports

# check_ports DIR: one line per server saying whether its port is served by
# it alone; true when both are. Reads only realm.env and /proc.
check_ports() {
    local dir=$1 ok=0 name port pid want
    [ -r "$dir/realm.env" ] || die "no realm in $dir"
    # shellcheck disable=SC1091
    read -r KDC_PORT LDAP_PORT KDC_PID SLAPD_PID < <(
        . "$dir/realm.env" && echo "$KDC_PORT $LDAP_PORT $KDC_PID $SLAPD_PID")
    while read -r name port pid want; do
        if port_owned_by "$port" "$pid" "$want"; then
            echo "$name port $port: owned by pid $pid"
        else
            echo "$name port $port: not owned by pid $pid alone (listening sockets: $(listening_inodes "$port" | xargs))"
            ok=1
        fi
    done <<EOF
kdc $KDC_PORT $KDC_PID 2
ldap $LDAP_PORT $SLAPD_PID 1
EOF
    return $ok
}

# ---------------------------------------------------------------- command line

# slapd's own limit words, e.g. a domain controller's MaxPageSize:
# 'size.soft=1000 size.hard=1000 size.pr=1000 size.prtotal=unlimited'
SIZE_WORD='size(\.[a-z]+)?=([0-9]+|unlimited|none|disabled|noEstimate)'

main() {
    [ $# -ge 2 ] || usage
    local cmd=$1 dir=$2 bulk=0 sizelimit=unlimited
    shift 2
    case $cmd in
    start)
        while [ $# -gt 0 ]; do
            case $1 in
            --bulk) [ $# -ge 2 ] && [[ $2 =~ ^[0-9]+$ ]] || usage; bulk=$2; shift 2 ;;
            --sizelimit) [ $# -ge 2 ] && [[ $2 =~ ^([0-9]+|unlimited)$ ]] || usage; sizelimit=$2; shift 2 ;;
            --size-limit)
                [ $# -ge 2 ] && [[ $2 =~ ^$SIZE_WORD(\ +$SIZE_WORD)*$ ]] || usage
                sizelimit=$2; shift 2 ;;
            --server-cert) [ $# -ge 2 ] && [[ $2 =~ ^(good|other-name|expired)$ ]] || usage; SERVER_CERT=$2; shift 2 ;;
            --require-tls) REQUIRE_TLS=1; shift ;;
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
    check-ports)
        [ $# -eq 0 ] || usage
        check_ports "$(cd "$dir" && pwd -P)"
        ;;
    *) usage ;;
    esac
}

main "$@"
