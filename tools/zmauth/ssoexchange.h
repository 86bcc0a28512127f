#ifndef ZMAUTH_TOOL_SSOEXCHANGE_H
#define ZMAUTH_TOOL_SSOEXCHANGE_H

#include "zmkerberos.h"

#include <functional>

// After the initiator's first token (from authorize): the acceptor's answer,
// then replies back and forth until both sides are done. onStep sees each
// step's side ("initiator", "acceptor"), name and result. Returns null when
// the exchange completed, else the name of the step that failed, or
// "exchange" when the rounds ran out.
const char *completeSsoExchange(zmkrb::Client &client, zmkrb::Service &service, const zmkrb::krb_string_t &peer,
                                zmkrb::Result &initiator, zmkrb::Result &acceptor,
                                const std::function<void(const char *, const char *, const zmkrb::Result &)> &onStep);

#endif // ZMAUTH_TOOL_SSOEXCHANGE_H
