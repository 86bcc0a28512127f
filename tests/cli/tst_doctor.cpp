// zmauth doctor against the throwaway realm: every check's PASS, and each
// WARN and FAIL the realm's servers really produce (a wrong port, an unknown
// host, a silent server and KDC, a missing base, the capped realm's size
// limit, a mapping spelled in another case, Cyrillic logins, expired and
// absent tickets, a keytab without the service, a clock moved with faketime,
// a service key changed behind the keytab's back). The JSON report is read
// field by field; the table for its rows and its exit-status line.
#include "ownrealm.h"
#include "realmenv.h"
#include "toolrun.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const QStringList kIds{QStringLiteral("settings"),   QStringLiteral("dns"),       QStringLiteral("reverse-dns"),
                       QStringLiteral("tcp"),        QStringLiteral("discovery"), QStringLiteral("tls"),
                       QStringLiteral("root-dse"),   QStringLiteral("sasl-mechanism"),
                       QStringLiteral("anonymous"),  QStringLiteral("ticket"),    QStringLiteral("clock-skew"),
                       QStringLiteral("bind"),       QStringLiteral("base-dn"),   QStringLiteral("size-limit"),
                       QStringLiteral("mapping"),    QStringLiteral("non-ascii-logins"), QStringLiteral("keytab"),
                       QStringLiteral("service-account"), QStringLiteral("sso")};

// The JSON report of one run.
struct Report {
    ToolRun run;
    QJsonObject document;
    QHash<QString, QJsonObject> checks;
    QStringList ids;

    QJsonObject check(const QString &id) const { return checks.value(id); }
    QString status(const QString &id) const { return check(id).value(QStringLiteral("status")).toString(); }
    QString finding(const QString &id) const { return check(id).value(QStringLiteral("finding")).toString(); }
    QString fix(const QString &id) const { return check(id).value(QStringLiteral("fix")).toString(); }
    QString reason(const QString &id) const { return check(id).value(QStringLiteral("reason")).toString(); }
    // "settings PASS, dns PASS, ...": every check's status in order.
    QString statuses() const
    {
        QStringList list;
        for (const QString &id : ids)
            list << id + QLatin1Char(' ') + status(id);
        return list.join(QLatin1String(", "));
    }
};

// Statuses in the order of the checks, as the Report prints them.
QString expected(const QString &statuses)
{
    const QStringList list = statuses.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    QStringList out;
    for (int i = 0; i < kIds.size(); ++i)
        out << kIds.at(i) + QLatin1Char(' ') + list.value(i);
    return out.join(QLatin1String(", "));
}

// A free port on 127.0.0.1 that nothing listens on: a connection is refused.
quint16 closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// A socket on 127.0.0.1 that takes what comes and never answers.
class Silent {
public:
    explicit Silent(int type)
    {
        m_fd = ::socket(AF_INET, type, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_ok = ::bind(m_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0
            && (type != SOCK_STREAM || ::listen(m_fd, 16) == 0);
        socklen_t len = sizeof addr;
        ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&addr), &len);
        m_port = ntohs(addr.sin_port);
    }
    ~Silent() { ::close(m_fd); }
    bool ok() const { return m_ok; }
    quint16 port() const { return m_port; }

private:
    int m_fd = -1;
    bool m_ok = false;
    quint16 m_port = 0;
};

} // namespace

class DoctorTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    const RealmEnv &env() const { return RealmEnv::get(); }

    static const RealmEnv &cappedEnv()
    {
        static const RealmEnv env = RealmEnv::fromDir(qEnvironmentVariable("ZMAUTH_CAPPED_REALM_DIR"));
        return env;
    }

    QString writeFile(const QString &name, const QByteArray &data) { return ::writeFile(m_dir.filePath(name), data); }

    // Method 1 (DIGEST-MD5 as alice) unless changes say otherwise; a change
    // to a null value removes the key.
    QString settingsFile(const QString &name, const QJsonObject &changes = QJsonObject(),
                         const RealmEnv &realm = RealmEnv::get())
    {
        return writeSettingsFile(m_dir.filePath(name), realm, changes);
    }

    // GSSAPI with the ticket of the cache, and the name mapping.
    QString gssapiSettings(const QString &name, const RealmEnv &realm = RealmEnv::get())
    {
        return settingsFile(name,
                            QJsonObject{{QStringLiteral("PT_METHOD"), QStringLiteral("8")},
                                        {QStringLiteral("PT_USER"), QJsonValue::Null},
                                        {QStringLiteral("PT_USER_PASSWORD"), QJsonValue::Null},
                                        {QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), QString::fromUtf8(nameMapping())}},
                            realm);
    }

    static QByteArray nameMapping()
    {
        return QByteArrayLiteral(R"([{"cn": "PT_SURNAME PT_NAME PT_PATRONYMIC"}, {"sAMAccountName": "PT_LOGIN"}])");
    }

    QString mappingFile() { return writeFile(QStringLiteral("mapping.json"), nameMapping()); }

    // The test's environment with a credential cache of its own.
    QProcessEnvironment withCache(const QString &name, const RealmEnv &realm = RealmEnv::get()) const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("KRB5CCNAME"), QStringLiteral("FILE:") + m_dir.filePath(QStringLiteral("cc-") + name));
        environment.insert(QStringLiteral("KRB5_CONFIG"), realm.value(QStringLiteral("KRB5_CONFIG")));
        environment.insert(QStringLiteral("KRB5RCACHEDIR"), realm.value(QStringLiteral("KRB5RCACHEDIR")));
        environment.insert(QStringLiteral("LDAPNOINIT"), QStringLiteral("1"));
        // libfaketime is preloaded before the sanitizer runtime.
        environment.insert(QStringLiteral("ASAN_OPTIONS"),
                           environment.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":verify_asan_link_order=0"));
        return environment;
    }

    // A ticket for alice (or with a keytab, for its principal) in the cache.
    bool kinit(const QProcessEnvironment &environment, const QStringList &args = QStringList(),
               const RealmEnv &realm = RealmEnv::get())
    {
        const QStringList arguments = args.isEmpty() ? QStringList{realm.value(QStringLiteral("USER_NAME"))} : args;
        const ToolRun run = runCommand(QStringLiteral("kinit"), arguments, realm.bytes(QStringLiteral("USER_PASSWORD")) + '\n',
                                       environment);
        if (run.exitCode != 0)
            qWarning("kinit: %s", describe(run).constData());
        return run.exitCode == 0;
    }

    static Report report(const ToolRun &run)
    {
        Report report;
        report.run = run;
        report.document = QJsonDocument::fromJson(run.out).object();
        for (const QJsonValue &value : report.document.value(QStringLiteral("checks")).toArray()) {
            const QJsonObject check = value.toObject();
            const QString id = check.value(QStringLiteral("id")).toString();
            report.ids << id;
            report.checks.insert(id, check);
        }
        return report;
    }

    static Report doctor(const QStringList &args, const QProcessEnvironment &environment,
                         const QStringList &wrapper = QStringList())
    {
        const QStringList all = QStringList{QStringLiteral("doctor"), QStringLiteral("--format"), QStringLiteral("json")} + args;
        if (wrapper.isEmpty())
            return report(runTool(all, QByteArray(), environment));
        return report(runCommand(wrapper.constFirst(), wrapper.mid(1) + QStringList{toolPath()} + all, QByteArray(), environment));
    }

    static QStringList faketime(const QString &offset) { return {QStringLiteral("faketime"), offset}; }

    // The skew the clock check measured, from "... clock is N s ahead of ...".
    static int measuredSkew(const QString &finding)
    {
        const QRegularExpressionMatch match =
            QRegularExpression(QStringLiteral("clock is (\\d+) s (ahead of|behind)")).match(finding);
        if (!match.hasMatch())
            return INT_MIN;
        return match.captured(2) == QLatin1String("behind") ? -match.captured(1).toInt() : match.captured(1).toInt();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(env().isValid(), "ZMAUTH_REALM_DIR/realm.env is missing: run through ctest");
    }

    // ---- the command line

    void helpNamesEveryCheckAndTheExitStatus()
    {
        const ToolRun run = runTool({QStringLiteral("doctor"), QStringLiteral("--help")});
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.outText().startsWith(QStringLiteral("Usage: zmauth doctor")), describe(run));
        int at = 0;
        for (const QString &id : kIds) {
            const int found = run.outText().indexOf(QRegularExpression(QStringLiteral("\\n\\s+\\d+ %1 ").arg(QRegularExpression::escape(id))), at);
            QVERIFY2(found > at, qPrintable(id));
            at = found;
        }
        for (const char *option : {"--settings <FILE>", "--mapping <FILE>", "--keytab <FILE>", "--service <NAME@HOST>",
                                   "--user <LOGIN>", "--page-size <N>", "--timeout <S>", "--format <table|json>"})
            QVERIFY2(run.outText().contains(QLatin1String(option)), option);
        QVERIFY2(run.outText().contains(QStringLiteral("\n  6  doctor: at least one check failed (warnings alone exit 0)\n")),
                 describe(run));

        const ToolRun top = runTool({QStringLiteral("--help")});
        QVERIFY2(top.outText().contains(QStringLiteral("\n  doctor --settings FILE")), describe(top));
        QVERIFY2(top.outText().contains(QStringLiteral("\n  6  doctor: at least one check failed")), describe(top));
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("error");
        const QString s = QStringLiteral("--settings=x.json");
        QTest::newRow("no settings") << QStringList{} << "zmauth doctor: --settings is required";
        QTest::newRow("format") << QStringList{s, QStringLiteral("--format=xml")} << "zmauth doctor: --format must be table or json, not 'xml'";
        QTest::newRow("keytab alone") << QStringList{s, QStringLiteral("--keytab=k")} << "zmauth doctor: --keytab and --service go together";
        QTest::newRow("service alone") << QStringList{s, QStringLiteral("--service=HTTP@h")} << "zmauth doctor: --keytab and --service go together";
        QTest::newRow("service form") << QStringList{s, QStringLiteral("--keytab=k"), QStringLiteral("--service=HTTP/h")}
                                      << "zmauth doctor: --service takes SERVICE@HOST, e.g. HTTP@app.example.org, not 'HTTP/h'";
        QTest::newRow("timeout 0") << QStringList{s, QStringLiteral("--timeout=0")} << "zmauth doctor: --timeout must be at least 1 second";
        QTest::newRow("timeout text") << QStringList{s, QStringLiteral("--timeout=ten")} << "zmauth doctor: --timeout takes a whole number, not 'ten'";
        QTest::newRow("page size") << QStringList{s, QStringLiteral("--page-size=-5")} << "zmauth doctor: --page-size takes a whole number, not '-5'";
        QTest::newRow("argument") << QStringList{s, QStringLiteral("extra")} << "zmauth doctor: unexpected argument 'extra'";
    }

    void usageErrors()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, error);
        const ToolRun run = runTool(QStringList{QStringLiteral("doctor")} + args);
        QVERIFY2(run.exitCode == 2, describe(run));
        QVERIFY2(run.out.isEmpty(), describe(run));
        QCOMPARE(run.errLines().value(0), error);
    }

    // ---- healthy settings

    // Method 1: every directory check passes, the Kerberos ones are skipped;
    // the JSON document field by field.
    void digestMd5SettingsPass()
    {
        const QString port = env().value(QStringLiteral("LDAP_PORT"));
        const QString users = env().value(QStringLiteral("FIXED_USER_COUNT"));
        const Report r = doctor({QStringLiteral("--settings"), settingsFile(QStringLiteral("digest.json")),
                                 QStringLiteral("--mapping"), mappingFile()},
                                withCache(QStringLiteral("digest")));
        QVERIFY2(r.run.exitCode == 0, describe(r.run));
        QVERIFY2(r.run.err.isEmpty(), describe(r.run));
        QCOMPARE(r.ids, kIds);
        QCOMPARE(r.statuses(), expected("PASS PASS SKIP PASS SKIP SKIP PASS PASS SKIP SKIP SKIP PASS PASS PASS PASS PASS SKIP SKIP SKIP"));
        QCOMPARE(r.document.keys(), (QStringList{"checks", "exit", "failed", "passed", "skipped", "warnings"}));
        QCOMPARE(r.document.value(QStringLiteral("passed")).toInt(-1), 10);
        QCOMPARE(r.document.value(QStringLiteral("warnings")).toInt(-1), 0);
        QCOMPARE(r.document.value(QStringLiteral("failed")).toInt(-1), 0);
        QCOMPARE(r.document.value(QStringLiteral("skipped")).toInt(-1), 9);
        QCOMPARE(r.document.value(QStringLiteral("exit")).toInt(-1), 0);
        for (const QString &id : kIds) {
            const QStringList keys = r.check(id).keys();
            if (r.status(id) == QLatin1String("SKIP"))
                QCOMPARE(keys, (QStringList{"id", "reason", "status"}));
            else
                QCOMPARE(keys, (QStringList{"finding", "id", "status"}));
        }
        QCOMPARE(r.finding("settings"),
                 QStringLiteral("6 keys: method 1 (DIGEST-MD5), 127.0.0.1:%1, base \"dc=zmauth,dc=test\", bind as \"alice\"").arg(port));
        QCOMPARE(r.finding("dns"), QStringLiteral("PT_HOST 127.0.0.1 is an address"));
        QCOMPARE(r.reason("reverse-dns"), QStringLiteral("PT_METHOD is 1 (DIGEST-MD5), not 8 (GSSAPI)"));
        QCOMPARE(r.finding("tcp"), QStringLiteral("connected to 127.0.0.1:%1").arg(port));
        QVERIFY2(r.finding("root-dse").startsWith(QStringLiteral("server: OpenLDAP, not Active Directory; naming contexts: "
                                                                  "dc=zmauth,dc=test; SASL mechanisms: ")),
                 qPrintable(r.finding("root-dse")));
        QVERIFY(r.finding("root-dse").endsWith(QStringLiteral("; paged results: yes")));
        QVERIFY(r.finding("root-dse").contains(QStringLiteral(" DIGEST-MD5 ")));
        QCOMPARE(r.finding("sasl-mechanism"),
                 QStringLiteral("the server offers DIGEST-MD5 for PT_METHOD 1 (DIGEST-MD5), and this machine's SASL library has it"));
        QCOMPARE(r.reason("anonymous"), QStringLiteral("PT_METHOD is 1 (DIGEST-MD5), not 0 (anonymous)"));
        QCOMPARE(r.reason("ticket"), QStringLiteral("PT_METHOD is not 8 (GSSAPI) and no --keytab was given"));
        QCOMPARE(r.reason("clock-skew"), QStringLiteral("no server clock to compare with: the directory offers no currentTime "
                                                        "and Kerberos is not in use (PT_METHOD is not 8, no --keytab)"));
        QCOMPARE(r.finding("bind"), QStringLiteral("connect() returned 0: bound by DIGEST-MD5 as \"alice\"; protection: no TLS, SASL SSF 128"));
        QCOMPARE(r.finding("base-dn"), QStringLiteral("PT_BASE_DN \"dc=zmauth,dc=test\" exists and is readable, in the naming "
                                                      "context \"dc=zmauth,dc=test\""));
        QCOMPARE(r.finding("size-limit"), QStringLiteral("%1 user entries below \"dc=zmauth,dc=test\"; an unpaged search returns "
                                                         "them all; pages of 500 read %1").arg(users));
        QCOMPARE(r.finding("mapping"), QStringLiteral("all 2 mapped attributes occur on the %1 sampled entries: cn (%1), "
                                                      "sAMAccountName (%1)").arg(users));
        QCOMPARE(r.finding("non-ascii-logins"),
                 QStringLiteral("read %1 user entries in pages of 500: all %1 logins (sAMAccountName) are ASCII").arg(users));
        QCOMPARE(r.reason("keytab"), QStringLiteral("no --keytab"));
        QCOMPARE(r.reason("service-account"), QStringLiteral("no --keytab"));
        QCOMPARE(r.reason("sso"), QStringLiteral("no --keytab"));
    }

    // Method 8 with a ticket, the service keytab and an account to look up:
    // every check but anonymous passes. The table, row by row.
    void gssapiSettingsPassInTheTable()
    {
        const QProcessEnvironment environment = withCache(QStringLiteral("gssapi"));
        QVERIFY(kinit(environment));
        const ToolRun run = runTool({QStringLiteral("doctor"), QStringLiteral("--settings"), gssapiSettings(QStringLiteral("gssapi.json")),
                                     QStringLiteral("--keytab"), env().value(QStringLiteral("SERVICE_KEYTAB")),
                                     QStringLiteral("--service"), env().value(QStringLiteral("SERVICE_NAME")),
                                     QStringLiteral("--user"), QStringLiteral("alice")},
                                    QByteArray(), environment);
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.err.isEmpty(), describe(run));
        const QStringList lines = run.outText().split(QLatin1Char('\n'));
        QVERIFY2(lines.value(0).contains(QRegularExpression(QStringLiteral("^ #  check\\s+status  finding$"))), describe(run));
        // Columns: number, check, status (six wide), finding.
        const QRegularExpression row(QStringLiteral("^([ \\d]\\d)  (\\S+)\\s+(PASS|WARN|FAIL|SKIP)    (\\S.*)$"));
        QHash<QString, QString> findings;
        for (int i = 0; i < kIds.size(); ++i) {
            const QRegularExpressionMatch match = row.match(lines.value(1 + i));
            QVERIFY2(match.hasMatch(), qPrintable(lines.value(1 + i)));
            QCOMPARE(match.captured(1).trimmed().toInt(), i + 1);
            QCOMPARE(match.captured(2), kIds.at(i));
            const bool skipped = QStringList{QStringLiteral("anonymous"), QStringLiteral("discovery"), QStringLiteral("tls"),
                                             QStringLiteral("service-account")}.contains(kIds.at(i));
            QCOMPARE(match.captured(3), skipped ? QStringLiteral("SKIP") : QStringLiteral("PASS"));
            findings.insert(kIds.at(i), match.captured(4));
        }
        QCOMPARE(lines.mid(20), (QStringList{QString(), QStringLiteral("19 checks: 15 passed, 0 warned, 0 failed, 4 skipped."),
                                             QStringLiteral("Exit status 0: no check failed."), QString()}));
        const QString principal = QStringLiteral("alice@") + env().value(QStringLiteral("KRB5_REALM"));
        QVERIFY2(findings.value("reverse-dns").contains(QRegularExpression(QStringLiteral("^127\\.0\\.0\\.1 is this machine, named (\\S+): "
                                                                                          "GSSAPI asks the KDC for ldap/\\1$"))),
                 qPrintable(findings.value("reverse-dns")));
        QVERIFY2(findings.value("ticket").startsWith(principal + QStringLiteral(" in FILE:")), qPrintable(findings.value("ticket")));
        QVERIFY(findings.value("ticket").contains(QStringLiteral(", realm ZMAUTH.TEST, valid until ")));
        QVERIFY2(findings.value("clock-skew").contains(QStringLiteral(" the KDC's (its answer to an initial request for %1 at ").arg(principal)),
                 qPrintable(findings.value("clock-skew")));
        QVERIFY2(qAbs(measuredSkew(findings.value("clock-skew"))) <= 2, qPrintable(findings.value("clock-skew")));
        QCOMPARE(findings.value("bind"), QStringLiteral("connect() returned 0: bound by GSSAPI with the ticket of %1; protection: "
                                                        "no TLS, SASL SSF 256; the account check finds \"alice\" (sAMAccountName)").arg(principal));
        QCOMPARE(findings.value("keytab"), QStringLiteral("%1: HTTP/localhost@ZMAUTH.TEST kvno 1; enctypes aes256-cts-hmac-sha1-96, "
                                                          "aes128-cts-hmac-sha1-96").arg(env().value(QStringLiteral("SERVICE_KEYTAB"))));
        QCOMPARE(findings.value("sso"), QStringLiteral("a whole exchange for HTTP@localhost: the acceptor names %1, login \"alice\", "
                                                       "which the account check finds").arg(principal));
    }

    void anonymousSettingsPass()
    {
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("anon.json"), {{QStringLiteral("PT_METHOD"), QStringLiteral("0")}}),
                                 QStringLiteral("-m"), mappingFile()},
                                withCache(QStringLiteral("anon")));
        QVERIFY2(r.run.exitCode == 0, describe(r.run));
        QCOMPARE(r.statuses(), expected("PASS PASS SKIP PASS SKIP SKIP PASS SKIP PASS SKIP SKIP PASS PASS PASS PASS PASS SKIP SKIP SKIP"));
        QCOMPARE(r.reason("sasl-mechanism"), QStringLiteral("PT_METHOD 0 binds anonymously, with no mechanism"));
        QCOMPARE(r.finding("anonymous"), QStringLiteral("an anonymous client may search PT_BASE_DN \"dc=zmauth,dc=test\""));
        QCOMPARE(r.finding("bind"), QStringLiteral("connect() returned 0: PT_METHOD 0 makes no bind, the session is anonymous; "
                                                   "protection: no TLS, SASL SSF 0"));
    }

    // ---- settings

    void settingsProblems_data()
    {
        QTest::addColumn<QByteArray>("raw");       // the file as it stands, when not null
        QTest::addColumn<QJsonObject>("changes");  // else these changes to the method 1 settings
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("finding");
        QTest::addColumn<QString>("fix");
        QTest::newRow("not JSON") << QByteArray("{\"PT_HOST\": ") << QJsonObject() << "FAIL" << " is not valid JSON: "
                                  << "write the settings as one JSON object of setting keys with text values";
        QTest::newRow("a key misspelt for the base")
            << QByteArray() << QJsonObject{{QStringLiteral("PT_BASE_DN"), QJsonValue::Null}, {QStringLiteral("PT_BASEDN"), QStringLiteral("dc=zmauth,dc=test")}}
            << "FAIL" << "\"PT_BASE_DN\" is missing; unknown key \"PT_BASEDN\" (nothing reads it; did you mean \"PT_BASE_DN\"?)"
            << "rename \"PT_BASEDN\" to \"PT_BASE_DN\"";
        QTest::newRow("a misspelt key besides") << QByteArray() << QJsonObject{{QStringLiteral("pt_user_filtr"), QStringLiteral("(cn=*)")}}
                                                << "WARN" << "unknown key \"pt_user_filtr\" (nothing reads it; did you mean \"PT_USER_FILTER\"?)"
                                                << "rename \"pt_user_filtr\" to \"PT_USER_FILTER\"";
        QTest::newRow("a key of nothing") << QByteArray() << QJsonObject{{QStringLiteral("COLOUR"), QStringLiteral("red")}}
                                          << "WARN" << "unknown key \"COLOUR\" (nothing reads it)" << "remove \"COLOUR\"";
        QTest::newRow("no method") << QByteArray() << QJsonObject{{QStringLiteral("PT_METHOD"), QJsonValue::Null}} << "WARN"
                                   << "\"PT_METHOD\" is missing, so the library binds by DIGEST-MD5 (1)"
                                   << "set \"PT_METHOD\" to \"8\" (GSSAPI with a ticket; what Active Directory takes)";
        QTest::newRow("method 2") << QByteArray() << QJsonObject{{QStringLiteral("PT_METHOD"), QStringLiteral("2")}} << "FAIL"
                                  << "\"PT_METHOD\" \"2\" is no method: connect() fails with -1" << "set \"PT_METHOD\" to \"8\"";
        QTest::newRow("method text") << QByteArray() << QJsonObject{{QStringLiteral("PT_METHOD"), QStringLiteral("gssapi")}} << "FAIL"
                                     << "\"PT_METHOD\" \"gssapi\" is no number; the library reads it as 0 (anonymous)" << "set \"PT_METHOD\" to \"8\"";
        QTest::newRow("digest without password") << QByteArray() << QJsonObject{{QStringLiteral("PT_USER_PASSWORD"), QJsonValue::Null}}
                                                 << "FAIL" << "\"PT_USER_PASSWORD\" is missing" << "set \"PT_USER_PASSWORD\" to that login's password";
        QTest::newRow("port") << QByteArray() << QJsonObject{{QStringLiteral("PT_PORT"), QStringLiteral("ldap")}} << "FAIL"
                              << "\"PT_PORT\" \"ldap\" is no port" << "set \"PT_PORT\" to the LDAP port, \"389\"";
        QTest::newRow("empty login attribute") << QByteArray() << QJsonObject{{QStringLiteral("PT_USER_ID_PARAMETER"), QString()}}
                                               << "FAIL" << "\"PT_USER_ID_PARAMETER\" is empty: the account check's filter becomes (=NAME)"
                                               << "remove \"PT_USER_ID_PARAMETER\"";
        QTest::newRow("page size") << QByteArray() << QJsonObject{{QStringLiteral("PT_PAGE_SIZE"), QStringLiteral("many")}} << "WARN"
                                   << "\"PT_PAGE_SIZE\" \"many\" is no whole number, so it is off"
                                   << "set \"PT_PAGE_SIZE\" to a whole number of entries, or remove it";
    }

    void settingsProblems()
    {
        QFETCH(QByteArray, raw);
        QFETCH(QJsonObject, changes);
        QFETCH(QString, status);
        QFETCH(QString, finding);
        QFETCH(QString, fix);
        const QString file = raw.isNull() ? settingsFile(QStringLiteral("problem.json"), changes)
                                          : writeFile(QStringLiteral("problem.json"), raw);
        const Report r = doctor({QStringLiteral("--settings"), file, QStringLiteral("--mapping"), mappingFile()},
                                withCache(QStringLiteral("settings")));
        QCOMPARE(r.status("settings"), status);
        QVERIFY2(r.finding("settings").contains(finding), qPrintable(r.finding("settings")));
        QVERIFY2(r.fix("settings").contains(fix), qPrintable(r.fix("settings")));
        if (status == QLatin1String("FAIL")) {
            QVERIFY2(r.run.exitCode == 6, describe(r.run));
            for (const char *id : {"dns", "tcp", "root-dse", "bind", "base-dn", "size-limit", "mapping", "non-ascii-logins"})
                QCOMPARE(r.reason(id), QStringLiteral("settings failed"));
        } else {
            // A warning alone does not fail the run.
            QVERIFY2(r.run.exitCode == 0, describe(r.run));
            QCOMPARE(r.document.value(QStringLiteral("failed")).toInt(-1), 0);
            QVERIFY(r.document.value(QStringLiteral("warnings")).toInt() >= 1);
        }
    }

    // ---- network

    // The skips that follow a failed connection, as the issue lists them.
    void wrongPort()
    {
        const quint16 port = closedPort();
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("port.json"), {{QStringLiteral("PT_PORT"), QString::number(port)}})},
                                withCache(QStringLiteral("port")));
        QVERIFY2(r.run.exitCode == 6, describe(r.run));
        QCOMPARE(r.status("tcp"), QStringLiteral("FAIL"));
        QCOMPARE(r.finding("tcp"), QStringLiteral("cannot connect: 127.0.0.1:%1: connect: Connection refused (errno 111)").arg(port));
        QVERIFY(r.fix("tcp").startsWith(QStringLiteral("check \"PT_PORT\" (389 for a domain controller's LDAP)")));
        for (const char *id : {"root-dse", "sasl-mechanism", "anonymous", "bind", "base-dn", "size-limit", "mapping", "non-ascii-logins"})
            QCOMPARE(r.reason(id), QStringLiteral("tcp failed"));
        QCOMPARE(r.document.value(QStringLiteral("failed")).toInt(), 1);
        QCOMPARE(r.document.value(QStringLiteral("exit")).toInt(), 6);
    }

    // The name goes to a resolver on loopback that nobody runs, in a mount
    // namespace of the test's own (nothing leaves the machine).
    void unknownHost()
    {
        const QString resolvConf = writeFile(QStringLiteral("resolv.conf"), "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n");
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("host.json"),
                                                                    {{QStringLiteral("PT_HOST"), QStringLiteral("dc1.nowhere.invalid")}})},
                                withCache(QStringLiteral("host")),
                                {QStringLiteral("bash"), QStringLiteral(ZMAUTH_BIND_OVER), resolvConf, QStringLiteral("/etc/resolv.conf")});
        QVERIFY2(r.run.exitCode == 6, describe(r.run));
        QCOMPARE(r.status("dns"), QStringLiteral("FAIL"));
        QVERIFY2(r.finding("dns").startsWith(QStringLiteral("dc1.nowhere.invalid does not resolve: getaddrinfo -")), qPrintable(r.finding("dns")));
        QVERIFY(r.fix("dns").startsWith(QStringLiteral("set \"PT_HOST\" to a name this machine resolves")));
        for (const char *id : {"tcp", "root-dse", "bind", "base-dn", "non-ascii-logins"})
            QCOMPARE(r.reason(id), QStringLiteral("dns failed"));
    }

    // A server that takes the connection and never answers.
    void silentServer()
    {
        const Silent silent(SOCK_STREAM);
        QVERIFY(silent.ok());
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("silent.json"), {{QStringLiteral("PT_PORT"), QString::number(silent.port())}}),
                                 QStringLiteral("--timeout"), QStringLiteral("2")},
                                withCache(QStringLiteral("silent")));
        QVERIFY2(r.run.exitCode == 6, describe(r.run));
        QCOMPARE(r.status("tcp"), QStringLiteral("PASS"));
        QCOMPARE(r.status("root-dse"), QStringLiteral("FAIL"));
        QVERIFY2(r.finding("root-dse").contains(QStringLiteral("-5 Timed out")) || r.finding("root-dse").contains(QStringLiteral("within 2 s")),
                 qPrintable(r.finding("root-dse")));
        for (const char *id : {"sasl-mechanism", "bind", "base-dn", "size-limit", "mapping", "non-ascii-logins"})
            QCOMPARE(r.reason(id), QStringLiteral("root-dse failed"));
    }

    // A KDC that never answers: the clock check asks it and is ended after
    // the timeout.
    void silentKdc()
    {
        const Silent udp(SOCK_DGRAM);
        QVERIFY(udp.ok());
        QFile config(env().value(QStringLiteral("KRB5_CONFIG")));
        QVERIFY(config.open(QIODevice::ReadOnly));
        QByteArray text = config.readAll();
        text.replace("kdc = 127.0.0.1:" + env().bytes(QStringLiteral("KDC_PORT")), "kdc = 127.0.0.1:" + QByteArray::number(udp.port()));
        QProcessEnvironment environment = withCache(QStringLiteral("silent-kdc"));
        environment.insert(QStringLiteral("KRB5_CONFIG"), writeFile(QStringLiteral("silent-krb5.conf"), text));
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("kdc.json")), QStringLiteral("--timeout"), QStringLiteral("2"),
                                 QStringLiteral("--user"), QStringLiteral("alice"),
                                 QStringLiteral("--keytab"), env().value(QStringLiteral("SERVICE_KEYTAB")),
                                 QStringLiteral("--service"), env().value(QStringLiteral("SERVICE_NAME"))},
                                environment);
        QVERIFY2(r.run.exitCode == 6, describe(r.run));
        QCOMPARE(r.status("clock-skew"), QStringLiteral("FAIL"));
        QCOMPARE(r.finding("clock-skew"), QStringLiteral("no answer within 2 s (--timeout): the check was ended"));
        QVERIFY(r.fix("clock-skew").startsWith(QStringLiteral("find out why the KDC does not answer")));
        // The directory checks go on: the bind is DIGEST-MD5.
        QCOMPARE(r.status("bind"), QStringLiteral("PASS"));
    }

    // ---- the directory

    void baseProblems_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("finding");
        QTest::newRow("missing") << "ou=nowhere,dc=zmauth,dc=test"
                                 << "PT_BASE_DN \"ou=nowhere,dc=zmauth,dc=test\" does not exist: ldap_search_ext_s 32 No such object "
                                    "(the server holds \"dc=zmauth,dc=test\")";
        QTest::newRow("a referral") << "ou=x,ou=elsewhere,dc=zmauth,dc=test"
                                    << "the server refers PT_BASE_DN \"ou=x,ou=elsewhere,dc=zmauth,dc=test\" elsewhere (ldap://elsewhere.zmauth.invalid/";
        QTest::newRow("no DN") << "zmauth.test" << "PT_BASE_DN \"zmauth.test\" is no DN: ldap_search_ext_s 34 Invalid DN syntax";
    }

    void baseProblems()
    {
        QFETCH(QString, base);
        QFETCH(QString, finding);
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("base.json"), {{QStringLiteral("PT_BASE_DN"), base}}),
                                 QStringLiteral("-m"), mappingFile()},
                                withCache(QStringLiteral("base")));
        QVERIFY2(r.run.exitCode == 6, describe(r.run));
        QCOMPARE(r.status("base-dn"), QStringLiteral("FAIL"));
        QVERIFY2(r.finding("base-dn").startsWith(finding), qPrintable(r.finding("base-dn")));
        QCOMPARE(r.fix("base-dn"), QStringLiteral("set \"PT_BASE_DN\" to a DN this server holds, e.g. \"dc=zmauth,dc=test\""));
        for (const char *id : {"size-limit", "mapping", "non-ascii-logins"})
            QCOMPARE(r.reason(id), QStringLiteral("base-dn failed"));
    }

    void bindRefused()
    {
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("bind.json"), {{QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("wrong")}})},
                                withCache(QStringLiteral("bind")));
        QVERIFY2(r.run.exitCode == 6, describe(r.run));
        QCOMPARE(r.finding("bind"), QStringLiteral("connect() refused: ldap_bind_s error 31 Invalid credentials (49)"));
        QCOMPARE(r.fix("bind"), QStringLiteral("check \"PT_USER\" (the login DIGEST-MD5 binds as) and \"PT_USER_PASSWORD\""));
        QCOMPARE(r.reason("base-dn"), QStringLiteral("bind failed"));
    }

    // The account check of --user after the bind.
    void accountCheck_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("tail");
        QTest::newRow("found") << "bob" << "PASS" << "; the account check finds \"bob\" (sAMAccountName)";
        QTest::newRow("not found") << "mallory" << "WARN"
                                   << "; the account check does not find \"mallory\" (sAMAccountName below \"dc=zmauth,dc=test\")";
        QTest::newRow("a star is a name") << "*" << "WARN"
                                          << "; the account check does not find \"*\" (sAMAccountName below \"dc=zmauth,dc=test\")";
        QTest::newRow("Cyrillic") << "анна" << "WARN" << "; the account check cannot find \"анна\": ldap_search_ext_s -7 Bad search filter";
    }

    void accountCheck()
    {
        QFETCH(QString, user);
        QFETCH(QString, status);
        QFETCH(QString, tail);
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("user.json")), QStringLiteral("-m"), mappingFile(),
                                 QStringLiteral("--user"), user},
                                withCache(QStringLiteral("user")));
        QVERIFY2(r.run.exitCode == 0, describe(r.run));
        QCOMPARE(r.status("bind"), status);
        QCOMPARE(r.finding("bind"), QStringLiteral("connect() returned 0: bound by DIGEST-MD5 as \"alice\"; protection: no TLS, "
                                                   "SASL SSF 128") + tail);
    }

    // The capped realm stops an unpaged search at 1000 entries, as a domain
    // controller does; pages run to the end unless larger than its limit.
    void sizeLimit_data()
    {
        QTest::addColumn<QString>("pageSetting");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("finding");
        QTest::addColumn<QString>("fix");
        QTest::newRow("no page size") << QString() << QStringList() << "FAIL"
                                      << "an unpaged search stops at 1000 of %1 user entries (ldap_search_ext_s 4 Size limit exceeded): "
                                         "without PT_PAGE_SIZE the listing fails with this code"
                                      << "set \"PT_PAGE_SIZE\" to \"500\" (at most 1000, the server's limit)";
        QTest::newRow("PT_PAGE_SIZE") << QStringLiteral("300") << QStringList() << "PASS"
                                      << "an unpaged search stops at 1000 of %1 user entries (ldap_search_ext_s 4 Size limit exceeded); "
                                         "PT_PAGE_SIZE 300 pages past it: %1 entries"
                                      << QString();
        QTest::newRow("pages above the limit") << QString() << QStringList{QStringLiteral("--page-size"), QStringLiteral("1001")} << "FAIL"
                                               << "pages of 1001 entries are refused: ldap_search_ext_s 11 Administrative limit exceeded"
                                               << "set \"PT_PAGE_SIZE\" to 1000 or less (the server's limit)";
    }

    void sizeLimit()
    {
        QFETCH(QString, pageSetting);
        QFETCH(QStringList, options);
        QFETCH(QString, status);
        QFETCH(QString, finding);
        QFETCH(QString, fix);
        QVERIFY2(cappedEnv().isValid(), "the capped realm is not running (ZMAUTH_CAPPED_REALM_DIR)");
        QJsonObject changes;
        if (!pageSetting.isNull())
            changes.insert(QStringLiteral("PT_PAGE_SIZE"), pageSetting);
        const int users = cappedEnv().value(QStringLiteral("FIXED_USER_COUNT")).toInt() + cappedEnv().value(QStringLiteral("BULK_USERS")).toInt();
        QVERIFY(users > 1000);
        const Report r = doctor(QStringList{QStringLiteral("-s"), settingsFile(QStringLiteral("capped.json"), changes, cappedEnv()),
                                            QStringLiteral("-m"), mappingFile()}
                                    + options,
                                withCache(QStringLiteral("capped"), cappedEnv()));
        QCOMPARE(r.status("size-limit"), status);
        if (finding.contains(QLatin1String("%1")))
            finding = finding.arg(users);
        QVERIFY2(r.finding("size-limit").startsWith(finding), qPrintable(r.finding("size-limit")));
        QCOMPARE(r.fix("size-limit"), fix);
        QCOMPARE(r.run.exitCode, status == QLatin1String("FAIL") ? 6 : 0);
    }

    void noUserMatches()
    {
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("filter.json"),
                                                                    {{QStringLiteral("PT_USER_FILTER"), QStringLiteral("(sAMAccountName=nobody)")}})},
                                withCache(QStringLiteral("filter")));
        QCOMPARE(r.status("size-limit"), QStringLiteral("FAIL"));
        QCOMPARE(r.finding("size-limit"), QStringLiteral("no entry matches PT_USER_FILTER \"(sAMAccountName=nobody)\" below "
                                                         "\"dc=zmauth,dc=test\": the listing fails with \"ldap_count_entries error\""));
    }

    void mapping_data()
    {
        QTest::addColumn<QByteArray>("mapping");   // a mapping file, when not null
        QTest::addColumn<QString>("setting");      // else the settings' own mapping (null: none)
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("finding");
        QTest::addColumn<QString>("fix");
        QTest::newRow("another case") << QByteArray(R"([{"Mail": "PT_EMAIL"}, {"sAMAccountName": "PT_LOGIN"}])") << QString() << "WARN"
                                      << "\"Mail\" occurs on none of the 7 sampled entries, which spell it \"mail\": mapping names are "
                                         "case-sensitive, so its values land under the empty field code"
                                      << "in the mapping file write \"mail\" instead of \"Mail\"";
        QTest::newRow("another case, in the settings") << QByteArray() << QStringLiteral(R"([{"SN": "PT_SURNAME"}])") << "WARN"
                                                       << "\"SN\" occurs on none of the 7 sampled entries, which spell it \"sn\""
                                                       << "in \"PT_USER_CUSTOM_FIELDS_PARAMETER\" write \"sn\" instead of \"SN\"";
        QTest::newRow("no such attribute") << QByteArray(R"([{"employeeNumber": "PT_WORKERNUM"}])") << QString() << "WARN"
                                           << "\"employeeNumber\" occurs on none of the 7 sampled entries"
                                           << "check the attribute's name in the mapping file, or remove it";
        QTest::newRow("unknown field code") << QByteArray(R"([{"cn": "PT_SURNAME PT_NAME PT_PATRONYMC"}])") << QString() << "FAIL"
                                            << "\"cn\" maps to \"PT_PATRONYMC\", which is in neither field catalogue"
                                            << "in the mapping file write \"PT_PATRONYMIC\" instead of \"PT_PATRONYMC\"";
        QTest::newRow("an employee field") << QByteArray(R"([{"mail": "PT_EMAIL"}])") << QString() << "PASS"
                                           << "the 1 mapped attribute occurs on the 7 sampled entries: mail (2)" << QString();
        QTest::newRow("none") << QByteArray() << QString() << "WARN"
                              << "no field mapping (\"PT_USER_CUSTOM_FIELDS_PARAMETER\" is not set): each record keeps only its last "
                                 "attribute, under an empty field code"
                              << "set \"PT_USER_CUSTOM_FIELDS_PARAMETER\" to [{\"sAMAccountName\": \"PT_LOGIN\"}, "
                                 "{\"cn\": \"PT_SURNAME PT_NAME PT_PATRONYMIC\"}]";
        QTest::newRow("not JSON") << QByteArray() << QStringLiteral("[{\"cn\": ") << "FAIL"
                                  << "\"PT_USER_CUSTOM_FIELDS_PARAMETER\" is not valid JSON: "
                                  << "write \"PT_USER_CUSTOM_FIELDS_PARAMETER\" as a JSON array of one-member objects";
        QTest::newRow("two members") << QByteArray(R"([{"sAMAccountName": "PT_LOGIN", "cn": "PT_NAME"}])") << QString() << "WARN"
                                     << "the mapping file: element 0 has 2 members; only \"cn\" (first in key order) counts"
                                     << "write each element of the mapping file as one object with one member";
    }

    void mapping()
    {
        QFETCH(QByteArray, mapping);
        QFETCH(QString, setting);
        QFETCH(QString, status);
        QFETCH(QString, finding);
        QFETCH(QString, fix);
        QJsonObject changes;
        if (!setting.isNull())
            changes.insert(QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), setting);
        QStringList args{QStringLiteral("-s"), settingsFile(QStringLiteral("mapping-settings.json"), changes)};
        if (!mapping.isNull())
            args << QStringLiteral("-m") << writeFile(QStringLiteral("the-mapping.json"), mapping);
        Report r = doctor(args, withCache(QStringLiteral("mapping")));
        QCOMPARE(r.status("mapping"), status);
        // Findings name the file by its path.
        const QString found = r.finding("mapping").replace(m_dir.filePath(QStringLiteral("the-mapping.json")), QStringLiteral("the mapping file"));
        QVERIFY2(found.startsWith(finding), qPrintable(found));
        QVERIFY2(r.fix("mapping").startsWith(fix), qPrintable(r.fix("mapping")));
    }

    // ivan's given name is Cyrillic: a login attribute that holds it shows
    // the account check's cut, with the library's own answer.
    void cyrillicLogins()
    {
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("cyr.json"),
                                                                    {{QStringLiteral("PT_USER_ID_PARAMETER"), QStringLiteral("givenName")}}),
                                 QStringLiteral("-m"), mappingFile()},
                                withCache(QStringLiteral("cyr")));
        QVERIFY2(r.run.exitCode == 0, describe(r.run));
        QCOMPARE(r.status("non-ascii-logins"), QStringLiteral("WARN"));
        QCOMPARE(r.finding("non-ascii-logins"),
                 QStringLiteral("read 7 user entries in pages of 500: 1 of 3 logins (givenName; 4 of the 7 entries have none) is not "
                                "ASCII: Иван; the account "
                                "check cuts its filter to as many bytes as it has UTF-16 units, so it cannot find them: "
                                "checkADUser(\"Иван\") answers not found (ldap_search_ext_s -7 Bad search filter)"));
        QCOMPARE(r.fix("non-ascii-logins"), QStringLiteral("give these accounts ASCII logins, or set \"PT_USER_ID_PARAMETER\" to an "
                                                           "attribute whose values are ASCII (e.g. userPrincipalName)"));
    }

    // One Cyrillic login (ivan's given name) among the capped realm's 1,507
    // entries, past the 1000 an unpaged search returns: every entry is read,
    // in pages of the settings' size or 500, and the one login is found.
    void cyrillicLoginAmongAllEntries_data()
    {
        QTest::addColumn<QString>("pageSize"); // PT_PAGE_SIZE, or empty
        QTest::addColumn<int>("pages");
        QTest::newRow("default pages") << QString() << 500;
        QTest::newRow("PT_PAGE_SIZE 300") << QStringLiteral("300") << 300;
    }

    void cyrillicLoginAmongAllEntries()
    {
        QFETCH(QString, pageSize);
        QFETCH(int, pages);
        QVERIFY2(cappedEnv().isValid(), "the capped realm is not running (ZMAUTH_CAPPED_REALM_DIR)");
        const int users = cappedEnv().value(QStringLiteral("FIXED_USER_COUNT")).toInt() + cappedEnv().value(QStringLiteral("BULK_USERS")).toInt();
        QVERIFY(users > 1000);
        QJsonObject changes{{QStringLiteral("PT_USER_ID_PARAMETER"), QStringLiteral("givenName")}};
        if (!pageSize.isEmpty())
            changes.insert(QStringLiteral("PT_PAGE_SIZE"), pageSize);
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("cyr-capped.json"), changes, cappedEnv()),
                                 QStringLiteral("-m"), mappingFile(), QStringLiteral("--timeout"), QStringLiteral("30")},
                                withCache(QStringLiteral("cyr-capped"), cappedEnv()));
        QCOMPARE(r.status("non-ascii-logins"), QStringLiteral("WARN"));
        // Four of the fixed entries have no given name.
        QCOMPARE(r.finding("non-ascii-logins"),
                 QStringLiteral("read %1 user entries in pages of %2: 1 of %3 logins (givenName; 4 of the %1 entries have none) "
                                "is not ASCII: Иван; the account check cuts its filter to as many bytes as it has UTF-16 units, "
                                "so it cannot find them: checkADUser(\"Иван\") answers not found (ldap_search_ext_s -7 Bad search "
                                "filter)")
                     .arg(users)
                     .arg(pages)
                     .arg(users - 4));
    }

    void loginAttributeNobodyHas()
    {
        const Report r = doctor({QStringLiteral("-s"), settingsFile(QStringLiteral("uid.json"), {{QStringLiteral("PT_USER_ID_PARAMETER"), QStringLiteral("uid")}}),
                                 QStringLiteral("-m"), mappingFile()},
                                withCache(QStringLiteral("uid")));
        QCOMPARE(r.status("non-ascii-logins"), QStringLiteral("WARN"));
        QCOMPARE(r.finding("non-ascii-logins"),
                 QStringLiteral("read 7 user entries in pages of 500: none has uid, so the account check finds none of them"));
    }

    // ---- Kerberos

    void tickets_data()
    {
        QTest::addColumn<QString>("offset");   // faketime's, or empty
        QTest::addColumn<bool>("withTicket");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("finding");
        QTest::newRow("absent") << QString() << false << "FAIL" << "no ticket: the credential cache FILE:";
        QTest::newRow("expired") << QStringLiteral("+11 hours") << true << "FAIL" << "the ticket of alice@ZMAUTH.TEST in FILE:";
        QTest::newRow("ending") << QStringLiteral("+9 hours 30 minutes") << true << "WARN" << "alice@ZMAUTH.TEST in FILE:";
    }

    void tickets()
    {
        QFETCH(QString, offset);
        QFETCH(bool, withTicket);
        QFETCH(QString, status);
        QFETCH(QString, finding);
        const QProcessEnvironment environment = withCache(QStringLiteral("ticket-") + QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-')));
        if (withTicket)
            QVERIFY(kinit(environment));
        const Report r = doctor({QStringLiteral("-s"), gssapiSettings(QStringLiteral("ticket.json"))}, environment,
                                offset.isEmpty() ? QStringList() : faketime(offset));
        QCOMPARE(r.status("ticket"), status);
        QVERIFY2(r.finding("ticket").startsWith(finding), qPrintable(r.finding("ticket")));
        QVERIFY2(r.fix("ticket").startsWith(QStringLiteral("get a ticket as the account the system runs as: kinit ")), qPrintable(r.fix("ticket")));
        if (status == QLatin1String("FAIL")) {
            QVERIFY2(r.run.exitCode == 6, describe(r.run));
            QCOMPARE(r.reason("bind"), QStringLiteral("ticket failed"));
            QCOMPARE(r.reason("mapping"), QStringLiteral("ticket failed"));
        }
        if (QTest::currentDataTag() == QLatin1String("expired"))
            QVERIFY(r.finding("ticket").contains(QStringLiteral(" expired at ")));
        if (QTest::currentDataTag() == QLatin1String("absent"))
            QVERIFY(r.finding("ticket").contains(QStringLiteral("No credentials cache found")));
        if (QTest::currentDataTag() == QLatin1String("ending"))
            QVERIFY(r.finding("ticket").endsWith(QStringLiteral(": less than an hour left")));
    }

    // The local clock moved against the KDC's, measured two ways: from the
    // KDC's answer to an initial request (a principal that needs
    // pre-authentication), and from a fresh ticket's start (one that does not).
    void clockSkew_data()
    {
        QTest::addColumn<QString>("offset");
        QTest::addColumn<bool>("serviceTicket");
        QTest::addColumn<QString>("status");
        QTest::addColumn<int>("skew");
        QTest::newRow("on time") << QString() << false << "PASS" << 0;
        QTest::newRow("2 min ahead") << QStringLiteral("+120 seconds") << false << "WARN" << 120;
        QTest::newRow("2 min behind") << QStringLiteral("-120 seconds") << false << "WARN" << -120;
        QTest::newRow("7 min ahead") << QStringLiteral("+420 seconds") << false << "FAIL" << 420;
        QTest::newRow("2 min ahead, fresh ticket") << QStringLiteral("+120 seconds") << true << "WARN" << 120;
        QTest::newRow("7 min ahead, fresh ticket") << QStringLiteral("+420 seconds") << true << "FAIL" << 420;
    }

    void clockSkew()
    {
        QFETCH(QString, offset);
        QFETCH(bool, serviceTicket);
        QFETCH(QString, status);
        QFETCH(int, skew);
        const QProcessEnvironment environment = withCache(QStringLiteral("clock-%1-%2").arg(skew).arg(serviceTicket));
        // The ticket comes from the real clock.
        if (serviceTicket)
            QVERIFY(kinit(environment, {QStringLiteral("-k"), QStringLiteral("-t"), env().value(QStringLiteral("SERVICE_KEYTAB")),
                                        env().value(QStringLiteral("SERVICE_PRINCIPAL"))}));
        else
            QVERIFY(kinit(environment));
        const Report r = doctor({QStringLiteral("-s"), gssapiSettings(QStringLiteral("clock.json"))}, environment,
                                offset.isEmpty() ? QStringList() : faketime(offset));
        QCOMPARE(r.status("clock-skew"), status);
        const QString finding = r.finding("clock-skew");
        if (serviceTicket && status == QLatin1String("FAIL")) {
            // Beyond its allowance the KDC gives no ticket, hence no time.
            QCOMPARE(finding, QStringLiteral("the KDC refuses this machine's clock: Clock skew too great (more than 300 s apart)"));
        } else {
            QVERIFY2(qAbs(measuredSkew(finding) - skew) <= 2, qPrintable(finding));
            QVERIFY2(finding.contains(serviceTicket ? QStringLiteral("the KDC's (the start of a fresh ticket for HTTP/localhost@ZMAUTH.TEST at ")
                                                    : QStringLiteral("the KDC's (its answer to an initial request for alice@ZMAUTH.TEST at ")),
                     qPrintable(finding));
        }
        if (status != QLatin1String("PASS"))
            QCOMPARE(r.fix("clock-skew"), QStringLiteral("synchronise this machine's clock with the domain's (NTP against the domain "
                                                         "controllers); Kerberos refuses clocks more than 300 s apart"));
    }

    void keytab_data()
    {
        QTest::addColumn<QString>("keytab");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("finding");
        QTest::newRow("the service's") << env().value(QStringLiteral("SSO_KEYTAB")) << "PASS"
                                       << "%1: HTTP/localhost@ZMAUTH.TEST kvno 1; enctypes aes256-cts-hmac-sha1-96, aes128-cts-hmac-sha1-96";
        QTest::newRow("without the service") << env().value(QStringLiteral("LDAP_KEYTAB")) << "FAIL"
                                             << "%1 holds no key for HTTP/localhost (it holds ldap/localhost@ZMAUTH.TEST, ";
        QTest::newRow("missing") << QStringLiteral("no-such.keytab") << "FAIL" << "cannot read the keytab %1: no such file";
        QTest::newRow("not a keytab") << QStringLiteral("not-a.keytab") << "FAIL" << "%1 is no keytab: ";
    }

    void keytab()
    {
        QFETCH(QString, keytab);
        QFETCH(QString, status);
        QFETCH(QString, finding);
        QString path = keytab;
        if (keytab == QLatin1String("not-a.keytab"))
            path = writeFile(keytab, "{\"PT_HOST\": \"x\"}\n");
        else if (!keytab.startsWith(QLatin1Char('/')))
            path = m_dir.filePath(keytab);
        const QProcessEnvironment environment = withCache(QStringLiteral("keytab"));
        QVERIFY(kinit(environment));
        const Report r = doctor({QStringLiteral("-s"), gssapiSettings(QStringLiteral("keytab.json")), QStringLiteral("--keytab"), path,
                                 QStringLiteral("--service"), env().value(QStringLiteral("SERVICE_NAME"))},
                                environment);
        QCOMPARE(r.status("keytab"), status);
        QVERIFY2(r.finding("keytab").startsWith(finding.arg(path)), qPrintable(r.finding("keytab")));
        if (status == QLatin1String("FAIL")) {
            QCOMPARE(r.reason("sso"), QStringLiteral("keytab failed"));
            QVERIFY2(r.run.exitCode == 6, describe(r.run));
        } else {
            QCOMPARE(r.status("sso"), QStringLiteral("PASS"));
        }
        if (QTest::currentDataTag() == QLatin1String("without the service"))
            QCOMPARE(r.fix("keytab"), QStringLiteral("export the key of HTTP/localhost into the keytab (in a domain: from the account "
                                                     "that holds the service principal name HTTP/localhost), or give --keytab the "
                                                     "keytab that holds it"));
    }

    // A realm of the test's own: the service's key changed behind the
    // keytab's back, then the KDC stopped.
    void changedServiceKeyThenStoppedKdc()
    {
        const OwnRealm realm;
        QVERIFY2(realm.isValid(), qPrintable(realm.error()));
        const RealmEnv &own = realm.env();

        QProcessEnvironment environment = withCache(QStringLiteral("own"), own);
        environment.insert(QStringLiteral("KRB5_KDC_PROFILE"), own.value(QStringLiteral("KRB5_KDC_PROFILE")));
        QVERIFY(kinit(environment, QStringList(), own));
        const ToolRun changed = runCommand(QStringLiteral("kadmin.local"), {QStringLiteral("-r"), own.value(QStringLiteral("KRB5_REALM")),
                                                                           QStringLiteral("-q"), QStringLiteral("cpw -randkey HTTP/localhost")},
                                           QByteArray(), environment);
        QVERIFY2(changed.exitCode == 0, describe(changed));
        const QStringList args{QStringLiteral("-s"), gssapiSettings(QStringLiteral("own.json"), own), QStringLiteral("--keytab"),
                               own.value(QStringLiteral("SERVICE_KEYTAB")), QStringLiteral("--service"), own.value(QStringLiteral("SERVICE_NAME"))};
        const Report stale = doctor(args, environment);
        QVERIFY2(stale.run.exitCode == 6, describe(stale.run));
        QCOMPARE(stale.statuses(), expected("PASS PASS PASS PASS SKIP SKIP PASS PASS SKIP PASS PASS PASS PASS PASS PASS PASS PASS SKIP FAIL"));
        QVERIFY2(stale.finding("sso").startsWith(QStringLiteral("acceptNew failed: Accept sec context failed: Unspecified GSS failure. ")), qPrintable(stale.finding("sso")));
        QVERIFY2(stale.finding("sso").contains(QStringLiteral("kvno 2 not found in keytab")), qPrintable(stale.finding("sso")));
        // The cause: the key the KDC used, and what the keytab holds instead.
        QVERIFY2(stale.finding("sso").contains(QStringLiteral("; the KDC encrypts tickets for HTTP/localhost with its kvno 2 ")),
                 qPrintable(stale.finding("sso")));
        QVERIFY2(stale.finding("sso").contains(QStringLiteral(" key, and the keytab has no key of kvno 2 (it holds kvno 1 ")),
                 qPrintable(stale.finding("sso")));
        QCOMPARE(stale.fix("sso"), QStringLiteral("the keytab does not hold the key the KDC uses for the service: export it again"));

        // The KDC ends: its port refuses, and the clock check says so.
        QVERIFY(realm.endServer("KDC_PID", SIGTERM));
        const Report stopped = doctor(args, environment);
        QCOMPARE(stopped.status("clock-skew"), QStringLiteral("FAIL"));
        QVERIFY2(stopped.finding("clock-skew").startsWith(QStringLiteral("cannot ask the KDC for its time: Cannot contact any KDC for realm")),
                 qPrintable(stopped.finding("clock-skew")));
        QCOMPARE(stopped.fix("clock-skew"), QStringLiteral("check the realm's kdc entry in krb5.conf (KRB5_CONFIG) and that the KDC runs"));
    }
};

QTEST_GUILESS_MAIN(DoctorTest)
#include "tst_doctor.moc"
