#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>

#include <QFile>
#include <QProcess>
#include <QtGlobal>

#include <gssapi/gssapi_krb5.h>

#include <dirent.h>
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstring>
#include <map>
#include <mutex>

namespace krbtest {

Faults &faults()
{
    static Faults f;
    return f;
}

Seen &seen()
{
    static Seen s;
    return s;
}

void resetAll()
{
    faults() = Faults();
    seen() = Seen();
}

namespace {

// The interposers run on whatever thread calls GSSAPI or krb5: what they note
// is kept under one lock, so that threaded tests can use them too.
std::mutex &notesMutex()
{
    static std::mutex m;
    return m;
}

// Handles noted by the interposers: security contexts (initiator and
// acceptor) and credentials acquired by a Service constructor.
std::set<gss_ctx_id_t> &contexts()
{
    static std::set<gss_ctx_id_t> s;
    return s;
}
std::set<gss_cred_id_t> &serviceCreds()
{
    static std::set<gss_cred_id_t> s;
    return s;
}

const char *objectOf(const void *address)
{
    Dl_info info;
    if (!dladdr(address, &info) || !info.dli_fname)
        return "";
    return info.dli_fname;
}

// Calls that MIT makes to its own entry points are not ours to record.
bool fromMit(const void *address)
{
    const char *file = objectOf(address);
    return strstr(file, "libgssapi_krb5") || strstr(file, "libkrb5") || strstr(file, "libk5crypto")
        || strstr(file, "libgssrpc") || strstr(file, "libsasl") || strstr(file, "/sasl2/")
        || strstr(file, "libldap");
}

// True when the call comes from zmkrb::Service's constructor.
bool fromServiceConstructor(const void *address)
{
    Dl_info info;
    void *entry = nullptr;
    if (!dladdr1(address, &info, &entry, RTLD_DL_SYMENT) || !info.dli_sname || !entry)
        return false;
    const ElfW(Sym) *symbol = static_cast<const ElfW(Sym) *>(entry);
    const char *base = static_cast<const char *>(info.dli_saddr);
    const char *at = static_cast<const char *>(address);
    return strncmp(info.dli_sname, "_ZN5zmkrb7ServiceC", 18) == 0 && at >= base && at < base + symbol->st_size;
}

template <typename F>
F real(const char *name)
{
    void *f = dlsym(RTLD_NEXT, name);
    if (!f)
        abort();
    return reinterpret_cast<F>(f);
}

void record(const char *call, const void *caller)
{
    if (fromMit(caller))
        return;
    std::lock_guard<std::mutex> lock(notesMutex());
    if (seen().recordReleases)
        seen().releases.push_back(call);
}

} // namespace

void releaseHeldContexts()
{
    static auto deleteContext = real<OM_uint32 (*)(OM_uint32 *, gss_ctx_id_t *, gss_buffer_t)>("gss_delete_sec_context");
    std::lock_guard<std::mutex> lock(notesMutex());
    OM_uint32 minor = 0;
    for (gss_ctx_id_t context : contexts())
        deleteContext(&minor, &context, GSS_C_NO_BUFFER);
    contexts().clear();
}

void releaseHeldHandles()
{
    static auto releaseCred = real<OM_uint32 (*)(OM_uint32 *, gss_cred_id_t *)>("gss_release_cred");
    releaseHeldContexts();
    std::lock_guard<std::mutex> lock(notesMutex());
    OM_uint32 minor = 0;
    for (gss_cred_id_t cred : serviceCreds())
        releaseCred(&minor, &cred);
    serviceCreds().clear();
}

int heldContexts()
{
    std::lock_guard<std::mutex> lock(notesMutex());
    return int(contexts().size());
}
int heldCredentials()
{
    std::lock_guard<std::mutex> lock(notesMutex());
    return int(serviceCreds().size());
}

void resetThreadCache()
{
    OM_uint32 minor = 0;
    gss_krb5_ccache_name(&minor, nullptr, nullptr);
}

// Every cache the library created in this process, whatever the test.
std::vector<std::string> &createdCachesEver()
{
    static std::vector<std::string> names;
    return names;
}

std::vector<std::string> leftoverCaches()
{
    std::lock_guard<std::mutex> lock(notesMutex());
    std::vector<std::string> out;
    for (const std::string &name : createdCachesEver())
        if (fileExists(name))
            out.push_back(name);
    return out;
}

void startRealmTest()
{
    resetAll();
    resetThreadCache();
    clearRegisteredKeytab();
    qunsetenv("KRB5_KTNAME");
}

void endRealmTest()
{
    kdestroy();
    resetThreadCache();
    clearRegisteredKeytab();
    qunsetenv("KRB5_KTNAME");
}

std::string finishProgram()
{
    std::string problems;
    if (seen().gssDeleteSecContext != 0)
        problems += "the library deleted a security context; ";
    releaseHeldHandles();
    for (const std::string &file : leftoverCaches())
        problems += "left behind: " + file + "; ";
    return problems;
}

bool fileExists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool kinit(const QString &principal, const QString &password)
{
    QProcess process;
    process.start(QStringLiteral("kinit"), {principal});
    if (!process.waitForStarted(10000))
        return false;
    process.write(password.toUtf8() + "\n");
    process.closeWriteChannel();
    process.waitForFinished(30000);
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool kinitUser(const RealmEnv &env)
{
    return kinit(env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM")),
                 env.value(QStringLiteral("USER_PASSWORD")));
}

std::unique_ptr<OwnRealm> startOwnRealm(const QString &cacheName, QString *error)
{
    std::unique_ptr<OwnRealm> realm(new OwnRealm);
    if (!realm->isValid()) {
        *error = realm->error();
        return nullptr;
    }
    realm->useInThisProcess(cacheName);
    startRealmTest();
    return realm;
}

std::string finishOwnRealm(std::unique_ptr<OwnRealm> &realm)
{
    endRealmTest();
    const std::string problems = finishProgram();
    realm.reset();
    return problems;
}

void kdestroy()
{
    QString name = qEnvironmentVariable("KRB5CCNAME");
    if (name.startsWith(QStringLiteral("FILE:")))
        name = name.mid(5);
    if (!name.isEmpty())
        QFile::remove(name);
}

std::vector<unsigned char> freshToken()
{
    return freshToken(RealmEnv::get());
}

std::vector<unsigned char> freshToken(const RealmEnv &env, const QString &user)
{
    std::vector<unsigned char> token;
    {
        zmkrb::Client client(env.str("SERVICE_NAME"));
        client.setKTFile(env.str("SSO_KEYTAB"));
        const zmkrb::Result result = client.authorize(env.str("KRB5_REALM"), env.str(user + QStringLiteral("_NAME")),
                                                      env.str(user + QStringLiteral("_PASSWORD")));
        token = result.token;
    }
    clearRegisteredKeytab();
    resetThreadCache();
    return token;
}

void clearRegisteredKeytab()
{
    krb5_gss_register_acceptor_identity(nullptr);
}

QStringList krbTexts(const LogCapture &log, QtMsgType type)
{
    QStringList out;
    for (const LogRecord &r : log.inCategory(QStringLiteral("platform.lib.zmauth.kerberos")))
        if (r.type == type)
            out.append(r.text);
    return out;
}

QString krb5Text(krb5_error_code code)
{
    krb5_context context = nullptr;
    krb5_init_context(&context);
    const char *text = krb5_get_error_message(context, code);
    QString out = QString::fromUtf8(text);
    krb5_free_error_message(context, text);
    krb5_free_context(context);
    return out;
}

QString visible(const QString &text)
{
    QString out = text;
    out.replace(QLatin1Char('\n'), QLatin1String("\\n")).replace(QLatin1Char('\t'), QLatin1String("\\t"));
    return out;
}

} // namespace krbtest

using krbtest::faults;
using krbtest::seen;

// ---- interposed krb5 calls ----

extern "C" {

krb5_error_code KRB5_CALLCONV krb5_init_context(krb5_context *context)
{
    static auto next = krbtest::real<krb5_error_code (*)(krb5_context *)>("krb5_init_context");
    if (faults().initContext && !krbtest::fromMit(__builtin_return_address(0))) {
        *context = nullptr;
        return faults().initContext;
    }
    return next(context);
}

krb5_error_code KRB5_CALLCONV krb5_cc_new_unique(krb5_context context, const char *type, const char *hint,
                                                 krb5_ccache *id)
{
    static auto next = krbtest::real<krb5_error_code (*)(krb5_context, const char *, const char *, krb5_ccache *)>(
        "krb5_cc_new_unique");
    static auto getName = krbtest::real<const char *(*)(krb5_context, krb5_ccache)>("krb5_cc_get_name");
    const bool ours = !krbtest::fromMit(__builtin_return_address(0));
    if (ours) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        seen().newUniqueHints.push_back(hint ? hint : "<null>");
    }
    if (ours && faults().newUnique)
        return faults().newUnique;
    const krb5_error_code code = next(context, type, hint, id);
    if (ours && code == 0) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        seen().createdCaches.push_back(getName(context, *id));
        krbtest::createdCachesEver().push_back(seen().createdCaches.back());
    }
    return code;
}

