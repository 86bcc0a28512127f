// connect() over StartTLS and LDAP over TLS ("PT_TLS"), against the realm's
// slapd and its own CA: anonymous, DIGEST-MD5 and GSSAPI sessions inside TLS,
// and the certificates that must be refused (unknown CA, another name,
// expired), each of the latter on a realm of this test's own. A directory
// that requires TLS refuses the plain bind and takes the StartTLS one.
#include "ldaptest.h"
#include "ownrealm.h"
#include "zmldap.h"

#include <QProcess>
#include <QtTest>

namespace {

const QString kStartTls = QStringLiteral("starttls");
const QString kLdaps = QStringLiteral("ldaps");

// Settings of env's realm over the transport: StartTLS on the plain port,
// LDAP over TLS on the realm's ldaps:// port; the CA file of caKey.
zelmora::ObjectInfo tlsSettings(const RealmEnv &env, const QString &transport, const QString &method,
                                const QString &caKey = QStringLiteral("TLS_CA_FILE"))
{
    // GSSAPI: no authorisation identity (the realm refuses a bare login).
    zelmora::ObjectInfo s = method == QLatin1String("8") ? realmSettings(env, method, QString::fromLatin1(""))
                                                         : realmSettings(env, method);
    if (transport == kLdaps)
        s.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAPS_PORT")));
    s.params.insert(QStringLiteral("PT_TLS"), transport);
    s.params.insert(QStringLiteral("PT_TLS_CA_FILE"), env.value(caKey));
    return s;
}

QString expectedUri(const RealmEnv &env, const QString &transport)
{
    return transport == kLdaps ? QStringLiteral("ldaps://127.0.0.1:") + env.value(QStringLiteral("LDAPS_PORT"))
                               : QStringLiteral("ldap://127.0.0.1:") + env.value(QStringLiteral("LDAP_PORT"));
}

bool kinitUser(const RealmEnv &env)
{
    QProcess kinit;
    kinit.start(QStringLiteral("kinit"),
                {env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM"))});
    if (!kinit.waitForStarted())
        return false;
    kinit.write(env.bytes(QStringLiteral("USER_PASSWORD")) + '\n');
    kinit.closeWriteChannel();
    if (!kinit.waitForFinished(30000))
        return false;
    return kinit.exitCode() == 0;
}

// The critical records of the directory category, as "text" lines.
QStringList criticalTexts(const LogCapture &log)
{
    QStringList out;
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtCriticalMsg)
            out.append(r.text);
    return out;
}

// What a refused certificate ends connect() with, by transport: the
// StartTLS request or the connection of LDAP over TLS.
QString refusalPrefix(const QString &transport)
{
    return transport == kLdaps ? QStringLiteral("ldap_connect error ") : QStringLiteral("ldap_start_tls_s error ");
}

} // namespace

class TestLdapTls : public QObject {
    Q_OBJECT

private:
    void transports()
    {
        QTest::addColumn<QString>("transport");
        QTest::newRow("StartTLS") << kStartTls;
        QTest::newRow("LDAP over TLS") << kLdaps;
    }

    // A session that verified: it names the server and a TLS protocol of at
    // least 1.2, and it serves a search.
    void verifyProtectedSession(ZMLDAP &ldap, const RealmEnv &env, const QString &transport)
    {
        const zmldap::Connection c = ldap.connection();
        QVERIFY(c.connected);
        QCOMPARE(c.uri, expectedUri(env, transport));
        QVERIFY2(c.tlsProtocol == QLatin1String("TLS1.2") || c.tlsProtocol == QLatin1String("TLS1.3"),
                 qPrintable(c.tlsProtocol));
        QVERIFY(!c.tlsCipher.isEmpty());
        QVERIFY(ldap.checkADUser(env.value(QStringLiteral("USER_NAME"))));
    }

    // connect() fails for a certificate that must not verify, leaves no
    // session, and says which step refused it.
    void verifyRefused(const zelmora::ObjectInfo &settings, const QString &transport)
    {
        LogCapture log;
        ZMLDAP ldap(settings);
        const int rc = ldap.connect();
        QVERIFY(rc != 0);
        QVERIFY(!ldap.connection().connected);
        const QStringList critical = criticalTexts(log);
        QCOMPARE(critical.size(), 1);
        QCOMPARE(critical.first(), refusalPrefix(transport) + hexText(rc) + QLatin1Char(' ')
                                       + QString::fromUtf8(ldap_err2string(rc)));
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
        QVERIFY(!RealmEnv::get().value(QStringLiteral("LDAPS_PORT")).isEmpty());
    }

