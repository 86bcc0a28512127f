// The doctor's Kerberos checks: the ticket in the default cache, the clock
// against the server's, the service keytab, and a whole single sign-on
// exchange through the library.
#include "doctor.h"
#include "logsink.h"
#include "ssoexchange.h"

#include "zmkerberos.h"
#include "zmldap.h"
#include "zmlogging.h"

#include <QDateTime>
#include <QFileInfo>

#include <cmath>
#include <cstring>
#include <memory>

#include <krb5.h>

namespace doctor {

namespace {

// A krb5 context and the things made in it, each given back with the
// library's own free function.
class Krb {
public:
    Krb() { m_code = krb5_init_context(&m_context); }
    ~Krb()
    {
        if (m_context)
            krb5_free_context(m_context);
    }
    Krb(const Krb &) = delete;
    Krb &operator=(const Krb &) = delete;

    bool ok() const { return m_code == 0 && m_context; }
    krb5_context context() const { return m_context; }
    QString message(krb5_error_code code) const
    {
        const char *text = krb5_get_error_message(m_context, code);
        const QString message = QString::fromUtf8(text);
        krb5_free_error_message(m_context, text);
        return message;
    }
    QString startError() const { return QStringLiteral("the Kerberos library cannot start: error %1").arg(m_code); }

    // Gives a handle back with the library's function for it, in this context.
    template <typename Handle, typename Result, Result (*release)(krb5_context, Handle)>
    struct Release {
        krb5_context context;
        void operator()(Handle handle) const { release(context, handle); }
    };
    using CacheClose = Release<krb5_ccache, krb5_error_code, krb5_cc_close>;
    using CacheDestroy = Release<krb5_ccache, krb5_error_code, krb5_cc_destroy>;
    using PrincipalFree = Release<krb5_principal, void, krb5_free_principal>;
    using CredsFree = Release<krb5_creds *, void, krb5_free_creds>;
    using KeytabClose = Release<krb5_keytab, krb5_error_code, krb5_kt_close>;
    using InitCredsFree = Release<krb5_init_creds_context, void, krb5_init_creds_free>;
    using ErrorFree = Release<krb5_error *, void, krb5_free_error>;
    using Cache = std::unique_ptr<std::remove_pointer_t<krb5_ccache>, CacheClose>;
    using MemoryCache = std::unique_ptr<std::remove_pointer_t<krb5_ccache>, CacheDestroy>;
    using Principal = std::unique_ptr<std::remove_pointer_t<krb5_principal>, PrincipalFree>;
    using Creds = std::unique_ptr<krb5_creds, CredsFree>;
    using Keytab = std::unique_ptr<std::remove_pointer_t<krb5_keytab>, KeytabClose>;
    using InitCreds = std::unique_ptr<std::remove_pointer_t<krb5_init_creds_context>, InitCredsFree>;
    using Error = std::unique_ptr<krb5_error, ErrorFree>;

