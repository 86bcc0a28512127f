# Sourced by tools/run.sh and tests/ad/ad.sh. ensure_packages PACKAGE...
# installs those of the Debian packages that are missing, without letting them
# start their system services: the realm and the test domain run their own
# servers as plain processes. The policy-rc.d that says so is removed again
# on every way out, signals included, but only when this script put it there:
# one that was there before belongs to the machine. ZMAUTH_POLICY_RC_D names another path, for the test
# of this.
policy_rc_d=${ZMAUTH_POLICY_RC_D:-/usr/sbin/policy-rc.d}
own_policy=0
remove_own_policy() {
    if [ "$own_policy" = 1 ]; then
        rm -f "$policy_rc_d"
        own_policy=0
    fi
}

ensure_packages() {
    local missing=() p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing Debian packages: ${missing[*]} (run as root to install them)" >&2
        exit 1
    fi
    echo "Installing: ${missing[*]}"
    trap remove_own_policy EXIT
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
    # Created only if absent (noclobber), and marked ours only once created.
    if [ ! -e "$policy_rc_d" ] && [ ! -L "$policy_rc_d" ] &&
        (set -C && printf '#!/bin/sh\nexit 101\n' >"$policy_rc_d") 2>/dev/null; then
        own_policy=1
        chmod 755 "$policy_rc_d"
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${missing[@]}"
    remove_own_policy
    trap - EXIT HUP INT TERM
}
