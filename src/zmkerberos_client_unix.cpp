#include "zmkerberos.h"
#include "zmkerberos_p.h"
#include "zmlogging.h"

#include <QDebug>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

namespace {

// The contents of a krb5_creds that krb5_get_init_creds_password filled.
class Krb5CredContents {
public:
    Krb5CredContents(krb5_context context, krb5_creds *creds)
        : m_context(context)
        , m_creds(creds)
    {
    }
    ~Krb5CredContents() { reset(); }
    Krb5CredContents(const Krb5CredContents &) = delete;
    Krb5CredContents &operator=(const Krb5CredContents &) = delete;

    void reset()
    {
        if (m_creds)
            krb5_free_cred_contents(m_context, m_creds);
        m_creds = nullptr;
    }

private:
    krb5_context m_context;
    krb5_creds *m_creds;
};

gss_buffer_desc textBuffer(const std::string &text)
{
    gss_buffer_desc buffer;
    buffer.length = text.size();
    buffer.value = const_cast<char *>(text.data());
    return buffer;
}

gss_buffer_desc tokenBuffer(const zmkrb::token_t &token)
{
    gss_buffer_desc buffer;
    buffer.length = token.size();
    buffer.value = token.empty() ? nullptr : const_cast<unsigned char *>(token.data());
    return buffer;
}

// A missing text (GSSAPI has none for a minor code it never handed out) puts
// the stream into its failed state instead of being streamed: the message
// ends with what was written before it, and nothing written later reaches it.
void writeText(std::ostringstream &out, const char *text)
{
    if (text)
        out << text;
    else
        out.setstate(std::ios_base::failbit);
}

// Writes every text gss_display_status has for one status code. The loop
// follows the call's own return value: MIT answers complete after the first
// text, so one line per code.
void writeStatus(std::ostringstream &out, OM_uint32 code, int type)
{
    OM_uint32 messageContext = 0;
    OM_uint32 ret;
    do {
        OM_uint32 minor = 0;
        gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
        ret = gss_display_status(&minor, code, type, GSS_C_NO_OID, &messageContext, &text);
        out << std::endl << '\t';
        writeText(out, static_cast<const char *>(text.value));
        gss_release_buffer(&minor, &text);
    } while (ret == GSS_S_CONTINUE_NEEDED);
}

} // namespace

QString gss_error_message(const std::string &prefix, OM_uint32 major, OM_uint32 minor)
{
    std::ostringstream out;
    out << prefix << " failed:";
    writeStatus(out, major, GSS_C_GSS_CODE);
    writeStatus(out, minor, GSS_C_MECH_CODE);
    return QString::fromStdString(out.str());
}

QString krb_error_message(const std::string &prefix, const krb5_context &context, const krb5_error_code &code)
{
    std::ostringstream out;
    out << prefix << ' ';
    const char *text = krb5_get_error_message(context, code);
    writeText(out, text);
    if (text)
        krb5_free_error_message(context, text);
    return QString::fromStdString(out.str());
}

