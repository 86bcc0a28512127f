// The credential step of the initiator, step by step against the realm's
// KDC: each failure writes one warning in krb5's words, returns -1, releases
// exactly what it had obtained (in the order contents, principal, cache,
// context) and leaves nothing for the Client's destructor to release again.
// Steps a real KDC cannot make fail are failed through the interposed calls.
//
// This program builds the initiator's source into itself to reach
// prepare_cred, which the library does not export.
#include "krbtest.h"
#include "realmenv.h"
#include "zmkerberos_p.h"

#include <zmkerberos.h>

#include <QTemporaryDir>
#include <QtTest>

using Releases = std::vector<std::string>;

class KrbCredentialCleanup : public QObject {
    Q_OBJECT

    std::string realm, user, password;

    struct Outcome {
        int rc = 0;
        bool contextNull = false;
        bool cacheNull = false;
        bool credentialNull = false;
        Releases releases;
        QStringList warnings;
        QStringList debug;
        std::vector<std::string> caches;
    };

    // One prepare_cred on a fresh private part, then what a Client destructor
    // would release, so the test can see that nothing is released twice.
    Outcome run(const std::string &pw)
    {
        Outcome out;
        LogCapture log;
        krbtest::seen().recordReleases = true;
        zmkrb::ClientPrivate p("HTTP@localhost");
        zmkrb::GssCred credential;
        out.rc = p.prepare_cred(realm, user, pw, zmkrb::out(credential).ref(), zmkrb::out(p.context).ref(),
                                zmkrb::out(p.cache).ref());
        out.contextNull = !p.context;
        out.cacheNull = !p.cache;
        out.credentialNull = !credential;
        out.releases = krbtest::seen().releases;
        krbtest::seen().recordReleases = false;
        out.warnings = krbtest::krbTexts(log);
        out.debug = krbtest::krbTexts(log, QtDebugMsg);
        out.caches = krbtest::seen().createdCaches;
        credential.reset();
        krbtest::resetThreadCache();
        return out;
    }

