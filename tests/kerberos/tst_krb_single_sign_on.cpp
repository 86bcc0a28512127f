// Kerberos single sign-on from end to end against the realm's MIT KDC: a
// password login and a login with the process's own ticket, each accepted by
// a Service and finished with the mutual-authentication reply.
#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>

#include <QtTest>

namespace {
const QString kDuplicateAdd = QStringLiteral(
    "Add credentials failed:\n\tThe requested credential element already exists\n\tUnknown error");
}

class KrbSingleSignOn : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

    // Client side by password, then Service, then the reply back.
    void passwordLogin(const std::string &user, const std::string &password)
    {
        LogCapture log;
        std::string cache;
        zmkrb::Result reply;
        {
            zmkrb::Client client(env.str("SERVICE_NAME"));
            // Password mode on MIT: the acceptor keytab must hold the user's key.
            QVERIFY(client.setKTFile(env.str("SSO_KEYTAB")));
            const zmkrb::Result first = client.authorize(env.str("KRB5_REALM"), user, password);
            QCOMPARE(first.status, 1);
            QCOMPARE(first.user, user);
            QVERIFY(!first.token.empty());
            QCOMPARE(krbtest::krbTexts(log), QStringList{kDuplicateAdd});
            QCOMPARE(krbtest::krbTexts(log, QtDebugMsg), QStringList{QStringLiteral("Creedentials saved to cache")});
            for (const LogRecord &r : log.inCategory(QStringLiteral("platform.lib.zmauth.kerberos")))
                QCOMPARE(r.file, QStringLiteral("src/zmkerberos_client_unix.cpp"));

            // The private cache is a new /tmp/tkt* file, not KRB5CCNAME.
            QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
            cache = krbtest::seen().createdCaches[0];
            QVERIFY2(cache.rfind("/tmp/tkt", 0) == 0, cache.c_str());
            QVERIFY(krbtest::fileExists(cache));
            QCOMPARE(krbtest::seen().newUniqueHints, std::vector<std::string>{env.str("KRB5CCNAME").empty()
                                                                                   ? qEnvironmentVariable("KRB5CCNAME").toStdString()
                                                                                   : env.str("KRB5CCNAME")});

            log.clear();
            zmkrb::Service service;
            service.setSPN(env.str("SERVICE_PRINCIPAL"));
            reply = service.acceptNew("client-01.zmauth.test", first.token);
            QCOMPARE(reply.status, 1);
            QCOMPARE(reply.user, user + "@" + env.str("KRB5_REALM"));
            QVERIFY(!reply.token.empty());
            QVERIFY(log.records().isEmpty());

            const zmkrb::Result done = client.authorizeContinue(reply.token);
            QCOMPARE(done.status, 1);
            QVERIFY(done.token.empty());
            QVERIFY(done.user.empty());
            QVERIFY(log.records().isEmpty());
            QVERIFY(krbtest::fileExists(cache));
        }
        QVERIFY2(!krbtest::fileExists(cache), cache.c_str());
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
    }
    void init() { krbtest::startRealmTest(); }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void passwordLoginEndToEnd() { passwordLogin(env.str("USER_NAME"), env.str("USER_PASSWORD")); }
    void secondUser() { passwordLogin(env.str("USER2_NAME"), env.str("USER2_PASSWORD")); }
    // Name and password are bytes: UTF-8 goes to the KDC as it is.
    void cyrillicPassword() { passwordLogin(env.str("CYR_USER_NAME"), env.str("CYR_USER_PASSWORD")); }

    // The process's own ticket: no password, no private cache, empty user.
    void defaultCredentialMode()
    {
        QVERIFY(krbtest::kinit(env.value("USER_NAME") + QLatin1Char('@') + env.value("KRB5_REALM"),
                               env.value("USER_PASSWORD")));
        LogCapture log;
        zmkrb::Client client(env.str("SERVICE_NAME"));
        // The default credential is taken for both directions: on MIT its
        // acceptor half needs some acceptor keytab, though not the user's key.
        QVERIFY(client.setKTFile(env.str("SERVICE_KEYTAB")));
        const zmkrb::Result first = client.authorize("", "", "");
        QCOMPARE(first.status, 1);
        QVERIFY(first.user.empty());
        QVERIFY(!first.token.empty());
        QVERIFY(krbtest::seen().newUniqueHints.empty());
        QVERIFY(krbtest::seen().createdCaches.empty());

        zmkrb::Service service;
        QVERIFY(service.setKTFile(env.str("SERVICE_KEYTAB")));
        const zmkrb::Result accepted = service.acceptNew("10.0.0.7", first.token);
        QCOMPARE(accepted.status, 1);
        QCOMPARE(accepted.user, env.str("USER_NAME") + "@" + env.str("KRB5_REALM"));
        QVERIFY(!accepted.token.empty());

        const zmkrb::Result done = client.authorizeContinue(accepted.token);
        QCOMPARE(done.status, 1);
        QVERIFY(done.token.empty());
        QVERIFY(log.records().isEmpty());
    }

    // The acceptor keytab from KRB5_KTNAME, with nothing registered.
    void serviceKeytabFromEnvironment()
    {
        QVERIFY(krbtest::kinit(env.value("USER2_NAME") + QLatin1Char('@') + env.value("KRB5_REALM"),
                               env.value("USER2_PASSWORD")));
        qputenv("KRB5_KTNAME", env.bytes("SERVICE_KEYTAB"));
        krbtest::clearRegisteredKeytab();
        zmkrb::Client client(env.str("SERVICE_NAME"));
        const zmkrb::Result first = client.authorize("", "", "");
        QCOMPARE(first.status, 1);
        zmkrb::Service service;
        // The SPN is kept for the caller; the credential is the default name's.
        service.setSPN("HTTP/elsewhere@OTHER.TEST");
        const zmkrb::Result accepted = service.acceptNew("peer", first.token);
        qunsetenv("KRB5_KTNAME");
        QCOMPARE(accepted.status, 1);
        QCOMPARE(accepted.user, env.str("USER2_NAME") + "@" + env.str("KRB5_REALM"));
    }

    // Registering a keytab answers true; a path that does not exist is
    // still accepted by GSSAPI (it is opened only when used).
    void setKTFileReportsRegistration()
    {
        zmkrb::Client client(env.str("SERVICE_NAME"));
        QVERIFY(client.setKTFile(env.str("SERVICE_KEYTAB")));
        zmkrb::Service service;
        QVERIFY(service.setKTFile("/nonexistent/zmauth.keytab"));
    }

    // One Service serves many logins, each token on its own.
    void oneServiceManyLogins()
    {
        zmkrb::Service service;
        QVERIFY(service.setKTFile(env.str("SERVICE_KEYTAB")));
        for (int i = 0; i < 3; ++i) {
            const zmkrb::token_t token = krbtest::freshToken();
            QVERIFY(!token.empty());
            QVERIFY(service.setKTFile(env.str("SERVICE_KEYTAB")));
            const zmkrb::Result accepted = service.acceptNew("same-peer", token);
            QCOMPARE(accepted.status, 1);
            QCOMPARE(accepted.user, env.str("USER_NAME") + "@" + env.str("KRB5_REALM"));
        }
    }
};

QTEST_GUILESS_MAIN(KrbSingleSignOn)
#include "tst_krb_single_sign_on.moc"