    void anonymousSessionInsideTls_data() { transports(); }
    void anonymousSessionInsideTls()
    {
        QFETCH(QString, transport);
        const RealmEnv &env = RealmEnv::get();
        ZMLDAP ldap(tlsSettings(env, transport, QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0);
        verifyProtectedSession(ldap, env, transport);
        QCOMPARE(ldap.connection().saslSsf, 0);
    }

    void digestBindInsideTls_data() { transports(); }
    void digestBindInsideTls()
    {
        QFETCH(QString, transport);
        const RealmEnv &env = RealmEnv::get();
        LogCapture log;
        ZMLDAP ldap(tlsSettings(env, transport, QStringLiteral("1")));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(log.texts().contains(QStringLiteral("Use digest method")));
        verifyProtectedSession(ldap, env, transport);
    }

    // Inside TLS the GSSAPI bind asks for no SASL layer of its own.
    void gssapiBindInsideTlsWithoutSaslLayer_data() { transports(); }
    void gssapiBindInsideTlsWithoutSaslLayer()
    {
        QFETCH(QString, transport);
        const RealmEnv &env = RealmEnv::get();
        QVERIFY(kinitUser(env));
        LogCapture log;
        ZMLDAP ldap(tlsSettings(env, transport, QStringLiteral("8")));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(log.texts().contains(QStringLiteral("Use gssapi method")));
        verifyProtectedSession(ldap, env, transport);
        QCOMPARE(ldap.connection().saslSsf, 0);
    }

    // Over plain LDAP the same bind has its sealed layer, and no TLS.
    void gssapiBindOverPlainLdapIsSealed()
    {
        const RealmEnv &env = RealmEnv::get();
        QVERIFY(kinitUser(env));
        ZMLDAP ldap(realmSettings(env, QStringLiteral("8"), QString::fromLatin1("")));
        QCOMPARE(ldap.connect(), 0);
        const zmldap::Connection c = ldap.connection();
        QVERIFY(c.connected);
        QCOMPARE(c.uri, expectedUri(env, kStartTls));
        QVERIFY(c.tlsProtocol.isEmpty());
        QVERIFY(c.tlsCipher.isEmpty());
        QVERIFY(c.saslSsf > 0);
    }

    void certificateOfAnotherCaIsRefused_data() { transports(); }
    void certificateOfAnotherCaIsRefused()
    {
        QFETCH(QString, transport);
        verifyRefused(tlsSettings(RealmEnv::get(), transport, QStringLiteral("0"), QStringLiteral("OTHER_CA_FILE")),
                      transport);
    }

    // The system's trust store does not hold the realm's CA either.
    void withoutCaFileTheSystemStoreRefusesTheRealmsCa()
    {
        zelmora::ObjectInfo s = tlsSettings(RealmEnv::get(), kStartTls, QStringLiteral("0"));
        s.params.remove(QStringLiteral("PT_TLS_CA_FILE"));
        verifyRefused(s, kStartTls);
    }

    // TLS settings go to the session, never to libldap's process-wide
    // defaults.
    void processWideTlsDefaultsStayUntouched()
    {
        char *caFile = nullptr;
        QCOMPARE(ldap_get_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, &caFile), LDAP_OPT_SUCCESS);
        const QByteArray before(caFile);
        ldap_memfree(caFile);
        int demandBefore = -1;
        QCOMPARE(ldap_get_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &demandBefore), LDAP_OPT_SUCCESS);

        ZMLDAP ldap(tlsSettings(RealmEnv::get(), kStartTls, QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0);

        caFile = nullptr;
        QCOMPARE(ldap_get_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, &caFile), LDAP_OPT_SUCCESS);
        QCOMPARE(QByteArray(caFile), before);
        ldap_memfree(caFile);
        int demandAfter = -1;
        QCOMPARE(ldap_get_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &demandAfter), LDAP_OPT_SUCCESS);
        QCOMPARE(demandAfter, demandBefore);
    }

    // Realms of their own, with a certificate that verifies against their CA
    // but is for another name, or has expired. The plain session shows the
    // server itself serves.
    void certificateForAnotherNameOrExpiredIsRefused_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("another name") << QStringLiteral("other-name");
        QTest::newRow("expired") << QStringLiteral("expired");
    }
    void certificateForAnotherNameOrExpiredIsRefused()
    {
        QFETCH(QString, kind);
        OwnRealm realm({QStringLiteral("--server-cert"), kind});
        QVERIFY2(realm.isValid(), qPrintable(realm.error()));
        const RealmEnv &env = realm.env();
        {
            ZMLDAP plain(realmSettings(env, QStringLiteral("0")));
            QCOMPARE(plain.connect(), 0);
            QVERIFY(plain.checkADUser(env.value(QStringLiteral("USER_NAME"))));
        }
        verifyRefused(tlsSettings(env, kStartTls, QStringLiteral("0")), kStartTls);
        verifyRefused(tlsSettings(env, kLdaps, QStringLiteral("0")), kLdaps);
    }

    // slapd with "security tls=1": the plain bind is refused for want of
    // confidentiality; the same bind after StartTLS succeeds.
    void directoryRequiringTlsRefusesPlainBindAndTakesStartTls()
    {
        OwnRealm realm({QStringLiteral("--require-tls")});
        QVERIFY2(realm.isValid(), qPrintable(realm.error()));
        const RealmEnv &env = realm.env();
        {
            LogCapture log;
            ZMLDAP plain(realmSettings(env, QStringLiteral("1")));
            QCOMPARE(plain.connect(), int(LDAP_CONFIDENTIALITY_REQUIRED));
            QCOMPARE(criticalTexts(log), QStringList{QStringLiteral("ldap_bind_s error d ")
                                                     + QString::fromUtf8(ldap_err2string(LDAP_CONFIDENTIALITY_REQUIRED))});
        }
        ZMLDAP ldap(tlsSettings(env, kStartTls, QStringLiteral("1")));
        QCOMPARE(ldap.connect(), 0);
        verifyProtectedSession(ldap, env, kStartTls);
    }
};

QTEST_GUILESS_MAIN(TestLdapTls)
#include "tst_ldap_tls.moc"
