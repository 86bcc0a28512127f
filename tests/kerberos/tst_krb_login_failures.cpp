// Failed logins: each gives a failed result and exactly the warnings of its
// step, in the libraries' own words, and releases what it had obtained.
#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>

#include <QElapsedTimer>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using Releases = std::vector<std::string>;

namespace {
QString joined(const Releases &calls)
{
    QStringList out;
    for (const std::string &c : calls)
        out.append(QString::fromStdString(c));
    return out.join(QLatin1Char(' '));
}

const QString kDuplicateAdd = QStringLiteral(
    "Add credentials failed:\n\tThe requested credential element already exists\n\tUnknown error");

void verifyFailed(const zmkrb::Result &r)
{
    QCOMPARE(r.status, 0);
    QVERIFY(r.user.empty());
    QVERIFY(r.token.empty());
}

// Prefix, " failed:", then exactly two tab-led lines.
bool gssShape(const QString &text, const QString &prefix)
{
    const QStringList lines = text.split(QLatin1Char('\n'));
    return lines.size() == 3 && lines[0] == prefix + QStringLiteral(" failed:") && lines[1].startsWith('\t')
        && lines[2].startsWith('\t');
}
} // namespace

class KrbLoginFailures : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

    zmkrb::Result login(const std::string &realm, const std::string &user, const std::string &password,
                        const std::string &target = std::string())
    {
        zmkrb::Client client(target.empty() ? env.str("SERVICE_NAME") : target);
        return client.authorize(realm, user, password);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
    }
    void init() { krbtest::startRealmTest(); }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void wrongPassword()
    {
        LogCapture log;
        verifyFailed(login(env.str("KRB5_REALM"), env.str("USER_NAME"), "wrong-password"));
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 1);
        QVERIFY(warnings[0].startsWith(QStringLiteral("Kerberos init creds password ")));
        QVERIFY(!warnings[0].contains('\n'));
        QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
        QVERIFY(!krbtest::fileExists(krbtest::seen().createdCaches[0]));
    }

    void unknownUser()
    {
        LogCapture log;
        verifyFailed(login(env.str("KRB5_REALM"), "nobody", "x"));
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral(
                                             "Kerberos init creds password Client 'nobody@ZMAUTH.TEST' not found "
                                             "in Kerberos database")});
    }

    // The user is one name component: "/" and "@" are not parsed.
    void userIsNotParsed()
    {
        LogCapture log;
        verifyFailed(login(env.str("KRB5_REALM"), "alice/admin@ELSEWHERE", "x"));
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral(
                                             "Kerberos init creds password Client 'alice\\/admin\\@ELSEWHERE@ZMAUTH.TEST' "
                                             "not found in Kerberos database")});
    }

    void unknownRealm()
    {
        LogCapture log;
        verifyFailed(login("NOPE.TEST", env.str("USER_NAME"), env.str("USER_PASSWORD")));
        QCOMPARE(krbtest::krbTexts(log),
                 QStringList{QStringLiteral("Kerberos init creds password Cannot find KDC for realm \"NOPE.TEST\"")});
    }

    // No default realm is put in place of an empty one.
    void emptyRealm()
    {
        LogCapture log;
        verifyFailed(login("", env.str("USER_NAME"), env.str("USER_PASSWORD")));
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral(
                                             "Kerberos init creds password Cannot find KDC for invalid realm name \"\"")});
    }

    // A realm whose KDC port on loopback has nobody listening: a prompt
    // failure, not a hang.
    void unreachableKdc()
    {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        QCOMPARE(bind(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        socklen_t len = sizeof addr;
        getsockname(s, reinterpret_cast<sockaddr *>(&addr), &len);
        const int port = ntohs(addr.sin_port);
        close(s);

        QTemporaryDir dir;
        QFile extra(dir.path() + QStringLiteral("/dead.conf"));
        QVERIFY(extra.open(QIODevice::WriteOnly));
        extra.write(QStringLiteral("[realms]\n DEAD.TEST = {\n  kdc = 127.0.0.1:%1\n }\n").arg(port).toUtf8());
        extra.close();
        const QByteArray saved = qgetenv("KRB5_CONFIG");
        qputenv("KRB5_CONFIG", saved + ':' + extra.fileName().toUtf8());
        LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const zmkrb::Result r = login("DEAD.TEST", "alice", "x");
        const qint64 elapsed = timer.elapsed();
        qputenv("KRB5_CONFIG", saved);
        verifyFailed(r);
        QVERIFY2(elapsed < 30000, QByteArray::number(elapsed).constData());
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral(
                                             "Kerberos init creds password Cannot contact any KDC for realm "
                                             "'DEAD.TEST'")});
    }

    // No ticket and no keytab: the default credential cannot be had.
    void defaultModeWithoutTicket()
    {
        qputenv("KRB5_KTNAME", "FILE:/nonexistent/zmauth.keytab");
        LogCapture log;
        verifyFailed(login("", "", ""));
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(gssShape(warnings[0], QStringLiteral("Acquire credentials")), qPrintable(krbtest::visible(warnings[0])));
        QCOMPARE(warnings[0], QStringLiteral("Acquire credentials failed:\n\tNo credentials were supplied, or the "
                                             "credentials were unavailable or inaccessible\n\tKeytab "
                                             "FILE:/nonexistent/zmauth.keytab is nonexistent or empty"));
        QVERIFY(krbtest::seen().createdCaches.empty());
    }

    // Password mode on MIT always takes the fallback; without the user's key
    // in the acceptor keytab it fails: both warnings, the user name and the
    // local credential released, and the destructor then gives back only
    // the cache and the krb5 context.
    void fallbackWithoutUserKey()
    {
        zmkrb::Client client(env.str("SERVICE_NAME"));
        QVERIFY(client.setKTFile(env.str("SERVICE_KEYTAB")));
        LogCapture log;
        krbtest::seen().recordReleases = true;
        {
            zmkrb::Client client(env.str("SERVICE_NAME"));
            verifyFailed(client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD")));
            QCOMPARE(joined(krbtest::seen().releases), joined(Releases{"krb5_free_cred_contents", "krb5_free_principal", "gss_release_name", "gss_release_cred"}));
            krbtest::seen().releases.clear();
        }
        QCOMPARE(joined(krbtest::seen().releases), joined(Releases{"krb5_cc_destroy", "krb5_free_context"}));
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 2);
        QCOMPARE(warnings[0], kDuplicateAdd);
        QVERIFY2(gssShape(warnings[1], QStringLiteral("Acquire credentials")), qPrintable(krbtest::visible(warnings[1])));
        QCOMPARE(warnings[1], QStringLiteral("Acquire credentials failed:\n\tNo credentials were supplied, or the "
                                             "credentials were unavailable or inaccessible\n\tNo key table entry "
                                             "found for alice@ZMAUTH.TEST"));
        QVERIFY(!krbtest::fileExists(krbtest::seen().createdCaches.at(0)));
    }

    // Any answer but complete refuses the user name.
    void importNameFailure_data()
    {
        QTest::addColumn<quint32>("major");
        QTest::addColumn<QString>("text");
        QTest::newRow("bad name") << quint32(GSS_S_BAD_NAME)
                                  << QStringLiteral("Import name failed:\n\tAn invalid name was supplied\n\tUnknown error");
        QTest::newRow("not an error") << quint32(GSS_S_CONTINUE_NEEDED)
                                      << QStringLiteral("Import name failed:\n\tThe routine must be called again to "
                                                        "complete its function\n\tUnknown error");
    }
    void importNameFailure()
    {
        QFETCH(quint32, major);
        QFETCH(QString, text);
        krbtest::faults().importNameText = env.str("USER_NAME") + "@" + env.str("KRB5_REALM");
        krbtest::faults().importNameMajor = major;
        LogCapture log;
        krbtest::seen().recordReleases = true;
        {
            zmkrb::Client client(env.str("SERVICE_NAME"));
            verifyFailed(client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD")));
            QCOMPARE(joined(krbtest::seen().releases), joined(Releases{"krb5_free_cred_contents", "krb5_free_principal", "gss_release_cred"}));
            krbtest::seen().releases.clear();
        }
        QCOMPARE(joined(krbtest::seen().releases), joined(Releases{"krb5_cc_destroy", "krb5_free_context"}));
        QCOMPARE(krbtest::krbTexts(log), QStringList{text});
    }

    // A failure of the add other than "already there": no fallback.
    void addCredentialOtherFailure()
    {
        QVERIFY(zmkrb::Client("x").setKTFile(env.str("SSO_KEYTAB")));
        krbtest::faults().addCredMajor = GSS_S_FAILURE;
        LogCapture log;
        krbtest::seen().recordReleases = true;
        {
            zmkrb::Client client(env.str("SERVICE_NAME"));
            verifyFailed(client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD")));
            QCOMPARE(joined(krbtest::seen().releases), joined(Releases{"krb5_free_cred_contents", "krb5_free_principal", "gss_release_name", "gss_release_cred"}));
        }
        QCOMPARE(krbtest::krbTexts(log), QStringList{QStringLiteral(
                                             "Add credentials failed:\n\tUnspecified GSS failure.  Minor code may "
                                             "provide more information\n\tUnknown error")});
    }

    void importTargetFailure()
    {
        QVERIFY(zmkrb::Client("x").setKTFile(env.str("SSO_KEYTAB")));
        krbtest::faults().importNameText = env.str("SERVICE_NAME");
        krbtest::faults().importNameMajor = GSS_S_BAD_NAMETYPE;
        LogCapture log;
        zmkrb::Client client(env.str("SERVICE_NAME"));
        verifyFailed(client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD")));
        const QString text = QStringLiteral(
            "Import target name failed:\n\tA supplied name was of an unsupported type\n\tUnknown error");
        QCOMPARE(krbtest::krbTexts(log), (QStringList{kDuplicateAdd, text}));
        log.clear();
        verifyFailed(client.authorizeContinue({1, 2, 3}));
        QCOMPARE(krbtest::krbTexts(log), QStringList{text});
    }

    // A service the KDC does not know: the context cannot start.
    void unknownService()
    {
        QVERIFY(zmkrb::Client("x").setKTFile(env.str("SSO_KEYTAB")));
        LogCapture log;
        verifyFailed(login(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD"), "nosuch@localhost"));
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 2);
        QCOMPARE(warnings[0], kDuplicateAdd);
        QCOMPARE(warnings[1], QStringLiteral("Init sec context failed:\n\tUnspecified GSS failure.  Minor code may "
                                             "provide more information\n\tServer nosuch/localhost@ZMAUTH.TEST not "
                                             "found in Kerberos database"));
    }

    // Without "@" the target is still a host-based name; GSSAPI puts in
    // this machine's name.
    void targetWithoutHost()
    {
        QVERIFY(zmkrb::Client("x").setKTFile(env.str("SSO_KEYTAB")));
        LogCapture log;
        verifyFailed(login(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD"), "HTTP"));
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 2);
        QVERIFY2(gssShape(warnings[1], QStringLiteral("Init sec context")), qPrintable(krbtest::visible(warnings[1])));
        QVERIFY2(warnings[1].contains(QStringLiteral("HTTP/") + QSysInfo::machineHostName().toLower())
                     || warnings[1].contains(QStringLiteral("HTTP/") + QSysInfo::machineHostName()),
                 qPrintable(krbtest::visible(warnings[1])));
    }

    // Replies that are no reply: garbage and an empty token.
    void continueWithBadReply_data()
    {
        const QString kBadReply = QStringLiteral("Init sec context failed:\n\tInvalid token was supplied\n\tSuccess");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QString>("text");
        QTest::newRow("garbage") << QByteArray("\x01\x02\x03\x04\x05", 5) << kBadReply;
        QTest::newRow("empty") << QByteArray() << kBadReply;
    }
    void continueWithBadReply()
    {
        QFETCH(QByteArray, reply);
        QFETCH(QString, text);
        QVERIFY(zmkrb::Client("x").setKTFile(env.str("SSO_KEYTAB")));
        zmkrb::Client client(env.str("SERVICE_NAME"));
        QCOMPARE(client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"), env.str("USER_PASSWORD")).status, 1);
        LogCapture log;
        verifyFailed(client.authorizeContinue(zmkrb::token_t(reply.begin(), reply.end())));
        QCOMPARE(krbtest::krbTexts(log), QStringList{text});
    }
};

QTEST_GUILESS_MAIN(KrbLoginFailures)
#include "tst_krb_login_failures.moc"
