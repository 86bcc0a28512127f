// getUserList against the realm: both forms, the JSON custom field mapping,
// appending to the caller's list, the empty-mapping difference from the
// iterator, and every failure path.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

using Mapping = QHash<QString, QString>;

namespace {

const QHash<QString, QString> kNames{{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
                                     {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")},
                                     {QStringLiteral("mail"), QStringLiteral("PT_EMAIL")},
                                     {QStringLiteral("description"), QStringLiteral("PT_FIRST_WORD PT_REST")}};

zelmora::ObjectInfo withMapping(const QString &json)
{
    zelmora::ObjectInfo s = searchSettings();
    if (!json.isNull())
        s.params.insert(QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), json);
    return s;
}

QString listLine(const QString &base, const QString &filter, const QHash<QString, QString> &mapping)
{
    QString text;
    QDebug(&text) << "get user list" << base << filter << mapping;
    return ldbg(fn::userList, text.trimmed());
}

QList<DirEntry> fixedEntries(const QHash<QString, QString> &mapping)
{
    QList<QByteArray> attributes;
    for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it)
        attributes.append(it.key().toUtf8());
    return ldapspy::readEntries(realmUri(), realmBytes("BASE_DN"), LDAP_SCOPE_SUBTREE, kDefaultFilter.toUtf8(), attributes);
}

} // namespace

