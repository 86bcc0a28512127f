// Service::acceptNew on any token, with the service keytab of a throwaway
// realm (acceptor/service.keytab) and the realm's client configuration
// (acceptor/krb5.conf, a clock skew wide enough that the captured tokens stay
// acceptable for decades). No KDC is needed: an acceptor only decrypts.
// The seed tokens were captured from that realm (acceptor/capture.sh).
//
// Every result is one of the three the contract allows: a failure (status 0,
// no user, no token) with exactly one warning "Accept sec context ...", or an
// accepted token (status 1 or 2) with no warning.
//
// The library keeps every context it accepts, on purpose. Kept here, they
// would trip the leak check and the RSS limit within seconds, so this program
// interposes gss_accept_sec_context, notes each context that the library's
// own call returns, and deletes it after acceptNew.
#include "fuzzcheck.h"

#include <zmkerberos.h>

#include <gssapi/gssapi.h>

#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

zmkrb::Service *service = nullptr;

// Contexts returned by the outermost gss_accept_sec_context call (the
// library's); calls that GSSAPI makes inside it are its own business.
std::vector<gss_ctx_id_t> accepted;
int depth = 0;

void deleteAccepted()
{
    for (gss_ctx_id_t context : accepted) {
        OM_uint32 minor = 0;
        gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    }
    accepted.clear();
}

} // namespace

extern "C" {

OM_uint32 KRB5_CALLCONV gss_accept_sec_context(OM_uint32 *minor, gss_ctx_id_t *context, gss_cred_id_t cred,
                                               gss_buffer_t input, gss_channel_bindings_t bindings,
                                               gss_name_t *source, gss_OID *mech, gss_buffer_t output,
                                               OM_uint32 *flags, OM_uint32 *timeRec, gss_cred_id_t *delegated)
{
    using Accept = OM_uint32 (*)(OM_uint32 *, gss_ctx_id_t *, gss_cred_id_t, gss_buffer_t, gss_channel_bindings_t,
                                 gss_name_t *, gss_OID *, gss_buffer_t, OM_uint32 *, OM_uint32 *, gss_cred_id_t *);
    static const Accept next = reinterpret_cast<Accept>(dlsym(RTLD_NEXT, "gss_accept_sec_context"));
    if (!next)
        std::abort();
    ++depth;
    const OM_uint32 major = next(minor, context, cred, input, bindings, source, mech, output, flags, timeRec, delegated);
    --depth;
    if (depth == 0 && context && *context != GSS_C_NO_CONTEXT)
        accepted.push_back(*context);
    return major;
}

int LLVMFuzzerInitialize(int *, char ***)
{
    setenv("KRB5_CONFIG", ZMAUTH_FUZZ_ACCEPTOR_DIR "/krb5.conf", 1);
    setenv("KRB5_KTNAME", "FILE:" ZMAUTH_FUZZ_ACCEPTOR_DIR "/service.keytab", 1);
    // The same token may come a million times.
    setenv("KRB5RCACHETYPE", "none", 1);
    // Nothing to initiate with, and no file of the machine's to read.
    setenv("KRB5CCNAME", "MEMORY:fuzz-acceptor", 1);
    unsetenv("KRB5_TRACE");
    fuzzcheck::captureLog();
    // One acceptor for the whole run, as in a server; its credential stays
    // reachable through it.
    service = new zmkrb::Service;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const zmkrb::token_t token(data, data + size);
    fuzzcheck::records().clear();
    const zmkrb::Result result = service->acceptNew("fuzz", token);
    deleteAccepted();

    const QList<fuzzcheck::LogRecord> &log = fuzzcheck::records();
    FUZZ_CHECK(result.status >= 0 && result.status <= 2, QString::number(result.status));
    if (result.status == 0) {
        FUZZ_CHECK(result.user.empty() && result.token.empty(), QString::fromStdString(result.user));
        FUZZ_CHECK(log.size() == 1, QString::number(log.size()));
        FUZZ_CHECK(log[0].type == QtWarningMsg && log[0].category == QLatin1String("platform.lib.zmauth.kerberos"),
                   log[0].category);
        FUZZ_CHECK(log[0].text.startsWith(QLatin1String("Accept sec context")), fuzzcheck::visible(log[0].text));
    } else {
        FUZZ_CHECK(log.isEmpty(), fuzzcheck::visible(log[0].text));
    }
    return 0;
}

} // extern "C"
