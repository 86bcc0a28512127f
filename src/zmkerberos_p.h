#ifndef ZMKERBEROS_P_H
#define ZMKERBEROS_P_H

#include "zmkerberos.h"

#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>
#include <krb5.h>

#include <map>
#include <memory>
#include <string>

namespace zmkrb {

// Owning guards for the GSSAPI handles that live only inside one call. Each
// releases through the library's own function when it goes out of scope, so
// the order of the guards' declarations is the order of release, reversed.
struct GssNameRelease {
    void operator()(gss_name_t name) const
    {
        OM_uint32 minor = 0;
        gss_release_name(&minor, &name);
    }
};
using GssName = std::unique_ptr<gss_name_struct, GssNameRelease>;

struct GssCredRelease {
    void operator()(gss_cred_id_t cred) const
    {
        OM_uint32 minor = 0;
        gss_release_cred(&minor, &cred);
    }
};
using GssCred = std::unique_ptr<gss_cred_id_struct, GssCredRelease>;

// A buffer that GSSAPI filled (an output token or a printed name).
class GssBuffer {
public:
    GssBuffer() = default;
    ~GssBuffer() { release(); }
    GssBuffer(const GssBuffer &) = delete;
    GssBuffer &operator=(const GssBuffer &) = delete;

    gss_buffer_t get() { return &m_buffer; }
    const char *data() const { return static_cast<const char *>(m_buffer.value); }
    size_t size() const { return m_buffer.length; }
    token_t bytes() const
    {
        const unsigned char *begin = static_cast<const unsigned char *>(m_buffer.value);
        return begin ? token_t(begin, begin + m_buffer.length) : token_t();
    }
    void release()
    {
        OM_uint32 minor = 0;
        gss_release_buffer(&minor, &m_buffer);
        m_buffer = GSS_C_EMPTY_BUFFER;
    }

private:
    gss_buffer_desc m_buffer = GSS_C_EMPTY_BUFFER;
};

// The initiator of one exchange. The three handles that prepare_cred and
// authorize fill start out null, so that the destructor of Client only
// releases what was really obtained, and only once.
class ClientPrivate {
public:
    explicit ClientPrivate(const std::string &target);

    int prepare_cred(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password,
                     gss_cred_id_t &credential, krb5_context &context, krb5_ccache &cache);
    Result authorize(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password);
    Result authorizeContinue(const token_t &token);

    krb_string_t target;
    krb_string_t cacheName;
    krb5_context context = nullptr;
    krb5_ccache cache = nullptr;
    gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
    gss_ctx_id_t securityContext = GSS_C_NO_CONTEXT;
};

// The acceptor. The peer table is looked up and erased but never filled:
// every token starts a new context.
class ServicePrivate {
public:
    ServicePrivate() = default;

    Result accept(const krb_string_t &peer, const token_t &token);

    gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
    std::map<krb_string_t, gss_ctx_id_t> contexts;
    krb_string_t SPN;
};

} // namespace zmkrb

#endif // ZMKERBEROS_P_H
