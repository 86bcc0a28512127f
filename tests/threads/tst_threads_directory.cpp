// Directory objects on many threads at once: every thread has a ZMLDAP of its
// own for each bind method (anonymous, DIGEST-MD5, GSSAPI), in a different
// order on each thread, and runs the account check, both listings and the
// iterator on it. Every result is what one thread alone gets, every record is
// whole, each thread's records are exactly those of its own calls, and no
// descriptor is left open.
#include "krbtest.h"
#include "threadtest.h"

#include <QtTest>

#include <vector>

using namespace threadtest;

class ThreadsDirectory : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();
    const QStringList methods{QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("8")};

private slots:
    void initTestCase()
    {
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
        // The GSSAPI binds use the ticket of the test's own cache.
        QVERIFY(krbtest::kinitUser(env));
    }
    void cleanupTestCase()
    {
        krbtest::kdestroy();
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void everyThreadHasItsOwnObjectPerMethod()
    {
        // One round of each method on this thread first: its records are the
        // reference, and what the libraries open once per process is open
        // before the descriptors are counted.
        QHash<QString, QStringList> reference;
        QSet<QString> known;
        {
            RecordLog log;
            for (const QString &method : methods) {
                log.clear();
                const QString problem = directoryRound(env, method);
                QVERIFY2(problem.isEmpty(), qPrintable(problem));
                reference.insert(method, withoutCallback(log.lines()));
                for (const QString &l : log.lines())
                    known.insert(l);
            }
        }
        const int descriptors = openDescriptors();

        const int count = threads();
        const int perThread = rounds(5);
        std::vector<QStringList> problems(count);
        std::vector<QStringList> expected(count);
        std::vector<std::thread::id> ids(count);
        RecordLog log;
        runTogether(count, [&](int i) {
            ids[i] = std::this_thread::get_id();
            for (int round = 0; round < perThread; ++round) {
                for (int k = 0; k < methods.size(); ++k) {
                    const QString &method = methods[(i + round + k) % methods.size()];
                    expected[i] += reference.value(method);
                    const QString problem = directoryRound(env, method);
                    if (!problem.isEmpty())
                        problems[i].append(QStringLiteral("round %1 ").arg(round) + problem);
                }
            }
        });

        const QString verdict = threadsVerdict(log, ids, problems, expected, known);
        QVERIFY2(verdict.isEmpty(), qPrintable(verdict));
        QCOMPARE(openDescriptors(), descriptors);
    }
};

QTEST_GUILESS_MAIN(ThreadsDirectory)
#include "tst_threads_directory.moc"
