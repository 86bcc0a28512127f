// Kerberos single sign-on with the domain's KDC and a keytab exported from
// the domain for a service account (HTTP/app.zmad.test, AES keys only).
// Default-credential mode (a ticket from kinit) works with the service's
// keytab alone; password mode on MIT needs the user's key in the acceptor
// keytab as well, and the domain's KDC gives its own texts for a wrong
// password, a disabled account and an unknown one.
#include "adtest.h"

#include <zmkerberos.h>

#include <QtTest>

namespace {
const QString kDuplicateAdd = QStringLiteral(
    "Add credentials failed:\n\tThe requested credential element already exists\n\tUnknown error");
const QString kSaved = QStringLiteral("Creedentials saved to cache");
} // namespace

class AdSingleSignOn : public QObject {
    Q_OBJECT

    std::string realm() const { return ad::str("AD_REALM"); }

    // The first step of a password login with the keytab under keytabKey,
    // and the warnings it wrote.
    QStringList passwordLogin(const char *keytabKey, const std::string &user, const std::string &password,
                              zmkrb::Result &first)
    {
        LogCapture log;
        zmkrb::Client client(ad::str("AD_SERVICE_NAME"));
        client.setKTFile(ad::str(keytabKey));
        first = client.authorize(realm(), user, password);
        return krbtest::krbTexts(log);
    }

    static bool failed(const zmkrb::Result &r) { return r.status == 0 && r.user.empty() && r.token.empty(); }

private slots:
    void initTestCase() { AD_REQUIRED(); }
    void init() { krbtest::startRealmTest(); }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = ad::endProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void defaultCredentialMode_data()
    {
        QTest::addColumn<QByteArray>("loginKey");
        QTest::addColumn<QByteArray>("passwordKey");
        QTest::addColumn<QByteArray>("serviceKey");
        QTest::newRow("alice") << QByteArray("AD_USER_NAME") << QByteArray("AD_USER_PASSWORD") << QByteArray("AD_SERVICE");
        QTest::newRow("Cyrillic password") << QByteArray("AD_CYR_USER_NAME") << QByteArray("AD_CYR_USER_PASSWORD")
                                           << QByteArray("AD_SERVICE");
        QTest::newRow("Cyrillic login") << QByteArray("AD_CYR_LOGIN_NAME") << QByteArray("AD_CYR_LOGIN_PASSWORD")
                                        << QByteArray("AD_SERVICE");
        // A service account with the domain's defaults: RC4 ticket, RC4 keytab.
        QTest::newRow("service with default encryption types")
            << QByteArray("AD_USER_NAME") << QByteArray("AD_USER_PASSWORD") << QByteArray("AD_PLAIN_SERVICE");
    }

    // kinit, then the whole exchange through the service's keytab.
    void defaultCredentialMode()
    {
        QFETCH(QByteArray, loginKey);
        QFETCH(QByteArray, passwordKey);
        QFETCH(QByteArray, serviceKey);
        const QByteArray keytab = ad::value(serviceKey + "_KEYTAB").toUtf8();
        QVERIFY(ad::kinit(loginKey.constData(), passwordKey.constData()));
        LogCapture log;
        zmkrb::Client client(ad::str(serviceKey + "_NAME"));
        // The default credential is taken for both directions: its acceptor
        // half needs some acceptor keytab, though not the user's key.
        QVERIFY(client.setKTFile(keytab.toStdString()));
        const zmkrb::Result first = client.authorize("", "", "");
        QCOMPARE(first.status, 1);
        QVERIFY(first.user.empty());
        QVERIFY(!first.token.empty());
        QVERIFY(krbtest::seen().createdCaches.empty());

        zmkrb::Service service;
        QVERIFY(service.setKTFile(keytab.toStdString()));
        const zmkrb::Result accepted = service.acceptNew("client.zmad.test", first.token);
        QCOMPARE(accepted.status, 1);
        QCOMPARE(QString::fromStdString(accepted.user), ad::value(loginKey.constData()) + QLatin1Char('@') + ad::value("AD_REALM"));
        QVERIFY(!accepted.token.empty());

        const zmkrb::Result done = client.authorizeContinue(accepted.token);
        QCOMPARE(done.status, 1);
        QVERIFY(done.token.empty());
        QVERIFY(log.records().isEmpty());
        // The service ticket came from the domain's KDC.
        QVERIFY(ad::cachedServices().contains(ad::value(serviceKey + "_PRINCIPAL")));
    }

