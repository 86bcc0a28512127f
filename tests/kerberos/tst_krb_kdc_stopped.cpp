// The KDC stopped before authorize, in a realm of this program's own: the
// login fails with the texts of the KDC-unreachable path, releases what it
// obtained and leaves no cache file; nothing crashes or leaks.
#include "krbtest.h"

#include <zmkerberos.h>

#include <QtTest>

#include <csignal>

using Releases = std::vector<std::string>;

class KrbKdcStopped : public QObject {
    Q_OBJECT

    std::unique_ptr<OwnRealm> realm;

    QString unreachable() const
    {
        return QStringLiteral("Cannot contact any KDC for realm '") + realm->env().value(QStringLiteral("KRB5_REALM"))
            + QLatin1Char('\'');
    }

private slots:
    // One realm for the program: a ticket is taken while the KDC runs, then
    // the KDC is stopped for every test.
    void initTestCase()
    {
        QString error;
        realm = krbtest::startOwnRealm(QStringLiteral("kdc-stopped"), &error);
        QVERIFY2(realm, qPrintable(error));
        QVERIFY(krbtest::kinitUser(realm->env()));
        QVERIFY(realm->endServer("KDC_PID", SIGTERM));
    }
    void init() { krbtest::resetAll(); }
    void cleanup()
    {
        krbtest::resetThreadCache();
        krbtest::clearRegisteredKeytab();
    }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishOwnRealm(realm);
        QVERIFY2(problems.empty(), problems.c_str());
    }

    // Password mode: the initial credentials cannot be had. One warning, the
    // principal, cache and context released, the new cache file removed.
    void passwordLoginCannotReachTheKdc()
    {
        const RealmEnv &env = realm->env();
        LogCapture log;
        Releases releases;
        {
            zmkrb::Client client(env.str("SERVICE_NAME"));
            client.setKTFile(env.str("SSO_KEYTAB"));
            krbtest::seen().recordReleases = true;
            const zmkrb::Result result = client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"),
                                                          env.str("USER_PASSWORD"));
            QCOMPARE(result.status, 0);
            QVERIFY(result.user.empty() && result.token.empty());
            releases = krbtest::seen().releases;
        }
        QCOMPARE(releases, (Releases{"krb5_free_principal", "krb5_cc_destroy", "krb5_free_context"}));
        // Nothing more to release when the Client goes.
        QCOMPARE(krbtest::seen().releases, releases);
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral("Kerberos init creds password ") + unreachable()});
        QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
        QVERIFY(!krbtest::fileExists(krbtest::seen().createdCaches[0]));
    }

    // Default-credential mode with a ticket taken before the stop: the
    // credential is there, but the service ticket needs the KDC.
    void defaultCredentialsCannotReachTheKdc()
    {
        const RealmEnv &env = realm->env();
        LogCapture log;
        zmkrb::Client client(env.str("SERVICE_NAME"));
        client.setKTFile(env.str("SERVICE_KEYTAB"));
        const zmkrb::Result result = client.authorize("", "", "");
        QCOMPARE(result.status, 0);
        QVERIFY(result.user.empty() && result.token.empty());
        QCOMPARE(krbtest::krbTexts(log),
                 QStringList{QStringLiteral("Init sec context failed:\n\tUnspecified GSS failure.  Minor code may "
                                            "provide more information\n\t")
                             + unreachable()});
        QVERIFY(krbtest::seen().createdCaches.empty());
    }
};

QTEST_GUILESS_MAIN(KrbKdcStopped)
#include "tst_krb_kdc_stopped.moc"
