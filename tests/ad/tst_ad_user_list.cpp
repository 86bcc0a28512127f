// The user listing and the account check on a GSSAPI session (method 8)
// with the domain controller: the same entries as ldapsearch reads with the
// same ticket, mapped by the JSON field mapping, Cyrillic names and an
// escaped comma included.
#include "adtest.h"
#include "zmldap.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

namespace {
// The mapping as the system stores it.
const QString kMappingJson = QStringLiteral(
    R"([{"cn": "PT_SURNAME PT_NAME PT_PATRONYMIC"}, {"sAMAccountName": "PT_LOGIN"}, {"mail": "PT_EMAIL"},)"
    R"( {"distinguishedName": "PT_DN"}, {"proxyAddresses": "PT_ADDRESSES"}])");

// The same pairs, inserted one by one in the array's order as the listing
// does, so that the hash (and its debug rendering) comes out the same.
QHash<QString, QString> mappingOf(const QString &json)
{
    QHash<QString, QString> mapping;
    for (const QJsonValue &element : QJsonDocument::fromJson(json.toUtf8()).array()) {
        const QJsonObject pair = element.toObject();
        mapping.insert(pair.begin().key(), pair.begin().value().toString());
    }
    return mapping;
}
const QHash<QString, QString> kMapping = mappingOf(kMappingJson);
} // namespace

class AdUserList : public QObject {
    Q_OBJECT

    QList<zelmora::ObjectInfo> m_people;

    zelmora::ObjectInfo listSettings(const QString &base) const
    {
        zelmora::ObjectInfo s = ad::settings(QStringLiteral("8"));
        s.params.insert(QStringLiteral("PT_BASE_DN"), base);
        s.params.insert(QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), kMappingJson);
        return s;
    }

    static QStringList logins(const QList<zelmora::ObjectInfo> &records)
    {
        QStringList out;
        for (const zelmora::ObjectInfo &r : records)
            out.append(r.params.value(QStringLiteral("PT_LOGIN")));
        out.sort();
        return out;
    }