krb5_error_code KRB5_CALLCONV_C krb5_build_principal(krb5_context context, krb5_principal *princ, unsigned int rlen,
                                                     const char *realm, ...)
{
    if (faults().buildPrincipal && !krbtest::fromMit(__builtin_return_address(0)))
        return faults().buildPrincipal;
    va_list ap;
    va_start(ap, realm);
    const krb5_error_code code = krb5_build_principal_alloc_va(context, princ, rlen, realm, ap);
    va_end(ap);
    return code;
}

krb5_error_code KRB5_CALLCONV krb5_cc_initialize(krb5_context context, krb5_ccache cache, krb5_principal principal)
{
    static auto next = krbtest::real<krb5_error_code (*)(krb5_context, krb5_ccache, krb5_principal)>(
        "krb5_cc_initialize");
    if (faults().ccInitialize && !krbtest::fromMit(__builtin_return_address(0)))
        return faults().ccInitialize;
    return next(context, cache, principal);
}

krb5_error_code KRB5_CALLCONV krb5_cc_store_cred(krb5_context context, krb5_ccache cache, krb5_creds *creds)
{
    static auto next = krbtest::real<krb5_error_code (*)(krb5_context, krb5_ccache, krb5_creds *)>(
        "krb5_cc_store_cred");
    if (faults().storeCred && !krbtest::fromMit(__builtin_return_address(0)))
        return faults().storeCred;
    return next(context, cache, creds);
}

