#ifndef ZMKERBEROS_H
#define ZMKERBEROS_H

#include "zmauth_export.h"

#include <QString>

#include <gssapi/gssapi.h>
#include <krb5.h>

#include <string>
#include <vector>

namespace zmkrb {

// Kerberos names, passwords and paths: bytes, no encoding conversion.
typedef std::string krb_string_t;
// One GSSAPI token as sent on the wire.
typedef std::vector<unsigned char> token_t;

// Outcome of one step: status 0 failed, 1 done, 2 done and the peer must send
// another token. user is the initiator's user name or, from the acceptor, the
// client principal.
struct Result {
    int status = 0;
    krb_string_t user;
    token_t token;
};

class ClientPrivate;

// Kerberos initiator: credentials from a password (or the process's own), then
// the tokens the client sends. One Client performs one exchange.
class ZMAUTH_EXPORT Client {
public:
    explicit Client(const std::string &target);
    ~Client();

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Registers a keytab for every GSSAPI acceptor of the process; true when
    // GSSAPI accepted the registration.
    bool setKTFile(const std::string &path);
    void setCCFile(const std::string &name);

    Result authorize(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password);
    Result authorizeContinue(const token_t &token);

private:
    ClientPrivate *const d;
};

class ServicePrivate;

// Kerberos acceptor: validates a client's token and names the client.
class ZMAUTH_EXPORT Service {
public:
    Service();
    ~Service();

    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Process-wide acceptor keytab; true when GSSAPI accepted the registration.
    bool setKTFile(const std::string &path);
    void setSPN(const std::string &spn);

    Result acceptNew(const krb_string_t &peer, const token_t &token);
    Result acceptContinue(const krb_string_t &peer, const token_t &token);

private:
    ServicePrivate *const d;
};

} // namespace zmkrb

// "<prefix> failed:" then a line feed and a tab before each GSSAPI status text.
ZMAUTH_EXPORT QString gss_error_message(const std::string &prefix, OM_uint32 major, OM_uint32 minor);
// "<prefix> <krb5 message>" on one line.
ZMAUTH_EXPORT QString krb_error_message(const std::string &prefix, const krb5_context &context,
                                        const krb5_error_code &code);

#endif // ZMKERBEROS_H