private slots:
    void initTestCase()
    {
        AD_REQUIRED();
        QVERIFY(ad::kinit("AD_USER_NAME", "AD_USER_PASSWORD"));
        ZMLDAP ldap(listSettings(ad::value("AD_PEOPLE_DN")));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(ldap.getUserList(m_people));
    }
    void init() { ldapspy::reset(); }
    void cleanupTestCase()
    {
        const std::string problems = ad::endProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void listingMatchesLdapsearch_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<int>("references");
        QTest::newRow("organisational unit") << ad::value("AD_PEOPLE_DN") << 0;
        // From the domain's root the DC also answers with references to its
        // other partitions: they are no entries and the listing skips them.
        QTest::newRow("domain root") << ad::value("AD_BASE_DN") << 3;
    }

    void listingMatchesLdapsearch()
    {
        QFETCH(QString, base);
        QFETCH(int, references);
        int rc = -1, refs = -1;
        const QList<DirEntry> entries = ad::ldapsearch(base, kDefaultFilter, kMapping.keys(), &rc, &refs);
        QCOMPARE(rc, 0);
        QCOMPARE(refs, references);
        QVERIFY(!entries.isEmpty());

        const zelmora::ObjectInfo settings = listSettings(base);
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> users;
        QVERIFY(ldap.getUserList(users));
        QCOMPARE(users.size(), entries.size());
        QCOMPARE(ad::recordLines(users), ad::recordLines(ad::expectedRecords(entries, kMapping)));

        QCOMPARE(ldapspy::searches().size(), 1);
        QCOMPARE(ldapspy::searches().first().rc, LDAP_SUCCESS);
        QString start;
        QDebug(&start) << "get user list" << base << kDefaultFilter << kMapping;
        QCOMPARE(lines(log), (QStringList{ldbg(fn::userList, start.trimmed()),
                                          ldbg(fn::userList, QStringLiteral("Entries ") + QString::number(entries.size()))}));
    }

    // With "PT_PAGE_SIZE" the listing pages through the DC's answer: the
    // same records, one page request for every n entries, each page's count
    // in its own "Entries" record; the iterator walks all pages.
    void pagedListingMatchesLdapsearch_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<int>("pageSize");
        QTest::newRow("organisational unit, pages of 3") << ad::value("AD_PEOPLE_DN") << 3;
        QTest::newRow("organisational unit, one page") << ad::value("AD_PEOPLE_DN") << 1000;
        // The references to the DC's other partitions come with the last
        // page; they are no entries.
        QTest::newRow("domain root, pages of 2") << ad::value("AD_BASE_DN") << 2;
    }

    void pagedListingMatchesLdapsearch()
    {
        QFETCH(QString, base);
        QFETCH(int, pageSize);
        int rc = -1;
        const QList<DirEntry> entries = ad::ldapsearch(base, kDefaultFilter, kMapping.keys(), &rc);
        QCOMPARE(rc, 0);
        const int n = entries.size();
        QVERIFY(n > 0);

        zelmora::ObjectInfo settings = listSettings(base);
        settings.params.insert(zmldap::key::PAGE_SIZE, QString::number(pageSize));
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> users;
        QVERIFY(ldap.getUserList(users));
        QCOMPARE(ad::recordLines(users), ad::recordLines(ad::expectedRecords(entries, kMapping)));

        const int pages = (n + pageSize - 1) / pageSize;
        QVERIFY(ldapspy::searches().isEmpty());
        QCOMPARE(ldapspy::pagedSearches().size(), pages);
        for (const SearchCall &call : ldapspy::pagedSearches()) {
            QCOMPARE(call.controlOids, QList<QByteArray>{QByteArrayLiteral(LDAP_CONTROL_PAGEDRESULTS)});
            QCOMPARE(call.controlCritical, QList<bool>{false});
        }
        QString start;
        QDebug(&start) << "get user list" << base << kDefaultFilter << kMapping;
        QStringList expected{ldbg(fn::userList, start.trimmed())};
        for (int left = n; left > 0; left -= pageSize)
            expected.append(ldbg(fn::userList, QStringLiteral("Entries ") + QString::number(qMin(pageSize, left))));
        QCOMPARE(lines(log), expected);

        ZMLDAPObjectIterator it(&ldap, zmldap::Subtree, kMapping);
        QCOMPARE(it.size(), n);
        QList<zelmora::ObjectInfo> walked;
        for (int i = 0; i < it.size(); ++i)
            walked.append(i == 0 ? it.first() : it.next());
        QCOMPARE(ad::recordLines(walked), ad::recordLines(users));
    }

    void peopleAreTheDomainsUsers()
    {
        QCOMPARE(logins(m_people), ad::value("AD_PEOPLE_USERS").split(QLatin1Char(' ')));
        for (const zelmora::ObjectInfo &r : m_people)
            QCOMPARE(r.type, QStringLiteral("OT_USER"));
    }

    void cyrillicRecords_data()
    {
        QTest::addColumn<QString>("login");
        QTest::addColumn<QString>("surname");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("patronymic");
        QTest::addColumn<QString>("dn");
        QTest::newRow("Cyrillic name") << QStringLiteral("ivan") << QStringLiteral("Иванов") << QStringLiteral("Иван")
                                       << QStringLiteral("Иванович")
                                       << QStringLiteral("CN=Иванов Иван Иванович,") + ad::value("AD_PEOPLE_DN");
        QTest::newRow("Cyrillic login") << QStringLiteral("анна") << QStringLiteral("Петрова") << QStringLiteral("Анна")
                                        << QStringLiteral("Сергеевна")
                                        << QStringLiteral("CN=Петрова Анна Сергеевна,") + ad::value("AD_PEOPLE_DN");
        // The comma stays with the surname's word; the DN keeps it escaped.
        QTest::newRow("comma in cn") << QStringLiteral("jdoe") << QStringLiteral("Doe,") << QStringLiteral("John")
                                     << QString::fromLatin1("")
                                     << QStringLiteral("CN=Doe\\, John,") + ad::value("AD_PEOPLE_DN");
    }

    void cyrillicRecords()
    {
        QFETCH(QString, login);
        QFETCH(QString, surname);
        QFETCH(QString, name);
        QFETCH(QString, patronymic);
        QFETCH(QString, dn);
        const zelmora::ObjectInfo r = ad::recordWith(m_people, QStringLiteral("PT_LOGIN"), login);
        QCOMPARE(r.params.value(QStringLiteral("PT_LOGIN")), login);
        QCOMPARE(r.params.value(QStringLiteral("PT_SURNAME")), surname);
        QCOMPARE(r.params.value(QStringLiteral("PT_NAME")), name);
        QVERIFY(r.params.contains(QStringLiteral("PT_PATRONYMIC")));
        QCOMPARE(r.params.value(QStringLiteral("PT_PATRONYMIC")), patronymic);
        QCOMPARE(r.params.value(QStringLiteral("PT_DN")), dn);
    }

    // A multi-valued attribute: the values joined with ";".
    void multiValuedAttribute()
    {
        const zelmora::ObjectInfo r = ad::recordWith(m_people, QStringLiteral("PT_LOGIN"), ad::value("AD_USER_NAME"));
        QStringList addresses = r.params.value(QStringLiteral("PT_ADDRESSES")).split(QLatin1Char(';'));
        addresses.sort();
        QCOMPARE(addresses, (QStringList{QStringLiteral("SMTP:alice@zmad.test"), QStringLiteral("smtp:alice.smith@zmad.test")}));
        QCOMPARE(r.params.value(QStringLiteral("PT_EMAIL")), QStringLiteral("alice@zmad.test"));
    }

    void checkAccount_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("found");
        QTest::newRow("present") << ad::value("AD_USER_NAME") << true;
        // The DC compares logins without case.
        QTest::newRow("case changed") << ad::value("AD_USER_NAME").toUpper() << true;
        QTest::newRow("disabled") << ad::value("AD_DISABLED_USER_NAME") << true;
        QTest::newRow("comma in cn") << ad::value("AD_COMMA_USER_NAME") << true;
        QTest::newRow("service account") << ad::value("AD_SERVICE_ACCOUNT") << true;
        QTest::newRow("absent") << QStringLiteral("nobody") << false;
    }

    void checkAccount()
    {
        QFETCH(QString, name);
        QFETCH(bool, found);
        ZMLDAP ldap(ad::settings(QStringLiteral("8")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QCOMPARE(ldap.checkADUser(name), found);
        QCOMPARE(ldapspy::searches().size(), 1);
        QCOMPARE(ldapspy::searches().first().filter, (QStringLiteral("(sAMAccountName=") + name + QLatin1Char(')')).toUtf8());
        QCOMPARE(ldapspy::searches().first().rc, LDAP_SUCCESS);
        QString start;
        QDebug(&start) << "check AD user" << ad::value("AD_BASE_DN") << name << QString();
        const QStringList out = lines(log);
        QCOMPARE(out.value(0), ldbg(fn::checkADUser, start.trimmed()));
        QCOMPARE(out.value(1), ldbg(fn::checkADUser, QStringLiteral("entries  ") + (found ? QLatin1String("1") : QLatin1String("0"))));
        for (const LogRecord &r : log.records())
            QCOMPARE(r.type, QtDebugMsg);
        if (found) {
            // The entry's values follow, sAMAccountName among them as the DC spells it.
            QVERIFY(out.size() > 2);
            QString value;
            QDebug(&value) << QStringLiteral("sAMAccountName") << name.toLower();
            QVERIFY2(out.contains(ldbg(fn::checkADUser, value.trimmed())), qPrintable(out.join(QLatin1Char('\n'))));
        } else {
            QCOMPARE(out.size(), 2);
        }
    }
};

QTEST_GUILESS_MAIN(AdUserList)
#include "tst_ad_user_list.moc"
