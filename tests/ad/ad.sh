#!/bin/bash
# The test domain: Samba's Active Directory domain controller, provisioned
# afresh in one directory and run inside a network namespace of its own, on a
# veth pair that exists only there (no default route: nothing leaves it).
#
#   ad.sh start DIR [--bulk N]
#   ad.sh stop DIR
#
# Everything a test needs is written to DIR/ad.env (see README.md); tests run
# inside the namespace through in-ns.sh. Needs root (namespaces, mounts).
set -euo pipefail
umask 022
export PATH="/usr/sbin:/usr/bin:/sbin:/bin:$PATH"
export LC_ALL=C.UTF-8

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
IN_NS=$HERE/in-ns.sh
# shellcheck source=../../tools/packages.sh
. "$HERE/../../tools/packages.sh"

REALM=ZMAD.TEST
DOMAIN=ZMAD
DNS_DOMAIN=zmad.test
BASE_DN=DC=zmad,DC=test
PEOPLE_DN=OU=People,$BASE_DN
BULK_DN=OU=Bulk,$BASE_DN
DC_NAME=dc1
DC_HOST=$DC_NAME.$DNS_DOMAIN
# The DC on one end of the pair, the other end for nobody in particular;
# both addresses exist only inside the namespace.
DC_IP=10.213.0.1
PEER_IP=10.213.0.2
ADMIN_NAME=Administrator
ADMIN_PASSWORD=Adm1n-Secret-0

# Passwords meet the domain's default complexity rule (three character
# classes, none containing the login).
USER_NAME=alice
USER_PASSWORD=Wonder-Land-71
USER2_NAME=bob
USER2_PASSWORD=Builder-Box-72
CYR_USER_NAME=ivan
CYR_USER_PASSWORD='Пароль-Ивана-3'
CYR_LOGIN_NAME='анна'
CYR_LOGIN_PASSWORD=Snow-Field-74
COMMA_USER_NAME=jdoe
COMMA_USER_CN='Doe, John'
DISABLED_USER_NAME=carol
DISABLED_USER_PASSWORD=Locked-Door-76
GROUP_NAME=staff
SERVICE_ACCOUNT=svc-http
SERVICE_HOST=app.$DNS_DOMAIN
SERVICE_NAME=HTTP@$SERVICE_HOST
SERVICE_PRINCIPAL=HTTP/$SERVICE_HOST@$REALM
# A service account left with the domain's defaults (no supported
# encryption types set).
PLAIN_SERVICE_ACCOUNT=svc-plain
PLAIN_SERVICE_HOST=plain.$DNS_DOMAIN

# Logins of the entries the default user filter returns under PEOPLE_DN,
# sorted by code point.
PEOPLE_USERS="$USER_NAME $USER2_NAME $DISABLED_USER_NAME $CYR_USER_NAME $COMMA_USER_NAME $SERVICE_ACCOUNT $PLAIN_SERVICE_ACCOUNT $CYR_LOGIN_NAME"

MARKER=.zmauth-ad
# Generous: on two cores provisioning takes 5 s idle and 10-15 s busy, the
# DC's start until it answers a GSSAPI bind 1-3 s.
READY_GUARD_S=180

die() { echo "ad.sh: $*" >&2; exit 1; }
now_ms() { date +%s%3N; }

usage() {
    cat >&2 <<'EOF'
usage: ad.sh start DIR [--bulk N]
       ad.sh stop DIR
EOF
    exit 2
}

# ---------------------------------------------------------------- processes

# True while PID exists and is not a zombie (the state follows the last ")"
# of /proc/PID/stat).
running() {
    local stat
    [[ $1 =~ ^[0-9]+$ ]] && stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    [ -n "$stat" ] && [[ $stat != [ZX]* ]]
}

# True when PID is the DC's first process: alive, in the PID namespace
# recorded at start, and the first process there (so a reused PID is never
# taken for it). Its command line is no help: samba rewrites its title.
is_dc() {
    local pid=$1 pidns=$2
    running "$pid" || return 1
    [ "$(readlink "/proc/$pid/ns/pid" 2>/dev/null)" = "$pidns" ] || return 1
    [ "$(awk '$1 == "NSpid:" { print $NF }' "/proc/$pid/status" 2>/dev/null)" = 1 ]
}

