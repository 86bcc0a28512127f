// The optional timeout ("PT_TIMEOUT") against servers that stop answering:
// a listener that never answers, one whose connection queue is full, and a
// slapd of this test's own realm stopped with SIGSTOP after the bind. Without
// the key the session gets no timeout options and searches keep their
// 30-second limit. The same realm limits the entries of a paged search to
// 20 in all, so that a later page fails: the listing is all or nothing.
//
// Durations are not asserted: the result codes show that the timeout ended
// each call, and a hang guard of ten times the timeout catches a call that
// waits on regardless.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <sys/types.h>

namespace {

const int kTimeoutSeconds = 2;
// The realm's limit on the entries of one paged search, all pages together.
const int kPagedTotal = 20;
const qint64 kHangGuardMs = 10 * kTimeoutSeconds * 1000;

// A realm of this test's own, in a temporary directory: its slapd is stopped
// and continued, which no other test may see.
class OwnRealm {
public:
    ~OwnRealm() { stop(); }

    bool start(const QStringList &options, QString *error)
    {
        if (!m_dir.isValid()) {
            *error = QStringLiteral("no temporary directory");
            return false;
        }
        QProcess realm;
        realm.setProcessChannelMode(QProcess::MergedChannels);
        realm.start(QStringLiteral("bash"), QStringList{QStringLiteral(ZMAUTH_REALM_SCRIPT), QStringLiteral("start"), m_dir.path()} + options);
        if (!realm.waitForFinished(120000) || realm.exitCode() != 0) {
            *error = QString::fromLocal8Bit(realm.readAll());
            return false;
        }
        m_started = true;
        m_env = RealmEnv::fromDir(m_dir.path());
        return m_env.isValid();
    }

    void stop()
    {
        if (!m_started)
            return;
        m_started = false;
        QProcess::execute(QStringLiteral("bash"), {QStringLiteral(ZMAUTH_REALM_SCRIPT), QStringLiteral("stop"), m_dir.path()});
    }

    const RealmEnv &env() const { return m_env; }
    pid_t slapdPid() const { return pid_t(m_env.value(QStringLiteral("SLAPD_PID")).toInt()); }

private:
    QTemporaryDir m_dir;
    RealmEnv m_env;
    bool m_started = false;
};

// The state letter of a process in /proc ("T" when stopped).
QByteArray processState(pid_t pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray text = stat.readAll();
    const int paren = text.lastIndexOf(')');
    return paren < 0 ? QByteArray() : text.mid(paren + 2, 1);
}

// slapd stopped for the life of this object; continued however the test ends.
class StoppedServer {
public:
    explicit StoppedServer(pid_t pid)
        : m_pid(pid)
    {
        m_stopped = m_pid > 0 && ::kill(m_pid, SIGSTOP) == 0;
        // The signal is delivered asynchronously: wait until every thread stops.
        for (int i = 0; m_stopped && i < 1000 && processState(m_pid) != "T"; ++i)
            QThread::msleep(10);
    }
    ~StoppedServer()
    {
        if (m_stopped)
            ::kill(m_pid, SIGCONT);
    }
    bool isStopped() const { return m_stopped && processState(m_pid) == "T"; }

private:
    pid_t m_pid;
    bool m_stopped = false;
};

// A TCP listener on 127.0.0.1 that never accepts or reads: the kernel
// completes connections and takes requests, nobody answers. With a full
// queue (a backlog of 0 and one connection waiting) it ignores new ones, so
// a TCP connection is never established.
class SilentListener {
public:
    explicit SilentListener(bool fullQueue = false)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        ::listen(m_fd, fullQueue ? 0 : 16);
        socklen_t len = sizeof addr;
        ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&addr), &len);
        m_port = ntohs(addr.sin_port);
        if (fullQueue) {
            m_waiting = ::socket(AF_INET, SOCK_STREAM, 0);
            ::connect(m_waiting, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        }
    }
    ~SilentListener()
    {
        if (m_waiting >= 0)
            ::close(m_waiting);
        ::close(m_fd);
    }
    SilentListener(const SilentListener &) = delete;
    SilentListener &operator=(const SilentListener &) = delete;

    int port() const { return m_port; }