const char *KRB5_CALLCONV krb5_cc_get_name(krb5_context context, krb5_ccache cache)
{
    static auto next = krbtest::real<const char *(*)(krb5_context, krb5_ccache)>("krb5_cc_get_name");
    if (faults().ccGetNameNull && !krbtest::fromMit(__builtin_return_address(0)))
        return nullptr;
    return next(context, cache);
}

const char *KRB5_CALLCONV krb5_get_error_message(krb5_context context, krb5_error_code code)
{
    static auto next = krbtest::real<const char *(*)(krb5_context, krb5_error_code)>("krb5_get_error_message");
    if (faults().errorMessageNull && !krbtest::fromMit(__builtin_return_address(0)))
        return nullptr;
    return next(context, code);
}

void KRB5_CALLCONV krb5_free_context(krb5_context context)
{
    static auto next = krbtest::real<void (*)(krb5_context)>("krb5_free_context");
    krbtest::record("krb5_free_context", __builtin_return_address(0));
    next(context);
}

krb5_error_code KRB5_CALLCONV krb5_cc_destroy(krb5_context context, krb5_ccache cache)
{
    static auto next = krbtest::real<krb5_error_code (*)(krb5_context, krb5_ccache)>("krb5_cc_destroy");
    krbtest::record("krb5_cc_destroy", __builtin_return_address(0));
    return next(context, cache);
}