namespace zmkrb {

ClientPrivate::ClientPrivate(const std::string &target)
    : target(target)
    , cache(nullptr, Krb5CacheDestroy{&context})
{
    if (const char *name = getenv("KRB5CCNAME"))
        cacheName = name;
    else
        cacheName = "/tmp/krb5cc_" + std::to_string(getuid());
}

// Gets a TGT for user@realm with the password into a new private file cache
// and makes that cache the one GSSAPI uses on this thread. On success the
// krb5 context and the cache are handed to the caller, who keeps them until
// the Client goes; on failure everything obtained so far is released here, in
// the order contents, principal, cache, context (the reverse of the guards'
// declarations), and the outputs stay empty.
int ClientPrivate::prepare_cred(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password,
                                gss_cred_id_t &credential, krb5_context &context, krb5_ccache &cache)
{
    Krb5Context ctx;
    krb5_error_code code = krb5_init_context(out(ctx));
    if (code) {
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos init context", ctx.get(), code);
        return -1;
    }

    // The configured name is only a hint: MIT picks a fresh /tmp/tkt* file.
    Krb5Cache ccache(nullptr, Krb5CacheDestroy{&ctx});
    code = krb5_cc_new_unique(ctx.get(), "FILE", cacheName.c_str(), out(ccache));
    if (code) {
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos new cache", ctx.get(), code);
        return -1;
    }

    // The user is one name component as given: "/" and "@" are not parsed.
    Krb5Principal principal(nullptr, Krb5PrincipalFree{ctx.get()});
    code = krb5_build_principal(ctx.get(), out(principal), static_cast<unsigned int>(realm.size()), realm.c_str(),
                                user.c_str(), static_cast<const char *>(nullptr));
    if (code) {
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos build principal", ctx.get(), code);
        return -1;
    }

    code = krb5_cc_initialize(ctx.get(), ccache.get(), principal.get());
    if (code) {
        // Same wording as the creation step: to the operator both are "the
        // cache could not be set up".
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos new cache", ctx.get(), code);
        return -1;
    }

    krb5_creds creds;
    std::memset(&creds, 0, sizeof(creds));
    code = krb5_get_init_creds_password(ctx.get(), &creds, principal.get(), password.c_str(), nullptr, nullptr, 0,
                                        nullptr, nullptr);
    if (code) {
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos init creds password", ctx.get(), code);
        return -1;
    }
    Krb5CredContents contents(ctx.get(), &creds);

    code = krb5_cc_store_cred(ctx.get(), ccache.get(), &creds);
    if (code) {
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos store cred", ctx.get(), code);
        return -1;
    }
    contents.reset();

    const char *name = krb5_cc_get_name(ctx.get(), ccache.get());
    if (!name) {
        // There is no krb5 status for a missing name: the text is the one of
        // the last call, the successful store.
        qCWarning(krbc()).noquote() << krb_error_message("Kerberos get name", ctx.get(), code);
        return -1;
    }

    // Neither GSSAPI call stops the login: if the cache cannot be named or
    // imported, the credential stays empty and authorize's add or acquire
    // step reports the failure in GSSAPI's words. The thread's previous cache
    // name is not kept: it stays on the private cache after the Client goes.
    OM_uint32 minor = 0;
    gss_krb5_ccache_name(&minor, name, nullptr);
    gss_krb5_import_cred(&minor, ccache.get(), principal.get(), nullptr, &credential);

    principal.reset();
    qCDebug(krbc()) << "Creedentials saved to cache";
    cache = ccache.release();
    context = ctx.release();
    return 0;
}

Result ClientPrivate::authorize(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password)
{
    OM_uint32 major = 0;
    OM_uint32 minor = 0;

    // One Client is meant for one exchange; should authorize run again, what
    // the previous run obtained is given back before it is replaced.
    credential.reset();

    if (user.empty()) {
        // The process's own credentials (the default cache and keytab).
        major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, gss_mech_set_krb5, GSS_C_BOTH,
                                 out(credential), nullptr, nullptr);
        if (GSS_ERROR(major)) {
            qCWarning(krbc()).noquote() << gss_error_message("Acquire credentials", major, minor);
            return Result();
        }
    } else {
        cache.reset();
        context.reset();

        // Released after the user name, whichever way this block is left.
        GssCred local;
        if (prepare_cred(realm, user, password, out(local).ref(), out(context).ref(), out(cache).ref()) != 0)
            return Result();

        const krb_string_t principalText = user + "@" + realm;
        gss_buffer_desc nameText = textBuffer(principalText);
        GssName userName;
        major = gss_import_name(&minor, &nameText, GSS_C_NT_USER_NAME, out(userName));
        // Any non-complete answer is refused here: the name must be exact.
        if (major != GSS_S_COMPLETE) {
            qCWarning(krbc()).noquote() << gss_error_message("Import name", major, minor);
            return Result();
        }

        major = gss_add_cred(&minor, local.get(), userName.get(), gss_mech_krb5, GSS_C_INITIATE, GSS_C_INDEFINITE,
                             GSS_C_INDEFINITE, out(credential), nullptr, nullptr, nullptr);
        if (GSS_ERROR(major)) {
            qCWarning(krbc()).noquote() << gss_error_message("Add credentials", major, minor);
            if (major != GSS_S_DUPLICATE_ELEMENT)
                return Result();
            // The imported credential already has its krb5 element (always so
            // on MIT): acquire one for the user by name instead. Its acceptor
            // half needs the user's key in the acceptor keytab in effect.
            major = gss_acquire_cred(&minor, userName.get(), GSS_C_INDEFINITE, gss_mech_set_krb5, GSS_C_BOTH,
                                     out(credential), nullptr, nullptr);
            if (GSS_ERROR(major)) {
                qCWarning(krbc()).noquote() << gss_error_message("Acquire credentials", major, minor);
                return Result();
            }
        }
    }

