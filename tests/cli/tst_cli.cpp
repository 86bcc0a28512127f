// Runs the zmauth binary with QProcess: exit codes, what goes to standard
// output and what to standard error, and JSON output parsed back.
#include "realmenv.h"
#include "toolrun.h"

#include "authdata.h"
#include "zmlogin.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

using Run = ToolRun;

// Runs the tool on a pseudo-terminal. Reads what it writes until `until`
// shows up (or the time is up), then answers with `input`, then reads to the
// end. Reports the terminal's echo flag while the tool waited for input.
struct PtyRun {
    QByteArray screen;
    bool echoWhileReading = true;
    bool echoAfter = false;
    int exitCode = -1;
    int signal = 0;
};

// How long to wait for the tool on its terminal: a guard against a hang only,
// many times what the slowest run needs, since the reads end at the awaited
// text or at the end of output.
constexpr int ptyGuardMs = 60000;

QByteArray readPty(int fd, int ms, const QByteArray &until = QByteArray())
{
    QByteArray data;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0)
            continue;
        char buffer[512];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        data.append(buffer, int(n));
        if (!until.isEmpty() && data.contains(until))
            break;
    }
    return data;
}

PtyRun runOnTerminal(const QStringList &args, const QByteArray &input, bool interrupt = false)
{
    PtyRun result;
    QList<QByteArray> argBytes{QByteArrayLiteral(ZMAUTH_TOOL_PATH)};
    for (const QString &arg : args)
        argBytes << arg.toLocal8Bit();
    std::vector<char *> argv;
    for (QByteArray &arg : argBytes)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    int fd = -1;
    const pid_t pid = forkpty(&fd, nullptr, nullptr, nullptr);
    if (pid < 0)
        return result;
    if (pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    result.screen = readPty(fd, ptyGuardMs, "Password");
    // The tool switches echo off before it prompts.
    termios attributes;
    if (tcgetattr(fd, &attributes) == 0)
        result.echoWhileReading = attributes.c_lflag & ECHO;
    if (interrupt)
        kill(pid, SIGINT);
    else
        (void)!write(fd, input.constData(), size_t(input.size()));
    result.screen += readPty(fd, ptyGuardMs);
    int status = 0;
    waitpid(pid, &status, 0);
    if (tcgetattr(fd, &attributes) == 0)
        result.echoAfter = attributes.c_lflag & ECHO;
    close(fd);
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

} // namespace

class CliTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    const RealmEnv &env() const { return RealmEnv::get(); }

    QString writeFile(const QString &name, const QByteArray &data) { return ::writeFile(m_dir.filePath(name), data); }

    // The realm with bulk users and a domain controller's size limits.
    static const RealmEnv &cappedEnv()
    {
        static const RealmEnv env = RealmEnv::fromDir(qEnvironmentVariable("ZMAUTH_CAPPED_REALM_DIR"));
        return env;
    }

    QString settingsFile(const QString &name, const QJsonObject &changes = QJsonObject(), const RealmEnv &realm = RealmEnv::get())
    {
        return writeSettingsFile(m_dir.filePath(name), realm, changes);
    }

    static QByteArray nameMapping()
    {
        return QByteArrayLiteral(R"([{"cn": "PT_SURNAME PT_NAME PT_PATRONYMIC"}, {"sAMAccountName": "PT_LOGIN"}])");
    }

    QStringList fixedUsers() const
    {
        QStringList users = env().value(QStringLiteral("FIXED_USERS")).split(QLatin1Char(' '), Qt::SkipEmptyParts);
        users.sort();
        return users;
    }

    QStringList ssoArgs(const QString &user, const QString &keytabKey = QStringLiteral("SSO_KEYTAB")) const
    {
        return {QStringLiteral("sso"), QStringLiteral("--user"), user,
                QStringLiteral("--realm"), env().value(QStringLiteral("KRB5_REALM")),
                QStringLiteral("--target"), env().value(QStringLiteral("SERVICE_NAME")),
                QStringLiteral("--keytab"), env().value(keytabKey)};
    }

    // Each "logins" list of a JSON listing, sorted.
    static QStringList loginsOf(const QJsonArray &records)
    {
        QStringList logins;
        for (const QJsonValue &record : records)
            logins << record.toObject().value(QStringLiteral("params")).toObject().value(QStringLiteral("PT_LOGIN")).toString();
        logins.sort();
        return logins;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(QFileInfo(QStringLiteral(ZMAUTH_TOOL_PATH)).isExecutable(), ZMAUTH_TOOL_PATH);
    }

    // ---- no server needed

    void helpOnEveryCommand_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("usage");
        QTest::newRow("top") << QStringList{QStringLiteral("--help")} << QStringLiteral("Usage: zmauth COMMAND");
        QTest::newRow("version") << QStringList{QStringLiteral("version"), QStringLiteral("--help")} << QStringLiteral("Usage: zmauth version");
        QTest::newRow("hash") << QStringList{QStringLiteral("hash"), QStringLiteral("--help")} << QStringLiteral("Usage: zmauth hash");
        QTest::newRow("ldap") << QStringList{QStringLiteral("ldap"), QStringLiteral("--help")} << QStringLiteral("Usage: zmauth ldap users");
        QTest::newRow("ldap users") << QStringList{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--help")} << QStringLiteral("Usage: zmauth ldap users");
        QTest::newRow("ldap check") << QStringList{QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("-h")} << QStringLiteral("Usage: zmauth ldap check");
        QTest::newRow("sso") << QStringList{QStringLiteral("sso"), QStringLiteral("--help")} << QStringLiteral("Usage: zmauth sso");
    }

    void helpOnEveryCommand()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, usage);
        const Run run = runTool(args);
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.outText().startsWith(usage), describe(run));
        QVERIFY2(run.outText().contains(QStringLiteral("Exit status:")), describe(run));
        QVERIFY2(run.outText().contains(QStringLiteral("  5  a single sign-on step failed")), describe(run));
        QVERIFY2(run.err.isEmpty(), describe(run));
    }

    void usageErrors_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("no command") << QStringList{};
        QTest::newRow("unknown command") << QStringList{QStringLiteral("frobnicate")};
        QTest::newRow("unknown option") << QStringList{QStringLiteral("hash"), QStringLiteral("--bogus")};
        QTest::newRow("unknown algorithm") << QStringList{QStringLiteral("hash"), QStringLiteral("--algorithm"), QStringLiteral("crc32")};
        QTest::newRow("password on command line") << QStringList{QStringLiteral("hash"), QStringLiteral("secret")};
        QTest::newRow("ldap without subcommand") << QStringList{QStringLiteral("ldap")};
        QTest::newRow("ldap unknown subcommand") << QStringList{QStringLiteral("ldap"), QStringLiteral("groups")};
        QTest::newRow("users without settings") << QStringList{QStringLiteral("ldap"), QStringLiteral("users")};
        QTest::newRow("users bad format") << QStringList{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--settings"), QStringLiteral("x.json"), QStringLiteral("--format"), QStringLiteral("xml")};
        QTest::newRow("check without name") << QStringList{QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("--settings"), QStringLiteral("x.json")};
        QTest::newRow("check two names") << QStringList{QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("--settings"), QStringLiteral("x.json")};
        QTest::newRow("users page size not a number") << QStringList{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--settings"), QStringLiteral("x.json"), QStringLiteral("--page-size"), QStringLiteral("ten")};
        QTest::newRow("check negative timeout") << QStringList{QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("a"), QStringLiteral("--settings"), QStringLiteral("x.json"), QStringLiteral("--timeout=-1")};
        QTest::newRow("sso without target") << QStringList{QStringLiteral("sso"), QStringLiteral("--user"), QStringLiteral("a"), QStringLiteral("--realm"), QStringLiteral("R"), QStringLiteral("--keytab"), QStringLiteral("k")};
    }

    void usageErrors()
    {
        QFETCH(QStringList, args);
        const Run run = runTool(args);
        QVERIFY2(run.exitCode == 2, describe(run));
        QVERIFY2(run.out.isEmpty(), describe(run));
        QVERIFY2(!run.err.isEmpty(), describe(run));
    }

    // Both directory commands take the page size and the timeout; check also --raw.
    void directoryOptionsInHelp_data()
    {
        QTest::addColumn<QString>("sub");
        QTest::addColumn<QStringList>("options");
        QTest::newRow("users") << QStringLiteral("users") << QStringList{QStringLiteral("--page-size <N>"), QStringLiteral("--timeout <S>")};
        QTest::newRow("check") << QStringLiteral("check")
                               << QStringList{QStringLiteral("--page-size <N>"), QStringLiteral("--timeout <S>"), QStringLiteral("--raw")};
    }

    void directoryOptionsInHelp()
    {
        QFETCH(QString, sub);
        QFETCH(QStringList, options);
        const Run run = runTool({QStringLiteral("ldap"), sub, QStringLiteral("--help")});
        QVERIFY2(run.exitCode == 0, describe(run));
        for (const QString &option : options)
            QVERIFY2(run.outText().contains(option), describe(run));
        QVERIFY2(run.outText().contains(QStringLiteral("PT_PAGE_SIZE")) && run.outText().contains(QStringLiteral("PT_TIMEOUT")),
                 describe(run));
    }

    void numbersAreWholeNumbers()
    {
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--settings"), QStringLiteral("x.json"),
                                 QStringLiteral("--page-size"), QStringLiteral("1.5")});
        QVERIFY2(run.exitCode == 2, describe(run));
        QCOMPARE(run.errText(), QStringLiteral("zmauth ldap users: --page-size takes a whole number, not '1.5'\n"
                                               "Try 'zmauth ldap users --help'.\n"));
    }

    // Commands that take no arguments say which one they did not expect;
    // hash says where the password comes from instead.
    void unexpectedArgumentIsAUsageError_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("err");
        QTest::newRow("version") << QStringList{QStringLiteral("version"), QStringLiteral("extra")}
                                 << QStringLiteral("zmauth version: unexpected argument 'extra'\n"
                                                   "Try 'zmauth version --help'.\n");
        QTest::newRow("ldap users") << QStringList{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("extra"),
                                                   QStringLiteral("--settings"), QStringLiteral("x.json")}
                                    << QStringLiteral("zmauth ldap users: unexpected argument 'extra'\n"
                                                      "Try 'zmauth ldap users --help'.\n");
        QTest::newRow("sso") << QStringList{QStringLiteral("sso"), QStringLiteral("extra")}
                             << QStringLiteral("zmauth sso: unexpected argument 'extra'\n"
                                               "Try 'zmauth sso --help'.\n");
        QTest::newRow("hash") << QStringList{QStringLiteral("hash"), QStringLiteral("secret")}
                              << QStringLiteral("zmauth hash: the password is read from standard input, not from the "
                                                "command line\n");
    }

    void unexpectedArgumentIsAUsageError()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, err);
        const Run run = runTool(args);
        QVERIFY2(run.exitCode == 2, describe(run));
        QVERIFY2(run.out.isEmpty(), describe(run));
        QCOMPARE(run.errText(), err);
    }

    void version()
    {
        const Run run = runTool({QStringLiteral("version")});
        QVERIFY2(run.exitCode == 0, describe(run));
        // The tool loads the same library as this test.
        QCOMPARE(run.outText(), getLibraryVersion_zmauth() + QLatin1Char('\n'));
        QVERIFY(run.outText().startsWith(QStringLiteral("1.0.0")));
    }

    void hash_data()
    {
        QTest::addColumn<QString>("algorithm");
        QTest::addColumn<int>("qtAlgorithm");
        QTest::addColumn<QString>("tag");
        QTest::newRow("md4") << "md4" << int(QCryptographicHash::Md4) << "MD4";
        QTest::newRow("md5") << "md5" << int(QCryptographicHash::Md5) << "MD5";
        QTest::newRow("sha1") << "sha1" << int(QCryptographicHash::Sha1) << "SHA1";
        QTest::newRow("sha3-256") << "sha3-256" << int(QCryptographicHash::RealSha3_256) << "SHA3_256";
        QTest::newRow("SHA3_256 spelled as the tag") << "SHA3_256" << int(QCryptographicHash::RealSha3_256) << "SHA3_256";
        QTest::newRow("sha256 untagged") << "sha256" << int(QCryptographicHash::Sha256) << "";
        QTest::newRow("sha512 untagged") << "sha512" << int(QCryptographicHash::Sha512) << "";
        QTest::newRow("keccak-256 untagged") << "keccak-256" << int(QCryptographicHash::Keccak_256) << "";
    }

    void hash()
    {
        QFETCH(QString, algorithm);
        QFETCH(int, qtAlgorithm);
        QFETCH(QString, tag);
        const QString password = QStringLiteral("Ёжик-secret");
        const Run run = runTool({QStringLiteral("hash"), QStringLiteral("--algorithm"), algorithm}, password.toUtf8() + '\n');
        QVERIFY2(run.exitCode == 0, describe(run));
        const QString expected = tag + QLatin1Char(':')
            + QString::fromLatin1(QCryptographicHash::hash(password.toUtf8(), QCryptographicHash::Algorithm(qtAlgorithm)).toHex());
        QCOMPARE(run.outText(), expected + QLatin1Char('\n'));
        QCOMPARE(run.outText().trimmed(), PassHash::encrypt(password, QCryptographicHash::Algorithm(qtAlgorithm)));
        // Not on a terminal: no prompt.
        QVERIFY2(run.err.isEmpty(), describe(run));
    }

    void hashDefaultsAndLineEnds()
    {
        const QString sha3 = PassHash::encrypt(QStringLiteral("pw"), QCryptographicHash::RealSha3_256);
        QCOMPARE(runTool({QStringLiteral("hash")}, "pw\n").outText().trimmed(), sha3);
        QCOMPARE(runTool({QStringLiteral("hash")}, "pw").outText().trimmed(), sha3);
        QCOMPARE(runTool({QStringLiteral("hash")}, "pw\r\n").outText().trimmed(), sha3);
        // Only the first line is the password.
        QCOMPARE(runTool({QStringLiteral("hash")}, "pw\nmore\n").outText().trimmed(), sha3);
        // No input: the empty password, whose MD5 is well known.
        const Run empty = runTool({QStringLiteral("hash"), QStringLiteral("-a"), QStringLiteral("md5")});
        QCOMPARE(empty.exitCode, 0);
        QCOMPARE(empty.outText(), QStringLiteral("MD5:d41d8cd98f00b204e9800998ecf8427e\n"));
    }

    void hashFromTerminalWithoutEcho()
    {
        const PtyRun run = runOnTerminal({QStringLiteral("hash"), QStringLiteral("-a"), QStringLiteral("md5")}, "secret\n");
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(!run.echoWhileReading, run.screen);
        QVERIFY2(run.screen.startsWith("Password: "), run.screen);
        QVERIFY2(!run.screen.contains("secret"), run.screen);
        QVERIFY2(run.screen.contains(PassHash::encrypt(QStringLiteral("secret"), QCryptographicHash::Md5).toLatin1()), run.screen);
        QVERIFY(run.echoAfter);
    }

    void interruptedPromptRestoresEcho()
    {
        const PtyRun run = runOnTerminal({QStringLiteral("hash")}, QByteArray(), true);
        QCOMPARE(run.signal, SIGINT);
        QVERIFY(!run.echoWhileReading);
        QVERIFY(run.echoAfter);
    }

    void badInputFiles_data()
    {
        QTest::addColumn<QByteArray>("settings");
        QTest::addColumn<QByteArray>("mapping");
        QTest::addColumn<QString>("message");
        QTest::newRow("settings not JSON") << QByteArray("{PT_HOST: x") << QByteArray() << "is not valid JSON";
        QTest::newRow("settings an array") << QByteArray("[]") << QByteArray() << "must hold a JSON object";
        QTest::newRow("settings value null") << QByteArray(R"({"PT_HOST": null})") << QByteArray() << "\"PT_HOST\" must be text";
        // A name is shown as JSON writes it, so that the message stays one line.
        QTest::newRow("settings name with line breaks") << QByteArray(R"({"PT_\nHOST\r": null})") << QByteArray()
                                                        << R"("PT_\nHOST\r" must be text)";
        QTest::newRow("mapping not JSON") << QByteArray("{}") << QByteArray("[{") << "is not valid JSON";
        QTest::newRow("mapping an object") << QByteArray("{}") << QByteArray(R"({"cn": "PT_NAME"})") << "not a JSON array";
    }

    void badInputFiles()
    {
        QFETCH(QByteArray, settings);
        QFETCH(QByteArray, mapping);
        QFETCH(QString, message);
        QStringList args{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--settings"),
                         writeFile(QStringLiteral("bad-settings.json"), settings)};
        if (!mapping.isNull())
            args << QStringLiteral("--mapping") << writeFile(QStringLiteral("bad-mapping.json"), mapping);
        const Run run = runTool(args);
        QVERIFY2(run.exitCode == 2, describe(run));
        QVERIFY2(run.out.isEmpty(), describe(run));
        QVERIFY2(run.errText().contains(message), describe(run));
        QCOMPARE(run.errLines().size(), 1);
    }

    void missingFiles()
    {
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("alice"),
                                 QStringLiteral("--settings"), m_dir.filePath(QStringLiteral("absent.json"))});
        QVERIFY2(run.exitCode == 2, describe(run));
        QVERIFY2(run.errText().contains(QStringLiteral("cannot read")), describe(run));

        QStringList args = ssoArgs(QStringLiteral("alice"));
        args.last() = m_dir.filePath(QStringLiteral("absent.keytab"));
        const Run sso = runTool(args, "pw\n");
        QVERIFY2(sso.exitCode == 2, describe(sso));
        QVERIFY2(sso.errText().contains(QStringLiteral("cannot read keytab")), describe(sso));
    }

    // ---- against the realm

    void realmIsThere()
    {
        QVERIFY2(env().isValid(), "ZMAUTH_REALM_DIR/realm.env is missing: run through ctest");
    }

    void usersTable()
    {
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"),
                                 QStringLiteral("--settings"), settingsFile(QStringLiteral("s.json")),
                                 QStringLiteral("--mapping"), writeFile(QStringLiteral("m.json"), nameMapping())});
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.err.isEmpty(), describe(run));
        const QStringList lines = run.outLines();
        const int users = env().value(QStringLiteral("FIXED_USER_COUNT")).toInt();
        QVERIFY(users > 0);
        // Header, rule, one row per user, the count.
        QCOMPARE(lines.size(), users + 3);
        QCOMPARE(lines.at(0).split(QLatin1Char(' '), Qt::SkipEmptyParts),
                 (QStringList{QStringLiteral("PT_SURNAME"), QStringLiteral("PT_NAME"), QStringLiteral("PT_PATRONYMIC"), QStringLiteral("PT_LOGIN")}));
        QVERIFY(lines.at(1).contains(QRegularExpression(QStringLiteral("^-+  -+  -+  -+$"))));
        QCOMPARE(lines.last(), QStringLiteral("%1 records of type OT_USER").arg(users));
        // Columns line up: every field starts where its header does.
        const int loginColumn = lines.at(0).indexOf(QStringLiteral("PT_LOGIN"));
        bool sawAlice = false, sawIvan = false;
        for (int i = 2; i < lines.size() - 1; ++i) {
            const QString row = lines.at(i);
            QVERIFY2(row.size() > loginColumn && row.at(loginColumn - 1) == QLatin1Char(' ') && row.at(loginColumn) != QLatin1Char(' '),
                     qPrintable(row));
            if (row.mid(loginColumn) == QLatin1String("alice")) {
                QCOMPARE(row.split(QLatin1Char(' '), Qt::SkipEmptyParts),
                         (QStringList{QStringLiteral("Smith"), QStringLiteral("Alice"), QStringLiteral("Marie"), QStringLiteral("alice")}));
                sawAlice = true;
            }
            if (row.mid(loginColumn) == QLatin1String("ivan")) {
                QCOMPARE(row.split(QLatin1Char(' '), Qt::SkipEmptyParts),
                         (QStringList{QStringLiteral("Иванов"), QStringLiteral("Иван"), QStringLiteral("Иванович"), QStringLiteral("ivan")}));
                sawIvan = true;
            }
        }
        QVERIFY(sawAlice);
        QVERIFY(sawIvan);
    }

    void usersJson()
    {
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--format"), QStringLiteral("json"),
                                 QStringLiteral("--settings"), settingsFile(QStringLiteral("s.json")),
                                 QStringLiteral("--mapping"), writeFile(QStringLiteral("m.json"), nameMapping())});
        QVERIFY2(run.exitCode == 0, describe(run));
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(run.out, &error);
        QVERIFY2(error.error == QJsonParseError::NoError, qPrintable(error.errorString()));
        QVERIFY(doc.isArray());
        const QJsonArray records = doc.array();
        QCOMPARE(loginsOf(records), fixedUsers());
        QSet<QString> seen;
        for (const QJsonValue &value : records) {
            const QJsonObject record = value.toObject();
            QCOMPARE(record.value(QStringLiteral("type")).toString(), QStringLiteral("OT_USER"));
            const QJsonObject params = record.value(QStringLiteral("params")).toObject();
            // Only the mapped fields, each of them present (missing words as empty text).
            QCOMPARE(params.keys(), (QStringList{QStringLiteral("PT_LOGIN"), QStringLiteral("PT_NAME"),
                                                 QStringLiteral("PT_PATRONYMIC"), QStringLiteral("PT_SURNAME")}));
            const QString login = params.value(QStringLiteral("PT_LOGIN")).toString();
            seen.insert(login);
            if (login == QLatin1String("alice")) {
                QCOMPARE(params.value(QStringLiteral("PT_SURNAME")).toString(), QStringLiteral("Smith"));
                QCOMPARE(params.value(QStringLiteral("PT_NAME")).toString(), QStringLiteral("Alice"));
                QCOMPARE(params.value(QStringLiteral("PT_PATRONYMIC")).toString(), QStringLiteral("Marie"));
            } else if (login == QLatin1String("carol")) {
                QCOMPARE(params.value(QStringLiteral("PT_PATRONYMIC")).toString(), QStringLiteral("Ann Jr"));
            } else if (login == QLatin1String("bob")) {
                QCOMPARE(params.value(QStringLiteral("PT_SURNAME")).toString(), QStringLiteral("Jones"));
                QCOMPARE(params.value(QStringLiteral("PT_NAME")).toString(), QString());
            } else if (login == QLatin1String("ivan")) {
                QCOMPARE(params.value(QStringLiteral("PT_PATRONYMIC")).toString(), QStringLiteral("Иванович"));
            }
        }
        QVERIFY(seen.contains(QStringLiteral("carol")));
    }

    void usersMappingFromSettings()
    {
        // Without --mapping the listing takes the system's own setting, here
        // written as text exactly as the system stores it.
        const QString settings = settingsFile(QStringLiteral("s-map.json"),
            QJsonObject{{QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), QString::fromUtf8(nameMapping())}});
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("-f"), QStringLiteral("json"),
                                 QStringLiteral("-s"), settings});
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.err.isEmpty(), describe(run));
        QCOMPARE(loginsOf(QJsonDocument::fromJson(run.out).array()), fixedUsers());
    }

    void usersWithoutMappingWarns()
    {
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("-f"), QStringLiteral("json"),
                                 QStringLiteral("-s"), settingsFile(QStringLiteral("s.json"))});
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.errText().contains(QStringLiteral("warning: no attribute mapping")), describe(run));
        const QJsonArray records = QJsonDocument::fromJson(run.out).array();
        QCOMPARE(records.size(), env().value(QStringLiteral("FIXED_USER_COUNT")).toInt());
        for (const QJsonValue &record : records)
            QCOMPARE(record.toObject().value(QStringLiteral("params")).toObject().keys(), QStringList{QString()});
    }

    void mappingOdditiesAreReported()
    {
        // Two members: only the first in key order counts, as the system reads it.
        const QByteArray mapping = R"([{"sAMAccountName": "PT_LOGIN", "cn": "PT_NAME"}, 5])";
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("-f"), QStringLiteral("json"),
                                 QStringLiteral("-s"), settingsFile(QStringLiteral("s.json")),
                                 QStringLiteral("-m"), writeFile(QStringLiteral("odd.json"), mapping)});
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.errText().contains(QStringLiteral("only \"cn\" (first in key order) counts")), describe(run));
        QVERIFY2(run.errText().contains(QStringLiteral("element 1 is not an object")), describe(run));
        const QJsonObject first = QJsonDocument::fromJson(run.out).array().at(0).toObject();
        QCOMPARE(first.value(QStringLiteral("params")).toObject().keys(), QStringList{QStringLiteral("PT_NAME")});
    }

    // A name with a line break is shown as JSON writes it: each warning stays
    // one line. (No server here: the warnings come before the connection.)
    void mappingWarningsStayOneLine()
    {
        const QByteArray mapping = R"([{"sAMAccount\nName": 5}])";
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("-s"),
                                 settingsFile(QStringLiteral("s-no-server.json"), QJsonObject{{QStringLiteral("PT_PORT"), QStringLiteral("1")}}),
                                 QStringLiteral("-m"), writeFile(QStringLiteral("line-break.json"), mapping)});
        QVERIFY2(run.exitCode == 3, describe(run));
        QVERIFY2(run.errText().contains(QStringLiteral(R"(warning: mapping: element 0: the value for "sAMAccount\nName" is not text)")),
                 describe(run));
        for (const QString &line : run.errLines())
            QVERIFY2(line.startsWith(QStringLiteral("zmauth ldap users: ")), describe(run));
    }

    void failuresShowTheLibraryRecord_data()
    {
        QTest::addColumn<QString>("sub");
        QTest::addColumn<QJsonObject>("changes");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("line");
        QTest::newRow("wrong password") << "users" << QJsonObject{{QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("wrong")}}
                                        << 3 << "zmauth ldap users: connect failed: ldap_bind_s error 31 Invalid credentials";
        QTest::newRow("unknown method") << "check" << QJsonObject{{QStringLiteral("PT_METHOD"), QStringLiteral("2")}}
                                        << 3 << "zmauth ldap check: connect failed: ldap_bind_s error -1 ";
        QTest::newRow("no server") << "check" << QJsonObject{{QStringLiteral("PT_PORT"), QStringLiteral("1")}}
                                   << 3 << "zmauth ldap check: connect failed: ldap_bind_s error -1 Can't contact LDAP server";
        QTest::newRow("bad base") << "users" << QJsonObject{{QStringLiteral("PT_BASE_DN"), QStringLiteral("ou=nowhere,dc=zmauth,dc=test")}}
                                  << 4 << "zmauth ldap users: user listing failed: ldap_search_ext_s error 20 No such object";
        QTest::newRow("nothing matches") << "users" << QJsonObject{{QStringLiteral("PT_USER_FILTER"), QStringLiteral("(sAMAccountName=nobody)")}}
                                         << 4 << "zmauth ldap users: user listing failed: ldap_count_entries error";
        QTest::newRow("empty login attribute") << "check" << QJsonObject{{QStringLiteral("PT_USER_ID_PARAMETER"), QString()}}
                                               << 4 << "zmauth ldap check: account check failed: ldap_search_ext_s -7 Bad search filter";
    }

    void failuresShowTheLibraryRecord()
    {
        QFETCH(QString, sub);
        QFETCH(QJsonObject, changes);
        QFETCH(int, exitCode);
        QFETCH(QString, line);
        QStringList args{QStringLiteral("ldap"), sub};
        if (sub == QLatin1String("check"))
            args << QStringLiteral("alice");
        args << QStringLiteral("--settings") << settingsFile(QStringLiteral("fail.json"), changes);
        if (sub == QLatin1String("users"))
            args << QStringLiteral("--mapping") << writeFile(QStringLiteral("m.json"), nameMapping());
        const Run run = runTool(args);
        QVERIFY2(run.exitCode == exitCode, describe(run));
        QVERIFY2(run.out.isEmpty(), describe(run));
        // One clear line: the library's own critical record, nothing else.
        QCOMPARE(run.errLines().size(), 1);
        QVERIFY2(run.errLines().constFirst().startsWith(line), describe(run));
    }

    void check_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("answer");
        QTest::newRow("alice") << "alice" << 0 << "found";
        QTest::newRow("ivan") << "ivan" << 0 << "found";
        QTest::newRow("two entries, one login") << "twin" << 0 << "found";
        QTest::newRow("nobody") << "mallory" << 1 << "not found";
        QTest::newRow("a computer account has a login too") << "WS01$" << 0 << "found";
        // Escaped for the filter: looked up as text.
        QTest::newRow("a star is a star") << "*" << 1 << "not found";
        QTest::newRow("a prefix is a name") << "ali*" << 1 << "not found";
        QTest::newRow("parentheses are part of the name") << "alice)(sAMAccountName=*" << 1 << "not found";
    }

    void check()
    {
        QFETCH(QString, name);
        QFETCH(int, exitCode);
        QFETCH(QString, answer);
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("check"), name,
                                 QStringLiteral("--settings"), settingsFile(QStringLiteral("s.json"))});
        QVERIFY2(run.exitCode == exitCode, describe(run));
        QCOMPARE(run.outText(), answer + QLatin1Char('\n'));
        QVERIFY2(run.err.isEmpty(), describe(run));
    }

    void checkRawWildcardWarns()
    {
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("*"), QStringLiteral("--raw"),
                                 QStringLiteral("--settings"), settingsFile(QStringLiteral("s.json"))});
        QVERIFY2(run.exitCode == 0, describe(run));
        QCOMPARE(run.outText(), QStringLiteral("found\n"));
        QVERIFY2(run.errText().contains(QStringLiteral("'*' matches any account")), describe(run));
    }

    // ---- against the capped realm: more users than one unpaged search returns

    // The tool pages by default; 0 asks for the unpaged search, which the
    // server cuts; the option wins over the settings file's key.
    void pageSize_data()
    {
        QTest::addColumn<QString>("fileValue");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("error");
        const QString sizeLimit = QStringLiteral("zmauth ldap users: user listing failed: ldap_search_ext_s error 4 Size limit exceeded");
        QTest::newRow("default") << QString() << QStringList{} << 0 << QString();
        QTest::newRow("option") << QString() << QStringList{QStringLiteral("--page-size"), QStringLiteral("1000")} << 0 << QString();
        QTest::newRow("file") << QStringLiteral("300") << QStringList{} << 0 << QString();
        QTest::newRow("unpaged by option") << QString() << QStringList{QStringLiteral("--page-size"), QStringLiteral("0")} << 4 << sizeLimit;
        QTest::newRow("unpaged by file") << QStringLiteral("0") << QStringList{} << 4 << sizeLimit;
        QTest::newRow("option wins over the file") << QStringLiteral("0") << QStringList{QStringLiteral("--page-size=7")} << 0 << QString();
        QTest::newRow("above the server's limit") << QString() << QStringList{QStringLiteral("--page-size"), QStringLiteral("1001")} << 4
                                                  << QStringLiteral("zmauth ldap users: user listing failed: ldap_search_ext_s error b Administrative limit exceeded");
    }

    void pageSize()
    {
        QFETCH(QString, fileValue);
        QFETCH(QStringList, options);
        QFETCH(int, exitCode);
        QFETCH(QString, error);
        QVERIFY2(cappedEnv().isValid(), "the capped realm is not running (ZMAUTH_CAPPED_REALM_DIR)");
        QJsonObject changes;
        if (!fileValue.isNull())
            changes.insert(QStringLiteral("PT_PAGE_SIZE"), fileValue);
        const Run run = runTool(QStringList{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("-f"), QStringLiteral("json"),
                                            QStringLiteral("-s"), settingsFile(QStringLiteral("capped.json"), changes, cappedEnv()),
                                            QStringLiteral("-m"), writeFile(QStringLiteral("m.json"), nameMapping())}
                                + options);
        QVERIFY2(run.exitCode == exitCode, describe(run));
        if (exitCode != 0) {
            QCOMPARE(run.errLines(), QStringList{error});
            return;
        }
        const int users = cappedEnv().value(QStringLiteral("FIXED_USER_COUNT")).toInt() + cappedEnv().value(QStringLiteral("BULK_USERS")).toInt();
        QVERIFY(users > 1000);
        const QJsonArray records = QJsonDocument::fromJson(run.out).array();
        QCOMPARE(records.size(), users);
        QSet<QString> logins;
        for (const QJsonValue &record : records)
            logins.insert(record.toObject().value(QStringLiteral("params")).toObject().value(QStringLiteral("PT_LOGIN")).toString());
        // twin is there twice.
        QCOMPARE(logins.size(), users - 1);
    }

    // A server that takes the connection and never answers: the bind gives
    // up after the timeout (the option wins over the file's hour).
    void timeout()
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        QVERIFY(::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 && ::listen(fd, 16) == 0);
        socklen_t len = sizeof addr;
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
        const QString settings = settingsFile(QStringLiteral("silent.json"),
                                              QJsonObject{{QStringLiteral("PT_PORT"), QString::number(ntohs(addr.sin_port))},
                                                          {QStringLiteral("PT_TIMEOUT"), QStringLiteral("3600")}});
        const Run run = runTool({QStringLiteral("ldap"), QStringLiteral("check"), QStringLiteral("alice"),
                                 QStringLiteral("--settings"), settings, QStringLiteral("--timeout"), QStringLiteral("2")});
        ::close(fd);
        QVERIFY2(run.exitCode == 3, describe(run));
        QCOMPARE(run.errLines(), QStringList{QStringLiteral("zmauth ldap check: connect failed: ldap_bind_s error -5 Timed out")});
    }

    void debugRecordsOnlyWithVerbose()
    {
        const QString password = env().value(QStringLiteral("USER_PASSWORD"));
        const QStringList args{QStringLiteral("ldap"), QStringLiteral("users"), QStringLiteral("--format"), QStringLiteral("json"),
                               QStringLiteral("--settings"), settingsFile(QStringLiteral("s.json")),
                               QStringLiteral("--mapping"), writeFile(QStringLiteral("m.json"), nameMapping())};

        // Even when the environment asks for every debug record.
        QProcessEnvironment noisy = QProcessEnvironment::systemEnvironment();
        noisy.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*.debug=true"));
        const Run quiet = runTool(args, QByteArray(), noisy);
        QVERIFY2(quiet.exitCode == 0, describe(quiet));
        QVERIFY2(quiet.err.isEmpty(), describe(quiet));
        QVERIFY(!quiet.out.contains(password.toUtf8()));

        QProcessEnvironment silenced = QProcessEnvironment::systemEnvironment();
        silenced.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*.debug=false"));
        const Run verbose = runTool(QStringList(args) << QStringLiteral("--verbose"), QByteArray(), silenced);
        QVERIFY2(verbose.exitCode == 0, describe(verbose));
        const QStringList lines = verbose.errLines();
        QVERIFY(lines.size() > 2);
        QVERIFY2(lines.constFirst().startsWith(QStringLiteral("zmauth: warning: --verbose")), describe(verbose));
        QVERIFY(lines.constFirst().contains(QStringLiteral("bind password")));
        QVERIFY2(verbose.errText().contains(QStringLiteral("[debug] platform.lib.zmauth.ldap: get user list")), describe(verbose));
        QVERIFY2(verbose.errText().contains(QStringLiteral("[debug] default: Use digest method")), describe(verbose));
        // stdout stays pure JSON.
        QVERIFY(QJsonDocument::fromJson(verbose.out).isArray());
    }

    void ssoRoundTrip_data()
    {
        QTest::addColumn<QString>("userKey");
        QTest::addColumn<QString>("passwordKey");
        QTest::newRow("alice") << "USER_NAME" << "USER_PASSWORD";
        QTest::newRow("ivan, Cyrillic password") << "CYR_USER_NAME" << "CYR_USER_PASSWORD";
    }

    void ssoRoundTrip()
    {
        QFETCH(QString, userKey);
        QFETCH(QString, passwordKey);
        const QString user = env().value(userKey);
        const Run run = runTool(ssoArgs(user), env().bytes(passwordKey) + '\n');
        QVERIFY2(run.exitCode == 0, describe(run));
        QVERIFY2(run.err.isEmpty(), describe(run));
        const QStringList lines = run.outLines();
        QCOMPARE(lines.size(), 4);
        QVERIFY2(lines.at(0).contains(QRegularExpression(QStringLiteral("^initiator\\s+authorize\\s+status [12] \\(")))
                 && lines.at(0).endsWith(QStringLiteral(", user ") + user), describe(run));
        const QString principal = user + QLatin1Char('@') + env().value(QStringLiteral("KRB5_REALM"));
        QVERIFY2(lines.at(1).contains(QRegularExpression(QStringLiteral("^acceptor\\s+acceptNew\\s+status 1 \\(done\\), token [1-9]")))
                 && lines.at(1).endsWith(QStringLiteral(", client ") + principal), describe(run));
        QVERIFY2(lines.at(2).contains(QRegularExpression(QStringLiteral("^initiator\\s+authorizeContinue\\s+status 1 \\(done\\)"))), describe(run));
        QCOMPARE(lines.at(3), QStringLiteral("client principal: ") + principal);
    }

    void ssoFailures_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("keytab");
        QTest::addColumn<QByteArray>("password");
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("text");
        const QByteArray good = RealmEnv::get().bytes(QStringLiteral("USER_PASSWORD")) + '\n';
        QTest::newRow("wrong password") << "" << "SSO_KEYTAB" << QByteArray("wrong\n") << "authorize" << "Kerberos init creds password";
        QTest::newRow("keytab without the user's key") << "" << "SERVICE_KEYTAB" << good << "authorize" << "No key table entry found for alice@";
        QTest::newRow("unknown service") << "HTTP@no-such-host" << "SSO_KEYTAB" << good << "authorize" << "Init sec context failed:";
    }

    void ssoFailures()
    {
        QFETCH(QString, target);
        QFETCH(QString, keytab);
        QFETCH(QByteArray, password);
        QFETCH(QString, step);
        QFETCH(QString, text);
        QStringList args = ssoArgs(QStringLiteral("alice"), keytab);
        if (!target.isEmpty())
            args[args.indexOf(QStringLiteral("--target")) + 1] = target;
        const Run run = runTool(args, password);
        QVERIFY2(run.exitCode == 5, describe(run));
        QVERIFY2(run.outLines().constLast().contains(QStringLiteral("status 0 (failed)")), describe(run));
        QVERIFY2(run.errLines().constFirst() == QStringLiteral("zmauth sso: %1 failed:").arg(step), describe(run));
        QVERIFY2(run.errText().contains(text), describe(run));
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "tst_cli.moc"