void KRB5_CALLCONV krb5_free_principal(krb5_context context, krb5_principal principal)
{
    static auto next = krbtest::real<void (*)(krb5_context, krb5_principal)>("krb5_free_principal");
    krbtest::record("krb5_free_principal", __builtin_return_address(0));
    next(context, principal);
}

void KRB5_CALLCONV krb5_free_cred_contents(krb5_context context, krb5_creds *creds)
{
    static auto next = krbtest::real<void (*)(krb5_context, krb5_creds *)>("krb5_free_cred_contents");
    krbtest::record("krb5_free_cred_contents", __builtin_return_address(0));
    next(context, creds);
}

// ---- interposed GSSAPI calls ----

OM_uint32 KRB5_CALLCONV gss_import_name(OM_uint32 *minor, gss_buffer_t text, gss_OID type, gss_name_t *name)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_buffer_t, gss_OID, gss_name_t *)>(
        "gss_import_name");
    if (faults().importNameMajor && !krbtest::fromMit(__builtin_return_address(0)) && text
        && std::string(static_cast<const char *>(text->value), text->length) == faults().importNameText) {
        *minor = 0;
        *name = GSS_C_NO_NAME;
        return faults().importNameMajor;
    }
    return next(minor, text, type, name);
}

OM_uint32 KRB5_CALLCONV gss_add_cred(OM_uint32 *minor, gss_cred_id_t input, gss_name_t name, gss_OID mech,
                                     gss_cred_usage_t usage, OM_uint32 initTime, OM_uint32 acceptTime,
                                     gss_cred_id_t *output, gss_OID_set *actualMechs, OM_uint32 *initRec,
                                     OM_uint32 *acceptRec)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_cred_id_t, gss_name_t, gss_OID,
                                                   gss_cred_usage_t, OM_uint32, OM_uint32, gss_cred_id_t *,
                                                   gss_OID_set *, OM_uint32 *, OM_uint32 *)>("gss_add_cred");
    if (faults().addCredMajor && !krbtest::fromMit(__builtin_return_address(0))) {
        *minor = 0;
        if (output)
            *output = GSS_C_NO_CREDENTIAL;
        return faults().addCredMajor;
    }
    return next(minor, input, name, mech, usage, initTime, acceptTime, output, actualMechs, initRec, acceptRec);
}

OM_uint32 KRB5_CALLCONV gss_acquire_cred(OM_uint32 *minor, gss_name_t name, OM_uint32 time, gss_OID_set mechs,
                                         gss_cred_usage_t usage, gss_cred_id_t *output, gss_OID_set *actualMechs,
                                         OM_uint32 *timeRec)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_name_t, OM_uint32, gss_OID_set,
                                                   gss_cred_usage_t, gss_cred_id_t *, gss_OID_set *, OM_uint32 *)>(
        "gss_acquire_cred");
    const OM_uint32 major = next(minor, name, time, mechs, usage, output, actualMechs, timeRec);
    if (!GSS_ERROR(major) && output && *output != GSS_C_NO_CREDENTIAL
        && krbtest::fromServiceConstructor(__builtin_return_address(0))) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        krbtest::serviceCreds().insert(*output);
    }
    return major;
}

OM_uint32 KRB5_CALLCONV gss_release_cred(OM_uint32 *minor, gss_cred_id_t *cred)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_cred_id_t *)>("gss_release_cred");
    krbtest::record("gss_release_cred", __builtin_return_address(0));
    if (cred && !krbtest::fromMit(__builtin_return_address(0))) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        krbtest::serviceCreds().erase(*cred);
    }
    return next(minor, cred);
}

