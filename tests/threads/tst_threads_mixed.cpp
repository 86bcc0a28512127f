// Directory and Kerberos threads at once, as a server process runs them: the
// session store and the field catalogues are filled before the threads start
// and read by all of them; every thread's results and records are what its
// own calls give alone, and no descriptor is left open.
#include "krbtest.h"
#include "threadtest.h"

#include <authdata.h>
#include <zmkerberos.h>
#include <zmldap.h>

#include <QtTest>

#include <vector>

using namespace threadtest;

namespace {

const QStringList kMethods{QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("8")};
const QStringList kUsers{QStringLiteral("USER"), QStringLiteral("USER2"), QStringLiteral("CYR_USER")};

// What the session store must answer on every thread.
QString sessionProblem()
{
    QStringList problems;
    if (AuthData::userId() != 42 || AuthData::user() != QStringLiteral("alice"))
        problems.append(QStringLiteral("user"));
    if (AuthData::groupIds() != QList<unsigned int>{7, 9}
        || AuthData::groups() != QStringList{QStringLiteral("operators"), QStringLiteral("auditors")})
        problems.append(QStringLiteral("groups"));
    if (AuthData::roles() != QStringList{QStringLiteral("admin"), QStringLiteral("viewer")})
        problems.append(QStringLiteral("roles"));
    if (AuthData::sessionId() != QByteArray("session-0042"))
        problems.append(QStringLiteral("session id"));
    const zelmora::_ROLE_DATE_RESTRICTIONS r = AuthData::eventLogRestrictions();
    if (r.value1 != 30 || r.value2 != 1 || r.value3 != 2 || r.value4 != 3)
        problems.append(QStringLiteral("event log restrictions"));
    const zelmora::_ROLE_DATE_RESTRICTIONS none = AuthData::absenceReasonsRestrictions();
    if (none.value1 || none.value2 || none.value3 || none.value4)
        problems.append(QStringLiteral("absence reasons restrictions"));
    if (ZMLDAP::userDbValues().value(QStringLiteral("PT_LOGIN")).isEmpty() || ZMLDAP::employeeDbValues().size() != 23
        || ZMLDAP::adDefaultValues().value(QStringLiteral("PT_LOGIN")) != QStringLiteral("sAMAccountName"))
        problems.append(QStringLiteral("catalogues"));
    return problems.join(QLatin1Char(' '));
}

} // namespace

class ThreadsMixed : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

private slots:
    void initTestCase()
    {
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
        offReplayCacheUnderValgrind();
        krbtest::startRealmTest();
        QVERIFY(krbtest::kinitUser(env));
    }
    void cleanupTestCase()
    {
        krbtest::endRealmTest();
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void directoryAndKerberosThreadsReadTheSessionStore()
    {
        // Before the threads: the login's session, the catalogues, the keytab.
        AuthData::setUser(42, QStringLiteral("alice"));
        AuthData::addGroup(7, QStringLiteral("operators"));
        AuthData::addGroup(9, QStringLiteral("auditors"));
        AuthData::setRoles({QStringLiteral("admin"), QStringLiteral("viewer")});
        AuthData::setSessionId("session-0042");
        AuthData::setRestrictions(zelmora::EventLog, zelmora::_ROLE_DATE_RESTRICTIONS{30, 1, 2, 3});
        QVERIFY2(sessionProblem().isEmpty(), qPrintable(sessionProblem()));
        zmkrb::Client registrar("unused@localhost");
        registrar.setKTFile(env.str(QStringLiteral("SSO_KEYTAB")));

        QHash<QString, QStringList> reference;
        QSet<QString> known;
        {
            RecordLog log;
            for (const QString &method : kMethods) {
                log.clear();
                const QString problem = directoryRound(env, method);
                QVERIFY2(problem.isEmpty(), qPrintable(problem));
                reference.insert(method, withoutCallback(log.lines()));
                for (const QString &l : log.lines())
                    known.insert(l);
            }
            zmkrb::Service service;
            for (const QString &key : kUsers) {
                log.clear();
                const QString problem = kerberosRound(env, service, key, "reference-peer");
                QVERIFY2(problem.isEmpty(), qPrintable(problem));
                reference.insert(key, withoutCallback(log.lines()));
                for (const QString &l : log.lines())
                    known.insert(l);
            }
        }
        const int descriptors = openDescriptors();

        const int count = threads();
        const int perThread = rounds(6);
        std::vector<QStringList> problems(count);
        std::vector<QStringList> expected(count);
        std::vector<std::thread::id> ids(count);
        RecordLog log;
        runTogether(count, [&](int i) {
            ids[i] = std::this_thread::get_id();
            // Odd threads log in, even ones read the directory.
            std::unique_ptr<zmkrb::Service> service(i % 2 ? new zmkrb::Service : nullptr);
            const std::string peer = "client-" + std::to_string(i);
            for (int round = 0; round < perThread; ++round) {
                const QString &what = i % 2 ? kUsers[(i / 2 + round) % kUsers.size()]
                                            : kMethods[(i / 2 + round) % kMethods.size()];
                expected[i] += reference.value(what);
                QString problem = service ? kerberosRound(env, *service, what, peer) : directoryRound(env, what);
                const QString session = sessionProblem();
                if (!session.isEmpty())
                    problem += QStringLiteral(" session store: ") + session;
                if (!problem.isEmpty())
                    problems[i].append(QStringLiteral("round %1: ").arg(round) + problem);
            }
        });

        const QString verdict = threadsVerdict(log, ids, problems, expected, known);
        QVERIFY2(verdict.isEmpty(), qPrintable(verdict));
        QCOMPARE(openDescriptors(), descriptors);
    }
};

QTEST_GUILESS_MAIN(ThreadsMixed)
#include "tst_threads_mixed.moc"
