// The doctor's directory checks: what the server says of itself, whether the
// configured method can bind, and whether the base, the size limit, the field
// mapping and the logins suit the library's listing and account check.
#include "doctor.h"
#include "session.h"
#include "inputfiles.h"
#include "logsink.h"

#include "zmldap.h"
#include "zmlogging.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QSet>

#include <sasl/sasl.h>

#include <algorithm>

namespace doctor {

namespace {

const char *const kPagedResultsOid = "1.2.840.113556.1.4.319";
// LDAP_CAP_ACTIVE_DIRECTORY_OID: every Active Directory domain controller
// lists it among its capabilities.
const char *const kActiveDirectoryOid = "1.2.840.113556.1.4.800";
// How many user entries the mapping and login checks look at.
const int kSampleSize = 100;
// A domain controller's MaxPageSize unless its administrator changed it.
const int kDomainControllerPageLimit = 1000;

QString adRefusesDigest()
{
    return QStringLiteral("AD offers no DIGEST-MD5: use PT_METHOD 8 (GSSAPI) with a ticket");
}

QString adRefusesAnonymous()
{
    return QStringLiteral("AD refuses anonymous searches: use PT_METHOD 8 (GSSAPI) with a ticket");
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QStringList strings(const QList<QByteArray> &values)
{
    QStringList list;
    for (const QByteArray &value : values)
        list << QString::fromUtf8(value);
    return list;
}

QStringList factList(const Run &run, const char *key)
{
    QStringList list;
    for (const QJsonValue &value : run.facts.value(QLatin1String(key)).toArray())
        list << value.toString();
    return list;
}

// Values of an attribute whatever the case of its name.
QList<QByteArray> valuesOf(const Entry &entry, const QString &name)
{
    QList<QByteArray> values;
    for (auto it = entry.attributes.begin(); it != entry.attributes.end(); ++it) {
        if (it.key().compare(name, Qt::CaseInsensitive) == 0)
            values << it.value();
    }
    return values;
}

QString listed(const QStringList &items, int most = 3)
{
    if (items.size() <= most)
        return items.join(QLatin1String(", "));
    return QStringList(items.mid(0, most)).join(QLatin1String(", ")) + QStringLiteral(" and %1 more").arg(items.size() - most);
}

bool isAscii(const QString &text)
{
    for (const QChar c : text) {
        if (c.unicode() > 0x7f)
            return false;
    }
    return true;
}

// The library's last critical record, for a finding.
QString libraryRecord()
{
    return LogSink::lastCritical(QString::fromLatin1(ldapc().categoryName()));
}

// The record with its code in decimal when the record shows it in hexadecimal.
QString withDecimal(const QString &record, int rc)
{
    return rc > 9 ? QStringLiteral("%1 (%2)").arg(record).arg(rc) : record;
}

// A GeneralizedTime such as "20261123012524.0Z", in seconds since the epoch;
// -1 when it does not read as one.
qint64 generalizedTime(const QString &text)
{
    QDateTime time = QDateTime::fromString(text.left(14), QStringLiteral("yyyyMMddHHmmss"));
    if (!time.isValid())
        return -1;
    time.setTimeSpec(Qt::UTC);
    return time.toSecsSinceEpoch();
}

} // namespace

// ---------------------------------------------------------------- root-dse

Outcome checkRootDse(const Run &run)
{
    Session session(run);
    QString error;
    if (!session.open(&error))
        return fail(error, QStringLiteral("set \"PT_HOST\" and \"PT_PORT\" to the directory server's name and LDAP port"),
                    QJsonObject{{QStringLiteral("ldapAnswers"), false}});
    const SearchResult result = session.search(QString(), LDAP_SCOPE_BASE, QStringLiteral("(objectClass=*)"),
                                               {QStringLiteral("objectClass"), QStringLiteral("namingContexts"),
                                                QStringLiteral("defaultNamingContext"), QStringLiteral("supportedSASLMechanisms"),
                                                QStringLiteral("supportedControl"), QStringLiteral("supportedCapabilities"),
                                                QStringLiteral("currentTime"), QStringLiteral("vendorName"),
                                                QStringLiteral("dnsHostName")},
                                               0);
    const qint64 receivedMs = QDateTime::currentMSecsSinceEpoch();
    if (result.rc < 0)
        return fail(QStringLiteral("no LDAP answer from %1: %2").arg(run.hostPort(), result.text),
                    result.rc == LDAP_TIMEOUT
                        ? QStringLiteral("find out why the server does not answer within %1 s; --timeout gives it more time").arg(run.input.timeout)
                        : QStringLiteral("check \"PT_PORT\" (389): something that is no LDAP server took the connection"),
                    QJsonObject{{QStringLiteral("ldapAnswers"), false}});
    if (result.rc != LDAP_SUCCESS || result.entries.isEmpty())
        return fail(QStringLiteral("the server refuses an anonymous read of its root DSE: %1").arg(result.text),
                    QStringLiteral("allow anonymous reads of the root DSE (every domain controller does); the other "
                                   "checks go on without it"),
                    QJsonObject{{QStringLiteral("ldapAnswers"), true}});

    const Entry &root = result.entries.constFirst();
    const QStringList contexts = strings(valuesOf(root, QStringLiteral("namingContexts")));
    const QStringList mechanisms = strings(valuesOf(root, QStringLiteral("supportedSASLMechanisms")));
    const QStringList controls = strings(valuesOf(root, QStringLiteral("supportedControl")));
    const QStringList capabilities = strings(valuesOf(root, QStringLiteral("supportedCapabilities")));
    const QStringList classes = strings(valuesOf(root, QStringLiteral("objectClass")));
    const QString vendor = strings(valuesOf(root, QStringLiteral("vendorName"))).value(0);
    const QString currentTime = strings(valuesOf(root, QStringLiteral("currentTime"))).value(0);
    const bool paged = controls.contains(QLatin1String(kPagedResultsOid));

    QString kind = QStringLiteral("ldap");
    QString server = QStringLiteral("an LDAP server, not Active Directory");
    if (capabilities.contains(QLatin1String(kActiveDirectoryOid))) {
        kind = QStringLiteral("ad");
        server = QStringLiteral("Active Directory (capability %1)").arg(QLatin1String(kActiveDirectoryOid));
    } else if (classes.contains(QStringLiteral("OpenLDAProotDSE"), Qt::CaseInsensitive)) {
        kind = QStringLiteral("openldap");
        server = QStringLiteral("OpenLDAP, not Active Directory");
    }
    if (!vendor.isEmpty())
        server += QStringLiteral(", vendor %1").arg(quoted(vendor));

    QJsonObject facts{{QStringLiteral("ldapAnswers"), true},
                      {QStringLiteral("serverKind"), kind},
                      {QStringLiteral("namingContexts"), QJsonArray::fromStringList(contexts)},
                      {QStringLiteral("defaultNamingContext"), strings(valuesOf(root, QStringLiteral("defaultNamingContext"))).value(0)},
                      {QStringLiteral("mechanisms"), QJsonArray::fromStringList(mechanisms)},
                      {QStringLiteral("pagedResults"), paged}};
    QString finding = QStringLiteral("server: %1; naming contexts: %2; SASL mechanisms: %3; paged results: %4")
                          .arg(server, contexts.isEmpty() ? QStringLiteral("none") : listed(contexts, 2),
                               mechanisms.isEmpty() ? QStringLiteral("none") : mechanisms.join(QLatin1Char(' ')),
                               paged ? QStringLiteral("yes") : QStringLiteral("no"));
    const qint64 serverTime = generalizedTime(currentTime);
    if (serverTime >= 0) {
        facts.insert(QStringLiteral("currentTime"), double(serverTime));
        facts.insert(QStringLiteral("currentTimeReceived"), double(receivedMs));
        finding += QStringLiteral("; currentTime %1").arg(utcText(serverTime));
    }
    return pass(finding, facts);
}

// ---------------------------------------------------------------- sasl-mechanism

Outcome checkSaslMechanism(const Run &run)
{
    const QString mechanism = run.method() == 1 ? QStringLiteral("DIGEST-MD5") : QStringLiteral("GSSAPI");
    const QStringList offered = factList(run, "mechanisms");
    if (!offered.contains(mechanism)) {
        const QString finding = QStringLiteral("the server offers no %1 (it offers %2)")
                                    .arg(mechanism, offered.isEmpty() ? QStringLiteral("none") : offered.join(QLatin1Char(' ')));
        if (mechanism == QLatin1String("DIGEST-MD5") && isActiveDirectory(run))
            return fail(finding, adRefusesDigest());
        if (offered.contains(QStringLiteral("GSSAPI")))
            return fail(finding, QStringLiteral("set \"PT_METHOD\" to \"8\" (GSSAPI with a ticket)"));
        if (offered.contains(QStringLiteral("DIGEST-MD5")))
            return fail(finding, QStringLiteral("set \"PT_METHOD\" to \"1\" (DIGEST-MD5 with PT_USER and PT_USER_PASSWORD)"));
        return fail(finding, QStringLiteral("enable %1 on the directory server, or set \"PT_METHOD\" to \"0\" if it allows "
                                            "anonymous reads")
                                 .arg(mechanism));
    }
    // This machine's SASL library needs the mechanism's module too.
    if (sasl_client_init(nullptr) == SASL_OK) {
        QStringList local;
        for (const char **name = sasl_global_listmech(); name && *name; ++name)
            local << QString::fromLatin1(*name);
        if (!local.contains(mechanism))
            return fail(QStringLiteral("the server offers %1, but this machine's SASL library has no module for it (it has %2)")
                            .arg(mechanism, local.isEmpty() ? QStringLiteral("none") : local.join(QLatin1Char(' '))),
                        QStringLiteral("install the Debian package %1")
                            .arg(mechanism == QLatin1String("GSSAPI") ? QStringLiteral("libsasl2-modules-gssapi-mit")
                                                                      : QStringLiteral("libsasl2-modules")));
    }
    return pass(QStringLiteral("the server offers %1 for PT_METHOD %2, and this machine's SASL library has it")
                    .arg(mechanism, methodName(run.method())));
}

// ---------------------------------------------------------------- anonymous

Outcome checkAnonymous(const Run &run)
{
    Session session(run);
    QString error;
    if (!session.open(&error))
        return fail(error, QStringLiteral("set \"PT_HOST\" and \"PT_PORT\" to the directory server's name and LDAP port"));
    const QString base = run.setting(db::system::ldap::BASE_DN);
    const SearchResult result = session.readEntry(base);
    switch (result.rc) {
    case LDAP_SUCCESS:
        return pass(QStringLiteral("an anonymous client may search PT_BASE_DN %1").arg(quoted(base)));
    case LDAP_NO_SUCH_OBJECT:
    case LDAP_REFERRAL:
        return pass(QStringLiteral("the server answers anonymous searches (PT_BASE_DN itself: %1; see base-dn)").arg(result.text));
    default:
        break;
    }
    if (result.rc == LDAP_TIMEOUT)
        return fail(QStringLiteral("no answer within %1 s: %2").arg(run.input.timeout).arg(result.text),
                    QStringLiteral("find out why the server does not answer; --timeout gives it more time"));
    return fail(QStringLiteral("the server refuses anonymous searches: %1").arg(result.text),
                isActiveDirectory(run)
                    ? adRefusesAnonymous()
                    : QStringLiteral("bind instead: set \"PT_METHOD\" to \"1\" (DIGEST-MD5 with PT_USER and PT_USER_PASSWORD) "
                                     "or \"8\" (GSSAPI with a ticket), or allow anonymous reads on the server"));
}

// ---------------------------------------------------------------- bind

namespace {

// What a failed connect() means, in the settings' terms.
QString bindFix(const Run &run, int rc, QString *finding)
{
    const int method = run.method();
    const bool ad = isActiveDirectory(run);
    switch (rc) {
    case LDAP_INVALID_CREDENTIALS:
        if (method == 1)
            return QStringLiteral("check \"PT_USER\" (the login DIGEST-MD5 binds as) and \"PT_USER_PASSWORD\"");
        break;
    case LDAP_SERVER_DOWN:
        return QStringLiteral("check \"PT_HOST\" and \"PT_PORT\": no LDAP server answers there");
    case LDAP_TIMEOUT:
        return QStringLiteral("find out why the server does not answer within %1 s; --timeout gives it more time")
            .arg(run.input.timeout);
    case LDAP_AUTH_UNKNOWN:
        return QStringLiteral("install the Debian package %1 (this machine's SASL module for the mechanism)")
            .arg(method == 8 ? QStringLiteral("libsasl2-modules-gssapi-mit") : QStringLiteral("libsasl2-modules"));
    case LDAP_INSUFFICIENT_ACCESS:
        if (method == 8 && !run.setting(db::system::ldap::USER).isEmpty())
            return QStringLiteral("remove \"PT_USER\": GSSAPI sends it as the authorisation identity, which this server "
                                  "refuses (or write it in the server's form, u:LOGIN)");
        break;
    default:
        break;
    }
    if (method == 1 && (rc == LDAP_OPERATIONS_ERROR || rc == LDAP_AUTH_METHOD_NOT_SUPPORTED
                        || rc == LDAP_INAPPROPRIATE_AUTH || rc == LDAP_STRONG_AUTH_NOT_SUPPORTED))
        return ad ? adRefusesDigest()
                  : QStringLiteral("the server does not take DIGEST-MD5: set \"PT_METHOD\" to a method it offers (see sasl-mechanism)");
    if (method == 8 && run.status(QStringLiteral("clock-skew")) == Status::Fail) {
        *finding += QStringLiteral("; the clocks are more than 300 s apart (see clock-skew)");
        return clockFix();
    }
    if (method == 8 && rc == LDAP_LOCAL_ERROR) {
        // GSSAPI failed before the server saw anything: ask the KDC for the
        // ticket libldap asked for, and say what it answers.
        QString host = run.facts.value(QStringLiteral("spnHost")).toString();
        if (host.isEmpty())
            host = run.host();
        QString principal = QStringLiteral("ldap/") + host;
        const QString realm = run.facts.value(QStringLiteral("ticketRealm")).toString();
        if (!realm.isEmpty())
            principal += QLatin1Char('@') + realm;
        const QString refusal = kdcRefusal(principal);
        if (refusal.isEmpty()) {
            *finding += QStringLiteral("; the KDC issues %1, so GSSAPI failed on this machine").arg(principal);
            return QStringLiteral("run the doctor with KRB5_TRACE=/dev/stderr to see the Kerberos steps");
        }
        *finding += QStringLiteral("; the KDC answers for %1: %2").arg(principal, refusal);
        if (run.status(QStringLiteral("reverse-dns")) == Status::Fail)
            return QStringLiteral("give the server's address a name (see reverse-dns): GSSAPI asks for ldap/<that name>");
        const QString fix = kerberosFix(refusal);
        if (!fix.isEmpty())
            return fix;
    }
    return QStringLiteral("see the directory server's log for this bind");
}

} // namespace

Outcome checkBind(const Run &run)
{
    ZMLDAP directory(run.librarySettings());
    LogSink::clear();
    const int rc = directory.connect();
    if (rc != 0) {
        QString record = libraryRecord();
        if (record.isEmpty())
            record = QStringLiteral("ldap_initialize error %1").arg(rc);
        QString finding = QStringLiteral("connect() refused: ") + withDecimal(record, rc);
        const QString fix = bindFix(run, rc, &finding);
        return fail(finding, fix, QJsonObject{{QStringLiteral("bound"), false}});
    }
    QString finding;
    switch (run.method()) {
    case 0:
        finding = QStringLiteral("connect() returned 0: PT_METHOD 0 makes no bind, the session is anonymous");
        break;
    case 1:
        finding = QStringLiteral("connect() returned 0: bound by DIGEST-MD5 as %1").arg(quoted(run.setting(db::system::ldap::USER)));
        break;
    default:
        finding = QStringLiteral("connect() returned 0: bound by GSSAPI with the ticket of %1")
                      .arg(run.facts.value(QStringLiteral("ticketClient")).toString());
        break;
    }
    // The protection the session reached: a bind without TLS and without a
    // SASL layer leaves the directory's data (and DIGEST-MD5's exchange) open
    // on the network.
    const zmldap::Connection connection = directory.connection();
    finding += QStringLiteral("; protection: %1, SASL SSF %2")
                   .arg(connection.tlsProtocol.isEmpty() ? QStringLiteral("no TLS")
                                                         : connection.tlsProtocol + QLatin1Char(' ') + connection.tlsCipher)
                   .arg(connection.saslSsf);
    const QJsonObject facts{{QStringLiteral("bound"), true}, {QStringLiteral("saslSsf"), connection.saslSsf},
                            {QStringLiteral("tlsProtocol"), connection.tlsProtocol}};
    const bool inClear = run.method() != 0 && connection.tlsProtocol.isEmpty() && connection.saslSsf == 0;
    auto passUnlessInClear = [&](const QString &text) {
        if (!inClear)
            return pass(text, facts);
        return warn(text + QStringLiteral("; directory data cross the network in clear"),
                    QStringLiteral("set \"PT_TLS\" to starttls (or ldaps) with \"PT_TLS_CA_FILE\", or use \"PT_METHOD\" 8, "
                                   "which Kerberos seals"),
                    facts);
    };
    const QString user = run.input.user;
    if (user.isEmpty())
        return passUnlessInClear(finding);

    LogSink::clear();
    const bool found = directory.checkADUser(zmldap::escapeFilterValue(user));
    const QString attribute = loginAttribute(run);
    if (found)
        return passUnlessInClear(finding + QStringLiteral("; the account check finds %1 (%2)").arg(quoted(user), attribute));
    const QString record = libraryRecord();
    if (!isAscii(user))
        return warn(finding + QStringLiteral("; the account check cannot find %1: %2").arg(quoted(user), record),
                    QStringLiteral("logins outside ASCII are cut by the account check (see non-ascii-logins): give the "
                                   "account an ASCII %1")
                        .arg(attribute),
                    facts);
    if (!record.isEmpty())
        return warn(finding + QStringLiteral("; the account check for %1 failed: %2").arg(quoted(user), record),
                    QStringLiteral("check \"PT_BASE_DN\" and \"PT_USER_ID_PARAMETER\" (the login attribute; absent: "
                                   "sAMAccountName)"),
                    facts);
    return warn(finding + QStringLiteral("; the account check does not find %1 (%2 below %3)")
                              .arg(quoted(user), attribute, quoted(run.setting(db::system::ldap::BASE_DN))),
                QStringLiteral("check the login, \"PT_USER_ID_PARAMETER\" (the login attribute; absent: sAMAccountName) "
                               "and \"PT_BASE_DN\""),
                facts);
}

// ---------------------------------------------------------------- base-dn

namespace {

// The naming context a DN lies in, by its trailing RDNs (without case);
// empty when none.
QString namingContextOf(const QString &dn, const QStringList &contexts)
{
    auto normal = [](const QString &text) {
        QString out;
        char *normalized = nullptr;
        if (ldap_dn_normalize(text.toUtf8().constData(), LDAP_DN_FORMAT_LDAP, &normalized, LDAP_DN_FORMAT_LDAPV3) == LDAP_SUCCESS
            && normalized) {
            out = QString::fromUtf8(normalized);
            ldap_memfree(normalized);
        } else {
            out = text;
        }
        return out.toLower();
    };
    const QString target = normal(dn);
    QString best;
    for (const QString &context : contexts) {
        const QString suffix = normal(context);
        if (suffix.isEmpty())
            continue;
        const bool inside = target == suffix || target.endsWith(QLatin1Char(',') + suffix);
        if (inside && context.size() > best.size())
            best = context;
    }
    return best;
}

QString suggestedBase(const Run &run, const QString &matched = QString())
{
    const QString preferred = run.facts.value(QStringLiteral("defaultNamingContext")).toString();
    if (!preferred.isEmpty())
        return preferred;
    if (!matched.isEmpty())
        return matched;
    return factList(run, "namingContexts").value(0);
}

QString baseFix(const Run &run, const QString &matched = QString())
{
    const QString example = suggestedBase(run, matched);
    if (example.isEmpty())
        return QStringLiteral("set \"PT_BASE_DN\" to a DN this server holds");
    return QStringLiteral("set \"PT_BASE_DN\" to a DN this server holds, e.g. %1").arg(quoted(example));
}

} // namespace

Outcome checkBaseDn(const Run &run)
{
    Session session(run);
    QString error;
    if (!session.openBound(&error))
        return fail(error, QStringLiteral("see bind"));
    const QString base = run.setting(db::system::ldap::BASE_DN);
    const SearchResult result = session.readEntry(base);
    const QStringList contexts = factList(run, "namingContexts");
    switch (result.rc) {
    case LDAP_SUCCESS:
        break;
    case LDAP_NO_SUCH_OBJECT:
        return fail(QStringLiteral("PT_BASE_DN %1 does not exist: %2%3")
                        .arg(quoted(base), result.text,
                             result.matched.isEmpty() ? QString() : QStringLiteral(" (the server holds %1)").arg(quoted(result.matched))),
                    baseFix(run, result.matched));
    case LDAP_REFERRAL:
        return fail(QStringLiteral("the server refers PT_BASE_DN %1 elsewhere (%2): the library does not follow referrals, "
                                   "so the listing finds nothing")
                        .arg(quoted(base), result.referrals.isEmpty() ? result.text : result.referrals.join(QLatin1Char(' '))),
                    baseFix(run));
    case LDAP_INVALID_DN_SYNTAX:
        return fail(QStringLiteral("PT_BASE_DN %1 is no DN: %2").arg(quoted(base), result.text), baseFix(run));
    default:
        return fail(QStringLiteral("cannot read PT_BASE_DN %1: %2").arg(quoted(base), result.text),
                    isActiveDirectory(run) && run.method() == 0
                        ? adRefusesAnonymous()
                        : QStringLiteral("give the bind identity read access to PT_BASE_DN, or see the server's log"));
    }
    if (base.trimmed().isEmpty())
        return fail(QStringLiteral("PT_BASE_DN is empty: searches start at the root DSE, above every naming context"),
                    baseFix(run));
    const QString context = namingContextOf(base, contexts);
    if (context.isEmpty() && !contexts.isEmpty())
        return fail(QStringLiteral("PT_BASE_DN %1 exists but lies under none of the naming contexts (%2)")
                        .arg(quoted(base), listed(contexts)),
                    baseFix(run));
    return pass(QStringLiteral("PT_BASE_DN %1 exists and is readable%2")
                    .arg(quoted(base), context.isEmpty() ? QString() : QStringLiteral(", in the naming context %1").arg(quoted(context))));
}

// ---------------------------------------------------------------- size-limit

Outcome checkSizeLimit(const Run &run)
{
    Session session(run);
    QString error;
    if (!session.openBound(&error))
        return fail(error, QStringLiteral("see bind"));
    const QString base = run.setting(db::system::ldap::BASE_DN);
    const QString filter = userFilter(run);
    const QStringList noAttributes{QStringLiteral("1.1")};

    const SearchResult unpaged = session.search(base, LDAP_SCOPE_SUBTREE, filter, noAttributes, LDAP_NO_LIMIT, false);
    if (unpaged.rc == LDAP_FILTER_ERROR)
        return fail(QStringLiteral("PT_USER_FILTER %1 is no valid search filter: %2").arg(quoted(filter), unpaged.text),
                    QStringLiteral("write \"PT_USER_FILTER\" as an LDAP filter in parentheses, e.g. "
                                   "(&(objectClass=user)(objectCategory=person)), or remove it for that default"));
    const bool capped = unpaged.rc == LDAP_SIZELIMIT_EXCEEDED || unpaged.rc == LDAP_ADMINLIMIT_EXCEEDED;
    if (!capped && unpaged.rc != LDAP_SUCCESS && unpaged.rc != LDAP_REFERRAL)
        return fail(QStringLiteral("the unpaged count failed: %1").arg(unpaged.text),
                    unpaged.rc == LDAP_TIMEOUT || unpaged.rc == LDAP_TIMELIMIT_EXCEEDED
                        ? QStringLiteral("the count took longer than %1 s: narrow \"PT_USER_FILTER\" or \"PT_BASE_DN\", or give "
                                         "--timeout more time")
                              .arg(run.input.timeout)
                        : QStringLiteral("see the directory server's log for this search"));

    const int configured = settingsPageSize(run);
    const int pageSize = run.input.pageSize > 0 ? run.input.pageSize : configured > 0 ? configured : 500;
    int total = -1;
    QString pagedText;
    if (run.facts.value(QStringLiteral("pagedResults")).toBool()) {
        total = 0;
        QByteArray cookie;
        for (int page = 0; page < 1000000; ++page) {
            const SearchResult result = session.search(base, LDAP_SCOPE_SUBTREE, filter, noAttributes, LDAP_NO_LIMIT,
                                                       false, pageSize, cookie);
            if (result.rc != LDAP_SUCCESS && result.rc != LDAP_REFERRAL) {
                return fail(QStringLiteral("pages of %1 entries are refused: %2").arg(pageSize).arg(result.text),
                            capped ? QStringLiteral("set \"PT_PAGE_SIZE\" to %1 or less (the server's limit)").arg(unpaged.count)
                                   : QStringLiteral("set \"PT_PAGE_SIZE\" to %1 or less").arg(kDomainControllerPageLimit));
            }
            total += result.count;
            cookie = result.cookie;
            if (cookie.isEmpty())
                break;
        }
        pagedText = QStringLiteral("pages of %1 read %2").arg(pageSize).arg(total);
    }

    if (std::max(total, unpaged.count) == 0)
        return fail(QStringLiteral("no entry matches PT_USER_FILTER %1 below %2: the listing fails with "
                                   "\"ldap_count_entries error\"")
                        .arg(quoted(filter), quoted(base)),
                    QStringLiteral("check \"PT_USER_FILTER\" (absent: (&(objectClass=user)(objectCategory=person))) and "
                                   "\"PT_BASE_DN\""));
    if (capped) {
        const QString finding = QStringLiteral("an unpaged search stops at %1 %2 (%3)")
                                    .arg(unpaged.count)
                                    .arg(total > unpaged.count ? QStringLiteral("of %1 user entries").arg(total)
                                                               : QStringLiteral("user entries"),
                                         unpaged.text);
        if (configured > 0)
            return pass(finding + QStringLiteral("; PT_PAGE_SIZE %1 pages past it: %2 entries").arg(configured).arg(total));
        if (total < 0)
            return fail(finding + QStringLiteral(", and the server offers no paged results"),
                        QStringLiteral("raise the server's size limit: it cannot page, and the listing ends with code %1")
                            .arg(unpaged.rc));
        return fail(finding + QStringLiteral(": without PT_PAGE_SIZE the listing fails with this code"),
                    QStringLiteral("set \"PT_PAGE_SIZE\" to \"%1\" (at most %2, the server's limit)")
                        .arg(std::min(500, unpaged.count))
                        .arg(unpaged.count));
    }
    QString finding = QStringLiteral("%1 user entries below %2; an unpaged search returns them all")
                          .arg(unpaged.count)
                          .arg(quoted(base));
    if (!pagedText.isEmpty())
        finding += QStringLiteral("; ") + pagedText;
    if (configured == 0 && isActiveDirectory(run) && unpaged.count > kDomainControllerPageLimit)
        return warn(finding + QStringLiteral(", but a domain controller's MaxPageSize (%1 by default) stops unpaged "
                                             "searches at that many entries")
                                  .arg(kDomainControllerPageLimit),
                    QStringLiteral("set \"PT_PAGE_SIZE\" to \"500\""));
    if (total >= 0 && total != unpaged.count)
        return warn(finding + QStringLiteral(", but the paged count differs"),
                    QStringLiteral("see the directory server's log: its paged and unpaged searches disagree"));
    return pass(finding);
}

// ---------------------------------------------------------------- mapping

Outcome checkMapping(const Run &run)
{
    FieldMapping mapping;
    QString error;
    const QString key = db::system::ldap::USER_CUSTOM_FIELDS_PARAMETER;
    const QString source = run.input.mappingPath.isEmpty() ? quoted(key) : run.input.mappingPath;
    const QString where = run.input.mappingPath.isEmpty() ? quoted(key) : QStringLiteral("the mapping file");
    const QString example = QStringLiteral("[{\"%1\": \"PT_LOGIN\"}, {\"%2\": \"PT_SURNAME PT_NAME PT_PATRONYMIC\"}]")
                                .arg(ZMLDAP::adDefaultValues().value(QStringLiteral("PT_LOGIN")),
                                     ZMLDAP::adDefaultValues().value(QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")));
    const bool parsed = run.input.mappingPath.isEmpty()
        ? run.setting(key).isEmpty() || parseMapping(run.setting(key).toUtf8(), mapping, &error)
        : loadMapping(run.input.mappingPath, mapping, &error);
    if (!parsed)
        return fail(QStringLiteral("%1 is %2; the system reads it as no mapping").arg(source, error),
                    QStringLiteral("write %1 as a JSON array of one-member objects, e.g. %2").arg(where, example));
    if (mapping.pairs.isEmpty())
        return warn(QStringLiteral("no field mapping (%1 is %2): each record keeps only its last attribute, under an "
                                   "empty field code")
                        .arg(source, run.setting(key).isEmpty() ? QStringLiteral("not set") : QStringLiteral("empty")),
                    QStringLiteral("set %1 to %2").arg(quoted(key), example));

    Findings findings;
    for (const QString &warning : qAsConst(mapping.warnings))
        findings.warn(QStringLiteral("%1: %2").arg(source, warning),
                      QStringLiteral("write each element of %1 as one object with one member").arg(where));

    // Field codes: a whole value that is a catalogue key (the composed full
    // name), or every word of it.
    QStringList catalogue = ZMLDAP::userDbValues().keys() + ZMLDAP::employeeDbValues().keys();
    catalogue.removeDuplicates();
    QStringList words;
    for (const QString &code : catalogue)
        words += code.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    QStringList attributes = mapping.pairs.keys();
    std::sort(attributes.begin(), attributes.end());
    for (const QString &attribute : qAsConst(attributes)) {
        const QString fields = mapping.pairs.value(attribute);
        if (catalogue.contains(fields))
            continue;
        for (const QString &field : fields.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
            if (words.contains(field))
                continue;
            const QString near = nearest(field, words);
            findings.fail(QStringLiteral("%1 maps to %2, which is in neither field catalogue").arg(quoted(attribute), quoted(field)),
                          near.isEmpty() ? QStringLiteral("map %1 to a field code of the catalogues (PT_LOGIN, PT_SURNAME, "
                                                          "PT_NAME, PT_EMAIL, ...)")
                                               .arg(quoted(attribute))
                                         : QStringLiteral("in %1 write %2 instead of %3").arg(where, quoted(near), quoted(field)));
        }
    }

    Session session(run);
    if (!session.openBound(&error))
        return fail(error, QStringLiteral("see bind"));
    QList<Entry> sample;
    if (!sampleUsers(session, run, QStringList(), kSampleSize, &sample, &error))
        return fail(QStringLiteral("the sample of user entries failed: %1").arg(error), QStringLiteral("see size-limit"));
    QStringList present;
    for (const QString &attribute : qAsConst(attributes)) {
        int exact = 0;
        QSet<QString> otherCase;
        for (const Entry &entry : qAsConst(sample)) {
            if (entry.attributes.contains(attribute))
                ++exact;
            for (auto it = entry.attributes.begin(); it != entry.attributes.end(); ++it) {
                if (it.key() != attribute && it.key().compare(attribute, Qt::CaseInsensitive) == 0)
                    otherCase.insert(it.key());
            }
        }
        if (exact > 0) {
            present << QStringLiteral("%1 (%2)").arg(attribute).arg(exact);
            continue;
        }
        if (!otherCase.isEmpty()) {
            const QString spelled = QStringList(otherCase.values()).join(QLatin1String(", "));
            findings.warn(QStringLiteral("%1 occurs on none of the %2 sampled entries, which spell it %3: mapping names are "
                                         "case-sensitive, so its values land under the empty field code")
                              .arg(quoted(attribute))
                              .arg(sample.size())
                              .arg(quoted(spelled)),
                          QStringLiteral("in %1 write %2 instead of %3").arg(where, quoted(*otherCase.begin()), quoted(attribute)));
        } else {
            findings.warn(QStringLiteral("%1 occurs on none of the %2 sampled entries").arg(quoted(attribute)).arg(sample.size()),
                          QStringLiteral("check the attribute's name in %1, or remove it").arg(where));
        }
    }
    return findings.outcome(QStringLiteral("%1 on the %2 sampled entries: %3")
                                .arg(attributes.size() == 1 ? QStringLiteral("the 1 mapped attribute occurs")
                                                            : QStringLiteral("all %1 mapped attributes occur").arg(attributes.size()))
                                .arg(sample.size())
                                .arg(present.join(QLatin1String(", "))));
}

// ---------------------------------------------------------------- non-ascii-logins

Outcome checkNonAsciiLogins(const Run &run)
{
    const QString attribute = loginAttribute(run);
    Session session(run);
    QString error;
    if (!session.openBound(&error))
        return fail(error, QStringLiteral("see bind"));

    // Every user entry, as an import reads them: a sample can miss the one
    // login the account check cannot find. Only the login is asked for.
    const QString base = run.setting(db::system::ldap::BASE_DN);
    const QString filter = userFilter(run);
    const bool paged = run.facts.value(QStringLiteral("pagedResults")).toBool();
    const int configured = settingsPageSize(run);
    const int pageSize = run.input.pageSize > 0 ? run.input.pageSize : configured > 0 ? configured : 500;
    QElapsedTimer timer;
    timer.start();
    int entries = 0;
    int withLogin = 0;
    int logins = 0;
    QStringList outside;
    QString stopped;
    QByteArray cookie;
    do {
        const SearchResult result = session.search(base, LDAP_SCOPE_SUBTREE, filter, {attribute}, LDAP_NO_LIMIT, true,
                                                   paged ? pageSize : 0, cookie);
        const bool capped = result.rc == LDAP_SIZELIMIT_EXCEEDED || result.rc == LDAP_ADMINLIMIT_EXCEEDED;
        if (result.rc != LDAP_SUCCESS && result.rc != LDAP_REFERRAL && !(capped && !paged))
            return fail(QStringLiteral("reading the user entries failed after %1: %2").arg(entries).arg(result.text),
                        QStringLiteral("see size-limit"));
        for (const Entry &entry : result.entries) {
            ++entries;
            const QStringList values = strings(valuesOf(entry, attribute));
            if (!values.isEmpty())
                ++withLogin;
            for (const QString &value : values) {
                ++logins;
                if (!isAscii(value))
                    outside << value;
            }
        }
        if (capped)
            stopped = QStringLiteral(" (the server stopped the unpaged search there: %1)").arg(result.text);
        cookie = paged ? result.cookie : QByteArray();
        // The check's process is ended after --timeout: report what was read.
        if (!cookie.isEmpty() && timer.elapsed() >= qint64(run.input.timeout) * 1000 * 3 / 4)
            stopped = QStringLiteral(" before --timeout %1 s (more entries follow)").arg(run.input.timeout);
    } while (!cookie.isEmpty() && stopped.isEmpty());

    const QString read = (paged ? QStringLiteral("read %1 user entries in pages of %2").arg(entries).arg(pageSize)
                                : QStringLiteral("read %1 user entries unpaged").arg(entries))
        + stopped;
    const QString missing = withLogin < entries
        ? QStringLiteral("; %1 of the %2 entries have none").arg(entries - withLogin).arg(entries)
        : QString();
    if (withLogin == 0)
        return warn(QStringLiteral("%1: none has %2, so the account check finds none of them").arg(read, attribute),
                    QStringLiteral("set \"PT_USER_ID_PARAMETER\" to the attribute that holds the login (sAMAccountName in AD)"));
    if (outside.isEmpty()) {
        const QString finding = QStringLiteral("%1: all %2 logins (%3%4) are ASCII").arg(read).arg(logins).arg(attribute, missing);
        if (!stopped.isEmpty())
            return warn(finding, QStringLiteral("give --timeout more time to read every entry"));
        return pass(finding);
    }

    // Show what the library's account check really answers for the first one.
    ZMLDAP directory(run.librarySettings());
    QString answer;
    LogSink::clear();
    if (directory.connect() == 0) {
        const bool found = directory.checkADUser(outside.constFirst());
        const QString record = libraryRecord();
        answer = QStringLiteral(": checkADUser(%1) answers %2%3")
                     .arg(quoted(outside.constFirst()), found ? QStringLiteral("found") : QStringLiteral("not found"),
                          record.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(record));
    }
    return warn(QStringLiteral("%1: %2 of %3 logins (%4%5) %6 not ASCII: %7; the account check cuts its filter to as "
                               "many bytes as it has UTF-16 units, so it cannot find them%8")
                    .arg(read)
                    .arg(outside.size())
                    .arg(logins)
                    .arg(attribute, missing, outside.size() == 1 ? QStringLiteral("is") : QStringLiteral("are"),
                         listed(outside, 5), answer),
                QStringLiteral("give these accounts ASCII logins, or set \"PT_USER_ID_PARAMETER\" to an attribute whose "
                               "values are ASCII (e.g. userPrincipalName)"));
}

} // namespace doctor
