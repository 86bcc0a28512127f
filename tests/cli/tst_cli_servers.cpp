// "zmauth ldap users" and "ldap check" with the server options (--tls,
// --ca-file, --failover, --domain, --site) or the same keys in the settings
// file, against the realm: which server served and how it was protected
// goes to standard error; a certificate that does not verify ends the run
// as a failed connection.
#include "realmenv.h"
#include "toolrun.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A TCP port on 127.0.0.1 that nothing listens on (bound, then closed).
int closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

} // namespace

class CliServersTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    const RealmEnv &env() const { return RealmEnv::get(); }

    QString settingsFile(const QString &name, const QJsonObject &changes = QJsonObject())
    {
        return writeSettingsFile(m_dir.filePath(name), env(), changes);
    }

    QStringList checkArgs(const QString &settings) const
    {
        return {QStringLiteral("ldap"), QStringLiteral("check"), env().value(QStringLiteral("USER_NAME")),
                QStringLiteral("--settings"), settings};
    }

    QString caFile() const { return env().value(QStringLiteral("TLS_CA_FILE")); }

    // "zmauth ldap check: served by URI (TLS1.x CIPHER, SASL SSF N)"
    static QRegularExpression servedByTls(const QString &command, const QString &uri)
    {
        return QRegularExpression(QStringLiteral("^zmauth %1: served by %2 \\(TLS1\\.[23] \\S+, SASL SSF \\d+\\)$")
                                      .arg(QRegularExpression::escape(command), QRegularExpression::escape(uri)));
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(env().isValid(), "ZMAUTH_REALM_DIR/realm.env is missing: run through ctest");
        QVERIFY(m_dir.isValid());
    }

    void checkOverStartTlsNamesServerAndProtection()
    {
        const ToolRun run = runTool(checkArgs(settingsFile(QStringLiteral("plain.json")))
                                    << QStringLiteral("--tls") << QStringLiteral("starttls") << QStringLiteral("--ca-file")
                                    << caFile());
        QVERIFY2(run.exitCode == 0, describe(run));
        QCOMPARE(run.outText(), QStringLiteral("found\n"));
        QCOMPARE(run.errLines().size(), 1);
        const QString uri = QStringLiteral("ldap://127.0.0.1:") + env().value(QStringLiteral("LDAP_PORT"));
        QVERIFY2(servedByTls(QStringLiteral("ldap check"), uri).match(run.errLines().constFirst()).hasMatch(), describe(run));
    }

    // The same keys in the settings file: LDAP over TLS to the ldaps:// port.
    void usersOverLdapsFromSettingsFile()
    {
        const QString settings = settingsFile(
            QStringLiteral("ldaps.json"),
            QJsonObject{{QStringLiteral("PT_PORT"), env().value(QStringLiteral("LDAPS_PORT"))},
                        {QStringLiteral("PT_TLS"), QStringLiteral("ldaps")},
                        {QStringLiteral("PT_TLS_CA_FILE"), caFile()}});
        const ToolRun run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--settings"), settings,
                                     QStringLiteral("--format"), QStringLiteral("json")});
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY(!run.out.isEmpty());
        const QString uri = QStringLiteral("ldaps://127.0.0.1:") + env().value(QStringLiteral("LDAPS_PORT"));
        // The only line besides the tool's mapping warning.
        QStringList served;
        for (const QString &line : run.errLines())
            if (line.contains(QStringLiteral(": served by ")))
                served.append(line);
        QCOMPARE(served.size(), 1);
        QVERIFY2(servedByTls(QStringLiteral("ldap users"), uri).match(served.constFirst()).hasMatch(), describe(run));
    }

    void failoverPassesOverAClosedPort()
    {
        const int live = env().value(QStringLiteral("LDAP_PORT")).toInt();
        const QString settings = settingsFile(QStringLiteral("failover.json"),
                                              QJsonObject{{QStringLiteral("PT_HOST"), QString()}});
        const ToolRun run = runTool(checkArgs(settings) << QStringLiteral("--failover")
                                                        << QStringLiteral("127.0.0.1:%1 127.0.0.1:%2").arg(closedPort()).arg(live)
                                                        << QStringLiteral("--timeout") << QStringLiteral("5"));
        QVERIFY2(run.exitCode == 0, describe(run));
        QCOMPARE(run.outText(), QStringLiteral("found\n"));
        const QRegularExpression line(QStringLiteral("^zmauth ldap check: served by ldap://127\\.0\\.0\\.1:%1 "
                                                     "\\(no TLS, SASL SSF \\d+\\)$").arg(live));
        QCOMPARE(run.errLines().size(), 1);
        QVERIFY2(line.match(run.errLines().constFirst()).hasMatch(), describe(run));
    }

    void certificateOfAnotherCaFailsTheConnection()
    {
        const ToolRun run = runTool(checkArgs(settingsFile(QStringLiteral("other-ca.json")))
                                    << QStringLiteral("--tls") << QStringLiteral("starttls") << QStringLiteral("--ca-file")
                                    << env().value(QStringLiteral("OTHER_CA_FILE")));
        QVERIFY2(run.exitCode == 3, describe(run));
        QVERIFY(run.out.isEmpty());
        QCOMPARE(run.errLines().size(), 1);
        QVERIFY2(run.errLines().constFirst().startsWith(
                     QStringLiteral("zmauth ldap check: connect failed: ldap_start_tls_s error ")),
                 describe(run));
    }

    void unknownTlsModeIsAUsageError()
    {
        const ToolRun run = runTool(checkArgs(QStringLiteral("unused.json")) << QStringLiteral("--tls")
                                                                             << QStringLiteral("yes"));
        QVERIFY2(run.exitCode == 2, describe(run));
        QCOMPARE(run.errText(), QStringLiteral("zmauth ldap check: --tls takes starttls, ldaps or none, not 'yes'\n"
                                               "Try 'zmauth ldap check --help'.\n"));
    }

    void everyServerOptionIsInBothCommandsHelp_data()
    {
        QTest::addColumn<QString>("sub");
        QTest::newRow("users") << QStringLiteral("users");
        QTest::newRow("check") << QStringLiteral("check");
    }
    void everyServerOptionIsInBothCommandsHelp()
    {
        QFETCH(QString, sub);
        const ToolRun run = runTool({QStringLiteral("ldap"), sub, QStringLiteral("--help")});
        QVERIFY2(run.exitCode == 0, describe(run));
        for (const QString &option : {QStringLiteral("--domain <DOMAIN>"), QStringLiteral("--site <SITE>"),
                                      QStringLiteral("--failover <HOST[:PORT] ...>"),
                                      QStringLiteral("--tls <starttls|ldaps|none>"), QStringLiteral("--ca-file <FILE>")})
            QVERIFY2(run.outText().contains(option), qPrintable(option));
    }
};

QTEST_GUILESS_MAIN(CliServersTest)
#include "tst_cli_servers.moc"
