// Kerberos on many threads at once: every thread logs in on Clients of its
// own (by password and with the process's own ticket) and accepts on a
// Service of its own, through the whole exchange; the credential cache name
// a password login leaves is the thread's alone; a Client destroyed on
// another thread disturbs no GSSAPI bind; and registering another acceptor
// keytab while threads accept changes no Service already built, only those
// built after it.
#include "krbtest.h"
#include "threadtest.h"

#include <zmkerberos.h>
#include <zmldap.h>

#include <ldap.h>

#include <QtTest>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

using namespace threadtest;

namespace {

const QStringList kUsers{QStringLiteral("USER"), QStringLiteral("USER2"), QStringLiteral("CYR_USER")};

// A GSSAPI bind with the ticket of the cache GSSAPI uses on this thread, and
// the account check of alice: the bind's result code, or -100 when the bind
// succeeded and alice was not found.
int gssapiBind(const RealmEnv &env)
{
    ZMLDAP ldap(directorySettings(env, QStringLiteral("8")));
    const int rc = ldap.connect();
    if (rc != 0)
        return rc;
    return ldap.checkADUser(env.value(QStringLiteral("USER_NAME"))) ? 0 : -100;
}

// A password login of alice on a Client that is then destroyed, leaving the
// thread's cache name on its removed cache; the name is returned.
std::string passwordLoginGone(const RealmEnv &env)
{
    zmkrb::Client client(env.str(QStringLiteral("SERVICE_NAME")));
    const zmkrb::Result first = client.authorize(env.str(QStringLiteral("KRB5_REALM")), env.str(QStringLiteral("USER_NAME")),
                                                 env.str(QStringLiteral("USER_PASSWORD")));
    return first.status == 1 ? threadCacheName() : std::string();
}

} // namespace