    void verifyFailed(const Outcome &o, const QString &warning, const Releases &releases)
    {
        QCOMPARE(o.rc, -1);
        QCOMPARE(o.warnings, QStringList{warning});
        QVERIFY(o.debug.isEmpty());
        QCOMPARE(o.releases, releases);
        // Released here, so null for the destructor.
        QVERIFY(o.contextNull);
        QVERIFY(o.cacheNull);
        QVERIFY(o.credentialNull);
        for (const std::string &cache : o.caches)
            QVERIFY2(!krbtest::fileExists(cache), cache.c_str());
    }

private slots:
    void initTestCase()
    {
        const RealmEnv &env = RealmEnv::get();
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
        realm = env.str("KRB5_REALM");
        user = env.str("USER_NAME");
        password = env.str("USER_PASSWORD");
    }
    void init() { krbtest::resetAll(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void successKeepsContextAndCache()
    {
        const Outcome o = run(password);
        QCOMPARE(o.rc, 0);
        QVERIFY(o.warnings.isEmpty());
        QCOMPARE(o.debug, QStringList{QStringLiteral("Creedentials saved to cache")});
        QCOMPARE(o.releases, (Releases{"krb5_free_cred_contents", "krb5_free_principal"}));
        QVERIFY(!o.contextNull);
        QVERIFY(!o.cacheNull);
        QVERIFY(!o.credentialNull);
        QCOMPARE(o.caches.size(), size_t(1));
        QVERIFY2(o.caches[0].rfind("/tmp/tkt", 0) == 0, o.caches[0].c_str());
    }

    // A configuration krb5 cannot read: the very first step fails, nothing
    // to release.
    void initContextFailure()
    {
        QTemporaryDir dir;
        const QString conf = dir.path() + QStringLiteral("/krb5.conf");
        QFile file(conf);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("[libdefaults\n default_realm = \n");
        file.close();
        const QByteArray saved = qgetenv("KRB5_CONFIG");
        qputenv("KRB5_CONFIG", conf.toUtf8());
        const Outcome o = run(password);
        qputenv("KRB5_CONFIG", saved);
        QCOMPARE(o.rc, -1);
        QCOMPARE(o.warnings.size(), 1);
        QVERIFY2(o.warnings[0].startsWith(QStringLiteral("Kerberos init context ")), qPrintable(o.warnings[0]));
        QCOMPARE(o.warnings[0], QStringLiteral("Kerberos init context Improper format of Kerberos configuration file"));
        QVERIFY(o.releases.empty());
        QVERIFY(o.contextNull && o.cacheNull && o.credentialNull);
        QVERIFY(krbtest::seen().newUniqueHints.empty());
    }

    void newCacheFailure()
    {
        krbtest::faults().newUnique = KRB5_CC_IO;
        verifyFailed(run(password), QStringLiteral("Kerberos new cache Credentials cache I/O operation failed"),
                     {"krb5_free_context"});
    }

    void buildPrincipalFailure()
    {
        krbtest::faults().buildPrincipal = ENOMEM;
        const Outcome o = run(password);
        verifyFailed(o, QStringLiteral("Kerberos build principal Cannot allocate memory"),
                     {"krb5_cc_destroy", "krb5_free_context"});
        QCOMPARE(o.caches.size(), size_t(1));
    }

    // The same prefix as the creation step, on purpose.
    void initializeCacheFailure()
    {
        krbtest::faults().ccInitialize = KRB5_FCC_PERM;
        verifyFailed(run(password), QStringLiteral("Kerberos new cache Credentials cache permissions incorrect"),
                     {"krb5_free_principal", "krb5_cc_destroy", "krb5_free_context"});
    }

    void wrongPasswordRemovesTheNewCache()
    {
        const Outcome o = run("not-" + password);
        QCOMPARE(o.warnings.size(), 1);
        QVERIFY2(o.warnings[0] == QStringLiteral("Kerberos init creds password ") + krbtest::krb5Text(KRB5KRB_AP_ERR_BAD_INTEGRITY)
                     || o.warnings[0] == QStringLiteral("Kerberos init creds password ") + krbtest::krb5Text(KRB5KDC_ERR_PREAUTH_FAILED),
                 qPrintable(o.warnings[0]));
        verifyFailed(o, o.warnings[0], {"krb5_free_principal", "krb5_cc_destroy", "krb5_free_context"});
        QCOMPARE(o.caches.size(), size_t(1));
    }

    void storeCredFailure()
    {
        krbtest::faults().storeCred = KRB5_CC_IO;
        verifyFailed(run(password), QStringLiteral("Kerberos store cred Credentials cache I/O operation failed"),
                     {"krb5_free_cred_contents", "krb5_free_principal", "krb5_cc_destroy", "krb5_free_context"});
    }

    // No cache name: the code in the text is the one of the store that
    // succeeded just before, so krb5 says "Success".
    void cacheNameNull()
    {
        krbtest::faults().ccGetNameNull = true;
        verifyFailed(run(password), QStringLiteral("Kerberos get name Success"),
                     {"krb5_free_cred_contents", "krb5_free_principal", "krb5_cc_destroy", "krb5_free_context"});
    }

    // krb5 without a message for the failure: the warning is the prefix and
    // its blank, and the clean-up is the same.
    void failureWithoutMessage()
    {
        krbtest::faults().newUnique = KRB5_CC_IO;
        krbtest::faults().errorMessageNull = true;
        verifyFailed(run(password), QStringLiteral("Kerberos new cache "), {"krb5_free_context"});
    }

    // The same failures through the public Client: a failed result, and its
    // destructor releases nothing more (no double release).
    void clientDestructorAfterFailedPreparation_data()
    {
        QTest::addColumn<int>("step");
        for (int step = 0; step < 6; ++step)
            QTest::addRow("step %d", step) << step;
    }
    void clientDestructorAfterFailedPreparation()
    {
        QFETCH(int, step);
        std::string pw = password;
        switch (step) {
        case 0: krbtest::faults().newUnique = KRB5_CC_IO; break;
        case 1: krbtest::faults().buildPrincipal = ENOMEM; break;
        case 2: krbtest::faults().ccInitialize = KRB5_CC_IO; break;
        case 3: pw = "wrong"; break;
        case 4: krbtest::faults().storeCred = KRB5_CC_IO; break;
        case 5: krbtest::faults().ccGetNameNull = true; break;
        }
        LogCapture log;
        Releases duringAuthorize;
        {
            zmkrb::Client client("HTTP@localhost");
            krbtest::seen().recordReleases = true;
            const zmkrb::Result result = client.authorize(realm, user, pw);
            QCOMPARE(result.status, 0);
            QVERIFY(result.user.empty() && result.token.empty());
            duringAuthorize = krbtest::seen().releases;
        }
        QCOMPARE(krbtest::seen().releases, duringAuthorize);
        QCOMPARE(krbtest::krbTexts(log).size(), 1);
        krbtest::resetThreadCache();
    }

    // After a successful login the destructor removes the private cache:
    // cache, then context, then credential.
    void clientDestructorOrder()
    {
        qputenv("KRB5_KTNAME", RealmEnv::get().bytes("SSO_KEYTAB"));
        std::string cache;
        {
            zmkrb::Client client("HTTP@localhost");
            const zmkrb::Result result = client.authorize(realm, user, password);
            QCOMPARE(result.status, 1);
            QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
            cache = krbtest::seen().createdCaches[0];
            QVERIFY(krbtest::fileExists(cache));
            krbtest::seen().recordReleases = true;
        }
        qunsetenv("KRB5_KTNAME");
        QCOMPARE(krbtest::seen().releases, (Releases{"krb5_cc_destroy", "krb5_free_context", "gss_release_cred"}));
        QVERIFY(!krbtest::fileExists(cache));
        QCOMPARE(krbtest::seen().gssDeleteSecContext, 0);
        krbtest::resetThreadCache();
    }
};

QTEST_GUILESS_MAIN(KrbCredentialCleanup)
#include "tst_krb_credential_cleanup.moc"