    QString name(krb5_const_principal principal, int flags = 0) const
    {
        char *text = nullptr;
        if (krb5_unparse_name_flags(m_context, principal, flags, &text) != 0)
            return QString();
        const QString name = QString::fromUtf8(text);
        krb5_free_unparsed_name(m_context, text);
        return name;
    }
    QString realmOf(krb5_const_principal principal) const
    {
        return QString::fromUtf8(principal->realm.data, int(principal->realm.length));
    }
    QString defaultRealm() const
    {
        char *realm = nullptr;
        if (krb5_get_default_realm(m_context, &realm) != 0)
            return QString();
        const QString text = QString::fromUtf8(realm);
        krb5_free_default_realm(m_context, realm);
        return text;
    }

private:
    krb5_context m_context = nullptr;
    krb5_error_code m_code = 0;
};

// The default cache, its name and its client, or the reason there is none.
struct DefaultCache {
    Krb::Cache cache;
    Krb::Principal client;
    QString name;
    QString error;
};

DefaultCache openDefaultCache(const Krb &krb)
{
    DefaultCache result{Krb::Cache(nullptr, {krb.context()}), Krb::Principal(nullptr, {krb.context()}), QString(), QString()};
    krb5_ccache cache = nullptr;
    krb5_error_code code = krb5_cc_default(krb.context(), &cache);
    if (code != 0) {
        result.error = krb.message(code);
        return result;
    }
    result.cache.reset(cache);
    result.name = QStringLiteral("%1:%2").arg(QString::fromUtf8(krb5_cc_get_type(krb.context(), cache)),
                                             QString::fromUtf8(krb5_cc_get_name(krb.context(), cache)));
    krb5_principal client = nullptr;
    code = krb5_cc_get_principal(krb.context(), cache, &client);
    if (code != 0) {
        result.error = krb.message(code);
        return result;
    }
    result.client.reset(client);
    return result;
}

// What a lookup or a request for a ticket of the cache's client names.
krb5_creds request(const DefaultCache &cache, krb5_principal server)
{
    krb5_creds wanted;
    std::memset(&wanted, 0, sizeof wanted);
    wanted.client = cache.client.get();
    wanted.server = server;
    return wanted;
}

// The ticket-granting ticket of the cache's client, or null.
Krb::Creds ticketGrantingTicket(const Krb &krb, const DefaultCache &cache, krb5_error_code *code)
{
    Krb::Creds none(nullptr, {krb.context()});
    const QByteArray realm = krb.realmOf(cache.client.get()).toUtf8();
    krb5_principal server = nullptr;
    *code = krb5_build_principal(krb.context(), &server, unsigned(realm.size()), realm.constData(), KRB5_TGS_NAME,
                                 realm.constData(), nullptr);
    if (*code != 0)
        return none;
    const Krb::Principal serverOwner(server, {krb.context()});
    krb5_creds wanted = request(cache, server);
    auto *found = static_cast<krb5_creds *>(std::calloc(1, sizeof(krb5_creds)));
    *code = krb5_cc_retrieve_cred(krb.context(), cache.cache.get(), 0, &wanted, found);
    if (*code != 0) {
        std::free(found);
        return none;
    }
    return Krb::Creds(found, {krb.context()});
}

// A service ticket fresh from the KDC, asked for with a copy of the ticket-
// granting ticket in a cache of its own: the user's cache stays as it was,
// and the KDC's answer is never a cached one.
Krb::Creds freshServiceTicket(const Krb &krb, const DefaultCache &cache, const krb5_creds &tgt, const QString &service,
                              krb5_error_code *code)
{
    Krb::Creds none(nullptr, {krb.context()});
    krb5_ccache memory = nullptr;
    *code = krb5_cc_new_unique(krb.context(), "MEMORY", nullptr, &memory);
    if (*code != 0)
        return none;
    const Krb::MemoryCache memoryOwner(memory, {krb.context()});
    if ((*code = krb5_cc_initialize(krb.context(), memory, cache.client.get())) != 0
        || (*code = krb5_cc_store_cred(krb.context(), memory, const_cast<krb5_creds *>(&tgt))) != 0)
        return none;
    krb5_principal server = nullptr;
    if ((*code = krb5_parse_name(krb.context(), service.toUtf8().constData(), &server)) != 0)
        return none;
    const Krb::Principal serverOwner(server, {krb.context()});
    krb5_creds wanted = request(cache, server);
    krb5_creds *out = nullptr;
    *code = krb5_get_credentials(krb.context(), 0, memory, &wanted, &out);
    return Krb::Creds(out, {krb.context()});
}

krb5_error_code refusePrompt(krb5_context, void *, const char *, const char *, int, krb5_prompt[])
{
    return KRB5_LIBOS_CANTREADPWD;
}

// The KDC's clock, read from the error it answers to an initial request
// without pre-authentication (the first step of every login). No password is
// sent and none is needed. Returns false when no error came back.
bool kdcTimeByInitialRequest(const Krb &krb, const QString &principalName, double *kdcTime, qint64 *localMs,
                             QString *problem)
{
    krb5_principal principal = nullptr;
    krb5_error_code code = krb5_parse_name(krb.context(), principalName.toUtf8().constData(), &principal);
    if (code != 0) {
        *problem = krb.message(code);
        return false;
    }
    const Krb::Principal principalOwner(principal, {krb.context()});
    krb5_init_creds_context request = nullptr;
    code = krb5_init_creds_init(krb.context(), principal, refusePrompt, nullptr, 0, nullptr, &request);
    if (code != 0) {
        *problem = krb.message(code);
        return false;
    }
    const Krb::InitCreds requestOwner(request, {krb.context()});
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    code = krb5_init_creds_get(krb.context(), request);
    const qint64 after = QDateTime::currentMSecsSinceEpoch();
    krb5_error *reply = nullptr;
    if (krb5_init_creds_get_error(krb.context(), request, &reply) != 0 || !reply) {
        *problem = code != 0 ? krb.message(code) : QString();
        return false;
    }
    const Krb::Error replyOwner(reply, {krb.context()});
    *kdcTime = double(reply->stime) + double(reply->susec) / 1e6;
    *localMs = (before + after) / 2;
    return true;
}

QString aheadOrBehind(qint64 skew)
{
    return skew >= 0 ? QStringLiteral("%1 s ahead of").arg(skew) : QStringLiteral("%1 s behind").arg(-skew);
}

// Weak enctypes that current Kerberos deployments turn off.
bool isWeak(krb5_enctype enctype)
{
    switch (enctype) {
    case ENCTYPE_DES_CBC_CRC:
    case ENCTYPE_DES_CBC_MD4:
    case ENCTYPE_DES_CBC_MD5:
    case ENCTYPE_DES3_CBC_SHA1:
    case ENCTYPE_ARCFOUR_HMAC:
    case ENCTYPE_ARCFOUR_HMAC_EXP:
        return true;
    default:
        return false;
    }
}

QString enctypeName(krb5_enctype enctype)
{
    char name[64] = {};
    if (krb5_enctype_to_name(enctype, FALSE, name, sizeof name) != 0)
        return QStringLiteral("enctype %1").arg(enctype);
    return QString::fromLatin1(name);
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString kinitFix(const QString &principal)
{
    return QStringLiteral("get a ticket as the account the system runs as: kinit %1 (or kinit -k -t KEYTAB PRINCIPAL), "
                          "and renew it before it ends; or point KRB5CCNAME at the cache that holds one")
        .arg(principal.isEmpty() ? QStringLiteral("LOGIN") : principal);
}

} // namespace

QString kerberosFix(const QString &text)
{
    if (text.contains(QLatin1String("Clock skew too great")))
        return clockFix();
    if (text.contains(QLatin1String("not found in Kerberos database")))
        return QStringLiteral("the KDC has no such principal: register it (in a domain: a service principal name on the "
                              "service's account, setspn -S), or use the name the KDC knows");
    if (text.contains(QLatin1String("Ticket expired")) || text.contains(QLatin1String("No Kerberos credentials"))
        || text.contains(QLatin1String("No credentials cache found")))
        return kinitFix(QString());
    if (text.contains(QLatin1String("No key table entry found")))
        return QStringLiteral("export the service's key into the keytab (in a domain: from the account that holds the "
                              "service principal name)");
    if (text.contains(QLatin1String("Key version number")) || text.contains(QLatin1String("keytab is likely out of date"))
        || text.contains(QLatin1String("integrity check failed"))
        || text.contains(QLatin1String("Cannot find key of appropriate type")))
        return QStringLiteral("the keytab does not hold the key the KDC uses for the service: export it again");
    if (text.contains(QLatin1String("Cannot contact any KDC")) || text.contains(QLatin1String("Cannot find KDC")))
        return QStringLiteral("check the realm's kdc entry in krb5.conf (KRB5_CONFIG) and that the KDC runs");
    return QString();
}

QString kdcRefusal(const QString &principal)
{
    const Krb krb;
    if (!krb.ok())
        return krb.startError();
    const DefaultCache cache = openDefaultCache(krb);
    if (!cache.client)
        return cache.error;
    krb5_error_code code = 0;
    const Krb::Creds tgt = ticketGrantingTicket(krb, cache, &code);
    if (!tgt)
        return krb.message(code);
    const Krb::Creds ticket = freshServiceTicket(krb, cache, *tgt, principal, &code);
    return ticket ? QString() : krb.message(code);
}

// ---------------------------------------------------------------- ticket

Outcome checkTicket(const Run &run)
{
    Q_UNUSED(run)
    const Krb krb;
    if (!krb.ok())
        return fail(krb.startError(), QStringLiteral("check the Kerberos configuration (KRB5_CONFIG, /etc/krb5.conf)"));
    const QString realm = krb.defaultRealm();
    const DefaultCache cache = openDefaultCache(krb);
    if (!cache.client)
        return fail(QStringLiteral("no ticket: the credential cache %1 cannot be read: %2")
                        .arg(cache.name.isEmpty() ? QStringLiteral("(none)") : cache.name, cache.error),
                    kinitFix(realm.isEmpty() ? QString() : QStringLiteral("LOGIN@") + realm));
    const QString client = krb.name(cache.client.get());
    const QString clientRealm = krb.realmOf(cache.client.get());
    krb5_error_code code = 0;
    const Krb::Creds tgt = ticketGrantingTicket(krb, cache, &code);
    if (!tgt)
        return fail(QStringLiteral("the cache %1 of %2 holds no ticket-granting ticket for %3: %4")
                        .arg(cache.name, client, clientRealm, krb.message(code)),
                    kinitFix(client));
    const qint64 end = tgt->times.endtime;
    const QJsonObject facts{{QStringLiteral("ticketClient"), client},
                            {QStringLiteral("ticketRealm"), clientRealm},
                            {QStringLiteral("ticketEnd"), double(end)}};
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    if (end <= now)
        return fail(QStringLiteral("the ticket of %1 in %2 expired at %3 (%4)")
                        .arg(client, cache.name, utcText(end), distanceFromNow(end)),
                    kinitFix(client), facts);
    const QString finding = QStringLiteral("%1 in %2, realm %3, valid until %4 (%5)")
                                .arg(client, cache.name, clientRealm, utcText(end), distanceFromNow(end));
    if (end - now < 3600)
        return warn(finding + QStringLiteral(": less than an hour left"), kinitFix(client), facts);
    return pass(finding, facts);
}

// ---------------------------------------------------------------- clock-skew

Outcome checkClockSkew(const Run &run)
{
    QString source;
    double serverTime = 0;
    qint64 localMs = 0;
    if (run.facts.contains(QStringLiteral("currentTime"))) {
        // currentTime counts whole seconds: the middle of that second.
        serverTime = run.facts.value(QStringLiteral("currentTime")).toDouble() + 0.5;
        localMs = qint64(run.facts.value(QStringLiteral("currentTimeReceived")).toDouble());
        source = QStringLiteral("the directory server's (root DSE currentTime %1)").arg(utcText(qint64(serverTime)));
    } else {
        const Krb krb;
        if (!krb.ok())
            return fail(krb.startError(), QStringLiteral("check the Kerberos configuration (KRB5_CONFIG, /etc/krb5.conf)"));
        const DefaultCache cache = openDefaultCache(krb);
        QStringList candidates;
        if (cache.client)
            candidates << krb.name(cache.client.get());
        if (!run.input.user.isEmpty())
            candidates << run.input.user;
        QString problem;
        for (const QString &principal : qAsConst(candidates)) {
            if (kdcTimeByInitialRequest(krb, principal, &serverTime, &localMs, &problem)) {
                source = QStringLiteral("the KDC's (its answer to an initial request for %1 at %2)")
                             .arg(principal, utcText(qint64(serverTime)));
                break;
            }
            if (problem.contains(QLatin1String("KDC")))
                return fail(QStringLiteral("cannot ask the KDC for its time: %1").arg(problem), kerberosFix(problem));
        }
        if (source.isEmpty() && cache.client) {
            // A principal that needs no pre-authentication gets its ticket
            // without an error: then a fresh service ticket's start is the
            // KDC's time.
            krb5_error_code code = 0;
            const Krb::Creds tgt = ticketGrantingTicket(krb, cache, &code);
            if (tgt) {
                const QString client = krb.name(cache.client.get());
                const qint64 before = QDateTime::currentMSecsSinceEpoch();
                const Krb::Creds ticket = freshServiceTicket(krb, cache, *tgt, client, &code);
                const qint64 after = QDateTime::currentMSecsSinceEpoch();
                if (!ticket) {
                    const QString text = krb.message(code);
                    if (code == KRB5KRB_AP_ERR_SKEW)
                        return fail(QStringLiteral("the KDC refuses this machine's clock: %1 (more than 300 s apart)").arg(text),
                                    clockFix());
                    return fail(QStringLiteral("cannot ask the KDC for its time: %1").arg(text), kerberosFix(text));
                }
                serverTime = double(ticket->times.starttime);
                localMs = (before + after) / 2;
                source = QStringLiteral("the KDC's (the start of a fresh ticket for %1 at %2)")
                             .arg(client, utcText(ticket->times.starttime));
            }
        }
        if (source.isEmpty())
            return skip(QStringLiteral("no server clock to compare with: the directory offers no currentTime, and there "
                                       "is no principal to ask the KDC about (no ticket, no --user)"));
    }
    const qint64 skew = std::llround(double(localMs) / 1000.0 - serverTime);
    const qint64 size = skew < 0 ? -skew : skew;
    const QString finding = QStringLiteral("this machine's clock is %1 %2").arg(aheadOrBehind(skew), source);
    if (size > 300)
        return fail(finding + QStringLiteral(": Kerberos refuses more than 300 s"), clockFix());
    if (size > 60)
        return warn(finding + QStringLiteral(": more than 60 s, and Kerberos refuses 300 s"), clockFix());
    return pass(finding);
}

// ---------------------------------------------------------------- keytab

Outcome checkKeytab(const Run &run)
{
    const QString path = run.input.keytab;
    const QString service = run.input.service.section(QLatin1Char('@'), 0, 0);
    const QString host = run.input.service.section(QLatin1Char('@'), 1);
    const QString wanted = service + QLatin1Char('/') + host;
    const QFileInfo file(path);
    if (!file.exists())
        return fail(QStringLiteral("cannot read the keytab %1: no such file").arg(path),
                    QStringLiteral("give --keytab the service's keytab file"));
    if (!file.isReadable() || file.isDir())
        return fail(QStringLiteral("cannot read the keytab %1: %2").arg(path, file.isDir() ? QStringLiteral("a directory")
                                                                                          : QStringLiteral("permission denied")),
                    QStringLiteral("let the account the system runs as read %1 (and nobody else)").arg(path));

    const Krb krb;
    if (!krb.ok())
        return fail(krb.startError(), QStringLiteral("check the Kerberos configuration (KRB5_CONFIG, /etc/krb5.conf)"));
    krb5_keytab keytab = nullptr;
    krb5_error_code code = krb5_kt_resolve(krb.context(), (QStringLiteral("FILE:") + path).toUtf8().constData(), &keytab);
    if (code != 0)
        return fail(QStringLiteral("cannot open the keytab %1: %2").arg(path, krb.message(code)),
                    QStringLiteral("give --keytab the service's keytab file"));
    const Krb::Keytab keytabOwner(keytab, {krb.context()});
    krb5_kt_cursor cursor;
    code = krb5_kt_start_seq_get(krb.context(), keytab, &cursor);
    if (code != 0)
        return fail(QStringLiteral("%1 is no keytab: %2").arg(path, krb.message(code)),
                    QStringLiteral("give --keytab the service's keytab file"));
    QStringList others;
    QStringList matches;
    QStringList enctypes;
    bool strong = false;
    int keys = 0;
    krb5_keytab_entry entry;
    while (krb5_kt_next_entry(krb.context(), keytab, &entry, &cursor) == 0) {
        ++keys;
        const QString name = krb.name(entry.principal);
        const QString bare = krb.name(entry.principal, KRB5_PRINCIPAL_UNPARSE_NO_REALM);
        const bool match = bare.section(QLatin1Char('/'), 0, 0) == service
            && bare.section(QLatin1Char('/'), 1).compare(host, Qt::CaseInsensitive) == 0;
        if (match) {
            const QString item = QStringLiteral("%1 kvno %2").arg(name).arg(entry.vno);
            if (!matches.contains(item))
                matches << item;
            const QString enctype = enctypeName(entry.key.enctype);
            if (!enctypes.contains(enctype))
                enctypes << enctype;
            strong = strong || !isWeak(entry.key.enctype);
        } else if (!others.contains(name)) {
            others << name;
        }
        krb5_free_keytab_entry_contents(krb.context(), &entry);
    }
    krb5_kt_end_seq_get(krb.context(), keytab, &cursor);

    if (matches.isEmpty())
        return fail(QStringLiteral("%1 holds no key for %2 (%3)")
                        .arg(path, wanted, keys == 0 ? QStringLiteral("it is empty")
                                                     : QStringLiteral("it holds %1").arg(others.join(QLatin1String(", ")))),
                    QStringLiteral("export the key of %1 into the keytab (in a domain: from the account that holds the "
                                   "service principal name %1), or give --keytab the keytab that holds it")
                        .arg(wanted));
    const QString finding = QStringLiteral("%1: %2; enctypes %3").arg(path, matches.join(QLatin1String(", ")),
                                                                      enctypes.join(QLatin1String(", ")));
    if (!strong)
        return warn(finding + QStringLiteral(": only weak (RC4 or DES) keys"),
                    QStringLiteral("set msDS-SupportedEncryptionTypes to 24 (AES) on the service's account and export the "
                                   "keytab again"));
    return pass(finding);
}

// ---------------------------------------------------------------- sso

Outcome checkSso(const Run &run)
{
    const std::string target = run.input.service.toStdString();
    const std::string keytab = run.input.keytab.toStdString();
    const QString category = QString::fromLatin1(krbc().categoryName());
    // The keytab is registered before the acceptor acquires its credential.
    zmkrb::Client client(target);
    if (!client.setKTFile(keytab))
        return fail(QStringLiteral("GSSAPI refused the keytab %1").arg(run.input.keytab),
                    QStringLiteral("give --keytab the service's keytab file"));
    zmkrb::Service service;
    service.setKTFile(keytab);

    LogSink::clear();
    // Default-credential mode: the ticket of the default cache.
    zmkrb::Result initiator = client.authorize(std::string(), std::string(), std::string());
    zmkrb::Result acceptor;
    const char *failedStep = initiator.status == 0
        ? "authorize"
        : completeSsoExchange(client, service, "doctor", initiator, acceptor,
                              [](const char *, const char *, const zmkrb::Result &) {});
    if (failedStep) {
        QString text = LogSink::lastWarning(category);
        // One line: the library's text puts each status on a line of its own.
        text.replace(QLatin1String("failed:\n\t"), QLatin1String("failed: "));
        text.replace(QLatin1String("\n\t"), QLatin1String(" / "));
        const QString finding = QStringLiteral("%1 failed%2").arg(QLatin1String(failedStep), text.isEmpty() ? QString() : QStringLiteral(": ") + text);
        QString fix = kerberosFix(text);
        if (fix.isEmpty())
            fix = QStringLiteral("run the doctor with KRB5_TRACE=/dev/stderr to see the Kerberos steps");
        return fail(finding, fix);
    }
    const QString principal = QString::fromStdString(acceptor.user);
    const QString login = principal.section(QLatin1Char('@'), 0, 0);
    const QString finding = QStringLiteral("a whole exchange for %1: the acceptor names %2, login %3")
                                .arg(run.input.service, principal, quoted(login));
    if (!run.ok(QStringLiteral("bind")))
        return pass(finding);

    ZMLDAP directory(run.librarySettings());
    LogSink::clear();
    if (directory.connect() == 0 && directory.checkADUser(zmldap::escapeFilterValue(login)))
        return pass(finding + QStringLiteral(", which the account check finds"));
    return warn(finding + QStringLiteral(", which the account check does not find"),
                QStringLiteral("the login attribute (\"PT_USER_ID_PARAMETER\"; absent: sAMAccountName) must hold the "
                               "principal's name without the realm, below \"PT_BASE_DN\""));
}

} // namespace doctor
