#include "tokens.h"

#include "realmenv.h"

#include <QLoggingCategory>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <type_traits>

namespace benchkrb {

void die(const char *what)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
    std::exit(1);
}

namespace {

struct ContextFree {
    void operator()(krb5_context c) const { krb5_free_context(c); }
};
using Context = std::unique_ptr<std::remove_pointer_t<krb5_context>, ContextFree>;

// An initiator credential for USER from the password, in a new memory cache.
gss_cred_id_t initiatorCredential(krb5_context ctx, const std::string &user, const std::string &password,
                                  krb5_ccache *cache)
{
    krb5_principal principal = nullptr;
    if (krb5_parse_name(ctx, user.c_str(), &principal))
        die("parse name");
    krb5_creds creds{};
    if (krb5_get_init_creds_password(ctx, &creds, principal, password.c_str(), nullptr, nullptr, 0, nullptr, nullptr))
        die("initial credentials");
    if (krb5_cc_new_unique(ctx, "MEMORY", nullptr, cache) || krb5_cc_initialize(ctx, *cache, principal)
        || krb5_cc_store_cred(ctx, *cache, &creds))
        die("memory cache");
    krb5_free_cred_contents(ctx, &creds);
    OM_uint32 minor = 0;
    gss_cred_id_t cred = GSS_C_NO_CREDENTIAL;
    if (GSS_ERROR(gss_krb5_import_cred(&minor, *cache, principal, nullptr, &cred)))
        die("import cred");
    krb5_free_principal(ctx, principal);
    return cred;
}

} // namespace

std::vector<zmkrb::token_t> makeTokens(const std::string &user, const std::string &password,
                                       const std::string &service, int count)
{
    krb5_context raw = nullptr;
    if (krb5_init_context(&raw))
        die("krb5 context");
    const Context ctx(raw);
    krb5_ccache cache = nullptr;
    gss_cred_id_t cred = initiatorCredential(ctx.get(), user, password, &cache);
    OM_uint32 minor = 0;
    gss_buffer_desc text{service.size(), const_cast<char *>(service.data())};
    gss_name_t target = GSS_C_NO_NAME;
    if (GSS_ERROR(gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &target)))
        die("import target");
    std::vector<zmkrb::token_t> tokens;
    tokens.reserve(size_t(count));
    for (int i = 0; i < count; ++i) {
        gss_ctx_id_t context = GSS_C_NO_CONTEXT;
        gss_buffer_desc out = GSS_C_EMPTY_BUFFER;
        if (GSS_ERROR(gss_init_sec_context(&minor, cred, &context, target, gss_mech_krb5, GSS_C_MUTUAL_FLAG,
                                           GSS_C_INDEFINITE, GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr,
                                           &out, nullptr, nullptr)))
            die("init sec context");
        const auto *bytes = static_cast<const unsigned char *>(out.value);
        tokens.emplace_back(bytes, bytes + out.length);
        gss_release_buffer(&minor, &out);
        gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    }
    gss_release_name(&minor, &target);
    gss_release_cred(&minor, &cred);
    krb5_cc_destroy(ctx.get(), cache);
    return tokens;
}

AcceptorRun prepareAcceptorRun(const char *realmDir, int count)
{
    const RealmEnv env = RealmEnv::fromDir(QString::fromLocal8Bit(realmDir));
    if (!env.isValid())
        die("cannot read realm.env");
    qputenv("KRB5_CONFIG", env.value("KRB5_CONFIG").toUtf8());
    qputenv("KRB5RCACHETYPE", "none");
    // Failures are counted by the benchmarks, not logged.
    QLoggingCategory::setFilterRules(QStringLiteral("platform.lib.zmauth.kerberos.debug=false"));
    AcceptorRun run;
    run.user = (env.value("USER_NAME") + '@' + env.value("KRB5_REALM")).toStdString();
    run.tokens = makeTokens(run.user, env.value("USER_PASSWORD").toStdString(),
                            env.value("SERVICE_NAME").toStdString(), count);
    run.keytab = env.value("SERVICE_KEYTAB").toStdString();
    return run;
}

zmkrb::Result rawAccept(const zmkrb::token_t &token, bool deleteContext)
{
    zmkrb::Result result;
    OM_uint32 minor = 0;
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    gss_buffer_desc input{token.size(), const_cast<unsigned char *>(token.data())};
    gss_name_t source = GSS_C_NO_NAME;
    gss_buffer_desc out = GSS_C_EMPTY_BUFFER;
    const OM_uint32 major = gss_accept_sec_context(&minor, &context, GSS_C_NO_CREDENTIAL, &input,
                                                   GSS_C_NO_CHANNEL_BINDINGS, &source, nullptr, &out, nullptr,
                                                   nullptr, nullptr);
    if (GSS_ERROR(major))
        return result;
    const auto *bytes = static_cast<const unsigned char *>(out.value);
    result.token.assign(bytes, bytes + out.length);
    gss_release_buffer(&minor, &out);
    result.status = major == GSS_S_COMPLETE ? 1 : 2;
    gss_buffer_desc name = GSS_C_EMPTY_BUFFER;
    if (!GSS_ERROR(gss_display_name(&minor, source, &name, nullptr)))
        result.user.assign(static_cast<const char *>(name.value), name.length);
    gss_release_name(&minor, &source);
    gss_release_buffer(&minor, &name);
    if (deleteContext)
        gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    return result;
}

} // namespace benchkrb
