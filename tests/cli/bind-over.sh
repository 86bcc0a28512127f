#!/bin/bash
# Runs a command in a mount namespace of its own in which FILE stands in for
# TARGET (a bind mount): a test's own /etc/resolv.conf or /etc/hosts for one
# program, while the machine's files stay as they are. Needs root.
#
#   bind-over.sh FILE TARGET COMMAND [ARG...]
set -euo pipefail
export PATH="$PATH:/usr/sbin:/usr/bin:/sbin:/bin"

if [ "${1:-}" = --inside ]; then
    mount --bind "$2" "$3"
    shift 3
    exec "$@"
fi
if [ $# -lt 3 ]; then
    sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
fi
# unshare makes the new namespace's mounts private: nothing leaks out.
exec unshare --mount bash "$0" --inside "$@"
