// The acceptor with tokens that are not a fresh login: garbage, empty,
// truncated, replayed; and acceptContinue, which never finds a context.
#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>

#include <QtTest>

namespace {
const QString kNoCred = QStringLiteral(
    "No credentials were supplied, or the credentials were unavailable or inaccessible");

QString continueWarning(const QString &peer)
{
    // Two items written with quoting off: the literal with its blank, then
    // the peer, which the logger sets apart with one more blank.
    return QStringLiteral("Can't continue kerberos auth from host ") + QLatin1Char(' ') + peer;
}
} // namespace

class KrbAcceptorTokens : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

    void verifyRejected(zmkrb::Service &service, const zmkrb::token_t &token, const QString &minorText,
                        const QString &majorText)
    {
        LogCapture log;
        const zmkrb::Result r = service.acceptNew("peer", token);
        QCOMPARE(r.status, 0);
        QVERIFY(r.user.empty());
        QVERIFY(r.token.empty());
        const QList<LogRecord> records = log.records();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records[0].type, QtWarningMsg);
        QCOMPARE(records[0].category, QStringLiteral("platform.lib.zmauth.kerberos"));
        QCOMPARE(records[0].file, QStringLiteral("src/zmkerberos_service_unix.cpp"));
        QVERIFY2(records[0].function.contains(QStringLiteral("zmkrb::ServicePrivate::accept(")),
                 qPrintable(records[0].function));
        QCOMPARE(records[0].text, QStringLiteral("Accept sec context failed:\n\t") + majorText
                                      + QStringLiteral("\n\t") + minorText);
        QCOMPARE(records[0].text.count(QStringLiteral("\n\t")), 2);
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

    void garbageToken()
    {
        zmkrb::Service service;
        service.setKTFile(env.str("SERVICE_KEYTAB"));
        verifyRejected(service, {1, 2, 3, 4, 5}, QStringLiteral("Unknown error"),
                       QStringLiteral("Invalid token was supplied"));
        verifyRejected(service, zmkrb::token_t(300, 0xff), QStringLiteral("Unknown error"),
                       QStringLiteral("Invalid token was supplied"));
    }

    // A GSSAPI token header naming a mechanism nobody offers.
    void foreignMechanismToken()
    {
        zmkrb::Service service;
        service.setKTFile(env.str("SERVICE_KEYTAB"));
        verifyRejected(service, {0x60, 0x03, 0x06, 0x01, 0x00}, QStringLiteral("Unknown error"),
                       QStringLiteral("An unsupported mechanism was requested"));
    }

    void truncatedToken_data()
    {
        QTest::addColumn<int>("keep");
        QTest::newRow("half") << 2;
        QTest::newRow("twenty bytes") << 20;
        QTest::newRow("all but one") << -1;
    }
    void truncatedToken()
    {
        QFETCH(int, keep);
        zmkrb::token_t token = krbtest::freshToken();
        QVERIFY(token.size() > 40);
        token.resize(keep == 2 ? token.size() / 2 : keep == -1 ? token.size() - 1 : size_t(keep));
        zmkrb::Service service;
        service.setKTFile(env.str("SERVICE_KEYTAB"));
        LogCapture log;
        const zmkrb::Result r = service.acceptNew("peer", token);
        QCOMPARE(r.status, 0);
        QVERIFY(r.user.empty() && r.token.empty());
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings[0].startsWith(QStringLiteral("Accept sec context failed:\n\t")),
                 qPrintable(krbtest::visible(warnings[0])));
        QCOMPARE(warnings[0].split(QLatin1Char('\n')).size(), 3);
        QCOMPARE(warnings[0].count(QLatin1Char('\t')), 2);
    }

    // The replay cache of the realm's run refuses a token seen before.
    void replayedToken()
    {
        const zmkrb::token_t token = krbtest::freshToken();
        zmkrb::Service service;
        service.setKTFile(env.str("SERVICE_KEYTAB"));
        QCOMPARE(service.acceptNew("peer", token).status, 1);
        verifyRejected(service, token, QStringLiteral("Request is a replay"),
                       QStringLiteral("Unspecified GSS failure.  Minor code may provide more information"));
    }

    // A keytab without the service's key cannot accept.
    void keytabWithoutServiceKey()
    {
        const zmkrb::token_t token = krbtest::freshToken();
        zmkrb::Service service;
        service.setKTFile(env.str("LDAP_KEYTAB"));
        LogCapture log;
        QCOMPARE(service.acceptNew("peer", token).status, 0);
        const QStringList warnings = krbtest::krbTexts(log);
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings[0].startsWith(QStringLiteral("Accept sec context failed:\n\t")),
                 qPrintable(krbtest::visible(warnings[0])));
        QCOMPARE(warnings[0].count(QLatin1Char('\t')), 2);
    }

    // An empty token is not an error to MIT when the Service has no
    // credential of its own (the usual case: no initiator ticket in the
    // process): it asks for more. No source name, so no user, no log.
    void emptyTokenAsksForMore()
    {
        qputenv("KRB5_KTNAME", env.bytes("SERVICE_KEYTAB"));
        zmkrb::Service service;
        LogCapture log;
        const zmkrb::Result r = service.acceptNew("peer", {});
        qunsetenv("KRB5_KTNAME");
        QCOMPARE(r.status, 2);
        QVERIFY(r.user.empty());
        QVERIFY(log.records().isEmpty());
        QCOMPARE(krbtest::heldCredentials(), 0);
    }

    // With a credential of its own (the process holds a ticket and a
    // keytab) the same empty token is refused.
    void emptyTokenWithServiceCredential()
    {
        QVERIFY(krbtest::kinit(env.value("USER_NAME") + QLatin1Char('@') + env.value("KRB5_REALM"),
                               env.value("USER_PASSWORD")));
        zmkrb::Service service;
        QVERIFY(service.setKTFile(env.str("SERVICE_KEYTAB")));
        zmkrb::Service withCredential;
        QVERIFY(krbtest::heldCredentials() >= 1);
        verifyRejected(withCredential, {}, QStringLiteral("Unknown error"), kNoCred);
    }

    void continueWithoutContext_data()
    {
        QTest::addColumn<QString>("peer");
        QTest::newRow("host") << QStringLiteral("client-01.zmauth.test");
        QTest::newRow("address") << QStringLiteral("10.1.2.3");
        QTest::newRow("utf-8") << QStringLiteral("хост-01");
        QTest::newRow("empty") << QString();
    }
    void continueWithoutContext()
    {
        QFETCH(QString, peer);
        zmkrb::Service service;
        LogCapture log;
        const zmkrb::Result r = service.acceptContinue(peer.toStdString(), {1, 2, 3});
        QCOMPARE(r.status, 0);
        QVERIFY(r.user.empty() && r.token.empty());
        const QList<LogRecord> records = log.records();
        QCOMPARE(records.size(), 1);
        QCOMPARE(records[0].type, QtWarningMsg);
        QCOMPARE(records[0].category, QStringLiteral("platform.lib.zmauth.kerberos"));
        QCOMPARE(records[0].text, continueWarning(peer));
        QVERIFY(records[0].text.startsWith(QStringLiteral("Can't continue kerberos auth from host ")));
        QVERIFY2(records[0].function.contains(QStringLiteral("zmkrb::Service::acceptContinue(")),
                 qPrintable(records[0].function));
    }

    // Nothing is stored by a successful acceptNew either.
    void continueAfterSuccessfulAccept()
    {
        const zmkrb::token_t token = krbtest::freshToken();
        zmkrb::Service service;
        service.setKTFile(env.str("SERVICE_KEYTAB"));
        QCOMPARE(service.acceptNew("peer-a", token).status, 1);
        LogCapture log;
        QCOMPARE(service.acceptContinue("peer-a", token).status, 0);
        QCOMPARE(krbtest::krbTexts(log), QStringList{continueWarning(QStringLiteral("peer-a"))});
        // A new login from the same peer is still accepted afresh.
        const zmkrb::token_t second = krbtest::freshToken();
        service.setKTFile(env.str("SERVICE_KEYTAB"));
        QCOMPARE(service.acceptNew("peer-a", second).status, 1);
    }
};

QTEST_GUILESS_MAIN(KrbAcceptorTokens)
#include "tst_krb_acceptor_tokens.moc"
