// Method 8 where the DC's address has no name (run by in-ns.sh with a hosts
// file without the DC; the DC's DNS has its name but no reverse zone).
// libldap names the service after the peer's reverse name and falls back to
// the address, for which the KDC has no principal: the bind fails whether the
// settings name the DC by host name or by address.
#include "adtest.h"
#include "zmldap.h"

#include <QProcess>
#include <QtTest>

#include <netdb.h>
#include <sys/socket.h>

class AdBindWithoutDcName : public QObject {
    Q_OBJECT

    // The name the resolver gives an address back, or the address itself.
    static QString nameOf(const QString &address)
    {
        addrinfo hints {};
        hints.ai_family = AF_INET;
        hints.ai_flags = AI_NUMERICHOST;
        addrinfo *ai = nullptr;
        if (getaddrinfo(address.toUtf8().constData(), nullptr, &hints, &ai) != 0)
            return QString();
        char host[NI_MAXHOST] = {};
        const int rc = getnameinfo(ai->ai_addr, ai->ai_addrlen, host, sizeof host, nullptr, 0, 0);
        freeaddrinfo(ai);
        return rc == 0 ? QString::fromUtf8(host) : QString();
    }

private slots:
    void initTestCase()
    {
        AD_REQUIRED();
        // The set-up this program is about: the address does not resolve back.
        QCOMPARE(nameOf(ad::value("AD_DC_IP")), ad::value("AD_DC_IP"));
        QVERIFY(ad::kinit("AD_USER_NAME", "AD_USER_PASSWORD"));
    }
    void init() { ldapspy::reset(); }
    void cleanupTestCase()
    {
        const std::string problems = ad::endProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void bindFails_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("host name") << ad::value("AD_DC_HOST");
        QTest::newRow("address") << ad::value("AD_DC_IP");
    }

    void bindFails()
    {
        QFETCH(QString, host);
        const zelmora::ObjectInfo settings = ad::settings(QStringLiteral("8"), host);
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), LDAP_LOCAL_ERROR);
        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::gssapi, QStringLiteral("Use gssapi method")),
                              lcrit(fn::connect, QStringLiteral("ldap_bind_s error -2 Local error")),
                              ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        // No service ticket was issued.
        QCOMPARE(ad::cachedServices(), QStringList());
    }

    // What the KDC answers for the name the bind asked for.
    void kdcKnowsNoServiceForTheAddress()
    {
        const QString principal = QStringLiteral("ldap/") + ad::value("AD_DC_IP");
        QProcess kvno;
        kvno.start(QStringLiteral("kvno"), {principal});
        QVERIFY(kvno.waitForFinished(30000));
        QCOMPARE(kvno.exitCode(), 1);
        QCOMPARE(QString::fromUtf8(kvno.readAllStandardError()).trimmed(),
                 QStringLiteral("kvno: Server not found in Kerberos database while getting credentials for ") + principal
                     + QLatin1Char('@') + ad::value("AD_REALM"));
    }
};

QTEST_GUILESS_MAIN(AdBindWithoutDcName)
#include "tst_ad_bind_without_dc_name.moc"