private:
    int m_fd = -1;
    int m_waiting = -1;
    int m_port = 0;
};

zelmora::ObjectInfo listenerSettings(const SilentListener &listener, const QString &method)
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), QStringLiteral("127.0.0.1"));
    s.params.insert(QStringLiteral("PT_PORT"), QString::number(listener.port()));
    s.params.insert(QStringLiteral("PT_METHOD"), method);
    s.params.insert(QStringLiteral("PT_USER"), QStringLiteral("alice"));
    s.params.insert(QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("secret"));
    s.params.insert(zmldap::key::TIMEOUT, QString::number(kTimeoutSeconds));
    return s;
}

QString timedOut(const QString &what)
{
    return what + QLatin1Char(' ') + hexText(LDAP_TIMEOUT) + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(LDAP_TIMEOUT));
}

const QHash<QString, QString> kLogin{{QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")}};

} // namespace

class TestLimits : public QObject {
    Q_OBJECT

private:
    OwnRealm m_realm;
    int m_users = 0;

    zelmora::ObjectInfo ownSettings(const QString &method, const QString &timeout = QString()) const
    {
        zelmora::ObjectInfo s = realmSettings(m_realm.env(), method);
        if (!timeout.isNull())
            s.params.insert(zmldap::key::TIMEOUT, timeout);
        return s;
    }

    static void checkHangGuard(const QElapsedTimer &timer, const char *what)
    {
        const qint64 ms = timer.elapsed();
        // On standard error: the log capture would take a Qt record.
        std::fprintf(stderr, "%s gave up after %lld ms (timeout %d s)\n", what, ms, kTimeoutSeconds);
        QVERIFY2(ms < kHangGuardMs, what);
    }

private slots:
    void initTestCase()
    {
        QString error;
        QVERIFY2(m_realm.start({QStringLiteral("--bulk"), QStringLiteral("30"), QStringLiteral("--size-limit"),
                                QStringLiteral("size.soft=1000 size.hard=1000 size.pr=1000 size.prtotal=%1").arg(kPagedTotal)},
                               &error),
                 qPrintable(error));
        m_users = m_realm.env().value(QStringLiteral("FIXED_USER_COUNT")).toInt()
            + m_realm.env().value(QStringLiteral("BULK_USERS")).toInt();
        QVERIFY(m_users > kPagedTotal);
    }

    void cleanupTestCase() { m_realm.stop(); }

    void init() { ldapspy::reset(); }

    // Only a positive number of seconds adds the two options, after the
    // three that every session gets.
    void timeoutOptions_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<int>("seconds");
        QTest::newRow("absent") << QString() << 0;
        QTest::newRow("empty") << QString::fromLatin1("") << 0;
        QTest::newRow("zero") << QStringLiteral("0") << 0;
        QTest::newRow("negative") << QStringLiteral("-3") << 0;
        QTest::newRow("not a number") << QStringLiteral("soon") << 0;
        QTest::newRow("fraction") << QStringLiteral("2.5") << 0;
        QTest::newRow("seven") << QStringLiteral("7") << 7;
        QTest::newRow("an hour") << QStringLiteral("3600") << 3600;
    }

    void timeoutOptions()
    {
        QFETCH(QString, value);
        QFETCH(int, seconds);
        ZMLDAP ldap(ownSettings(QStringLiteral("1"), value));
        LogCapture log;
        QCOMPARE(ldap.connect(), 0);
        // The bind sets options of its own (SASL ones) on the handle.
        const QList<int> ours{LDAP_OPT_PROTOCOL_VERSION, LDAP_OPT_TIMELIMIT, LDAP_OPT_REFERRALS,
                              LDAP_OPT_NETWORK_TIMEOUT, LDAP_OPT_TIMEOUT};
        QList<SetOptionCall> calls;
        QList<int> options;
        for (const SetOptionCall &c : ldapspy::setOptionCalls()) {
            if (ours.contains(c.option)) {
                calls.append(c);
                options.append(c.option);
            }
        }
        QList<int> expected{LDAP_OPT_PROTOCOL_VERSION, LDAP_OPT_TIMELIMIT, LDAP_OPT_REFERRALS};
        if (seconds > 0)
            expected << LDAP_OPT_NETWORK_TIMEOUT << LDAP_OPT_TIMEOUT;
        QCOMPARE(options, expected);
        for (int i = 3; i < calls.size(); ++i) {
            QCOMPARE(calls[i].timeSec, long(seconds));
            QCOMPARE(calls[i].timeUsec, 0L);
            QCOMPARE(calls[i].rc, LDAP_OPT_SUCCESS);
        }
        // Before the bind, so that the bind is bounded too.
        QCOMPARE(ldapspy::saslBinds().size(), 1);
        for (const LogRecord &r : log.records())
            QVERIFY2(r.type != QtCriticalMsg && !r.text.startsWith(QStringLiteral("ldap_set_option")), qPrintable(r.text));
    }

    // Every search waits 30 seconds at most, or less when the timeout is
    // shorter.
    void searchTimeLimit_data()
    {
        QTest::addColumn<QString>("value");
        QTest::addColumn<long>("seconds");
        QTest::newRow("absent") << QString() << 30L;
        QTest::newRow("zero") << QStringLiteral("0") << 30L;
        QTest::newRow("not a number") << QStringLiteral("x") << 30L;
        QTest::newRow("five") << QStringLiteral("5") << 5L;
        QTest::newRow("thirty") << QStringLiteral("30") << 30L;
        QTest::newRow("longer than thirty") << QStringLiteral("100") << 30L;
    }

    void searchTimeLimit()
    {
        QFETCH(QString, value);
        QFETCH(long, seconds);
        ZMLDAP ldap(ownSettings(QStringLiteral("0"), value));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(ldap.checkADUser(QStringLiteral("alice")));
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kLogin));
        ZMLDAPObjectIterator it(&ldap, kLogin);
        QVERIFY(it.size() > 0);
        QCOMPARE(ldapspy::searches().size(), 3);
        for (const SearchCall &s : ldapspy::searches()) {
            QCOMPARE(s.timeoutSec, seconds);
            QCOMPARE(s.timeoutUsec, 0L);
        }
    }

    // A server that takes the connection and never answers the bind, and
    // one that never takes the connection: the bind or the connection
    // attempt gives up, through the usual bind failure.
    void bindGivesUpOnServerThatDoesNotAnswer_data()
    {
        QTest::addColumn<bool>("fullQueue");
        QTest::addColumn<int>("rc");
        QTest::newRow("bind unanswered") << false << int(LDAP_TIMEOUT);
        QTest::newRow("connection never accepted") << true << int(LDAP_SERVER_DOWN);
    }

    void bindGivesUpOnServerThatDoesNotAnswer()
    {
        QFETCH(bool, fullQueue);
        QFETCH(int, rc);
        SilentListener listener(fullQueue);
        ZMLDAP ldap(listenerSettings(listener, QStringLiteral("1")));
        LogCapture log;
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(ldap.connect(), rc);
        checkHangGuard(timer, "connect()");
        QCOMPARE(ldapspy::saslBinds().size(), 1);
        const QString text = QStringLiteral("ldap_bind_s error ") + hexText(rc) + QLatin1Char(' ')
            + QString::fromUtf8(ldap_err2string(rc));
        const QStringList out = linesWithout(log, {fn::interact});
        QCOMPARE(out.mid(out.size() - 2), (QStringList{lcrit(fn::connect, text), ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        // Disconnected: nothing is searched.
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QVERIFY(ldapspy::searches().isEmpty());
    }

    // An anonymous session is first used by its searches: each gives up.
    void searchesGiveUpOnServerThatDoesNotAnswer()
    {
        SilentListener listener;
        ZMLDAP ldap(listenerSettings(listener, QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        checkHangGuard(timer, "checkADUser()");
        QCOMPARE(lines(log).last(), lcrit(fn::checkADUser, timedOut(QStringLiteral("ldap_search_ext_s"))));
    }

    // slapd stops after the bind: the listing, the iterator and the account
    // check each fail as a failed search does, and the session works again
    // once the server continues.
    void searchesGiveUpOnStoppedServer_data()
    {
        QTest::addColumn<QString>("pageSize");
        QTest::newRow("unpaged") << QString();
        QTest::newRow("paged") << QStringLiteral("50");
    }

    void searchesGiveUpOnStoppedServer()
    {
        QFETCH(QString, pageSize);
        zelmora::ObjectInfo settings = ownSettings(QStringLiteral("1"), QString::number(kTimeoutSeconds));
        if (!pageSize.isNull())
            settings.params.insert(zmldap::key::PAGE_SIZE, pageSize);
        // Fewer users than the paged total, so that both forms can list them.
        const QString base = m_realm.env().value(QStringLiteral("USERS_DN"));
        settings.params.insert(QStringLiteral("PT_BASE_DN"), base);
        const int users = ldapspy::readEntries(m_realm.env().bytes(QStringLiteral("LDAP_URI")), base.toUtf8(), LDAP_SCOPE_SUBTREE,
                                               kDefaultFilter.toUtf8()).size();
        QVERIFY(users > 0 && users < kPagedTotal);
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        {
            StoppedServer stopped(m_realm.slapdPid());
            QVERIFY(stopped.isStopped());

            QElapsedTimer timer;
            timer.start();
            QVERIFY(!ldap.getUserList(list, kLogin));
            checkHangGuard(timer, "getUserList()");
            QVERIFY(list.isEmpty());
            QCOMPARE(lines(log).last(), lcrit(fn::userList, timedOut(QStringLiteral("ldap_search_ext_s error"))));

            timer.restart();
            ZMLDAPObjectIterator it(&ldap, kLogin);
            checkHangGuard(timer, "the iterator's search");
            QCOMPARE(it.size(), 0);
            QCOMPARE(lines(log).last(), lcrit(fn::iteratorCtor, QStringLiteral("ldap_search_ext_s error ") + hexText(LDAP_TIMEOUT)));

            timer.restart();
            QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
            checkHangGuard(timer, "checkADUser()");
            QCOMPARE(lines(log).last(), lcrit(fn::checkADUser, timedOut(QStringLiteral("ldap_search_ext_s"))));
        }
        QVERIFY(ldap.getUserList(list, kLogin));
        QCOMPARE(list.size(), users);
    }

    // The server ends the third page of 7 with code 4 (20 entries in all):
    // what the first pages gave is not kept, the caller's records are.
    void pagedListingIsAllOrNothing()
    {
        zelmora::ObjectInfo settings = ownSettings(QStringLiteral("0"));
        settings.params.insert(zmldap::key::PAGE_SIZE, QStringLiteral("7"));
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        zelmora::ObjectInfo mine;
        mine.type = QStringLiteral("OT_MINE");
        QList<zelmora::ObjectInfo> list{mine};
        QVERIFY(!ldap.getUserList(list, kLogin));
        QCOMPARE(list.size(), 1);
        QCOMPARE(list.first().type, QStringLiteral("OT_MINE"));
        const QString sizeLimit = QStringLiteral("ldap_search_ext_s error ") + hexText(LDAP_SIZELIMIT_EXCEEDED);
        QCOMPARE(lines(log).mid(1), (QStringList{ldbg(fn::userList, QStringLiteral("Entries 7")),
                                                 ldbg(fn::userList, QStringLiteral("Entries 7")),
                                                 lcrit(fn::userList, sizeLimit + QLatin1Char(' ')
                                                                         + QString::fromUtf8(ldap_err2string(LDAP_SIZELIMIT_EXCEEDED)))}));
        QCOMPARE(ldapspy::pagedSearches().size(), 3);

        log.clear();
        ZMLDAPObjectIterator it(&ldap, kLogin);
        QCOMPARE(it.size(), 0);
        QVERIFY(it.first().params.isEmpty());
        QCOMPARE(lines(log), (QStringList{ldbg(fn::iteratorCtor, QStringLiteral("Entries 7")),
                                          ldbg(fn::iteratorCtor, QStringLiteral("Entries 7")),
                                          lcrit(fn::iteratorCtor, sizeLimit)}));

        // The limit is on paged searches: the unpaged listing gets everyone.
        ZMLDAP unpaged(ownSettings(QStringLiteral("0")));
        QCOMPARE(unpaged.connect(), 0);
        QVERIFY(unpaged.getUserList(list, kLogin));
        QCOMPARE(list.size(), 1 + m_users);
    }
};

QTEST_GUILESS_MAIN(TestLimits)
#include "tst_ldap_limits.moc"
