// connect() over a failover list ("PT_FAILOVER_HOSTS"): servers that are
// down (a closed port), silent (a listener of this test that accepts
// connections and never answers) or stopped (the slapd of this test's own
// realm under SIGSTOP) are passed over, each with one debug record, until the
// live realm serves; connection() names it. A credential failure ends the
// walk at once; with every server dead the last one's code is the result.
//
// Durations are not asserted (bench/ has the figures): the outcome shows that
// each timeout ended its try, and a generous guard catches a hang.
#include "ldaptest.h"
#include "ownrealm.h"
#include "zmldap.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QtTest>

#include <csignal>

namespace {

const int kTimeoutSeconds = 2;
// Three servers that each may cost a timeout per step, on a busy machine.
const qint64 kHangGuardMs = 30 * kTimeoutSeconds * 1000;

const QString kPassingOver = QStringLiteral("Passing over ");

// A TCP listener on 127.0.0.1 that never accepts: the kernel completes the
// connections into its queue, and no byte ever comes back.
class SilentListener {
public:
    SilentListener()
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || ::listen(m_fd, 16) != 0)
            return;
        socklen_t len = sizeof addr;
        ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&addr), &len);
        m_port = ntohs(addr.sin_port);
    }
    ~SilentListener()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    SilentListener(const SilentListener &) = delete;
    SilentListener &operator=(const SilentListener &) = delete;

    int port() const { return m_port; }

private:
    int m_fd = -1;
    int m_port = 0;
};

// Keeps a process stopped while it lives, and continues it when it goes.
class StoppedProcess {
public:
    explicit StoppedProcess(pid_t pid)
        : m_pid(pid)
    {
        m_stopped = pid > 0 && ::kill(pid, SIGSTOP) == 0;
    }
    ~StoppedProcess()
    {
        if (m_stopped)
            ::kill(m_pid, SIGCONT);
    }
    StoppedProcess(const StoppedProcess &) = delete;
    StoppedProcess &operator=(const StoppedProcess &) = delete;
    bool stopped() const { return m_stopped; }

private:
    pid_t m_pid;
    bool m_stopped = false;
};

QString hostPort(int port)
{
    return QStringLiteral("127.0.0.1:") + QString::number(port);
}

QString uriOf(int port)
{
    return QStringLiteral("ldap://") + hostPort(port);
}

// Settings that reach the realm only through the failover list.
zelmora::ObjectInfo failoverSettings(const QStringList &servers, const QString &method = QStringLiteral("1"),
                                     const QString &password = QString())
{
    zelmora::ObjectInfo s = realmSettings(method, QString(), password);
    s.params.insert(QStringLiteral("PT_HOST"), QString::fromLatin1(""));
    s.params.insert(QStringLiteral("PT_FAILOVER_HOSTS"), servers.join(QLatin1Char(' ')));
    s.params.insert(QStringLiteral("PT_TIMEOUT"), QString::number(kTimeoutSeconds));
    return s;
}

QList<LogRecord> passedOver(const LogCapture &log)
{
    QList<LogRecord> out;
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtDebugMsg && r.text.startsWith(kPassingOver))
            out.append(r);
    return out;
}

QStringList criticalTexts(const LogCapture &log)
{
    QStringList out;
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtCriticalMsg)
            out.append(r.text);
    return out;
}

QString failureText(const QString &call, int rc)
{
    return call + QStringLiteral(" error ") + hexText(rc) + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(rc));
}

int livePort()
{
    return RealmEnv::get().value(QStringLiteral("LDAP_PORT")).toInt();
}

} // namespace

