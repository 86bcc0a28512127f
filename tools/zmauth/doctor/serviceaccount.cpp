// The doctor's check of the domain account behind the keytab: which accounts
// hold the service's principal name, and whether the keytab's key version and
// enctypes are the ones the KDC encrypts tickets with.
#include "doctor.h"
#include "session.h"

#include "zmldap.h"

#include <QMap>

#include <algorithm>

#include <krb5.h>

namespace doctor {

namespace {

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// Values of an attribute whatever the case of its name.
QStringList valuesOf(const Entry &entry, const QString &name)
{
    QStringList values;
    for (auto it = entry.attributes.begin(); it != entry.attributes.end(); ++it) {
        if (it.key().compare(name, Qt::CaseInsensitive) == 0) {
            for (const QByteArray &value : it.value())
                values << QString::fromUtf8(value);
        }
    }
    return values;
}

// The bits of msDS-SupportedEncryptionTypes and the enctypes they stand for.
struct EnctypeBit {
    int bit;
    krb5_enctype enctype;
};
const EnctypeBit kEnctypeBits[] = {
    {0x01, ENCTYPE_DES_CBC_CRC},
    {0x02, ENCTYPE_DES_CBC_MD5},
    {0x04, ENCTYPE_ARCFOUR_HMAC},
    {0x08, ENCTYPE_AES128_CTS_HMAC_SHA1_96},
    {0x10, ENCTYPE_AES256_CTS_HMAC_SHA1_96},
};

int bitOf(int enctype)
{
    for (const EnctypeBit &entry : kEnctypeBits) {
        if (entry.enctype == enctype)
            return entry.bit;
    }
    return 0;
}

QString enctypeNames(int bits)
{
    QStringList names;
    for (const EnctypeBit &entry : kEnctypeBits) {
        if (bits & entry.bit)
            names << enctypeName(entry.enctype);
    }
    return names.isEmpty() ? QStringLiteral("none") : names.join(QLatin1String(", "));
}

// The service class that sPNMappings maps this one to ("host" for http),
// or empty. The values read "host=alerter,appmgmt,...,http,...".
QString mappedClass(const QStringList &mappings, const QString &serviceClass)
{
    for (const QString &mapping : mappings) {
        const QString target = mapping.section(QLatin1Char('='), 0, 0).trimmed();
        const QStringList classes = mapping.section(QLatin1Char('='), 1).split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString &name : classes) {
            if (name.trimmed().compare(serviceClass, Qt::CaseInsensitive) == 0)
                return target.toUpper();
        }
    }
    return QString();
}

} // namespace

