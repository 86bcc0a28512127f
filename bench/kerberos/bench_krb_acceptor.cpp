// Acceptor cost: the same fresh initiator tokens accepted by
// zmkrb::Service::acceptNew and by a minimal loop written straight on
// gss_accept_sec_context, in the same process, with the same keytab and the
// same replay-cache setting (none, so that both can take the same tokens).
//
//   bench_krb_acceptor REALM_DIR [tokens] [rounds]
#include <zmkerberos.h>

#include <QCoreApplication>
#include <QLoggingCategory>

#include "realmenv.h"

#include <gssapi/gssapi_krb5.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

[[noreturn]] void die(const char *what)
{
    std::fprintf(stderr, "bench_krb_acceptor: %s\n", what);
    std::exit(1);
}

// An initiator credential for user@realm from the password, in a memory
// cache: the tokens are then made without further KDC traffic.
gss_cred_id_t initiatorCredential(const std::string &principalText, const std::string &password, krb5_context ctx,
                                  krb5_ccache *cache)
{
    krb5_principal principal = nullptr;
    if (krb5_parse_name(ctx, principalText.c_str(), &principal))
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

std::vector<zmkrb::token_t> makeTokens(gss_cred_id_t cred, const std::string &service, int count)
{
    OM_uint32 minor = 0;
    gss_buffer_desc text{service.size(), const_cast<char *>(service.data())};
    gss_name_t target = GSS_C_NO_NAME;
    if (GSS_ERROR(gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &target)))
        die("import target");
    std::vector<zmkrb::token_t> tokens;
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
    return tokens;
}

// What any acceptor must do per token: accept, copy the reply, name the
// client. Like the library it keeps no context afterwards.
zmkrb::Result rawAccept(const zmkrb::token_t &token)
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
    return result;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        die("usage: bench_krb_acceptor REALM_DIR [tokens] [rounds]");
    const RealmEnv env = RealmEnv::fromDir(QString::fromLocal8Bit(argv[1]));
    if (!env.isValid())
        die("cannot read realm.env");
    const int count = argc > 2 ? std::atoi(argv[2]) : 2000;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;

    qputenv("KRB5_CONFIG", env.value("KRB5_CONFIG").toUtf8());
    qputenv("KRB5RCACHETYPE", "none");
    // Failures would be counted, not logged.
    QLoggingCategory::setFilterRules(QStringLiteral("platform.lib.zmauth.kerberos.debug=false"));

    krb5_context ctx = nullptr;
    krb5_init_context(&ctx);
    krb5_ccache cache = nullptr;
    const std::string user = (env.value("USER_NAME") + '@' + env.value("KRB5_REALM")).toStdString();
    gss_cred_id_t cred = initiatorCredential(user, env.value("USER_PASSWORD").toStdString(), ctx, &cache);
    const std::vector<zmkrb::token_t> tokens = makeTokens(cred, env.value("SERVICE_NAME").toStdString(), count);

    zmkrb::Service service;
    service.setKTFile(env.value("SERVICE_KEYTAB").toStdString());

    using Clock = std::chrono::steady_clock;
    std::vector<double> lib, raw;
    for (int round = 0; round < rounds; ++round) {
        // Alternate which goes first so that warm-up favours neither.
        for (int pass = 0; pass < 2; ++pass) {
            const bool libraryPass = (pass == 0) == (round % 2 == 0);
            int ok = 0;
            const auto start = Clock::now();
            for (const zmkrb::token_t &token : tokens) {
                const zmkrb::Result r = libraryPass ? service.acceptNew("bench-peer", token) : rawAccept(token);
                ok += r.status == 1 && r.user == user;
            }
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            if (ok != count)
                die("a token was not accepted");
            (libraryPass ? lib : raw).push_back(seconds);
        }
    }
    const double libMedian = median(lib), rawMedian = median(raw);
    std::printf("acceptor: %d tokens x %d rounds, replay cache none\n", count, rounds);
    std::printf("  Service::acceptNew          median %.3f s  %.1f us/token  %.0f tokens/s\n", libMedian,
                libMedian / count * 1e6, count / libMedian);
    std::printf("  raw gss_accept_sec_context  median %.3f s  %.1f us/token  %.0f tokens/s\n", rawMedian,
                rawMedian / count * 1e6, count / rawMedian);
    std::printf("  ratio acceptNew / raw       %.3f\n", libMedian / rawMedian);

    OM_uint32 minor = 0;
    gss_release_cred(&minor, &cred);
    krb5_cc_destroy(ctx, cache);
    krb5_free_context(ctx);
    return 0;
}