# Live processes in PID namespace NS (its first process included).
pidns_members() {
    local ns=$1 p
    for p in /proc/[0-9]*; do
        [ "$(readlink "$p/ns/pid" 2>/dev/null)" = "$ns" ] && running "${p#/proc/}" && echo "${p#/proc/}"
    done
    return 0
}

wait_gone() {
    local pid=$1 tenths=$2 i
    for ((i = 0; i < tenths; i++)); do
        running "$pid" || return 0
        sleep 0.1
    done
    return 1
}

# Ends what start created, from what it recorded in DIR: the DC (TERM to the
# first process of its PID namespace; should it linger, KILL, which ends every
# process of that namespace), then the network namespace with its veth pair.
stop_ad() {
    local dir=$1 launcher="" init="" pidns="" netns="" left cmd
    [ -d "$dir" ] || return 0
    rm -f "$dir/ad.env"
    if [ -s "$dir/ad.pids" ]; then
        read -r launcher init pidns <"$dir/ad.pids" || true
        if [ -n "$init" ] && is_dc "$init" "$pidns"; then
            kill -TERM "$init" 2>/dev/null || true
            if ! wait_gone "$init" 200; then
                echo "ad.sh: the DC (pid $init) did not end on TERM, killing its PID namespace" >&2
                is_dc "$init" "$pidns" && kill -KILL "$init" 2>/dev/null || true
                wait_gone "$init" 100 || die "the DC (pid $init) is still running"
            fi
            # The namespace's first process has gone, and every other
            # process of the namespace with it.
            left=$(pidns_members "$pidns" | xargs)
            [ -z "$left" ] || die "processes of the DC are still running: $left"
        fi
        # unshare, outside the namespace, ends when the DC has ended.
        cmd=$(tr '\0' ' ' 2>/dev/null <"/proc/$launcher/cmdline") || cmd=
        if [[ $cmd == unshare*"$dir/"* ]] && running "$launcher"; then
            wait_gone "$launcher" 100 || die "the DC's launcher (pid $launcher) is still running"
        fi
        rm -f "$dir/ad.pids"
    fi
    if [ -s "$dir/ns.env" ]; then
        netns=$(sed -n 's/^NETNS=//p' "$dir/ns.env")
        if [ -n "$netns" ] && ip netns list | awk '{ print $1 }' | grep -qx "$netns"; then
            left=$(ip netns pids "$netns" 2>/dev/null | xargs)
            [ -z "$left" ] || echo "ad.sh: processes still inside $netns (left alone): $left" >&2
            ip netns delete "$netns"
            ! ip netns list | awk '{ print $1 }' | grep -qx "$netns" || die "network namespace $netns is still there"
        fi
        rm -f "$dir/ns.env"
    fi
}

# ---------------------------------------------------------------- files

# One KEY='VALUE' line of ad.env, for a shell to source.
env_line() {
    [[ $2 != *"'"* ]] || die "value of $1 holds a single quote"
    printf "%s='%s'\n" "$1" "$2"
}

write_name_files() {
    local dir=$1
    # The DC's name must resolve back from its address: libldap names the
    # service ticket for a GSSAPI bind after the peer's reverse name, and
    # asks for ldap/<address> without one (the KDC knows no such principal).
    printf '127.0.0.1\tlocalhost\n%s\t%s %s\n' "$DC_IP" "$DC_HOST" "$DC_NAME" >"$dir/hosts"
    printf '127.0.0.1\tlocalhost\n' >"$dir/hosts-without-dc"
    # The DC's own DNS server, which forwards nothing.
    printf 'nameserver %s\nsearch %s\n' "$DC_IP" "$DNS_DOMAIN" >"$dir/resolv.conf"
    cat >"$dir/krb5.conf" <<EOF
# Client configuration of the test domain $REALM (generated).
[libdefaults]
    default_realm = $REALM
    dns_lookup_realm = false
    dns_lookup_kdc = false
    # Host-based names are used as written: no reverse lookup, no
    # canonicalisation, no search-domain suffix.
    rdns = false
    dns_canonicalize_hostname = false
    qualify_shortname = ""
    forwardable = false

[realms]
    $REALM = {
        kdc = $DC_IP
    }

[domain_realm]
    .$DNS_DOMAIN = $REALM
    $DNS_DOMAIN = $REALM
EOF
}