class ThreadsKerberos : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

    static void registerKeytab(const std::string &path)
    {
        zmkrb::Client registrar("unused@localhost");
        registrar.setKTFile(path);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
        offReplayCacheUnderValgrind();
    }
    void init()
    {
        krbtest::startRealmTest();
        // The process's own ticket, for the default-credential logins and the
        // GSSAPI binds.
        QVERIFY(krbtest::kinitUser(env));
    }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void everyThreadHasItsOwnClientsAndService()
    {
        // Registered once, before the threads start: it holds the service's
        // key and the users' (password logins on MIT need both).
        registerKeytab(env.str(QStringLiteral("SSO_KEYTAB")));

        // A round of each user on this thread first: the reference records,
        // and what the libraries open once per process already open.
        QHash<QString, QStringList> reference;
        QSet<QString> known;
        {
            RecordLog log;
            zmkrb::Service service;
            for (const QString &key : kUsers) {
                log.clear();
                const QString problem = kerberosRound(env, service, key, "reference-peer");
                QVERIFY2(problem.isEmpty(), qPrintable(problem));
                reference.insert(key, withoutCallback(log.lines()));
                for (const QString &l : log.lines())
                    known.insert(l);
            }
            QVERIFY(!reference.value(QStringLiteral("USER")).isEmpty());
        }
        const int descriptors = openDescriptors();

        const int count = threads();
        const int perThread = rounds(10);
        std::vector<QStringList> problems(count);
        std::vector<QStringList> expected(count);
        std::vector<std::thread::id> ids(count);
        RecordLog log;
        runTogether(count, [&](int i) {
            ids[i] = std::this_thread::get_id();
            zmkrb::Service service;
            const std::string peer = "client-" + std::to_string(i) + ".zmauth.test";
            for (int round = 0; round < perThread; ++round) {
                const QString &key = kUsers[(i + round) % kUsers.size()];
                expected[i] += reference.value(key);
                const QString problem = kerberosRound(env, service, key, peer);
                if (!problem.isEmpty())
                    problems[i].append(QStringLiteral("round %1: ").arg(round) + problem);
            }
        });

        const QString verdict = threadsVerdict(log, ids, problems, expected, known);
        QVERIFY2(verdict.isEmpty(), qPrintable(verdict));
        QCOMPARE(openDescriptors(), descriptors);
    }

    // The containment of a password login's cache name, on every thread at
    // once: each thread's name is its own Client's cache, a GSSAPI bind on
    // that thread then fails until the thread resets the name, and the
    // other threads are not affected.
    void cacheNameAfterClientIsTheThreadsOwn()
    {
        registerKeytab(env.str(QStringLiteral("SSO_KEYTAB")));
        QStringList reference;
        QSet<QString> known;
        {
            RecordLog log;
            QCOMPARE(gssapiBind(env), 0);
            QVERIFY(!passwordLoginGone(env).empty());
            QCOMPARE(gssapiBind(env), LDAP_LOCAL_ERROR);
            resetThreadCacheName();
            QCOMPARE(gssapiBind(env), 0);
            reference = withoutCallback(log.lines());
            QVERIFY(reference.contains(QStringLiteral(
                "critical | platform.lib.zmauth.ldap | int ZMLDAPPrivate::connect() | ldap_bind_s error -2 Local error")));
            for (const QString &l : log.lines())
                known.insert(l);
        }
        const int descriptors = openDescriptors();

        const int count = threads();
        const int perThread = rounds(5);
        std::vector<QStringList> problems(count);
        std::vector<std::vector<std::string>> names(count);
        std::vector<std::thread::id> ids(count);
        RecordLog log;
        runTogether(count, [&](int i) {
            ids[i] = std::this_thread::get_id();
            for (int round = 0; round < perThread; ++round) {
                const int before = gssapiBind(env);
                const std::string name = passwordLoginGone(env);
                names[i].push_back(name);
                const int stale = gssapiBind(env);
                resetThreadCacheName();
                const int after = gssapiBind(env);
                if (before != 0 || name.empty() || stale != LDAP_LOCAL_ERROR || after != 0)
                    problems[i].append(QStringLiteral("round %1: bind %2, login %3, stale bind %4, after reset %5")
                                           .arg(round).arg(before).arg(QString::fromStdString(name)).arg(stale).arg(after));
            }
        });

        std::set<std::string> distinct;
        for (int i = 0; i < count; ++i) {
            QVERIFY2(problems[i].isEmpty(), qPrintable(QStringLiteral("thread %1: ").arg(i) + problems[i].join('\n')));
            const QString diff = difference(log.linesOf(ids[i]), repeated(QVector<QStringList>(perThread, reference).toList()));
            QVERIFY2(diff.isEmpty(), qPrintable(diff));
            for (const std::string &name : names[i]) {
                QVERIFY2(!krbtest::fileExists(name), name.c_str());
                distinct.insert(name);
            }
        }
        // Every login had a cache of its own.
        QCOMPARE(int(distinct.size()), count * perThread);
        const QString stray = strayRecords(log.records(), known);
        QVERIFY2(stray.isEmpty(), qPrintable(stray));
        QCOMPARE(openDescriptors(), descriptors);
    }

    // Half the threads log in by password and hand each Client to one more
    // thread, which destroys it (removing its cache); the other half bind by
    // GSSAPI meanwhile, with the default cache: every bind succeeds.
    void clientDestroyedOnAnotherThreadWhileOthersBind()
    {
        registerKeytab(env.str(QStringLiteral("SSO_KEYTAB")));
        QSet<QString> known;
        {
            RecordLog log;
            QCOMPARE(gssapiBind(env), 0);
            QVERIFY(!passwordLoginGone(env).empty());
            resetThreadCacheName();
            for (const QString &l : log.lines())
                known.insert(l);
        }
        const int descriptors = openDescriptors();
        RecordLog log;

        const int count = threads();
        const int loginThreads = count / 2;
        const int perThread = rounds(10);
        struct Handed {
            std::unique_ptr<zmkrb::Client> client;
            std::string cache;
        };
        std::mutex mutex;
        std::condition_variable handed;
        std::deque<Handed> queue;
        int loginsRunning = loginThreads;
        std::vector<std::string> destroyed;
        std::vector<QStringList> problems(count + 1);

        runTogether(count + 1, [&](int i) {
            if (i == count) {
                // The destroyer.
                for (;;) {
                    Handed next;
                    {
                        std::unique_lock<std::mutex> lock(mutex);
                        handed.wait(lock, [&] { return !queue.empty() || loginsRunning == 0; });
                        if (queue.empty())
                            return;
                        next = std::move(queue.front());
                        queue.pop_front();
                    }
                    next.client.reset();
                    if (krbtest::fileExists(next.cache))
                        problems[i].append(QStringLiteral("left behind: ") + QString::fromStdString(next.cache));
                    destroyed.push_back(next.cache);
                }
            }
            if (i < loginThreads) {
                for (int round = 0; round < perThread; ++round) {
                    const QString &key = kUsers[(i + round) % kUsers.size()];
                    Handed h;
                    h.client.reset(new zmkrb::Client(env.str(QStringLiteral("SERVICE_NAME"))));
                    const zmkrb::Result first = h.client->authorize(env.str(QStringLiteral("KRB5_REALM")),
                                                                    env.str(key + QStringLiteral("_NAME")),
                                                                    env.str(key + QStringLiteral("_PASSWORD")));
                    h.cache = threadCacheName();
                    if (first.status != 1 || !krbtest::fileExists(h.cache))
                        problems[i].append(QStringLiteral("round %1: authorize %2").arg(round).arg(first.status));
                    std::lock_guard<std::mutex> lock(mutex);
                    queue.push_back(std::move(h));
                    handed.notify_one();
                }
                resetThreadCacheName();
                std::lock_guard<std::mutex> lock(mutex);
                if (--loginsRunning == 0)
                    handed.notify_one();
                return;
            }
            for (int round = 0; round < perThread; ++round) {
                const int rc = gssapiBind(env);
                if (rc != 0)
                    problems[i].append(QStringLiteral("round %1: bind %2").arg(round).arg(rc));
            }
        });

        for (int i = 0; i <= count; ++i)
            QVERIFY2(problems[i].isEmpty(), qPrintable(QStringLiteral("thread %1: ").arg(i) + problems[i].join('\n')));
        QCOMPARE(int(destroyed.size()), loginThreads * perThread);
        const QString stray = strayRecords(log.records(), known);
        QVERIFY2(stray.isEmpty(), qPrintable(stray));
        QCOMPARE(openDescriptors(), descriptors);
    }

    // setKTFile is process-wide. A Service takes its credential, and with it
    // the keytab then registered, when it is built: another keytab
    // registered while threads accept changes none of theirs, but a Service
    // built afterwards gets the new one. Hence the rule: register the keytab
    // once, before the threads start.
    void setKTFileWhileOtherThreadsAccept()
    {
        const int count = threads();
        const int perThread = qMax(2, rounds(4));
        // Fresh tokens of alice, one per accept, and one for the late Service.
        std::vector<std::vector<zmkrb::token_t>> tokens(count);
        for (auto &own : tokens)
            for (int k = 0; k < perThread; ++k)
                own.push_back(krbtest::freshToken(env));
        const zmkrb::token_t lateToken = krbtest::freshToken(env);
        krbtest::resetThreadCache();
        registerKeytab(env.str(QStringLiteral("SERVICE_KEYTAB")));

        std::mutex mutex;
        std::condition_variable changed;
        int halfway = 0;
        bool switched = false;
        std::vector<QStringList> problems(count);
        const std::string user = env.str(QStringLiteral("USER_NAME")) + "@" + env.str(QStringLiteral("KRB5_REALM"));
        RecordLog log;
        runTogether(count + 1, [&](int i) {
            if (i == count) {
                // Once every thread has its Service and has accepted half its
                // tokens: a keytab without the service's key, for the process.
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return halfway == count; });
                registerKeytab("/nonexistent/zmauth-threads.keytab");
                switched = true;
                changed.notify_all();
                return;
            }
            zmkrb::Service service;
            const std::string peer = "client-" + std::to_string(i);
            for (int k = 0; k < perThread; ++k) {
                if (k == perThread / 2) {
                    std::unique_lock<std::mutex> lock(mutex);
                    if (++halfway == count)
                        changed.notify_all();
                    changed.wait(lock, [&] { return switched; });
                }
                const zmkrb::Result r = service.acceptNew(peer, tokens[i][k]);
                if (r.status != 1 || r.user != user)
                    problems[i].append(QStringLiteral("token %1: status %2").arg(k).arg(r.status));
            }
        });
        for (int i = 0; i < count; ++i)
            QVERIFY2(problems[i].isEmpty(), qPrintable(QStringLiteral("thread %1: ").arg(i) + problems[i].join('\n')));
        QVERIFY(log.records().isEmpty());

        // Built now, the Service finds no key for the token.
        zmkrb::Service late;
        const zmkrb::Result refused = late.acceptNew("late-peer", lateToken);
        QCOMPARE(refused.status, 0);
        QVERIFY(refused.user.empty());
        const QList<Record> records = log.records();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records[0].type, QtWarningMsg);
        QCOMPARE(records[0].category, QStringLiteral("platform.lib.zmauth.kerberos"));
        QCOMPARE(records[0].function, QStringLiteral("zmkrb::Result zmkrb::ServicePrivate::accept(const zmkrb::krb_string_t&, const zmkrb::token_t&)"));
        QVERIFY2(records[0].text.startsWith(QStringLiteral("Accept sec context failed:\n\t")), qPrintable(records[0].text));
    }
};

QTEST_GUILESS_MAIN(ThreadsKerberos)
#include "tst_threads_kerberos.moc"
