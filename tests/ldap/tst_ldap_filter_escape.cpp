// zmldap::escapeFilterValue: the RFC 4515 vectors, and what escaping changes
// for the account check against the realm. checkADUser itself takes the name
// as it is, so an unescaped pattern still matches.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

class TestFilterEscape : public QObject {
    Q_OBJECT

private slots:
    void init() { ldapspy::reset(); }

    void vectors_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("escaped");
        QTest::newRow("empty") << QString::fromLatin1("") << QString::fromLatin1("");
        QTest::newRow("plain login") << QStringLiteral("alice") << QStringLiteral("alice");
        QTest::newRow("star") << QStringLiteral("*") << QStringLiteral("\\2a");
        QTest::newRow("prefix pattern") << QStringLiteral("u00001*") << QStringLiteral("u00001\\2a");
        QTest::newRow("parentheses") << QStringLiteral("(x)") << QStringLiteral("\\28x\\29");
        QTest::newRow("backslash") << QStringLiteral("a\\b") << QStringLiteral("a\\5cb");
        QTest::newRow("NUL") << QString::fromLatin1("a\0b", 3) << QStringLiteral("a\\00b");
        QTest::newRow("all five") << QString::fromLatin1("*()\\\0", 5) << QStringLiteral("\\2a\\28\\29\\5c\\00");
        // The escape character itself first: nothing is escaped twice.
        QTest::newRow("escaped text") << QStringLiteral("\\2a") << QStringLiteral("\\5c2a");
        QTest::newRow("injection") << QStringLiteral("alice)(sAMAccountName=*")
                                   << QStringLiteral("alice\\29\\28sAMAccountName=\\2a");
        QTest::newRow("other filter characters stay") << QStringLiteral("=&|!~<>:,$ ") << QStringLiteral("=&|!~<>:,$ ");
        QTest::newRow("control characters stay") << QStringLiteral("a\nb\tc\x01") << QStringLiteral("a\nb\tc\x01");
        QTest::newRow("cyrillic") << QStringLiteral("Иванов*") << QStringLiteral("Иванов\\2a");
        QTest::newRow("outside the BMP") << QStringLiteral("a\U0001F600(") << QStringLiteral("a\U0001F600\\28");
    }

    void vectors()
    {
        QFETCH(QString, value);
        QFETCH(QString, escaped);
        QCOMPARE(zmldap::escapeFilterValue(value), escaped);
    }

    // ---- the account check, against the realm

    void realmIsThere()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    // alice is the only login that starts with "ali".
    void patternMatchesUnescapedOnly_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("unescapedFound");
        QTest::newRow("prefix") << QStringLiteral("ali*") << true;
        QTest::newRow("any account") << QStringLiteral("*") << true;
        QTest::newRow("inner star") << QStringLiteral("a*e") << true;
        QTest::newRow("plain login") << QStringLiteral("alice") << true;
        QTest::newRow("login with a dollar") << QStringLiteral("WS01$") << true;
        // \63 is "c" to the server.
        QTest::newRow("hex escape") << QStringLiteral("ali\\63e") << true;
        QTest::newRow("no such prefix") << QStringLiteral("u00001*") << false;
    }

    void patternMatchesUnescapedOnly()
    {
        QFETCH(QString, name);
        QFETCH(bool, unescapedFound);
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(ldap.checkADUser(name), unescapedFound);
        const QString escaped = zmldap::escapeFilterValue(name);
        const bool plain = escaped == name;
        LogCapture log;
        QCOMPARE(ldap.checkADUser(escaped), plain && unescapedFound);
        QCOMPARE(ldapspy::searches().value(1).filter, (QStringLiteral("(sAMAccountName=") + escaped + QLatin1Char(')')).toUtf8());
        QCOMPARE(ldapspy::searches().value(1).rc, LDAP_SUCCESS);
        // No match is an answer, not a failure.
        for (const LogRecord &r : log.records())
            QVERIFY2(r.type != QtCriticalMsg, qPrintable(r.text));
    }

    // Unescaped, these break the filter; escaped, they are looked up.
    void specialCharactersAreLookedUp_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("injection") << QStringLiteral("alice)(sAMAccountName=*");
        QTest::newRow("lone parenthesis") << QStringLiteral("alice)");
        QTest::newRow("backslash, not a hex pair") << QStringLiteral("ali\\zz");
    }

    void specialCharactersAreLookedUp()
    {
        QFETCH(QString, name);
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(name));
        QCOMPARE(log.records().last().type, QtCriticalMsg);
        QCOMPARE(log.records().last().text, QStringLiteral("ldap_search_ext_s -7 Bad search filter"));

        log.clear();
        QVERIFY(!ldap.checkADUser(zmldap::escapeFilterValue(name)));
        QCOMPARE(ldapspy::searches().value(1).rc, LDAP_SUCCESS);
        QCOMPARE(log.records().last().text, QStringLiteral("entries  0"));
    }
};

QTEST_GUILESS_MAIN(TestFilterEscape)
#include "tst_ldap_filter_escape.moc"