    // Password mode with the service's keytab: the ticket-granting ticket is
    // obtained, then the credential for the user cannot be acquired.
    void passwordModeWithoutUserKey()
    {
        const std::string user = ad::str("AD_USER_NAME");
        zmkrb::Result first;
        QCOMPARE(passwordLogin("AD_SERVICE_KEYTAB", user, ad::str("AD_USER_PASSWORD"), first),
                 (QStringList{kDuplicateAdd,
                              QStringLiteral("Acquire credentials failed:\n"
                                             "\tNo credentials were supplied, or the credentials were unavailable or inaccessible\n"
                                             "\tNo key table entry found for ")
                                  + QString::fromStdString(user + "@" + realm())}));
        QVERIFY(failed(first));
        // The first step did succeed with the domain's KDC.
        QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
        QVERIFY(krbtest::leftoverCaches().empty());
    }

    // With a keytab that also holds the user's keys (exported from the domain).
    void passwordModeWithUserKey()
    {
        LogCapture log;
        zmkrb::Client client(ad::str("AD_SERVICE_NAME"));
        QVERIFY(client.setKTFile(ad::str("AD_SSO_KEYTAB")));
        const zmkrb::Result first = client.authorize(realm(), ad::str("AD_USER_NAME"), ad::str("AD_USER_PASSWORD"));
        QCOMPARE(first.status, 1);
        QCOMPARE(first.user, ad::str("AD_USER_NAME"));
        QCOMPARE(krbtest::krbTexts(log), QStringList{kDuplicateAdd});
        QCOMPARE(krbtest::krbTexts(log, QtDebugMsg), QStringList{kSaved});

        zmkrb::Service service;
        const zmkrb::Result accepted = service.acceptNew("client.zmad.test", first.token);
        QCOMPARE(accepted.status, 1);
        QCOMPARE(accepted.user, ad::str("AD_USER_NAME") + "@" + realm());
        QCOMPARE(client.authorizeContinue(accepted.token).status, 1);
    }

    void passwordRefused_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("password");
        QTest::addColumn<QString>("text");
        QTest::newRow("wrong password") << ad::value("AD_USER_NAME") << QStringLiteral("Not-The-Password-1")
                                        << QStringLiteral("Kerberos init creds password Preauthentication failed");
        QTest::newRow("disabled account") << ad::value("AD_DISABLED_USER_NAME") << ad::value("AD_DISABLED_USER_PASSWORD")
                                          << QStringLiteral("Kerberos init creds password Client's credentials have been revoked");
        QTest::newRow("unknown account") << QStringLiteral("nobody") << QStringLiteral("Any-Password-1")
                                         << QStringLiteral("Kerberos init creds password Client 'nobody@")
                                                + ad::value("AD_REALM") + QStringLiteral("' not found in Kerberos database");
    }

    void passwordRefused()
    {
        QFETCH(QString, user);
        QFETCH(QString, password);
        QFETCH(QString, text);
        zmkrb::Result first;
        QCOMPARE(passwordLogin("AD_SSO_KEYTAB", user.toStdString(), password.toStdString(), first), QStringList{text});
        QVERIFY(failed(first));
        // The new cache was destroyed with the failure.
        QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
        QVERIFY(krbtest::leftoverCaches().empty());
    }
};

QTEST_GUILESS_MAIN(AdSingleSignOn)
#include "tst_ad_single_sign_on.moc"
