#!/bin/bash
# Port ownership counts the sockets that serve a port, nothing else: closed
# connections waiting in TIME_WAIT and open connections leave a port the
# realm's, while a second process listening on it is noticed.
. "$(dirname "$0")/lib.sh"

R=$SCRATCH/realm
LISTENER=
cleanup_hook() {
    [ -z "$LISTENER" ] || kill "$LISTENER" 2>/dev/null
    bash "$REALM_SH" stop "$R" >/dev/null 2>&1
}

expect_rc "start a realm of its own" 0 bash "$REALM_SH" start "$R"
cat "$SCRATCH/out"
[ "$FAILURES" = 0 ] || finish
load_realm_env "$R"

# TCP sockets on local port PORT (any address) in kernel state STATE (hex).
tcp_sockets_in_state() {
    local port=$1 state=$2
    awk -v h="$(printf ':%04X' "$port")" -v st="$state" \
        'FNR > 1 && substr($2, length($2) - 4) == h && $4 == st' /proc/net/tcp /proc/net/tcp6 2>/dev/null | wc -l
}

# Closed connections whose local port is the server's, made from 127.0.0.2
# so that this side closes first and keeps the TIME_WAIT: what a client that
# happened to get that port number leaves behind.
perl -MIO::Socket::INET -e '
    for my $port (@ARGV) {
        my $s = IO::Socket::INET->new(LocalAddr => "127.0.0.2", LocalPort => $port, ReuseAddr => 1,
                                      PeerAddr => "127.0.0.1", PeerPort => $port, Proto => "tcp")
            or die "connection to $port: $!\n";
        close $s;
    }' "$KDC_PORT" "$LDAP_PORT" || fail "could not connect from 127.0.0.2"
# And the probe the start makes, a few times: whichever side closes first
# keeps a TIME_WAIT socket.
for _ in 1 2 3; do ldapwhoami -x -H "$LDAP_URI" >/dev/null 2>&1 || fail "whoami"; done
# An open connection to each server while the ports are checked.
exec 4<>"/dev/tcp/127.0.0.1/$LDAP_PORT" 5<>"/dev/tcp/127.0.0.1/$KDC_PORT"

[ "$(tcp_sockets_in_state "$LDAP_PORT" 06)" -ge 1 ] && pass "a TIME_WAIT socket sits on the LDAP port" ||
    fail "no TIME_WAIT socket on the LDAP port"
[ "$(tcp_sockets_in_state "$KDC_PORT" 06)" -ge 1 ] && pass "a TIME_WAIT socket sits on the KDC port" ||
    fail "no TIME_WAIT socket on the KDC port"
[ "$(tcp_sockets_in_state "$LDAP_PORT" 01)" -ge 1 ] && pass "a connection to slapd is open" ||
    fail "no open connection on the LDAP port"
expect_rc "check-ports: both ports are still the servers'" 0 bash "$REALM_SH" check-ports "$R"
expect_eq "check-ports names both owners" "$(cat "$SCRATCH/out")" \
    "kdc port $KDC_PORT: owned by pid $KDC_PID
ldap port $LDAP_PORT: owned by pid $SLAPD_PID"
exec 4>&- 5>&-

# listen PROTO ADDRESS PORT: a second process bound to the port (with address
# reuse, as krb5kdc binds); LISTENER is its PID once it holds the socket.
listen() {
    local proto=$1 address=$2 port=$3 i
    rm -f "$SCRATCH/listening"
    perl -MIO::Socket::INET -e '
        my ($proto, $address, $port, $ready) = @ARGV;
        my $s = IO::Socket::INET->new(LocalAddr => $address, LocalPort => $port, Proto => $proto,
                                      ReuseAddr => 1, ($proto eq "tcp" ? (Listen => 5) : ()))
            or die "bind $proto $address:$port: $!\n";
        open(my $f, ">", $ready) or die; close $f;
        sleep 120;' "$proto" "$address" "$port" "$SCRATCH/listening" &
    LISTENER=$!
    # A guard against a hang only: binding takes milliseconds.
    for ((i = 0; i < 600; i++)); do
        [ -e "$SCRATCH/listening" ] && return 0
        alive "$LISTENER" || break
        sleep 0.05
    done
    fail "the second $proto listener on $address:$port did not start"
    return 1
}

stop_listener() {
    kill "$LISTENER" 2>/dev/null
    wait "$LISTENER" 2>/dev/null
    LISTENER=
}

# A second UDP socket on the KDC's address and port.
if listen udp 127.0.0.1 "$KDC_PORT"; then
    expect_rc "check-ports: a second UDP socket on the KDC port is noticed" 1 bash "$REALM_SH" check-ports "$R"
    grep -q "^kdc port $KDC_PORT: not owned by pid $KDC_PID alone" "$SCRATCH/out" &&
        pass "the KDC port is reported" || fail "KDC port not reported: $(cat "$SCRATCH/out")"
    grep -q "^ldap port $LDAP_PORT: owned by pid $SLAPD_PID\$" "$SCRATCH/out" &&
        pass "the LDAP port stays the server's" || fail "LDAP port: $(cat "$SCRATCH/out")"
fi
stop_listener

# A TCP listener on the LDAP port number of another loopback address.
if listen tcp 127.0.0.2 "$LDAP_PORT"; then
    expect_rc "check-ports: a second TCP listener on the LDAP port is noticed" 1 bash "$REALM_SH" check-ports "$R"
    grep -q "^ldap port $LDAP_PORT: not owned by pid $SLAPD_PID alone" "$SCRATCH/out" &&
        pass "the LDAP port is reported" || fail "LDAP port not reported: $(cat "$SCRATCH/out")"
fi
stop_listener

expect_rc "check-ports: the servers' alone again" 0 bash "$REALM_SH" check-ports "$R"
expect_rc "check-ports of a directory without a realm fails" 1 bash "$REALM_SH" check-ports "$SCRATCH"
expect_rc "stop" 0 bash "$REALM_SH" stop "$R"
expect_rc "check-ports after the stop: the ports are no longer served" 1 bash "$REALM_SH" check-ports "$R"

finish
