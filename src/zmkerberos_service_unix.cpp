#include "zmkerberos.h"
#include "zmkerberos_p.h"
#include "zmlogging.h"

#include <QDebug>

namespace zmkrb {

// One acceptor step. Every call starts from the context the table holds for
// the peer, and since the table is never filled that is always a new one:
// each token is accepted on its own, which is all a single-token krb5 login
// needs.
Result ServicePrivate::accept(const krb_string_t &peer, const token_t &token)
{
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    const auto entry = contexts.find(peer);
    if (entry != contexts.end())
        context = entry->second;

    OM_uint32 minor = 0;
    gss_buffer_desc input;
    input.length = token.size();
    input.value = token.empty() ? nullptr : const_cast<unsigned char *>(token.data());
    GssName sourceName;
    gss_OID mechanism = gss_mech_krb5;
    OM_uint32 flags = GSS_C_MUTUAL_FLAG;
    GssBuffer output;
    // The context the call makes is not kept anywhere and not deleted.
    const OM_uint32 major = gss_accept_sec_context(&minor, &context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS,
                                                   out(sourceName), &mechanism, output.get(), &flags, nullptr,
                                                   nullptr);
    if (GSS_ERROR(major)) {
        qCWarning(krbc()).noquote() << gss_error_message("Accept sec context", major, minor);
        return Result();
    }

    Result result;
    result.token = output.bytes();
    // The bytes are the caller's now; the GSSAPI copy is not needed any more.
    output.release();
    result.status = major == GSS_S_COMPLETE ? 1 : 2;

    GssBuffer printed;
    OM_uint32 displayMinor = 0;
    if (!GSS_ERROR(gss_display_name(&displayMinor, sourceName.get(), printed.get(), nullptr)))
        result.user = std::string(printed.data(), printed.size());

    sourceName.reset();
    printed.release();
    return result;
}

// The acceptor credential is taken once for the default name, so any key of
// the acceptor keytab in effect now (KRB5_KTNAME or an earlier setKTFile)
// can accept; it is kept for the life of the process' acceptor.
Service::Service()
    : d(new ServicePrivate)
{
    OM_uint32 minor = 0;
    gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, gss_mech_set_krb5, GSS_C_BOTH, &d->credential, nullptr,
                     nullptr);
}

// Only the table's keys and the strings go: the credential and any context a
// peer left are not released here.
Service::~Service()
{
    delete d;
}

bool Service::setKTFile(const std::string &path)
{
    return krb5_gss_register_acceptor_identity(path.c_str()) == GSS_S_COMPLETE;
}

// Kept for the caller's record; the credential is the default name's.
void Service::setSPN(const std::string &spn)
{
    d->SPN = spn;
}

Result Service::acceptNew(const krb_string_t &peer, const token_t &token)
{
    // A new login from this peer forgets any half-done one (without touching
    // its context handle).
    d->contexts.erase(peer);
    return d->accept(peer, token);
}

Result Service::acceptContinue(const krb_string_t &peer, const token_t &token)
{
    if (d->contexts.find(peer) != d->contexts.end())
        return d->accept(peer, token);
    qCWarning(krbc()).noquote() << "Can't continue kerberos auth from host " << QString::fromUtf8(peer.data(), int(peer.size()));
    return Result();
}

} // namespace zmkrb
