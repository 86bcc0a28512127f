// connect() against the test domain the way a domain member reaches it: the
// domain controllers found through DNS (SRV records, a site's first), a dead
// controller passed over, LDAPS with the DC's own CA, and GSSAPI inside TLS
// without a SASL layer. It runs where the DC's address has no name (no
// reverse record): the GSSAPI bind to a discovered controller names it as
// DNS gave it. The records it adds use names of its own (a site and a
// controller that exist nowhere else), so the domain's other tests never
// meet them; they are removed at the end.
#include "adtest.h"
#include "zmldap.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QtTest>

namespace {

const int kTimeoutSeconds = 2;
const qint64 kHangGuardMs = 30 * kTimeoutSeconds * 1000;

const QString kSite = QStringLiteral("zmsrvsite");
// An address of the namespace's network where no host is.
const QString kDeadDcName = QStringLiteral("zmsrvdead");
const QString kDeadDcAddress = QStringLiteral("10.213.0.77");

QString deadDcHost() { return kDeadDcName + QLatin1Char('.') + ad::value("AD_DNS_DOMAIN"); }

// samba-tool dns add|delete on the DC, as the administrator.
bool dns(const QString &verb, const QString &zone, const QString &name, const QString &type, const QString &data,
         QString *output)
{
    QProcess tool;
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(QStringLiteral("samba-tool"),
               {QStringLiteral("dns"), verb, ad::value("AD_DC_HOST"), zone, name, type, data,
                QStringLiteral("-s"), ad::value("AD_DIR") + QStringLiteral("/samba/etc/smb.conf"),
                QStringLiteral("-U"), ad::value("AD_ADMIN_NAME") + QLatin1Char('%') + ad::value("AD_ADMIN_PASSWORD")});
    const bool finished = tool.waitForFinished(120000);
    *output = QString::fromLocal8Bit(tool.readAll());
    return finished && tool.exitCode() == 0;
}

struct Record {
    QString zone, name, type, data;
};

QList<Record> records()
{
    const QString domain = ad::value("AD_DNS_DOMAIN");
    const QString msdcs = QStringLiteral("_msdcs.") + domain;
    const QString siteName = QStringLiteral("_ldap._tcp.") + kSite + QStringLiteral("._sites.dc");
    return {
        {domain, kDeadDcName, QStringLiteral("A"), kDeadDcAddress},
        // In the site: the dead controller at a better priority than dc1.
        {msdcs, siteName, QStringLiteral("SRV"), deadDcHost() + QStringLiteral(" 389 0 100")},
        {msdcs, siteName, QStringLiteral("SRV"), ad::value("AD_DC_HOST") + QStringLiteral(" 389 10 100")},
    };
}

zelmora::ObjectInfo discoverySettings(const QString &method, const QString &site = QString())
{
    zelmora::ObjectInfo s = ad::settings(method, QString::fromLatin1(""));
    s.params.insert(QStringLiteral("PT_DOMAIN"), ad::value("AD_DNS_DOMAIN"));
    if (!site.isEmpty())
        s.params.insert(QStringLiteral("PT_SITE"), site);
    s.params.insert(QStringLiteral("PT_TIMEOUT"), QString::number(kTimeoutSeconds));
    s.params.remove(QStringLiteral("PT_USER"));
    return s;
}

zelmora::ObjectInfo tlsSettings(const QString &transport, const QString &host, const QString &method,
                                const QString &caFile = ad::value("AD_TLS_CA_FILE"))
{
    zelmora::ObjectInfo s = ad::settings(method, host);
    s.params.remove(QStringLiteral("PT_USER"));
    s.params.insert(QStringLiteral("PT_TLS"), transport);
    s.params.insert(QStringLiteral("PT_PORT"), transport == QLatin1String("ldaps") ? ad::value("AD_LDAPS_PORT")
                                                                                  : ad::value("AD_LDAP_PORT"));
    s.params.insert(QStringLiteral("PT_TLS_CA_FILE"), caFile);
    return s;
}

QStringList passedOver(const LogCapture &log)
{
    QStringList out;
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtDebugMsg && r.text.startsWith(QLatin1String("Passing over ")))
            out.append(r.text);
    return out;
}

