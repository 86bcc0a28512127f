#!/bin/bash
# Runs a command inside the test domain's network namespace, with the
# domain's hosts, resolv.conf and krb5.conf standing in for the machine's:
# bind mounts in the private mount namespace that `ip netns exec` gives every
# command it runs, so the machine's own files are never touched.
#
#   in-ns.sh [--without-dc-name] DIR COMMAND [ARG...]
#
# --without-dc-name: a hosts file without the DC, so that its address has no
# name. The command gets KRB5_CONFIG, LDAPNOINIT=1 and every value of
# DIR/ad.env in its environment; KRB5CCNAME and KRB5RCACHEDIR are kept when
# set, otherwise they are DIR/ccache/default and DIR/rcache.
set -euo pipefail
export PATH="$PATH:/usr/sbin:/usr/bin:/sbin:/bin"

die() { echo "in-ns.sh: $*" >&2; exit 2; }

# Inside the namespace (ad.sh also starts the DC this way):
#   in-ns.sh --inside HOSTS DIR [--samba-log] COMMAND...
if [ "${1:-}" = --inside ]; then
    hosts=$2 dir=$3
    shift 3
    mount --bind "$hosts" /etc/hosts
    # A dangling /etc/resolv.conf link has nothing to mount over.
    [ ! -e /etc/resolv.conf ] || mount --bind "$dir/resolv.conf" /etc/resolv.conf
    [ ! -e /etc/krb5.conf ] || mount --bind "$dir/krb5.conf" /etc/krb5.conf
    if [ "${1:-}" = --samba-log ]; then
        shift
        [ -d /var/log/samba ] || die "/var/log/samba is missing"
        mount --bind "$dir/log" /var/log/samba
    fi
    export KRB5_CONFIG=$dir/krb5.conf LDAPNOINIT=1
    export KRB5CCNAME=${KRB5CCNAME:-FILE:$dir/ccache/default}
    export KRB5RCACHEDIR=${KRB5RCACHEDIR:-$dir/rcache}
    if [ -r "$dir/ad.env" ]; then
        set -a
        # shellcheck disable=SC1091
        . "$dir/ad.env"
        set +a
    fi
    exec "$@"
fi

hosts_file=hosts
if [ "${1:-}" = --without-dc-name ]; then
    hosts_file=hosts-without-dc
    shift
fi
[ $# -ge 2 ] || { sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//' >&2; exit 2; }
dir=$(cd "$1" 2>/dev/null && pwd -P) || die "no test domain in $1"
shift
[ -r "$dir/ns.env" ] || die "no test domain in $dir (start it with ad.sh start $dir)"
netns=$(sed -n 's/^NETNS=//p' "$dir/ns.env")
[ -n "$netns" ] || die "$dir/ns.env names no network namespace"
exec ip netns exec "$netns" bash "$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/in-ns.sh" \
    --inside "$dir/$hosts_file" "$dir" "$@"
