// The doctor's first check: the settings record itself, before anything is
// asked of a server.
#include "doctor.h"

#include "zmldap.h"

#include <QVector>

#include <algorithm>

namespace doctor {

QStringList knownSettingKeys()
{
    using namespace db::system::ldap;
    return {NAME, HOST, PORT, USER, USER_PASSWORD, AUTH_METHOD, BASE_DN, USER_FILTER, USER_ID_PARAMETER,
            USER_CUSTOM_FIELDS_PARAMETER, EMPLOYEE_CUSTOM_FIELDS_PARAMETER, DEFAULT_USER_ROLE_TEMPLATE,
            DEFAULT_USER_IDENT_TYPE, SPN, ENABLE_SSO, zmldap::key::PAGE_SIZE, zmldap::key::TIMEOUT,
            zmldap::key::FAILOVER_HOSTS, zmldap::key::DNS_DOMAIN, zmldap::key::SITE, zmldap::key::TLS,
            zmldap::key::TLS_CA_FILE};
}

namespace {

// Levenshtein distance, ignoring case.
int editDistance(const QString &a, const QString &b)
{
    const QString x = a.toUpper();
    const QString y = b.toUpper();
    QVector<int> row(y.size() + 1);
    for (int j = 0; j <= y.size(); ++j)
        row[j] = j;
    for (int i = 1; i <= x.size(); ++i) {
        int diagonal = row[0];
        row[0] = i;
        for (int j = 1; j <= y.size(); ++j) {
            const int above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (x.at(i - 1) == y.at(j - 1) ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[y.size()];
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

QString nearest(const QString &text, const QStringList &candidates)
{
    QString best;
    int bestDistance = 0;
    for (const QString &candidate : candidates) {
        const int distance = editDistance(text, candidate);
        if (best.isEmpty() || distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    // A slip of the keyboard: a few letters, at most a third of the word.
    const int allowed = std::max(2, int(text.size()) / 3);
    return bestDistance <= allowed ? best : QString();
}

Outcome checkSettings(const Run &run)
{
    using namespace db::system::ldap;
    const Input &input = run.input;
    if (!input.settingsRead)
        return fail(input.settingsError,
                    QStringLiteral("write the settings as one JSON object of setting keys with text values, e.g. "
                                   "{\"PT_HOST\": \"dc1.example.org\", \"PT_PORT\": \"389\", \"PT_METHOD\": \"8\", "
                                   "\"PT_BASE_DN\": \"DC=example,DC=org\"}"));

    Findings findings;
    auto required = [&](const QString &key, const QString &example) {
        if (run.setting(key).trimmed().isEmpty())
            findings.fail(QStringLiteral("%1 is %2").arg(quoted(key), run.hasSetting(key) ? QStringLiteral("empty")
                                                                                          : QStringLiteral("missing")),
                          QStringLiteral("set %1 to %2").arg(quoted(key), example));
    };
    required(HOST, QStringLiteral("the directory server's host name, e.g. \"dc1.example.org\""));
    required(PORT, QStringLiteral("\"389\""));
    required(BASE_DN, QStringLiteral("the DN users are listed under, e.g. \"DC=example,DC=org\""));

    bool portOk = false;
    const int port = run.setting(PORT).toInt(&portOk, 10);
    if (!run.setting(PORT).trimmed().isEmpty() && (!portOk || port < 1 || port > 65535))
        findings.fail(QStringLiteral("\"PT_PORT\" %1 is no port (the library keeps its low 16 bits)").arg(quoted(run.setting(PORT))),
                      QStringLiteral("set \"PT_PORT\" to the LDAP port, \"389\""));

    const QString methodText = run.setting(AUTH_METHOD);
    bool methodIsNumber = false;
    const int method = methodText.toInt(&methodIsNumber, 10);
    const QString methodFix = QStringLiteral("set \"PT_METHOD\" to \"8\" (GSSAPI with a ticket; what Active Directory takes), "
                                             "\"1\" (DIGEST-MD5 with PT_USER and PT_USER_PASSWORD) or \"0\" (anonymous)");
    if (!run.hasSetting(AUTH_METHOD))
        findings.warn(QStringLiteral("\"PT_METHOD\" is missing, so the library binds by DIGEST-MD5 (1)"), methodFix);
    else if (!methodIsNumber)
        findings.fail(QStringLiteral("\"PT_METHOD\" %1 is no number; the library reads it as 0 (anonymous)").arg(quoted(methodText)),
                      methodFix);
    else if (method != 0 && method != 1 && method != 8)
        findings.fail(QStringLiteral("\"PT_METHOD\" %1 is no method: connect() fails with -1").arg(quoted(methodText)), methodFix);

    if (run.method() == 1) {
        required(USER, QStringLiteral("the login DIGEST-MD5 binds as"));
        required(USER_PASSWORD, QStringLiteral("that login's password"));
    }
    if (run.hasSetting(USER_ID_PARAMETER) && run.setting(USER_ID_PARAMETER).trimmed().isEmpty())
        findings.fail(QStringLiteral("\"PT_USER_ID_PARAMETER\" is empty: the account check's filter becomes (=NAME), which "
                                     "servers reject"),
                      QStringLiteral("remove \"PT_USER_ID_PARAMETER\" (the login attribute is then sAMAccountName) or name "
                                     "the login attribute"));
    for (const QString &key : {zmldap::key::PAGE_SIZE, zmldap::key::TIMEOUT}) {
        bool isNumber = false;
        const int value = run.setting(key).toInt(&isNumber, 10);
        if (run.hasSetting(key) && (!isNumber || value < 0))
            findings.warn(QStringLiteral("%1 %2 is no whole number, so it is off").arg(quoted(key), quoted(run.setting(key))),
                          QStringLiteral("set %1 to a whole number of %2, or remove it")
                              .arg(quoted(key), key == zmldap::key::PAGE_SIZE ? QStringLiteral("entries") : QStringLiteral("seconds")));
    }

    const QStringList known = knownSettingKeys();
    QStringList keys = input.settings.params.keys();
    std::sort(keys.begin(), keys.end());
    for (const QString &key : qAsConst(keys)) {
        if (known.contains(key))
            continue;
        const QString near = nearest(key, known);
        if (!near.isEmpty())
            findings.warn(QStringLiteral("unknown key %1 (nothing reads it; did you mean %2?)").arg(quoted(key), quoted(near)),
                          QStringLiteral("rename %1 to %2").arg(quoted(key), quoted(near)));
        else
            findings.warn(QStringLiteral("unknown key %1 (nothing reads it)").arg(quoted(key)),
                          QStringLiteral("remove %1").arg(quoted(key)));
    }

    QString summary = QStringLiteral("%1 keys: method %2, %3, base %4")
                          .arg(input.settings.params.size())
                          .arg(methodName(run.method()), run.hostPort(), quoted(run.setting(BASE_DN)));
    if (run.method() == 1)
        summary += QStringLiteral(", bind as %1").arg(quoted(run.setting(USER)));
    return findings.outcome(summary);
}

} // namespace doctor
