// 1,000 password-mode authorize calls, each on a fresh Client, on a realm of
// this program's own. Every login must give its first token, with the one
// "Add credentials" warning that MIT's duplicate element always causes, and
// leave no cache file; the initiator contexts the library keeps on purpose
// are given back by the interposers as the run goes. The open descriptors
// must be back to their count after the warm-up, the resident size may not
// grow by 2 MiB or more after it.
#include "krbtest.h"
#include "longrun.h"
#include "ownrealm.h"

#include <zmkerberos.h>

#include <QtTest>

class LongRunPasswordLogins : public QObject {
    Q_OBJECT

    std::unique_ptr<OwnRealm> realm;

private slots:
    void initTestCase()
    {
        QString error;
        realm = krbtest::startOwnRealm(QStringLiteral("password-logins"), &error);
        QVERIFY2(realm, qPrintable(error));
    }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishOwnRealm(realm);
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void freshClientEachLogin()
    {
        const RealmEnv &env = realm->env();
        const std::string service = env.str("SERVICE_NAME");
        const std::string realmName = env.str("KRB5_REALM");
        const std::string user = env.str("USER_NAME");
        const std::string password = env.str("USER_PASSWORD");
        // The user's key must be in the acceptor keytab in effect (MIT's
        // fallback acquisition).
        QVERIFY(zmkrb::Client(service).setKTFile(env.str("SSO_KEYTAB")));

        const int logins = longrun::count(1000);
        int failures = 0;
        QString firstFailure;
        longrun::RecordCounter records;
        longrun::Meter meter("password authorize on a fresh Client", logins);
        for (int i = 0; i < logins; ++i) {
            if (i == longrun::warmUp(logins))
                meter.warm();
            zmkrb::Result r;
            {
                zmkrb::Client client(service);
                r = client.authorize(realmName, user, password);
            }
            krbtest::releaseHeldContexts();
            // Only this login's cache is remembered; it is gone with the Client.
            const std::vector<std::string> caches = krbtest::seen().createdCaches;
            krbtest::seen().createdCaches.clear();
            if (r.status != 1 || r.user != user || r.token.empty() || caches.size() != 1
                || krbtest::fileExists(caches[0])) {
                if (!failures++)
                    firstFailure = QStringLiteral("login %1: status %2, %3 caches").arg(i).arg(r.status).arg(caches.size());
            }
        }
        meter.end();

        QVERIFY2(failures == 0, qPrintable(QString::number(failures) + QStringLiteral(" failed, first ") + firstFailure));
        QCOMPARE(records.warnings(), logins);
        QCOMPARE(records.criticals(), 0);
        QCOMPARE(records.problemLines(), QStringList{QStringLiteral("Add credentials failed:")});
        QCOMPARE(meter.atEnd().fds, meter.atWarm().fds);
        const QString rss = meter.rssProblem(longrun::kRssBound);
        QVERIFY2(rss.isEmpty(), qPrintable(rss));
        QVERIFY(krbtest::leftoverCaches().empty());
    }
};

QTEST_GUILESS_MAIN(LongRunPasswordLogins)
#include "tst_longrun_password_logins.moc"