QStringList critical(const LogCapture &log)
{
    QStringList out;
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtCriticalMsg)
            out.append(r.text);
    return out;
}

// alice's badPwdCount, read by ldapsearch with the ticket in the cache; -N:
// the DC's address has no name to canonicalise to.
int badPasswordCount()
{
    QProcess search;
    search.start(QStringLiteral("ldapsearch"),
                 {QStringLiteral("-Q"), QStringLiteral("-LLL"), QStringLiteral("-N"), QStringLiteral("-Y"), QStringLiteral("GSSAPI"),
                  QStringLiteral("-H"), QStringLiteral("ldap://") + ad::value("AD_DC_HOST"), QStringLiteral("-b"),
                  ad::value("AD_BASE_DN"), QStringLiteral("(sAMAccountName=") + ad::value("AD_USER_NAME") + QLatin1Char(')'),
                  QStringLiteral("badPwdCount")});
    if (!search.waitForFinished(60000) || search.exitCode() != 0)
        return -1;
    for (const QByteArray &line : search.readAllStandardOutput().split('\n'))
        if (line.startsWith("badPwdCount: "))
            return line.mid(13).trimmed().toInt();
    return -1;
}

} // namespace

class AdServers : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        AD_REQUIRED();
        QVERIFY(ad::kinit("AD_USER_NAME", "AD_USER_PASSWORD"));
        for (const Record &r : records()) {
            QString output;
            QVERIFY2(dns(QStringLiteral("add"), r.zone, r.name, r.type, r.data, &output), qPrintable(output));
        }
    }
    void init() { ldapspy::reset(); }
    void cleanupTestCase()
    {
        if (ad::isUp()) {
            for (const Record &r : records()) {
                QString output;
                if (!dns(QStringLiteral("delete"), r.zone, r.name, r.type, r.data, &output))
                    qWarning() << "could not remove" << r.name << r.data << output;
            }
        }
        const std::string problems = ad::endProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    // _ldap._tcp.dc._msdcs.<domain> names dc1 (0 100 389); the GSSAPI bind
    // names it by that name, with no reverse record for its address.
    void discoveryFindsTheDomainsController()
    {
        LogCapture log;
        ZMLDAP ldap(discoverySettings(QStringLiteral("8")));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(passedOver(log).isEmpty());
        const zmldap::Connection c = ldap.connection();
        QCOMPARE(c.uri, QStringLiteral("ldap://") + ad::value("AD_DC_HOST") + QStringLiteral(":389"));
        QVERIFY(c.tlsProtocol.isEmpty());
        QVERIFY(c.saslSsf > 0);
        QVERIFY(ldap.checkADUser(ad::value("AD_USER_NAME")));
    }

    // The site's records come first: its dead controller, at the better
    // priority, is passed over and dc1 binds.
    void deadControllerOfTheSiteIsPassedOver()
    {
        LogCapture log;
        ZMLDAP ldap(discoverySettings(QStringLiteral("8"), kSite));
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(ldap.connect(), 0);
        const qint64 elapsed = timer.elapsed();
        qInfo() << "dead controller passed over in" << elapsed << "ms";
        QVERIFY2(elapsed < kHangGuardMs, qPrintable(QString::number(elapsed)));
        const QStringList over = passedOver(log);
        QCOMPARE(over.size(), 1);
        QVERIFY2(over.first().startsWith(QStringLiteral("Passing over ldap://") + deadDcHost() + QStringLiteral(":389 - ldap_connect error ")),
                 qPrintable(over.first()));
        QCOMPARE(ldap.connection().uri, QStringLiteral("ldap://") + ad::value("AD_DC_HOST") + QStringLiteral(":389"));
        QVERIFY(ldap.checkADUser(ad::value("AD_USER_NAME")));
    }

    // Without the site the dead controller is not among the candidates.
    void withoutTheSiteItsRecordsAreNotUsed()
    {
        LogCapture log;
        ZMLDAP ldap(discoverySettings(QStringLiteral("8")));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(passedOver(log).isEmpty());
    }

    // Three candidates and a wrong password: the first controller that
    // answers refuses, and the walk ends there. The DC offers no DIGEST-MD5
    // (method 1 is refused with 1 before any password is checked), so the
    // account's bad password count does not rise at all; it must never rise
    // by more than the one refusal.
    void wrongPasswordIsSentToOneControllerOnly()
    {
        const int before = badPasswordCount();
        QVERIFY(before >= 0);
        zelmora::ObjectInfo s = discoverySettings(QStringLiteral("1"), kSite);
        s.params.insert(QStringLiteral("PT_USER"), ad::value("AD_USER_NAME"));
        s.params.insert(QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("Wrong-Password-1"));
        s.params.insert(QStringLiteral("PT_FAILOVER_HOSTS"), ad::value("AD_DC_IP"));
        LogCapture log;
        ZMLDAP ldap(s);
        const int rc = ldap.connect();
        QCOMPARE(rc, int(LDAP_OPERATIONS_ERROR));
        QCOMPARE(log.texts().count(QStringLiteral("Use digest method")), 1);
        QCOMPARE(badPasswordCount(), before);
    }

    void ldapsAndStartTlsVerifyWithTheDcsCa_data()
    {
        QTest::addColumn<QString>("transport");
        QTest::newRow("LDAPS") << QStringLiteral("ldaps");
        QTest::newRow("StartTLS") << QStringLiteral("starttls");
    }
    void ldapsAndStartTlsVerifyWithTheDcsCa()
    {
        QFETCH(QString, transport);
        ZMLDAP ldap(tlsSettings(transport, ad::value("AD_DC_HOST"), QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0);
        const zmldap::Connection c = ldap.connection();
        QVERIFY(c.tlsProtocol.startsWith(QLatin1String("TLS1.")));
        QVERIFY(!c.tlsCipher.isEmpty());
    }

    // Another CA file (the system's bundle), and the bare address, whose
    // name the DC's certificate does not carry.
    void ldapsFailsWithAnotherCaAndForTheBareAddress_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("caFile");
        QTest::newRow("another CA") << ad::value("AD_DC_HOST") << QStringLiteral("/etc/ssl/certs/ca-certificates.crt");
        QTest::newRow("bare address") << ad::value("AD_DC_IP") << ad::value("AD_TLS_CA_FILE");
    }
    void ldapsFailsWithAnotherCaAndForTheBareAddress()
    {
        QFETCH(QString, host);
        QFETCH(QString, caFile);
        LogCapture log;
        ZMLDAP ldap(tlsSettings(QStringLiteral("ldaps"), host, QStringLiteral("0"), caFile));
        const int rc = ldap.connect();
        QCOMPARE(rc, int(LDAP_SERVER_DOWN));
        QCOMPARE(critical(log), QStringList{QStringLiteral("ldap_connect error -1 ") + QString::fromUtf8(ldap_err2string(rc))});
        QVERIFY(!ldap.connection().connected);
    }

    // GSSAPI inside TLS with no SASL layer of its own and the TLS channel
    // binding: this DC takes it (with a SASL layer it answers 53, "Sign or
    // Seal are not allowed if TLS is used"), and the session serves.
    void gssapiInsideTlsBindsWithoutSaslLayer_data() { ldapsAndStartTlsVerifyWithTheDcsCa_data(); }
    void gssapiInsideTlsBindsWithoutSaslLayer()
    {
        QFETCH(QString, transport);
        // Through the failover list, so that the SASL host is the name as given.
        zelmora::ObjectInfo s = tlsSettings(transport, QString::fromLatin1(""), QStringLiteral("8"));
        s.params.insert(QStringLiteral("PT_FAILOVER_HOSTS"),
                        ad::value("AD_DC_HOST") + QLatin1Char(':') + s.params.value(QStringLiteral("PT_PORT")));
        LogCapture log;
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(critical(log).isEmpty());
        const zmldap::Connection c = ldap.connection();
        QVERIFY(c.tlsProtocol.startsWith(QLatin1String("TLS1.")));
        QCOMPARE(c.saslSsf, 0);
        QVERIFY(ldap.checkADUser(ad::value("AD_USER_NAME")));
    }
};

QTEST_GUILESS_MAIN(AdServers)
#include "tst_ad_servers.moc"
