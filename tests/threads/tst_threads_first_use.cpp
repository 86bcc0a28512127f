// The first directory binds of the process, on many threads at the same
// moment: libldap initialises itself, and Cyrus SASL's client side with it,
// under its own lock on first use, and GSSAPI's mechanism under MIT's; no
// thread may see them half done. Nothing before the test function touches
// libldap, SASL or GSSAPI in this process (kinit is a program of its own).
#include "krbtest.h"
#include "threadtest.h"

#include <zmldap.h>

#include <QProcess>
#include <QtTest>

#include <vector>

using namespace threadtest;

class ThreadsFirstUse : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

private slots:
    void initTestCase()
    {
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
        QVERIFY(krbtest::kinitUser(env));
        // slapd's service tickets into the cache as well, by MIT's kvno: the
        // binds then only read the cache. Many threads storing the same
        // ticket at once would take turns on the cache file's lock, which
        // the valgrind run cannot do (see offReplayCacheUnderValgrind).
        QProcess kvno;
        QStringList principals;
        for (const QString &p : env.value(QStringLiteral("LDAP_PRINCIPALS")).split(QLatin1Char(' '), Qt::SkipEmptyParts))
            principals.append(p + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM")));
        kvno.start(QStringLiteral("kvno"), principals);
        QVERIFY(kvno.waitForFinished(30000));
        QCOMPARE(kvno.exitCode(), 0);
    }
    void cleanupTestCase()
    {
        krbtest::kdestroy();
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void firstBindsOfTheProcessOnManyThreadsAtOnce()
    {
        const int count = threads();
        // Even threads bind by DIGEST-MD5, odd ones by GSSAPI.
        auto methodOf = [](int i) { return i % 2 ? QStringLiteral("8") : QStringLiteral("1"); };
        std::vector<int> codes(count, -1);
        std::vector<int> found(count, 0);
        std::vector<std::thread::id> ids(count);
        RecordLog log;
        runTogether(count, [&](int i) {
            ids[i] = std::this_thread::get_id();
            ZMLDAP ldap(directorySettings(env, methodOf(i)));
            codes[i] = ldap.connect();
            found[i] = ldap.checkADUser(env.value(QStringLiteral("USER_NAME")));
        });
        const QList<Record> threaded = log.records();

        // The same calls on this thread, now that everything is initialised:
        // the records each thread must have written.
        QHash<QString, QStringList> reference;
        QSet<QString> known;
        for (const QString &method : {QStringLiteral("1"), QStringLiteral("8")}) {
            log.clear();
            {
                ZMLDAP ldap(directorySettings(env, method));
                QCOMPARE(ldap.connect(), 0);
                QVERIFY(ldap.checkADUser(env.value(QStringLiteral("USER_NAME"))));
            }
            reference.insert(method, withoutCallback(log.lines()));
            for (const QString &l : log.lines())
                known.insert(l);
        }

        for (int i = 0; i < count; ++i) {
            QCOMPARE(codes[i], 0);
            QVERIFY(found[i]);
            QStringList mine;
            for (const Record &r : threaded)
                if (r.thread == ids[i])
                    mine.append(line(r));
            const QString diff = difference(withoutCallback(mine), reference.value(methodOf(i)));
            QVERIFY2(diff.isEmpty(), qPrintable(diff));
        }
        const QString stray = strayRecords(threaded, known);
        QVERIFY2(stray.isEmpty(), qPrintable(stray));
    }
};

QTEST_GUILESS_MAIN(ThreadsFirstUse)
#include "tst_threads_first_use.moc"
