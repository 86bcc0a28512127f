// checkADUser against the realm: the equality filter on the login attribute,
// the search it makes, the debug walk of every value, and the result rule
// (success or referral, then a non-zero count).
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

class TestCheckUser : public QObject {
    Q_OBJECT

private:
    // Every "attribute" "value" record the walk must write for the entries a
    // filter finds.
    static QStringList valueLines(const QByteArray &filter, const QByteArray &base = realmBytes("BASE_DN"))
    {
        QStringList out;
        for (const DirEntry &e : ldapspy::readEntries(realmUri(), base, LDAP_SCOPE_SUBTREE, filter)) {
            for (const DirAttribute &a : e.attributes)
                for (const QByteArray &v : a.values) {
                    QString text;
                    QDebug(&text) << QString::fromUtf8(a.name) << textOf(v);
                    out.append(ldbg(fn::checkADUser, text.trimmed()));
                }
        }
        return out;
    }

    static QString checkLine(const QString &base, const QString &user, const QString &idSetting)
    {
        QString text;
        QDebug(&text) << "check AD user" << base << user << idSetting;
        return ldbg(fn::checkADUser, text.trimmed());
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    void init() { ldapspy::reset(); }

    void notConnected()
    {
        LogCapture log;
        ZMLDAP ldap(searchSettings());
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QVERIFY(ldapspy::searches().isEmpty());
        QVERIFY(log.records().isEmpty());
    }

    // Default login attribute; the search as the server gets it; the log.
    void found()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(ldap.checkADUser(QStringLiteral("alice")));

        QCOMPARE(ldapspy::searches().size(), 1);
        const SearchCall s = ldapspy::searches().first();
        QCOMPARE(s.base, realmBytes("BASE_DN"));
        QCOMPARE(s.scope, LDAP_SCOPE_SUBTREE);
        QCOMPARE(s.filter, QByteArray("(sAMAccountName=alice)"));
        QVERIFY(s.allAttributes);
        QCOMPARE(s.attrsonly, 0);
        QVERIFY(!s.hasServerControls);
        QVERIFY(!s.hasClientControls);
        QVERIFY(s.hasTimeout);
        QCOMPARE(s.timeoutSec, 30L);
        QCOMPARE(s.timeoutUsec, 0L);
        QCOMPARE(s.sizelimit, 0);

        const QStringList values = valueLines("(sAMAccountName=alice)");
        QVERIFY(values.size() > 10);
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary),
                 (QStringList{checkLine(realmValue("BASE_DN"), QStringLiteral("alice"), QString()),
                              ldbg(fn::checkADUser, QStringLiteral("entries  1"))} + values));
        QVERIFY(fromLibrary);
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"mail\" \"alice@zmauth.test\""))));
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"mail\" \"alice.smith@zmauth.test\""))));
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"cn\" \"Smith Alice Marie\""))));
        // The result is released once; the session stays.
        QCOMPARE(ldapspy::messagesFreed(), 1);
        QVERIFY(ldap.checkADUser(QStringLiteral("bob")));
    }

    void cyrillicValuesAndZeroByte()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(ldap.checkADUser(QStringLiteral("ivan")));
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"cn\" \"Иванов Иван Иванович\""))));
        log.clear();
        QVERIFY(ldap.checkADUser(QStringLiteral("dave")));
        // The GUID's bytes 61 62 00 63 64 are cut at the zero.
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"objectGUID\" \"ab\""))));
        log.clear();
        QVERIFY(ldap.checkADUser(QStringLiteral("bob")));
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"description\" \"x y\""))));
        QVERIFY(lines(log).contains(ldbg(fn::checkADUser, QStringLiteral("\"description\" \"z\""))));
    }

    void notFound()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(QStringLiteral("nobody")));
        QCOMPARE(lines(log), (QStringList{checkLine(realmValue("BASE_DN"), QStringLiteral("nobody"), QString()),
                                          ldbg(fn::checkADUser, QStringLiteral("entries  0"))}));
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    void twoEntriesSameLogin()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(ldap.checkADUser(QStringLiteral("twin")));
        QCOMPARE(log.records().at(1).text, QStringLiteral("entries  2"));
        QCOMPARE(lines(log).mid(2), valueLines("(sAMAccountName=twin)"));
    }

    // The name goes in unescaped: "*" matches every entry with the attribute.
    void wildcard()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(ldap.checkADUser(QStringLiteral("*")));
        QCOMPARE(ldapspy::searches().first().filter, QByteArray("(sAMAccountName=*)"));
        const int n = ldapspy::readEntries(realmUri(), realmBytes("BASE_DN"), LDAP_SCOPE_SUBTREE, "(sAMAccountName=*)").size();
        QVERIFY(n >= realmValue("FIXED_USER_COUNT").toInt());
        QCOMPARE(log.records().at(1).text, QStringLiteral("entries  ") + QString::number(n));
    }

    void parenthesesInName_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QByteArray>("filter");
        QTest::newRow("closes and adds") << QStringLiteral("nobody)(sn=Smith") << QByteArray("(sAMAccountName=nobody)(sn=Smith)");
        QTest::newRow("unbalanced") << QStringLiteral("alice)") << QByteArray("(sAMAccountName=alice))");
        QTest::newRow("or injection") << QStringLiteral("*)(|(sn=Jones)") << QByteArray("(sAMAccountName=*)(|(sn=Jones))");
        QTest::newRow("placeholder text") << QStringLiteral("%1") << QByteArray("(sAMAccountName=%1)");
    }

    // Whatever the filter turns into, the result follows the search's code.
    void parenthesesInName()
    {
        QFETCH(QString, user);
        QFETCH(QByteArray, filter);
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        const bool found = ldap.checkADUser(user);
        QCOMPARE(ldapspy::searches().size(), 1);
        const SearchCall s = ldapspy::searches().first();
        QCOMPARE(s.filter, filter);
        if (s.rc != LDAP_SUCCESS && s.rc != LDAP_REFERRAL) {
            QVERIFY(!found);
            QCOMPARE(lines(log).last(), lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s ") + hexText(s.rc) + QLatin1Char(' ')
                                                                    + QString::fromUtf8(ldap_err2string(s.rc))));
        } else {
            const int n = ldapspy::readEntries(realmUri(), realmBytes("BASE_DN"), LDAP_SCOPE_SUBTREE, filter).size();
            QCOMPARE(found, n != 0);
        }
    }

    void loginAttribute_data()
    {
        QTest::addColumn<QString>("attribute");
        QTest::addColumn<QString>("user");
        QTest::addColumn<QByteArray>("filter");
        QTest::addColumn<bool>("found");
        QTest::newRow("uid") << QStringLiteral("uid") << QStringLiteral("jdoe") << QByteArray("(uid=jdoe)") << false;
        QTest::newRow("sn") << QStringLiteral("sn") << QStringLiteral("Smith") << QByteArray("(sn=Smith)") << true;
        QTest::newRow("mail") << QStringLiteral("mail") << QStringLiteral("bob@zmauth.test") << QByteArray("(mail=bob@zmauth.test)") << true;
    }

    void loginAttribute()
    {
        QFETCH(QString, attribute);
        QFETCH(QString, user);
        QFETCH(QByteArray, filter);
        QFETCH(bool, found);
        zelmora::ObjectInfo s = searchSettings();
        s.params.insert(QStringLiteral("PT_USER_ID_PARAMETER"), attribute);
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QCOMPARE(ldap.checkADUser(user), found);
        QCOMPARE(ldapspy::searches().first().filter, filter);
        QCOMPARE(lines(log).first(), checkLine(realmValue("BASE_DN"), user, attribute));
    }

    // Present but empty: "(=name)", refused, logged critical.
    void emptyLoginAttribute()
    {
        zelmora::ObjectInfo s = searchSettings();
        s.params.insert(QStringLiteral("PT_USER_ID_PARAMETER"), QString::fromLatin1(""));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(QStringLiteral("jdoe")));
        const SearchCall call = ldapspy::searches().first();
        QCOMPARE(call.filter, QByteArray("(=jdoe)"));
        QVERIFY(call.rc != LDAP_SUCCESS && call.rc != LDAP_REFERRAL);
        QCOMPARE(lines(log), (QStringList{checkLine(realmValue("BASE_DN"), QStringLiteral("jdoe"), QString::fromLatin1("")),
                                          lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s ") + hexText(call.rc) + QLatin1Char(' ')
                                                                     + QString::fromUtf8(ldap_err2string(call.rc)))}));
        QCOMPARE(call.rc, LDAP_FILTER_ERROR);
        QCOMPARE(log.records().last().text, QStringLiteral("ldap_search_ext_s -7 Bad search filter"));
        // The session is still there.
        QVERIFY(ldap.checkADUser(QStringLiteral("*")) || true);
        QCOMPARE(ldapspy::searches().size(), 2);
    }

    void absentBase()
    {
        zelmora::ObjectInfo s = searchSettings();
        s.params.remove(QStringLiteral("PT_BASE_DN"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        const bool found = ldap.checkADUser(QStringLiteral("alice"));
        const SearchCall call = ldapspy::searches().first();
        QCOMPARE(call.base, QByteArray(""));
        QCOMPARE(lines(log).first(), checkLine(QString(), QStringLiteral("alice"), QString()));
        if (call.rc != LDAP_SUCCESS && call.rc != LDAP_REFERRAL) {
            QVERIFY(!found);
            QCOMPARE(log.records().last().type, QtCriticalMsg);
        }
    }

    // Referral with no entries: no critical record, count 0, false.
    void referralBase()
    {
        ZMLDAP ldap(searchSettings(realmValue("REFERRAL_DN")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QCOMPARE(ldapspy::searches().first().rc, LDAP_REFERRAL);
        QCOMPARE(lines(log), (QStringList{checkLine(realmValue("REFERRAL_DN"), QStringLiteral("alice"), QString()),
                                          ldbg(fn::checkADUser, QStringLiteral("entries  0"))}));
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    void baseOutsideNamingContext()
    {
        ZMLDAP ldap(searchSettings(QStringLiteral("dc=other,dc=test")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QCOMPARE(lines(log).last(), lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s 20 No such object")));
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    // Base and filter buffers hold as many bytes as the text has UTF-16 units.
    void nonAsciiTruncated()
    {
        zelmora::ObjectInfo s = searchSettings();
        const QString base = QStringLiteral("ou=пользователи,") + realmValue("BASE_DN");
        s.params.insert(QStringLiteral("PT_BASE_DN"), base);
        s.params.insert(QStringLiteral("PT_USER_ID_PARAMETER"), QStringLiteral("cn"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        const QString user = QStringLiteral("Иванов Иван Иванович");
        QVERIFY(!ldap.checkADUser(user));
        const SearchCall call = ldapspy::searches().first();
        QCOMPARE(call.base, base.toUtf8().left(base.size()));
        const QString filter = QStringLiteral("(cn=") + user + QLatin1Char(')');
        QCOMPARE(call.filter, filter.toUtf8().left(filter.size()));
        QCOMPARE(lines(log).first(), checkLine(base, user, QStringLiteral("cn")));
    }

    // The debug records follow the category; the result does not.
    void debugOff()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        QLoggingCategory::setFilterRules(QStringLiteral("platform.lib.zmauth.ldap.debug=false"));
        LogCapture log;
        const bool found = ldap.checkADUser(QStringLiteral("alice"));
        const bool missing = ldap.checkADUser(QStringLiteral("nobody"));
        QLoggingCategory::setFilterRules(QString());
        QVERIFY(found);
        QVERIFY(!missing);
        QVERIFY(log.records().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestCheckUser)
#include "tst_ldap_check_user.moc"