class TestUserList : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    void init() { ldapspy::reset(); }

    void notConnected()
    {
        ZMLDAP ldap(withMapping(QString()));
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list));
        QVERIFY(!ldap.getUserList(list, kNames));
        QVERIFY(list.isEmpty());
        QVERIFY(log.records().isEmpty());
        QVERIFY(ldapspy::searches().isEmpty());
    }

    // Two-argument form: the search, the records, the log.
    void withGivenMapping()
    {
        ZMLDAP ldap(withMapping(QString()));
        QCOMPARE(ldap.connect(), 0);
        const QList<DirEntry> entries = fixedEntries(kNames);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kNames));
        const SearchCall s = ldapspy::searches().value(0);
        QCOMPARE(s.base, realmBytes("BASE_DN"));
        QCOMPARE(s.filter, kDefaultFilter.toUtf8());
        QCOMPARE(s.scope, LDAP_SCOPE_SUBTREE);
        QList<QByteArray> hashOrder;
        for (auto i = kNames.constBegin(); i != kNames.constEnd(); ++i)
            hashOrder.append(i.key().toUtf8());
        QCOMPARE(s.attributes, hashOrder);
        QCOMPARE(s.attrsonly, 0);
        QVERIFY(!s.hasServerControls && !s.hasClientControls);
        QCOMPARE(s.timeoutSec, 30L);
        QCOMPARE(s.timeoutUsec, 0L);
        QCOMPARE(s.sizelimit, 0);

        QCOMPARE(list.size(), entries.size());
        for (int i = 0; i < entries.size(); ++i) {
            QCOMPARE(list[i].type, QStringLiteral("OT_USER"));
            QCOMPARE(list[i].params, expectedParams(entries[i], kNames, false));
        }
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary),
                 (QStringList{listLine(realmValue("BASE_DN"), kDefaultFilter, kNames),
                              ldbg(fn::userList, QStringLiteral("Entries ") + QString::number(entries.size()))}));
        QVERIFY(fromLibrary);
        QCOMPARE(ldapspy::messagesFreed(), 1);

        QHash<QString, QHash<QString, QString>> byLogin;
        for (const zelmora::ObjectInfo &r : list)
            byLogin.insert(r.params.value(QStringLiteral("PT_LOGIN")), r.params);
        QCOMPARE(byLogin.value(QStringLiteral("alice")).value(QStringLiteral("PT_EMAIL")), QStringLiteral("alice@zmauth.test;alice.smith@zmauth.test"));
        QCOMPARE(byLogin.value(QStringLiteral("carol")).value(QStringLiteral("PT_PATRONYMIC")), QStringLiteral("Ann Jr"));
        QCOMPARE(byLogin.value(QStringLiteral("bob")).value(QStringLiteral("PT_REST")), QStringLiteral("y;z"));
        QVERIFY(byLogin.value(QStringLiteral("bob")).contains(QStringLiteral("PT_PATRONYMIC")));
        QCOMPARE(byLogin.value(QStringLiteral("ivan")).value(QStringLiteral("PT_SURNAME")), QStringLiteral("Иванов"));
    }

    // Setting absent, or no array: one pair under the empty key, the last
    // attribute's values - not the iterator's attribute names.
    void emptyMapping_data()
    {
        QTest::addColumn<QString>("json");
        QTest::newRow("absent") << QString();
        QTest::newRow("empty text") << QString::fromLatin1("");
        QTest::newRow("not JSON") << QStringLiteral("{cn: PT_LOGIN");
        QTest::newRow("object, not array") << QStringLiteral("{\"cn\": \"PT_LOGIN\"}");
        QTest::newRow("array of numbers") << QStringLiteral("[1, 2, 3]");
        QTest::newRow("objects with no members") << QStringLiteral("[{}, {}]");
        QTest::newRow("nested arrays") << QStringLiteral("[[{\"cn\": \"PT_LOGIN\"}]]");
        QTest::newRow("string") << QStringLiteral("\"cn\"");
    }

    void emptyMapping()
    {
        QFETCH(QString, json);
        ZMLDAP ldap(withMapping(json));
        QCOMPARE(ldap.connect(), 0);
        const QList<DirEntry> entries = fixedEntries({});
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list));
        QVERIFY(ldapspy::searches().value(0).allAttributes);
        QCOMPARE(list.size(), entries.size());
        for (int i = 0; i < entries.size(); ++i) {
            QCOMPARE(list[i].params.size(), 1);
            QVERIFY(list[i].params.contains(QString()));
            QStringList last;
            for (const QByteArray &v : entries[i].attributes.last().values)
                last.append(textOf(v));
            QCOMPARE(list[i].params.value(QString()), last.join(QLatin1Char(';')));
            QCOMPARE(list[i].params, expectedParams(entries[i], {}, false));
        }
        QCOMPARE(lines(log).first(), listLine(realmValue("BASE_DN"), kDefaultFilter, {}));
    }

    void jsonMapping_data()
    {
        QTest::addColumn<QString>("json");
        QTest::addColumn<Mapping>("mapping");
        QTest::newRow("two objects") << QStringLiteral("[{\"cn\": \"PT_SURNAME PT_NAME PT_PATRONYMIC\"}, {\"sAMAccountName\": \"PT_LOGIN\"}]")
                                     << QHash<QString, QString>{{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
                                                                {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")}};
        // The member whose key sorts first, whatever order the text has.
        QTest::newRow("first member by sorted key") << QStringLiteral("[{\"sn\": \"PT_NAME\", \"cn\": \"PT_LOGIN\"}]")
                                                    << QHash<QString, QString>{{QStringLiteral("cn"), QStringLiteral("PT_LOGIN")}};
        QTest::newRow("cn and a") << QStringLiteral("[{\"cn\": \"PT_NAME\", \"a\": \"PT_LOGIN\"}]")
                                  << QHash<QString, QString>{{QStringLiteral("a"), QStringLiteral("PT_LOGIN")}};
        QTest::newRow("number value") << QStringLiteral("[{\"sAMAccountName\": 5}]")
                                      << QHash<QString, QString>{{QStringLiteral("sAMAccountName"), QString()}};
        QTest::newRow("null, bool, array, object values")
            << QStringLiteral("[{\"sn\": null}, {\"cn\": true}, {\"mail\": [\"PT_EMAIL\"]}, {\"givenName\": {\"a\": 1}}]")
            << QHash<QString, QString>{{QStringLiteral("sn"), QString()}, {QStringLiteral("cn"), QString()},
                                       {QStringLiteral("mail"), QString()}, {QStringLiteral("givenName"), QString()}};
        QTest::newRow("later pair replaces earlier") << QStringLiteral("[{\"cn\": \"PT_A\"}, {\"cn\": \"PT_B\"}]")
                                                     << QHash<QString, QString>{{QStringLiteral("cn"), QStringLiteral("PT_B")}};
        QTest::newRow("non-objects skipped") << QStringLiteral("[1, \"x\", {}, null, {\"mail\": \"PT_EMAIL\"}]")
                                             << QHash<QString, QString>{{QStringLiteral("mail"), QStringLiteral("PT_EMAIL")}};
        QTest::newRow("cyrillic target") << QStringLiteral("[{\"sn\": \"ФАМИЛИЯ\"}]")
                                         << QHash<QString, QString>{{QStringLiteral("sn"), QStringLiteral("ФАМИЛИЯ")}};
    }

    void jsonMapping()
    {
        QFETCH(QString, json);
        QFETCH(Mapping, mapping);
        ZMLDAP ldap(withMapping(json));
        QCOMPARE(ldap.connect(), 0);
        const QList<DirEntry> entries = fixedEntries(mapping);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list));
        QList<QByteArray> requested = ldapspy::searches().value(0).attributes;
        QList<QByteArray> expectedRequested;
        for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it)
            expectedRequested.append(it.key().toUtf8());
        std::sort(requested.begin(), requested.end());
        std::sort(expectedRequested.begin(), expectedRequested.end());
        QCOMPARE(requested, expectedRequested);
        QCOMPARE(list.size(), entries.size());
        for (int i = 0; i < entries.size(); ++i)
            QCOMPARE(list[i].params, expectedParams(entries[i], mapping, false));
        // The mapping in the log is the one read from the setting.
        QVERIFY(log.records().first().text.startsWith(QStringLiteral("get user list")));
        QCOMPARE(log.records().first().function, fn::userList);
        for (const LogRecord &r : log.records())
            QCOMPARE(r.function, fn::userList);
    }

    void numberValueLandsUnderEmptyKey()
    {
        ZMLDAP ldap(withMapping(QStringLiteral("[{\"sAMAccountName\": 5}]")));
        QCOMPARE(ldap.connect(), 0);
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list));
        QStringList logins;
        for (const zelmora::ObjectInfo &r : list)
            logins.append(r.params.value(QString()));
        logins.sort();
        QCOMPARE(logins.join(QLatin1Char(' ')), realmValue("FIXED_USERS").split(QLatin1Char(' ')).join(QLatin1Char(' ')));
    }

    void appendsToCallersList()
    {
        ZMLDAP ldap(withMapping(QString()));
        QCOMPARE(ldap.connect(), 0);
        QList<zelmora::ObjectInfo> list;
        zelmora::ObjectInfo mine;
        mine.type = QStringLiteral("OT_MINE");
        mine.params.insert(QStringLiteral("k"), QStringLiteral("v"));
        list.append(mine);
        list.append(mine);
        QVERIFY(ldap.getUserList(list, kNames));
        const int n = realmValue("FIXED_USER_COUNT").toInt();
        QCOMPARE(list.size(), 2 + n);
        QCOMPARE(list[0].type, QStringLiteral("OT_MINE"));
        QCOMPARE(list[1].params, mine.params);
        // A second call appends again.
        QVERIFY(ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 2 + 2 * n);
    }

    void resultObjectType()
    {
        ZMLDAP ldap(withMapping(QString()));
        QCOMPARE(ldap.connect(), 0);
        ldap.setResultObjectType(QStringLiteral("OT_EMPLOYEE"));
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kNames));
        for (const zelmora::ObjectInfo &r : list)
            QCOMPARE(r.type, QStringLiteral("OT_EMPLOYEE"));
    }

    void noMatch()
    {
        ZMLDAP ldap(searchSettings(QString(), QStringLiteral("(sAMAccountName=nobody)")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list{zelmora::ObjectInfo()};
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 1);
        QCOMPARE(lines(log), (QStringList{listLine(realmValue("BASE_DN"), QStringLiteral("(sAMAccountName=nobody)"), kNames),
                                          lcrit(fn::userList, QStringLiteral("ldap_count_entries error"))}));
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    void referralBase()
    {
        ZMLDAP ldap(searchSettings(realmValue("REFERRAL_DN")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(ldapspy::searches().value(0).rc, LDAP_REFERRAL);
        QCOMPARE(lines(log), (QStringList{listLine(realmValue("REFERRAL_DN"), kDefaultFilter, kNames),
                                          lcrit(fn::userList, QStringLiteral("ldap_count_entries error"))}));
    }

    void searchErrors_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("filter");
        QTest::addColumn<int>("rc");
        QTest::newRow("base outside the naming context") << QStringLiteral("dc=other,dc=test") << kDefaultFilter << LDAP_NO_SUCH_OBJECT;
        QTest::newRow("filter refused") << realmValue("BASE_DN") << QStringLiteral("(objectClass=user") << LDAP_FILTER_ERROR;
        QTest::newRow("invalid base dn") << QStringLiteral("not a dn") << kDefaultFilter << LDAP_INVALID_DN_SYNTAX;
    }

    void searchErrors()
    {
        QFETCH(QString, base);
        QFETCH(QString, filter);
        QFETCH(int, rc);
        ZMLDAP ldap(searchSettings(base, filter));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list));
        QVERIFY(list.isEmpty());
        QCOMPARE(lines(log), (QStringList{listLine(base, filter, {}),
                                          lcrit(fn::userList, QStringLiteral("ldap_search_ext_s error ") + hexText(rc) + QLatin1Char(' ')
                                                                  + QString::fromUtf8(ldap_err2string(rc)))}));
    }

    void textOfErrors()
    {
        ZMLDAP ldap(searchSettings(QStringLiteral("dc=other,dc=test")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list));
        QCOMPARE(log.records().last().text, QStringLiteral("ldap_search_ext_s error 20 No such object"));
        QCOMPARE(log.records().last().type, QtCriticalMsg);
    }

    void emptyBaseAndFilter()
    {
        ZMLDAP ldap(searchSettings(QString::fromLatin1(""), QString::fromLatin1("")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        bool ok = false;
        {
            ServerDisconnectScope libldapLoses;
            ok = ldap.getUserList(list);
        }
        const SearchCall call = ldapspy::searches().value(0);
        QCOMPARE(call.base, QByteArray(""));
        QCOMPARE(call.filter, QByteArray(""));
        QCOMPARE(lines(log).first(), listLine(QString::fromLatin1(""), QString::fromLatin1(""), {}));
        if (call.rc != LDAP_SUCCESS && call.rc != LDAP_REFERRAL)
            QVERIFY(!ok);
    }

    void absentFilterIsDefault()
    {
        ZMLDAP ldap(withMapping(QString()));
        QCOMPARE(ldap.connect(), 0);
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list));
        QCOMPARE(ldapspy::searches().value(0).filter, kDefaultFilter.toUtf8());
    }

    void nonAsciiCut()
    {
        zelmora::ObjectInfo s = withMapping(QStringLiteral("[{\"фамилия\": \"PT_SURNAME\"}]"));
        const QString base = QStringLiteral("ou=отдел,") + realmValue("BASE_DN");
        const QString filter = QStringLiteral("(cn=Иванов Иван Иванович)");
        s.params.insert(QStringLiteral("PT_BASE_DN"), base);
        s.params.insert(QStringLiteral("PT_USER_FILTER"), filter);
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list));
        const SearchCall call = ldapspy::searches().value(0);
        QCOMPARE(call.base, base.toUtf8().left(base.size()));
        QCOMPARE(call.filter, filter.toUtf8().left(filter.size()));
        QCOMPARE(call.attributes, QList<QByteArray>{QStringLiteral("фамилия").toUtf8().left(7)});
        // The log shows the texts whole.
        QCOMPARE(lines(log).first(), listLine(base, filter, {{QStringLiteral("фамилия"), QStringLiteral("PT_SURNAME")}}));
    }

    // The same mapping, the listing and the iterator: identical records
    // when the mapping is not empty.
    void sameAsIterator()
    {
        ZMLDAP ldap(withMapping(QString()));
        QCOMPARE(ldap.connect(), 0);
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kNames));
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), list.size());
        QCOMPARE(it.first().params, list[0].params);
        for (int i = 1; i < list.size(); ++i)
            QCOMPARE(it.next().params, list[i].params);
    }
};

QTEST_GUILESS_MAIN(TestUserList)
#include "tst_ldap_user_list.moc"
