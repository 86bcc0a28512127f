// The acceptor keytab file deleted after the Service was built. The Service
// acquires its credential for initiating and accepting: with a ticket in the
// process's cache it gets one, which names the keytab; without, it has none
// and GSSAPI takes the registered keytab at each accept. Either way the keys
// are read from the file for each token, so a token is rejected in GSSAPI's
// words while the file is gone, and the same Service accepts again once it is
// back. Nothing crashes.
#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class KrbKeytabDeleted : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

private slots:
    void initTestCase() { QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed"); }
    void init() { krbtest::startRealmTest(); }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void tokensRejectedWhileTheKeytabIsGone_data()
    {
        QTest::addColumn<bool>("ticket");
        // The texts after "failed:", with %1 for the keytab's path.
        QTest::addColumn<QString>("texts");
        QTest::newRow("credential from the constructor")
            << true
            << QStringLiteral("\tUnspecified GSS failure.  Minor code may provide more information\n"
                              "\tKey table file '%1' not found");
        // GSSAPI's own acceptor credential, made at the accept, finds no file.
        QTest::newRow("no credential")
            << false
            << QStringLiteral("\tNo credentials were supplied, or the credentials were unavailable or inaccessible\n"
                              "\tKey table entry not found");
    }

    void tokensRejectedWhileTheKeytabIsGone()
    {
        QFETCH(bool, ticket);
        QFETCH(QString, texts);
        if (ticket)
            QVERIFY(krbtest::kinitUser(env));
        const zmkrb::token_t first = krbtest::freshToken();
        const zmkrb::token_t second = krbtest::freshToken();
        QVERIFY(!first.empty() && !second.empty());

        QTemporaryDir dir;
        const QString keytab = dir.path() + QStringLiteral("/service.keytab");
        QVERIFY(QFile::copy(env.value(QStringLiteral("SERVICE_KEYTAB")), keytab));
        // Registered before the Service is built, as the Service needs it.
        QVERIFY(zmkrb::Client(env.str("SERVICE_NAME")).setKTFile(keytab.toStdString()));
        const int heldBefore = krbtest::heldCredentials();
        zmkrb::Service service;
        QCOMPARE(krbtest::heldCredentials() - heldBefore, ticket ? 1 : 0);

        QVERIFY(QFile::remove(keytab));
        LogCapture log;
        const zmkrb::Result rejected = service.acceptNew("peer", first);
        QCOMPARE(rejected.status, 0);
        QVERIFY(rejected.user.empty() && rejected.token.empty());
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral("Accept sec context failed:\n") + texts.arg(keytab)});

        // The same file back: the next token is accepted by the same Service.
        QVERIFY(QFile::copy(env.value(QStringLiteral("SERVICE_KEYTAB")), keytab));
        log.clear();
        const zmkrb::Result accepted = service.acceptNew("peer", second);
        QCOMPARE(accepted.status, 1);
        QCOMPARE(QString::fromStdString(accepted.user),
                 env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM")));
        QVERIFY(!accepted.token.empty());
        QVERIFY(krbtest::krbTexts(log).isEmpty());
    }
};

QTEST_GUILESS_MAIN(KrbKeytabDeleted)
#include "tst_krb_keytab_deleted.moc"