# The accounts (see populate.py for the columns).
write_accounts() {
    local t=$'\t'
    cat <<EOF
user${t}OU=People${t}Smith Alice Marie${t}$USER_NAME${t}$USER_PASSWORD${t}sn=Smith;givenName=Alice;displayName=Alice Smith;mail=alice@$DNS_DOMAIN;proxyAddresses=SMTP:alice@$DNS_DOMAIN;proxyAddresses=smtp:alice.smith@$DNS_DOMAIN;keytab=sso
user${t}OU=People${t}Jones Bob${t}$USER2_NAME${t}$USER2_PASSWORD${t}sn=Jones;givenName=Bob;description=x y;mail=bob@$DNS_DOMAIN
disabled${t}OU=People${t}Brown Carol Ann Jr${t}$DISABLED_USER_NAME${t}$DISABLED_USER_PASSWORD${t}sn=Brown;givenName=Carol
user${t}OU=People${t}Иванов Иван Иванович${t}$CYR_USER_NAME${t}$CYR_USER_PASSWORD${t}sn=Иванов;givenName=Иван;displayName=Иван Иванов
user${t}OU=People${t}Петрова Анна Сергеевна${t}$CYR_LOGIN_NAME${t}$CYR_LOGIN_PASSWORD${t}sn=Петрова;givenName=Анна
user${t}OU=People${t}$COMMA_USER_CN${t}$COMMA_USER_NAME${t}Comma-Case-75${t}sn=Doe;givenName=John
service${t}OU=People${t}$SERVICE_ACCOUNT${t}$SERVICE_ACCOUNT${t}Svc-$RANDOM-Key-$RANDOM-77${t}servicePrincipalName=HTTP/$SERVICE_HOST;keytab=http;keytab=sso
plain-service${t}OU=People${t}$PLAIN_SERVICE_ACCOUNT${t}$PLAIN_SERVICE_ACCOUNT${t}Svc-$RANDOM-Key-$RANDOM-78${t}servicePrincipalName=HTTP/$PLAIN_SERVICE_HOST;keytab=plain
group${t}OU=People${t}Staff${t}$GROUP_NAME${t}-${t}member=$USER_NAME
EOF
}

# Options that provision drops from --option, and the forwarder it copies
# from the machine's resolv.conf, fixed in the generated smb.conf. TLS stays
# on (Samba's default): the DC makes its own CA and certificate at its first
# start (private/tls/ca.pem), for LDAPS and StartTLS.
finish_smb_conf() {
    local conf=$1
    sed -i -e '/^[[:space:]]*dns forwarder[[:space:]]*=/d' "$conf"
    sed -i -e '/^\[global\]/a\
\tldap server require strong auth = no\
\tload printers = no\
\tprinting = bsd\
\tprintcap name = /dev/null\
\tdisable spoolss = yes' "$conf"
}

# ---------------------------------------------------------------- start

in_ns() { bash "$IN_NS" "$DIR" "$@"; }

start_failed() {
    local rc=$?
    trap - EXIT
    echo "ad.sh: start failed; logs in $DIR" >&2
    stop_ad "$DIR" || true
    exit "$rc"
}