class TestLdapSeveralServers : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    // Down, silent and stopped servers before the live one: each passed over
    // with its reason, the live one serves and is named. Then, with the same
    // list again, the three that failed a moment ago come after the live one.
    void deadSilentAndStoppedServersArePassedOver()
    {
        OwnRealm stoppedRealm;
        QVERIFY2(stoppedRealm.isValid(), qPrintable(stoppedRealm.error()));
        SilentListener silent;
        QVERIFY(silent.port() > 0);
        const int dead = closedPort();
        const int stoppedPort = stoppedRealm.env().value(QStringLiteral("LDAP_PORT")).toInt();
        StoppedProcess stopped(pid_t(stoppedRealm.env().value(QStringLiteral("SLAPD_PID")).toInt()));
        QVERIFY(stopped.stopped());

        const QStringList servers{hostPort(dead), hostPort(silent.port()), hostPort(stoppedPort), hostPort(livePort())};
        {
            LogCapture log;
            ZMLDAP ldap(failoverSettings(servers));
            QElapsedTimer timer;
            timer.start();
            QCOMPARE(ldap.connect(), 0);
            const qint64 elapsed = timer.elapsed();
            qInfo() << "three servers passed over in" << elapsed << "ms";
            QVERIFY2(elapsed < kHangGuardMs, qPrintable(QString::number(elapsed)));

            const QList<LogRecord> over = passedOver(log);
            QCOMPARE(over.size(), 3);
            QCOMPARE(over[0].text, kPassingOver + uriOf(dead) + QStringLiteral(" - ")
                                       + failureText(QStringLiteral("ldap_connect"), LDAP_SERVER_DOWN));
            QCOMPARE(over[1].text, kPassingOver + uriOf(silent.port()) + QStringLiteral(" - ")
                                       + failureText(QStringLiteral("ldap_bind_s"), LDAP_TIMEOUT));
            QCOMPARE(over[2].text, kPassingOver + uriOf(stoppedPort) + QStringLiteral(" - ")
                                       + failureText(QStringLiteral("ldap_bind_s"), LDAP_TIMEOUT));
            QVERIFY(criticalTexts(log).isEmpty());

            const zmldap::Connection c = ldap.connection();
            QVERIFY(c.connected);
            QCOMPARE(c.uri, uriOf(livePort()));
            QVERIFY(c.tlsProtocol.isEmpty());
            QVERIFY(ldap.checkADUser(RealmEnv::get().value(QStringLiteral("USER_NAME"))));
        }
        {
            LogCapture log;
            ZMLDAP ldap(failoverSettings(servers));
            QCOMPARE(ldap.connect(), 0);
            QVERIFY(passedOver(log).isEmpty());
            QCOMPARE(ldap.connection().uri, uriOf(livePort()));
        }
    }

    // Every server dead: connect() fails with the last one's code, through
    // the single-server failure path's critical record.
    void allServersDeadGivesTheLastCode_data()
    {
        QTest::addColumn<bool>("silentLast");
        QTest::newRow("silent last") << true;
        QTest::newRow("closed port last") << false;
    }
    void allServersDeadGivesTheLastCode()
    {
        QFETCH(bool, silentLast);
        SilentListener silent;
        QVERIFY(silent.port() > 0);
        const int dead = closedPort();
        const QStringList servers = silentLast ? QStringList{hostPort(dead), hostPort(silent.port())}
                                               : QStringList{hostPort(silent.port()), hostPort(dead)};
        LogCapture log;
        ZMLDAP ldap(failoverSettings(servers));
        QElapsedTimer timer;
        timer.start();
        const int rc = ldap.connect();
        QVERIFY(timer.elapsed() < kHangGuardMs);
        const int expected = silentLast ? LDAP_TIMEOUT : LDAP_SERVER_DOWN;
        QCOMPARE(rc, expected);
        QCOMPARE(passedOver(log).size(), 1);
        QCOMPARE(criticalTexts(log),
                 QStringList{failureText(silentLast ? QStringLiteral("ldap_bind_s") : QStringLiteral("ldap_connect"),
                                         expected)});
        QVERIFY(log.texts(kLdapCategory).endsWith(QStringLiteral("Unbind")));
        QVERIFY(!ldap.connection().connected);
    }

    // A wrong password is sent once: the live server's refusal ends the walk
    // before the next server, whose closed port would have answered -1.
    void refusedCredentialsStopTheWalk()
    {
        const QStringList servers{hostPort(livePort()), hostPort(closedPort())};
        LogCapture log;
        ZMLDAP ldap(failoverSettings(servers, QStringLiteral("1"), QStringLiteral("wrong-password")));
        QCOMPARE(ldap.connect(), int(LDAP_INVALID_CREDENTIALS));
        QCOMPARE(log.texts().count(QStringLiteral("Use digest method")), 1);
        QVERIFY(passedOver(log).isEmpty());
        QCOMPARE(criticalTexts(log), QStringList{failureText(QStringLiteral("ldap_bind_s"), LDAP_INVALID_CREDENTIALS)});
    }

    // A failover host's name is the SASL host as it is: for 127.0.0.1 the
    // ticket is for ldap/127.0.0.1, not for the machine's canonical name that
    // the single-server path asks for.
    void gssapiToFailoverHostNamesItWithoutCanonicalising()
    {
        const RealmEnv &env = RealmEnv::get();
        QProcess kinit;
        kinit.start(QStringLiteral("kinit"),
                    {env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM"))});
        QVERIFY(kinit.waitForStarted());
        kinit.write(env.bytes(QStringLiteral("USER_PASSWORD")) + '\n');
        kinit.closeWriteChannel();
        QVERIFY(kinit.waitForFinished(30000));
        QCOMPARE(kinit.exitCode(), 0);

        zelmora::ObjectInfo s = failoverSettings({hostPort(livePort())}, QStringLiteral("8"));
        s.params.insert(QStringLiteral("PT_USER"), QString::fromLatin1(""));
        ZMLDAP gssapi(s);
        QCOMPARE(gssapi.connect(), 0);
        QVERIFY(gssapi.connection().saslSsf > 0);

        QProcess klist;
        klist.start(QStringLiteral("klist"), QStringList());
        QVERIFY(klist.waitForFinished(30000));
        const QString tickets = QString::fromLocal8Bit(klist.readAllStandardOutput());
        QVERIFY2(tickets.contains(QStringLiteral("ldap/127.0.0.1@") + env.value(QStringLiteral("KRB5_REALM"))),
                 qPrintable(tickets));
    }
};

QTEST_GUILESS_MAIN(TestLdapSeveralServers)
#include "tst_ldap_several_servers.moc"
