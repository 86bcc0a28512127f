#include "adtest.h"

#include <QProcess>

#include <algorithm>

namespace ad {

zelmora::ObjectInfo settings(const QString &method, const QString &host)
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), host);
    s.params.insert(QStringLiteral("PT_PORT"), value("AD_LDAP_PORT"));
    s.params.insert(QStringLiteral("PT_BASE_DN"), value("AD_BASE_DN"));
    s.params.insert(QStringLiteral("PT_METHOD"), method);
    return s;
}

std::string endProgram()
{
    krbtest::kdestroy();
    return krbtest::finishProgram();
}

bool kinit(const char *loginKey, const char *passwordKey)
{
    return krbtest::kinit(value(loginKey) + QLatin1Char('@') + value("AD_REALM"), value(passwordKey));
}

QStringList cachedServices()
{
    QProcess klist;
    klist.start(QStringLiteral("klist"), QStringList());
    klist.waitForFinished(30000);
    QStringList out;
    // "valid from  valid until  principal" lines; the principal is last. The
    // ticket-granting ticket is no service's.
    for (const QString &l : QString::fromUtf8(klist.readAllStandardOutput()).split(QLatin1Char('\n'))) {
        const QStringList words = l.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.size() == 5 && words.last().contains(QLatin1Char('/')) && !words.last().startsWith(QLatin1String("krbtgt/")))
            out.append(words.last());
    }
    return out;
}

QList<DirEntry> ldapsearch(const QString &base, const QString &filter, const QStringList &attributes, int *exitCode,
                           int *references)
{
    QProcess p;
    p.start(QStringLiteral("ldapsearch"),
            QStringList{QStringLiteral("-Q"), QStringLiteral("-LLL"), QStringLiteral("-o"), QStringLiteral("ldif-wrap=no"),
                        QStringLiteral("-Y"), QStringLiteral("GSSAPI"),
                        QStringLiteral("-H"), QStringLiteral("ldap://") + value("AD_DC_HOST") + QLatin1Char('/'),
                        QStringLiteral("-b"), base, filter}
                + attributes);
    p.waitForFinished(60000);
    *exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    if (*exitCode != 0)
        qWarning().noquote() << "ldapsearch:" << p.readAllStandardError();
    if (references)
        *references = 0;

    QList<DirEntry> entries;
    DirEntry entry;
    const auto flush = [&]() {
        if (!entry.dn.isEmpty())
            entries.append(entry);
        entry = DirEntry();
    };
    // LDIF without line folding: "name: text" or "name:: base64", an empty
    // line after each entry; references show as "# refldap://..." lines.
    for (const QByteArray &l : p.readAllStandardOutput().split('\n')) {
        if (l.isEmpty()) {
            flush();
            continue;
        }
        if (l.startsWith("# refldap://")) {
            if (references)
                ++*references;
            continue;
        }
        const int colon = l.indexOf(':');
        if (l.startsWith('#') || colon <= 0)
            continue;
        const QByteArray name = l.left(colon);
        const QByteArray v = l.mid(colon + 1).startsWith(':') ? QByteArray::fromBase64(l.mid(colon + 2).trimmed())
                                                                : l.mid(colon + 2);
        if (name == "dn") {
            entry.dn = v;
            continue;
        }
        if (entry.attributes.isEmpty() || entry.attributes.last().name != name)
            entry.attributes.append(DirAttribute{name, {}});
        entry.attributes.last().values.append(v);
    }
    flush();
    return entries;
}

QList<QByteArray> valuesOn(LDAP *ld, const QByteArray &base, int scope, const QByteArray &filter,
                           const QByteArray &attribute, int *rcOut)
{
    char *attrs[] = {const_cast<char *>(attribute.constData()), nullptr};
    LDAPMessage *res = nullptr;
    struct timeval tv = {30, 0};
    const int rc = ldap_search_ext_s(ld, base.constData(), scope, filter.constData(), attrs, 0, nullptr, nullptr, &tv, 0, &res);
    // The test's own search is not one the library made.
    ldapspy::searches().removeLast();
    if (rcOut)
        *rcOut = rc;
    QList<QByteArray> out;
    if (LDAPMessage *e = res ? ldap_first_entry(ld, res) : nullptr) {
        if (berval **values = ldap_get_values_len(ld, e, attribute.constData())) {
            for (int i = 0; values[i]; ++i)
                out.append(QByteArray(values[i]->bv_val, int(values[i]->bv_len)));
            ldap_value_free_len(values);
        }
    }
    if (res)
        ldap_msgfree(res);
    return out;
}

QStringList recordLines(const QList<zelmora::ObjectInfo> &records)
{
    QStringList out;
    for (const zelmora::ObjectInfo &r : records) {
        QStringList pairs;
        for (auto it = r.params.constBegin(); it != r.params.constEnd(); ++it)
            pairs.append(it.key() + QLatin1Char('=') + it.value());
        pairs.sort();
        out.append(r.type + QLatin1String(" | ") + pairs.join(QLatin1String(" | ")));
    }
    out.sort();
    return out;
}

QList<zelmora::ObjectInfo> expectedRecords(const QList<DirEntry> &entries, const QHash<QString, QString> &mapping)
{
    QList<zelmora::ObjectInfo> out;
    for (const DirEntry &e : entries) {
        zelmora::ObjectInfo r;
        r.type = QStringLiteral("OT_USER");
        r.params = expectedParams(e, mapping, false);
        out.append(r);
    }
    return out;
}

zelmora::ObjectInfo recordWith(const QList<zelmora::ObjectInfo> &records, const QString &field, const QString &value)
{
    const auto it = std::find_if(records.begin(), records.end(),
                                 [&](const zelmora::ObjectInfo &r) { return r.params.value(field) == value; });
    return it == records.end() ? zelmora::ObjectInfo() : *it;
}

} // namespace ad