# Waits until the DC answers LDAP (its root DSE), Kerberos (a password login
# of the administrator) and a GSSAPI bind: the DC adds the SPNs of its own
# services (ldap/<its name>) to its account only once it runs.
wait_ready() {
    local dir=$1 init=$2 deadline
    deadline=$(($(date +%s) + READY_GUARD_S))
    local cc=FILE:$dir/ccache/ad-start
    while :; do
        if ! running "$init"; then
            tail -n 30 "$dir/samba.out" "$dir/log/log.samba" >&2 2>/dev/null || true
            die "the DC ended during its start"
        fi
        if in_ns ldapsearch -x -LLL -o nettimeout=5 -H "ldap://$DC_IP/" -s base -b '' defaultNamingContext 2>/dev/null |
            grep -q "^defaultNamingContext: $BASE_DN\$" &&
            KRB5CCNAME=$cc in_ns kinit "$ADMIN_NAME" <<<"$ADMIN_PASSWORD" >/dev/null 2>&1 &&
            KRB5CCNAME=$cc in_ns ldapsearch -Q -LLL -o nettimeout=5 -Y GSSAPI -H "ldap://$DC_HOST/" -s base -b '' \
                defaultNamingContext >/dev/null 2>&1 &&
            [ -s "$dir/samba/private/tls/ca.pem" ] &&
            in_ns env -u LDAPNOINIT LDAPCONF=/dev/null LDAPRC=.zmauth-no-ldaprc LDAPTLS_CACERT="$dir/samba/private/tls/ca.pem" \
                ldapsearch -x -LLL -o nettimeout=5 -H "ldaps://$DC_HOST/" -s base -b '' defaultNamingContext >/dev/null 2>&1; then
            rm -f "$dir/ccache/ad-start"
            return 0
        fi
        if [ "$(date +%s)" -ge "$deadline" ]; then
            tail -n 30 "$dir/samba.out" "$dir/log/log.samba" >&2 2>/dev/null || true
            die "the DC did not answer LDAP, Kerberos and a GSSAPI bind within $READY_GUARD_S s"
        fi
        sleep 0.2
    done
}

