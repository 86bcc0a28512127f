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

// Owning guards for the krb5 and GSSAPI handles. Each releases through the
// library's own function when it goes out of scope, so the order of the
// guards' declarations is the order of release, reversed.
struct Krb5ContextFree {
    void operator()(krb5_context context) const { krb5_free_context(context); }
};
using Krb5Context = std::unique_ptr<_krb5_context, Krb5ContextFree>;

// Destroying the cache removes its file. It is destroyed with the context
// held by the guard it names, which must still be open then: declare the
// cache's guard after the context's.
struct Krb5CacheDestroy {
    const Krb5Context *context = nullptr;
    void operator()(krb5_ccache cache) const { krb5_cc_destroy(context->get(), cache); }
};
using Krb5Cache = std::unique_ptr<_krb5_ccache, Krb5CacheDestroy>;

struct Krb5PrincipalFree {
    krb5_context context = nullptr;
    void operator()(krb5_principal principal) const { krb5_free_principal(context, principal); }
};
using Krb5Principal = std::unique_ptr<krb5_principal_data, Krb5PrincipalFree>;

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

// Lets a C call write its output handle straight into a guard:
// krb5_init_context(out(context)). The guard takes the handle when the call's
// full expression ends, keeping its deleter (and the context that carries).
template <typename Guard>
class OutHandle {
public:
    explicit OutHandle(Guard &guard)
        : m_guard(guard)
        , m_handle(guard.release())
    {
    }
    ~OutHandle() { m_guard.reset(m_handle); }
    OutHandle(const OutHandle &) = delete;
    OutHandle &operator=(const OutHandle &) = delete;

    operator typename Guard::pointer *() { return &m_handle; }
    // For a C++ function that writes its output through a reference.
    typename Guard::pointer &ref() { return m_handle; }

private:
    Guard &m_guard;
    typename Guard::pointer m_handle;
};

// The guard's current handle (if any) is handed to the call, which reads and
// may replace it; the guard owns whatever the call leaves.
template <typename Guard>
OutHandle<Guard> out(Guard &guard)
{
    return OutHandle<Guard>(guard);
}

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

// The initiator of one exchange. The handles start out empty, so that only
// what was really obtained is released, once, when the object goes. They are
// declared so that destruction releases the private cache first (removing its
// file), then the krb5 context it needs, then the GSSAPI credential.
class ClientPrivate {
public:
    explicit ClientPrivate(const std::string &target);

    // Its log records name it with these raw output handles; callers pass
    // their guards through out(guard).ref().
    int prepare_cred(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password,
                     gss_cred_id_t &credential, krb5_context &context, krb5_ccache &cache);
    Result authorize(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password);
    Result authorizeContinue(const token_t &token);

    krb_string_t target;
    krb_string_t cacheName;
    GssCred credential;
    Krb5Context context;
    Krb5Cache cache;
    // Not owned: the exchange's context is never deleted by the library, so
    // one Client performs one exchange.
    gss_ctx_id_t securityContext = GSS_C_NO_CONTEXT;
};

// The acceptor. The peer table is looked up and erased but never filled:
// every token starts a new context.
class ServicePrivate {
public:
    ServicePrivate() = default;

    Result accept(const krb_string_t &peer, const token_t &token);

    // Not owned: the acceptor credential is kept for the life of the process
    // once acquired, and so is every context the table's values name.
    gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
    std::map<krb_string_t, gss_ctx_id_t> contexts;
    krb_string_t SPN;
};

} // namespace zmkrb

#endif // ZMKERBEROS_P_H
