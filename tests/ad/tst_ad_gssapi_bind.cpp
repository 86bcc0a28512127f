// connect() with method 8 against the domain controller: a GSSAPI bind with
// the ticket of the process, by the DC's host name and by its address.
#include "adtest.h"
#include "zmldap.h"

#include <QRegularExpression>
#include <QtTest>

class AdGssapiBind : public QObject {
    Q_OBJECT

    // objectSid of the group that only alice belongs to: it is among the
    // session's tokenGroups exactly when the session is alice's.
    QByteArray m_staffSid;

    // The SIDs the DC gives the session's identity (the root DSE's tokenGroups).
    QList<QByteArray> sessionGroups(LDAP *ld)
    {
        int rc = -1;
        const QList<QByteArray> groups = ad::valuesOn(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", "tokenGroups", &rc);
        if (rc != LDAP_SUCCESS)
            qWarning() << "tokenGroups:" << rc << ldap_err2string(rc);
        return groups;
    }

private slots:
    void initTestCase()
    {
        AD_REQUIRED();
        QVERIFY(ad::kinit("AD_USER_NAME", "AD_USER_PASSWORD"));
        int rc = -1;
        const QList<DirEntry> staff = ad::ldapsearch(ad::value("AD_BASE_DN"),
                                                     QStringLiteral("(sAMAccountName=") + ad::value("AD_GROUP_NAME") + QLatin1Char(')'),
                                                     {QStringLiteral("objectSid")}, &rc);
        QCOMPARE(rc, 0);
        QCOMPARE(staff.size(), 1);
        m_staffSid = staff.first().valuesOf("objectSid").value(0);
        QVERIFY(!m_staffSid.isEmpty());
    }
    void init()
    {
        ldapspy::reset();
        krbtest::resetAll();
    }
    void cleanupTestCase()
    {
        const std::string problems = ad::endProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void bindsWithTicket_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("user");
        QTest::newRow("host name") << ad::value("AD_DC_HOST") << QString();
        QTest::newRow("address") << ad::value("AD_DC_IP") << QString();
        // The user setting becomes the SASL authorisation identity. The DC
        // ignores it: the session is the ticket's, whoever it names.
        QTest::newRow("host name, the ticket's login as user") << ad::value("AD_DC_HOST") << ad::value("AD_USER_NAME");
        QTest::newRow("address, another login as user") << ad::value("AD_DC_IP") << ad::value("AD_USER2_NAME");
    }

    void bindsWithTicket()
    {
        QFETCH(QString, host);
        QFETCH(QString, user);
        zelmora::ObjectInfo settings = ad::settings(QStringLiteral("8"), host);
        if (!user.isEmpty()) {
            settings.params.insert(QStringLiteral("PT_USER"), user);
            settings.params.insert(QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("not used by GSSAPI"));
        }
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);

        QCOMPARE(ldapspy::initializedUris(), QList<QByteArray>{"ldap://" + host.toUtf8() + ":389"});
        QCOMPARE(ldapspy::saslBinds().size(), 1);
        QCOMPARE(ldapspy::saslBinds().first().mechanism, QByteArray("GSSAPI"));
        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::gssapi, QStringLiteral("Use gssapi method"))}));
        // The mechanism asked for the authorisation identity only.
        QCOMPARE(log.texts(defaultCategory()).filter(QRegularExpression(QStringLiteral("^Get "))),
                 QStringList{QStringLiteral("Get user ") + user});

        // Whichever way the DC was named, the service ticket is for its
        // name, found back from its address.
        QVERIFY2(ad::cachedServices().contains(QStringLiteral("ldap/") + ad::value("AD_DC_HOST") + QLatin1Char('@') + ad::value("AD_REALM")),
                 qPrintable(ad::cachedServices().join(QLatin1Char(' '))));

        // The session is alice's: her group is in its token, and the domain
        // answers the searches it refuses to anonymous sessions.
        LDAP *ld = ldapspy::initializedHandles().value(0);
        QVERIFY(sessionGroups(ld).contains(m_staffSid));
        QCOMPARE(ldapspy::searchCount(ld, ad::value("AD_BASE_DN").toUtf8().constData(), "(sAMAccountName=alice)"), 1);
    }

    // Another user's ticket gives another identity (the check above can fail).
    void sessionFollowsTheTicket()
    {
        const QString cache = qEnvironmentVariable("KRB5CCNAME");
        qputenv("KRB5CCNAME", (cache + QStringLiteral("-bob")).toUtf8());
        QVERIFY(ad::kinit("AD_USER2_NAME", "AD_USER2_PASSWORD"));
        ZMLDAP ldap(ad::settings(QStringLiteral("8")));
        const int rc = ldap.connect();
        const QList<QByteArray> groups = rc == 0 ? sessionGroups(ldapspy::initializedHandles().value(0)) : QList<QByteArray>();
        krbtest::kdestroy();
        qputenv("KRB5CCNAME", cache.toUtf8());
        QCOMPARE(rc, 0);
        QVERIFY(!groups.isEmpty());
        QVERIFY(!groups.contains(m_staffSid));
    }

    // Without a ticket the mechanism cannot start: a local failure, no
    // request reaches the DC.
    void refusedWithoutTicket()
    {
        const QString cache = qEnvironmentVariable("KRB5CCNAME");
        qputenv("KRB5CCNAME", (cache + QStringLiteral("-none")).toUtf8());
        const zelmora::ObjectInfo settings = ad::settings(QStringLiteral("8"));
        LogCapture log;
        ZMLDAP ldap(settings);
        const int rc = ldap.connect();
        qputenv("KRB5CCNAME", cache.toUtf8());
        QCOMPARE(rc, LDAP_LOCAL_ERROR);
        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::gssapi, QStringLiteral("Use gssapi method")),
                              lcrit(fn::connect, QStringLiteral("ldap_bind_s error -2 Local error")),
                              ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QVERIFY(!ldap.checkADUser(ad::value("AD_USER_NAME")));
    }
};

QTEST_GUILESS_MAIN(AdGssapiBind)
#include "tst_ad_gssapi_bind.moc"