    const gss_buffer_desc targetText = textBuffer(target);
    GssName targetName;
    major = gss_import_name(&minor, const_cast<gss_buffer_t>(&targetText), GSS_C_NT_HOSTBASED_SERVICE,
                            out(targetName));
    if (GSS_ERROR(major)) {
        qCWarning(krbc()).noquote() << gss_error_message("Import target name", major, minor);
        return Result();
    }

    GssBuffer output;
    major = gss_init_sec_context(&minor, credential.get(), &securityContext, targetName.get(), gss_mech_krb5,
                                 GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE, GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER,
                                 nullptr, output.get(), nullptr, nullptr);
    if (GSS_ERROR(major)) {
        qCWarning(krbc()).noquote() << gss_error_message("Init sec context", major, minor);
        return Result();
    }
    targetName.reset();

    // Done as soon as the first token exists, whether or not the service is
    // expected to answer: the caller learns that from authorizeContinue.
    Result result;
    result.token = output.bytes();
    output.release();
    result.status = 1;
    result.user = user;
    return result;
}

Result ClientPrivate::authorizeContinue(const token_t &token)
{
    OM_uint32 major = 0;
    OM_uint32 minor = 0;

    const gss_buffer_desc targetText = textBuffer(target);
    GssName targetName;
    major = gss_import_name(&minor, const_cast<gss_buffer_t>(&targetText), GSS_C_NT_HOSTBASED_SERVICE,
                            out(targetName));
    if (GSS_ERROR(major)) {
        qCWarning(krbc()).noquote() << gss_error_message("Import target name", major, minor);
        return Result();
    }

    gss_buffer_desc input = tokenBuffer(token);
    GssBuffer output;
    major = gss_init_sec_context(&minor, credential.get(), &securityContext, targetName.get(), gss_mech_krb5,
                                 GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE, GSS_C_NO_CHANNEL_BINDINGS, &input, nullptr,
                                 output.get(), nullptr, nullptr);
    if (GSS_ERROR(major)) {
        qCWarning(krbc()).noquote() << gss_error_message("Init sec context", major, minor);
        return Result();
    }
    targetName.reset();

    Result result;
    result.token = output.bytes();
    output.release();
    result.status = major == GSS_S_COMPLETE ? 1 : 2;
    return result;
}

Client::Client(const std::string &target)
    : d(new ClientPrivate(target))
{
}

// ClientPrivate's members release the private cache (removing its file), the
// krb5 context and the credential, in that order; the security context stays.
Client::~Client()
{
    delete d;
}

bool Client::setKTFile(const std::string &path)
{
    return krb5_gss_register_acceptor_identity(path.c_str()) == GSS_S_COMPLETE;
}

void Client::setCCFile(const std::string &name)
{
    d->cacheName = name;
}

Result Client::authorize(const krb_string_t &realm, const krb_string_t &user, const krb_string_t &password)
{
    return d->authorize(realm, user, password);
}

Result Client::authorizeContinue(const token_t &token)
{
    return d->authorizeContinue(token);
}

} // namespace zmkrb