OM_uint32 KRB5_CALLCONV gss_release_name(OM_uint32 *minor, gss_name_t *name)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_name_t *)>("gss_release_name");
    krbtest::record("gss_release_name", __builtin_return_address(0));
    return next(minor, name);
}

OM_uint32 KRB5_CALLCONV gss_init_sec_context(OM_uint32 *minor, gss_cred_id_t cred, gss_ctx_id_t *context,
                                             gss_name_t target, gss_OID mech, OM_uint32 reqFlags, OM_uint32 time,
                                             gss_channel_bindings_t bindings, gss_buffer_t input,
                                             gss_OID *actualMech, gss_buffer_t output, OM_uint32 *retFlags,
                                             OM_uint32 *timeRec)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_cred_id_t, gss_ctx_id_t *, gss_name_t, gss_OID,
                                                   OM_uint32, OM_uint32, gss_channel_bindings_t, gss_buffer_t,
                                                   gss_OID *, gss_buffer_t, OM_uint32 *, OM_uint32 *)>(
        "gss_init_sec_context");
    const bool ours = !krbtest::fromMit(__builtin_return_address(0));
    const gss_ctx_id_t before = context ? *context : GSS_C_NO_CONTEXT;
    const OM_uint32 major = next(minor, cred, context, target, mech, reqFlags, time, bindings, input, actualMech,
                                 output, retFlags, timeRec);
    if (ours && context) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        if (before != GSS_C_NO_CONTEXT && *context != before)
            krbtest::contexts().erase(before);
        if (*context != GSS_C_NO_CONTEXT)
            krbtest::contexts().insert(*context);
    }
    return major;
}

OM_uint32 KRB5_CALLCONV gss_accept_sec_context(OM_uint32 *minor, gss_ctx_id_t *context, gss_cred_id_t cred,
                                               gss_buffer_t input, gss_channel_bindings_t bindings,
                                               gss_name_t *source, gss_OID *mech, gss_buffer_t output,
                                               OM_uint32 *retFlags, OM_uint32 *timeRec, gss_cred_id_t *delegated)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_ctx_id_t *, gss_cred_id_t, gss_buffer_t,
                                                   gss_channel_bindings_t, gss_name_t *, gss_OID *, gss_buffer_t,
                                                   OM_uint32 *, OM_uint32 *, gss_cred_id_t *)>(
        "gss_accept_sec_context");
    const bool ours = !krbtest::fromMit(__builtin_return_address(0));
    const gss_ctx_id_t before = context ? *context : GSS_C_NO_CONTEXT;
    const OM_uint32 major = next(minor, context, cred, input, bindings, source, mech, output, retFlags, timeRec,
                                 delegated);
    if (ours && context) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        if (before != GSS_C_NO_CONTEXT && *context != before)
            krbtest::contexts().erase(before);
        if (*context != GSS_C_NO_CONTEXT)
            krbtest::contexts().insert(*context);
    }
    return major;
}

OM_uint32 KRB5_CALLCONV gss_delete_sec_context(OM_uint32 *minor, gss_ctx_id_t *context, gss_buffer_t output)
{
    static auto next = krbtest::real<OM_uint32 (*)(OM_uint32 *, gss_ctx_id_t *, gss_buffer_t)>(
        "gss_delete_sec_context");
    const void *caller = __builtin_return_address(0);
    if (!krbtest::fromMit(caller)) {
        std::lock_guard<std::mutex> lock(krbtest::notesMutex());
        if (strstr(krbtest::objectOf(caller), "libzmauth"))
            ++seen().gssDeleteSecContext;
        if (context)
            krbtest::contexts().erase(*context);
    }
    return next(minor, context, output);
}

} // extern "C"
