// What the acceptor benchmarks share: fresh initiator tokens for a service,
// made from a user's password without KDC traffic per token, and a minimal
// acceptor step written straight on GSSAPI.
#pragma once

#include <zmkerberos.h>

#include <gssapi/gssapi_krb5.h>

#include <string>
#include <vector>

namespace benchkrb {

// Prints "<program>: what" and ends the process with status 1.
[[noreturn]] void die(const char *what);

// What an acceptor benchmark starts from: the realm user's principal, the
// tokens, and the keytab of the service they are for.
struct AcceptorRun {
    std::string user;
    std::vector<zmkrb::token_t> tokens;
    std::string keytab;
};

// Sets the process up for the realm in REALM_DIR (its krb5.conf, no replay
// cache so that the same tokens can be accepted again, no Kerberos debug
// records) and makes COUNT tokens of the realm's user for its service.
AcceptorRun prepareAcceptorRun(const char *realmDir, int count);

// COUNT initiator tokens for SERVICE (host-based form) from USER's password
// (user@realm), each from a context of its own.
std::vector<zmkrb::token_t> makeTokens(const std::string &user, const std::string &password,
                                       const std::string &service, int count);

// What any acceptor must do per token: accept, copy the reply, name the
// client. The context is deleted only when deleteContext is set; the library
// never deletes its own.
zmkrb::Result rawAccept(const zmkrb::token_t &token, bool deleteContext);

} // namespace benchkrb