Outcome checkServiceAccount(const Run &run)
{
    const QString serviceClass = run.input.service.section(QLatin1Char('@'), 0, 0);
    const QString host = run.input.service.section(QLatin1Char('@'), 1);
    const QString spn = serviceClass + QLatin1Char('/') + host;

    QList<ServiceKey> keys;
    QString error;
    if (!serviceKeys(run.input.keytab, serviceClass, host, &keys, &error))
        return fail(error, QStringLiteral("see keytab"));

    Session session(run);
    if (!session.openBound(&error))
        return fail(error, QStringLiteral("see bind"));

    // Where the domain keeps its accounts and its name mappings.
    const SearchResult root = session.search(QString(), LDAP_SCOPE_BASE, QStringLiteral("(objectClass=*)"),
                                             {QStringLiteral("defaultNamingContext"),
                                              QStringLiteral("configurationNamingContext")},
                                             0);
    if (root.rc != LDAP_SUCCESS || root.entries.isEmpty())
        return fail(QStringLiteral("the root DSE cannot be read: %1").arg(root.text), QStringLiteral("see root-dse"));
    QString base = valuesOf(root.entries.constFirst(), QStringLiteral("defaultNamingContext")).value(0);
    if (base.isEmpty())
        base = run.setting(db::system::ldap::BASE_DN);
    const QString configuration = valuesOf(root.entries.constFirst(), QStringLiteral("configurationNamingContext")).value(0);

    // A service class that sPNMappings maps (http and the like) also finds
    // the account that holds HOST/<host>.
    QString alias;
    if (!configuration.isEmpty()) {
        const SearchResult directoryService =
            session.search(QStringLiteral("CN=Directory Service,CN=Windows NT,CN=Services,") + configuration, LDAP_SCOPE_BASE,
                           QStringLiteral("(objectClass=*)"), {QStringLiteral("sPNMappings")}, 0);
        if (directoryService.rc == LDAP_SUCCESS && !directoryService.entries.isEmpty()) {
            const QString target = mappedClass(valuesOf(directoryService.entries.constFirst(), QStringLiteral("sPNMappings")),
                                               serviceClass);
            if (!target.isEmpty() && target.compare(serviceClass, Qt::CaseInsensitive) != 0)
                alias = target + QLatin1Char('/') + host;
        }
    }

    QString filter = QStringLiteral("(servicePrincipalName=%1)").arg(zmldap::escapeFilterValue(spn));
    if (!alias.isEmpty())
        filter = QStringLiteral("(|%1(servicePrincipalName=%2))").arg(filter, zmldap::escapeFilterValue(alias));
    const QString kvnoAttribute = QStringLiteral("msDS-KeyVersionNumber");
    const QString enctypesAttribute = QStringLiteral("msDS-SupportedEncryptionTypes");
    const SearchResult holders = session.search(base, LDAP_SCOPE_SUBTREE, filter,
                                                {QStringLiteral("sAMAccountName"), QStringLiteral("servicePrincipalName"),
                                                 kvnoAttribute, enctypesAttribute},
                                                0);
    if (holders.rc != LDAP_SUCCESS && holders.rc != LDAP_REFERRAL)
        return fail(QStringLiteral("the search for the accounts that hold %1 failed: %2").arg(spn, holders.text),
                    QStringLiteral("see the directory server's log for this search"));

    const QString names = alias.isEmpty() ? spn : QStringLiteral("%1 (or its alias %2)").arg(spn, alias);
    if (holders.entries.isEmpty())
        return fail(QStringLiteral("no account below %1 holds %2: the KDC knows no such service").arg(quoted(base), names),
                    QStringLiteral("register %1 on the service's account (setspn -S %1 ACCOUNT) and export the keytab "
                                   "from that account")
                        .arg(spn));
    QStringList accounts;
    for (const Entry &entry : holders.entries) {
        const QString account = valuesOf(entry, QStringLiteral("sAMAccountName")).value(0, entry.dn);
        QStringList held;
        for (const QString &value : valuesOf(entry, QStringLiteral("servicePrincipalName"))) {
            if (value.compare(spn, Qt::CaseInsensitive) == 0 || (!alias.isEmpty() && value.compare(alias, Qt::CaseInsensitive) == 0))
                held << value;
        }
        accounts << QStringLiteral("%1 (%2)").arg(account, held.join(QLatin1String(", ")));
    }
    accounts.sort();
    if (holders.entries.size() > 1) {
        QStringList removals;
        for (const Entry &entry : holders.entries)
            removals << QStringLiteral("setspn -D %1 %2")
                            .arg(spn, valuesOf(entry, QStringLiteral("sAMAccountName")).value(0, entry.dn));
        removals.sort();
        return fail(QStringLiteral("%1 accounts hold %2: %3; the KDC may encrypt the service's tickets with the key of "
                                   "an account the keytab is not from")
                        .arg(holders.entries.size())
                        .arg(names, accounts.join(QLatin1String(", "))),
                    QStringLiteral("remove the duplicate: keep %1 on the one account the keytab was exported from and take "
                                   "it off the others (one of: %2)")
                        .arg(spn, removals.join(QLatin1String("; "))));
    }

    const Entry &holder = holders.entries.constFirst();
    const QString account = valuesOf(holder, QStringLiteral("sAMAccountName")).value(0, holder.dn);
    Findings findings;
    QStringList unread;
    findings.pass(QStringLiteral("%1 is held by %2 alone").arg(names, accounts.constFirst()));

    if (keys.isEmpty())
        return fail(QStringLiteral("the keytab holds no key for %1").arg(spn), QStringLiteral("see keytab"));
    QList<int> kvnos;
    for (const ServiceKey &key : qAsConst(keys)) {
        if (!kvnos.contains(key.kvno))
            kvnos << key.kvno;
    }
    std::sort(kvnos.begin(), kvnos.end());
    QStringList kvnoTexts;
    for (int kvno : qAsConst(kvnos))
        kvnoTexts << QString::number(kvno);

    // The account's key version: the keys the KDC encrypts tickets with.
    const QString kvnoText = valuesOf(holder, kvnoAttribute).value(0);
    int current = -1;
    if (kvnoText.isEmpty()) {
        unread << kvnoAttribute;
    } else {
        current = kvnoText.toInt();
        if (kvnos.contains(current))
            findings.pass(QStringLiteral("the keytab holds kvno %1, the account's %2").arg(current).arg(kvnoAttribute));
        else
            findings.fail(QStringLiteral("the keytab holds kvno %1 for %2, but %3 of %4 is %5: the account's password "
                                         "changed after the export, so the service cannot decrypt its tickets "
                                         "(\"Cannot find key ... kvno %5\")")
                              .arg(kvnoTexts.join(QLatin1String(", ")), spn, kvnoAttribute, account)
                              .arg(current),
                          QStringLiteral("export a new keytab from %1 (its keys are now at kvno %2) and install it in place "
                                         "of %3")
                              .arg(account)
                              .arg(current)
                              .arg(run.input.keytab));
    }

    // The enctypes the account allows against those the keytab has keys of
    // (at the account's key version when known).
    const QString enctypesText = valuesOf(holder, enctypesAttribute).value(0);
    if (enctypesText.isEmpty()) {
        unread << enctypesAttribute;
    } else {
        const int allowed = enctypesText.toInt();
        int held = 0;
        for (const ServiceKey &key : qAsConst(keys)) {
            if (current < 0 || key.kvno == current || !kvnos.contains(current))
                held |= bitOf(key.enctype);
        }
        const int common = allowed & held;
        const QString compared = QStringLiteral("the keytab's enctypes (%1) against %2 %3 of %4 (%5)")
                                     .arg(enctypeNames(held), enctypesAttribute, enctypesText, account, enctypeNames(allowed));
        if (common == 0)
            findings.fail(compared + QStringLiteral(": none in common, so the service has no key for the tickets the KDC "
                                                    "issues"),
                          QStringLiteral("export the keytab again from %1 with keys of the enctypes it allows (%2)")
                              .arg(account, enctypeNames(allowed)));
        else if (common == 0x04)
            findings.warn(compared + QStringLiteral(": only RC4 in common, and domains are moving to AES only"),
                          QStringLiteral("set %1 to 24 (AES) on %2 and export the keytab again with AES keys")
                              .arg(enctypesAttribute, account));
        else
            findings.pass(QStringLiteral("enctypes in common: %1").arg(enctypeNames(common)));
    }

    if (unread.size() == 2 && findings.status() == Status::Pass)
        return skip(QStringLiteral("the bound account may not read %1 of %2: nothing to compare the keytab with")
                        .arg(unread.join(QLatin1String(" and ")), account));
    if (!unread.isEmpty())
        findings.pass(QStringLiteral("%1 of %2 not readable or not set: not compared").arg(unread.join(QLatin1String(" and ")), account));
    return findings.outcome(QString());
}

} // namespace doctor
