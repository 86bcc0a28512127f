// What the library's fixed behaviour meets at a domain controller, each with
// the answer the DC really gives: method 1 (the DC offers no DIGEST-MD5),
// method 0 (the DC refuses searches without authentication), and a login
// with characters outside ASCII (the filter is cut to its length in UTF-16
// units, and libldap refuses what is left).
#include "adtest.h"
#include "zmldap.h"

#include <QtTest>

class AdRefusals : public QObject {
    Q_OBJECT

    QString base() const { return ad::value("AD_BASE_DN"); }

private slots:
    void initTestCase() { AD_REQUIRED(); }
    void init() { ldapspy::reset(); }
    void cleanupTestCase()
    {
        const std::string problems = ad::endProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void digestMd5BindRefused()
    {
        zelmora::ObjectInfo settings = ad::settings(QStringLiteral("1"));
        settings.params.insert(QStringLiteral("PT_USER"), ad::value("AD_USER_NAME"));
        settings.params.insert(QStringLiteral("PT_USER_PASSWORD"), ad::value("AD_USER_PASSWORD"));
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), LDAP_OPERATIONS_ERROR);
        QCOMPARE(ldapspy::saslBinds().size(), 1);
        QCOMPARE(ldapspy::saslBinds().first().mechanism, QByteArray("DIGEST-MD5"));
        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::digest, QStringLiteral("Use digest method")),
                              lcrit(fn::connect, QStringLiteral("ldap_bind_s error 1 Operations error")),
                              ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound().size(), 1);
    }

    // The DC lists the mechanisms it offers in its root DSE, which it shows
    // to anybody.
    void offeredMechanisms()
    {
        const QList<DirEntry> root = ldapspy::readEntries("ldap://" + ad::value("AD_DC_HOST").toUtf8() + '/', "",
                                                          LDAP_SCOPE_BASE, "(objectClass=*)", {"supportedSASLMechanisms"});
        QCOMPARE(root.size(), 1);
        QCOMPARE(root.first().valuesOf("supportedSASLMechanisms"),
                 (QList<QByteArray>{"GSS-SPNEGO", "GSSAPI", "NTLM"}));
    }

    // Method 0 connects (nothing is sent before the first search); the DC
    // then refuses every search of the session.
    void anonymousSearchesRefused()
    {
        const zelmora::ObjectInfo settings = ad::settings(QStringLiteral("0"));
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(ldapspy::saslBinds().isEmpty());
        LDAP *ld = ldapspy::initializedHandles().value(0);

        log.clear();
        QList<zelmora::ObjectInfo> users;
        const QHash<QString, QString> mapping{{QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")}};
        QVERIFY(!ldap.getUserList(users, mapping));
        QVERIFY(users.isEmpty());
        QCOMPARE(log.records().last().type, QtCriticalMsg);
        QCOMPARE(line(log.records().last()), lcrit(fn::userList, QStringLiteral("ldap_search_ext_s error 1 Operations error")));
        // The DC's own words, kept on the session.
        char *diagnostic = nullptr;
        ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &diagnostic);
        QVERIFY2(QByteArray(diagnostic).startsWith("00002020: Operation unavailable without authentication"), diagnostic);
        ldap_memfree(diagnostic);

        log.clear();
        QVERIFY(!ldap.checkADUser(ad::value("AD_USER_NAME")));
        QCOMPARE(log.records().last().type, QtCriticalMsg);
        QCOMPARE(line(log.records().last()), lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s 1 Operations error")));

        log.clear();
        ZMLDAPObjectIterator it(&ldap, zmldap::Subtree, mapping);
        QCOMPARE(it.size(), 0);
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, QStringLiteral("ldap_search_ext_s error 1"))});

        // The session stays open: a failed search does not unbind.
        QVERIFY(ldapspy::unbound().isEmpty());
    }

    // The Cyrillic login: "(sAMAccountName=анна)" is 21 UTF-16 units and 25
    // UTF-8 bytes; the filter the library passes is the first 21 bytes,
    // which end inside a character and lack the closing parenthesis.
    void cyrillicLoginCut()
    {
        QVERIFY(ad::kinit("AD_USER_NAME", "AD_USER_PASSWORD"));
        const QString login = ad::value("AD_CYR_LOGIN_NAME");
        // The account exists.
        int rc = -1;
        const QList<DirEntry> found = ad::ldapsearch(base(), QStringLiteral("(sAMAccountName=") + login + QLatin1Char(')'),
                                                     {QStringLiteral("sAMAccountName")}, &rc);
        QCOMPARE(rc, 0);
        QCOMPARE(found.size(), 1);
        QCOMPARE(QString::fromUtf8(found.first().valuesOf("sAMAccountName").value(0)), login);

        ZMLDAP ldap(ad::settings(QStringLiteral("8")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(login));
        const QString filter = QStringLiteral("(sAMAccountName=") + login + QLatin1Char(')');
        QCOMPARE(ldapspy::searches().size(), 1);
        QCOMPARE(ldapspy::searches().first().filter, filter.toUtf8().left(filter.size()));
        QCOMPARE(ldapspy::searches().first().rc, LDAP_FILTER_ERROR);
        QCOMPARE(line(log.records().last()), lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s -7 Bad search filter")));

        // A Latin login of a user with a Cyrillic name is found.
        QVERIFY(ldap.checkADUser(ad::value("AD_CYR_USER_NAME")));
        krbtest::kdestroy();
    }
};

QTEST_GUILESS_MAIN(AdRefusals)
#include "tst_ad_refusals.moc"