start_ad() {
    local dir=$1 bulk=$2 t0 t_prov t_pop t_up id netns veth_dc veth_peer
    t0=$(now_ms)
    [ "$(id -u)" -eq 0 ] || die "needs root (network namespace, mounts)"
    # The fixture installs what it needs when ctest runs it without
    # tools/run.sh on a fresh machine.
    ensure_packages samba-ad-dc samba-ad-provision iproute2 ldap-utils krb5-user \
        libsasl2-modules-gssapi-mit python3
    local c
    for c in ip unshare samba samba-tool ldapsearch kinit klist; do
        command -v "$c" >/dev/null || die "$c is missing (packages samba-ad-dc, samba-ad-provision, ldap-utils, krb5-user)"
    done
    [ -d /usr/share/samba/setup ] || die "/usr/share/samba/setup is missing (package samba-ad-provision)"
    [ -x /usr/bin/python3 ] || die "/usr/bin/python3 is missing"
    [[ $dir != *[[:space:]\'\"]* ]] || die "the directory path must not contain blanks or quotes: $dir"

    if [ -e "$dir" ]; then
        if [ -e "$dir/$MARKER" ]; then
            stop_ad "$(cd "$dir" && pwd -P)"
            rm -rf "$dir"
        elif [ -d "$dir" ] && [ -z "$(ls -A "$dir")" ]; then
            rmdir "$dir"
        else
            die "$dir exists and is not a test domain's directory; refusing to overwrite it"
        fi
    fi
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd -P)
    DIR=$dir
    touch "$dir/$MARKER"
    mkdir -p "$dir/log" "$dir/run" "$dir/ccache" "$dir/rcache"
    trap start_failed EXIT

    # --- network: names unique to this start (several fixtures may run at
    # once), both ends of the pair inside the namespace.
    id=$(printf '%s %s %s' "$dir" "$$" "$(date +%s%N)" | sha1sum | cut -c1-8)
    netns=zmad-$id
    veth_dc=zm${id}dc
    veth_peer=zm${id}pe
    ip netns add "$netns" || die "cannot create network namespace $netns"
    printf 'NETNS=%s\nVETH_DC=%s\nVETH_PEER=%s\n' "$netns" "$veth_dc" "$veth_peer" >"$dir/ns.env"
    ip -n "$netns" link add "$veth_dc" type veth peer name "$veth_peer" ||
        die "cannot create a veth pair (does this kernel have veth?)"
    ip -n "$netns" addr add "$DC_IP/24" dev "$veth_dc"
    ip -n "$netns" addr add "$PEER_IP/24" dev "$veth_peer"
    ip -n "$netns" link set lo up
    ip -n "$netns" link set "$veth_dc" up
    ip -n "$netns" link set "$veth_peer" up
    write_name_files "$dir"

    # --- domain. An smb.conf of our own for provision, so that nothing of
    # the machine's /etc/samba/smb.conf is copied into the new one.
    printf '[global]\n' >"$dir/provision.conf"
    in_ns samba-tool domain provision -s "$dir/provision.conf" --targetdir="$dir/samba" \
        --realm="$REALM" --domain="$DOMAIN" --server-role=dc --dns-backend=SAMBA_INTERNAL \
        --host-name="$DC_NAME" --host-ip="$DC_IP" --adminpass="$ADMIN_PASSWORD" \
        --option="interfaces=lo $veth_dc" --option="bind interfaces only=yes" \
        --option="pid directory=$dir/run" --option="ncalrpc dir=$dir/run/ncalrpc" \
        --option="winbindd socket directory=$dir/run/winbindd" \
        --option="ntp signd socket directory=$dir/run/ntp_signd" \
        --option="smb passwd file=$dir/samba/private/smbpasswd" \
        --option="usershare path=$dir/samba/usershares" \
        --option="log file=$dir/log/log.%m" \
        >"$dir/provision.log" 2>&1 ||
        { tail -n 30 "$dir/provision.log" >&2; die "provisioning failed"; }
    finish_smb_conf "$dir/samba/etc/smb.conf"
    t_prov=$(now_ms)

    write_accounts >"$dir/accounts.tsv"
    in_ns /usr/bin/python3 "$HERE/populate.py" "$dir/samba/etc/smb.conf" "$dir" "$bulk" \
        >"$dir/populate.log" 2>&1 ||
        { tail -n 30 "$dir/populate.log" >&2; die "adding the accounts failed"; }
    t_pop=$(now_ms)

    # --- the DC, as the first process of a PID namespace of its own (ending
    # it ends every process the DC forked) and in a mount namespace of its
    # own, where DIR/log stands in for /var/log/samba: smbd and winbindd open
    # their logs there before they read smb.conf.
    setsid ip netns exec "$netns" unshare --pid --fork --mount-proc \
        bash "$IN_NS" --inside "$dir/hosts" "$dir" --samba-log \
        samba --foreground --no-process-group -s "$dir/samba/etc/smb.conf" \
        </dev/null >"$dir/samba.out" 2>&1 &
    local launcher=$! init="" i
    for ((i = 0; i < 200; i++)); do
        init=$(cat "/proc/$launcher/task/$launcher/children" 2>/dev/null | awk '{ print $1 }') || true
        [ -z "$init" ] || break
        running "$launcher" || break
        sleep 0.05
    done
    [ -n "$init" ] || { cat "$dir/samba.out" >&2; die "the DC's launcher did not start it"; }
    local pidns
    pidns=$(readlink "/proc/$init/ns/pid") || die "the DC ended at once: $(cat "$dir/samba.out")"
    [ "$pidns" != "$(readlink /proc/self/ns/pid)" ] || die "the DC is not in a PID namespace of its own"
    echo "$launcher $init $pidns" >"$dir/ad.pids"
    wait_ready "$dir" "$init"
    t_up=$(now_ms)

    {
        echo "# The test domain in $dir (generated by ad.sh; tests get it through in-ns.sh)."
        env_line AD_DIR "$dir"
        env_line AD_NETNS "$netns"
        env_line AD_REALM "$REALM"
        env_line AD_DOMAIN "$DOMAIN"
        env_line AD_DNS_DOMAIN "$DNS_DOMAIN"
        env_line AD_DC_HOST "$DC_HOST"
        env_line AD_DC_IP "$DC_IP"
        env_line AD_LDAP_PORT 389
        env_line AD_LDAPS_PORT 636
        env_line AD_TLS_CA_FILE "$dir/samba/private/tls/ca.pem"
        env_line AD_BASE_DN "$BASE_DN"
        env_line AD_PEOPLE_DN "$PEOPLE_DN"
        env_line AD_BULK_DN "$BULK_DN"
        env_line AD_BULK_USERS "$bulk"
        env_line AD_PEOPLE_USERS "$PEOPLE_USERS"
        env_line AD_ADMIN_NAME "$ADMIN_NAME"
        env_line AD_ADMIN_PASSWORD "$ADMIN_PASSWORD"
        env_line AD_USER_NAME "$USER_NAME"
        env_line AD_USER_PASSWORD "$USER_PASSWORD"
        env_line AD_USER2_NAME "$USER2_NAME"
        env_line AD_USER2_PASSWORD "$USER2_PASSWORD"
        env_line AD_CYR_USER_NAME "$CYR_USER_NAME"
        env_line AD_CYR_USER_PASSWORD "$CYR_USER_PASSWORD"
        env_line AD_CYR_LOGIN_NAME "$CYR_LOGIN_NAME"
        env_line AD_CYR_LOGIN_PASSWORD "$CYR_LOGIN_PASSWORD"
        env_line AD_COMMA_USER_NAME "$COMMA_USER_NAME"
        env_line AD_COMMA_USER_CN "$COMMA_USER_CN"
        env_line AD_DISABLED_USER_NAME "$DISABLED_USER_NAME"
        env_line AD_DISABLED_USER_PASSWORD "$DISABLED_USER_PASSWORD"
        env_line AD_GROUP_NAME "$GROUP_NAME"
        env_line AD_SERVICE_ACCOUNT "$SERVICE_ACCOUNT"
        env_line AD_SERVICE_NAME "$SERVICE_NAME"
        env_line AD_SERVICE_PRINCIPAL "$SERVICE_PRINCIPAL"
        env_line AD_SERVICE_KEYTAB "$dir/http.keytab"
        env_line AD_SSO_KEYTAB "$dir/sso.keytab"
        env_line AD_PLAIN_SERVICE_ACCOUNT "$PLAIN_SERVICE_ACCOUNT"
        env_line AD_PLAIN_SERVICE_NAME "HTTP@$PLAIN_SERVICE_HOST"
        env_line AD_PLAIN_SERVICE_PRINCIPAL "HTTP/$PLAIN_SERVICE_HOST@$REALM"
        env_line AD_PLAIN_SERVICE_KEYTAB "$dir/plain.keytab"
        env_line AD_KRB5_CONFIG "$dir/krb5.conf"
        env_line AD_CCACHE_DIR "$dir/ccache"
        env_line AD_DC_PID "$init"
    } >"$dir/ad.env.tmp"
    mv "$dir/ad.env.tmp" "$dir/ad.env"
    trap - EXIT
    echo "test domain $REALM in $dir: DC $DC_HOST ($DC_IP) in network namespace $netns (pid $init), $bulk bulk users;" \
        "provisioned in $((t_prov - t0)) ms, accounts in $((t_pop - t_prov)) ms, DC up in $((t_up - t_pop)) ms, total $((t_up - t0)) ms"
}

# ---------------------------------------------------------------- main

[ $# -ge 2 ] || usage
cmd=$1
DIR=$2
shift 2
case $cmd in
start)
    bulk=0
    while [ $# -gt 0 ]; do
        case $1 in
        --bulk) [ $# -ge 2 ] && [[ $2 =~ ^[0-9]+$ ]] || usage; bulk=$2; shift 2 ;;
        *) usage ;;
        esac
    done
    start_ad "$DIR" "$bulk"
    ;;
stop)
    [ $# -eq 0 ] || usage
    [ -d "$DIR" ] || exit 0
    [ -e "$DIR/$MARKER" ] || die "$DIR is not a test domain's directory"
    t0=$(now_ms)
    stop_ad "$(cd "$DIR" && pwd -P)"
    echo "test domain in $DIR stopped in $(($(now_ms) - t0)) ms"
    ;;
*) usage ;;
esac
