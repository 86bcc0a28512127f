// connect() when the LDAP library itself fails: ldap_initialize, each of the
// three options (two tolerated, the referrals option not), and an unknown
// auth method. These faults are produced by interposing the calls.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

namespace {

zelmora::ObjectInfo settingsFor(const QString &method)
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), QStringLiteral("127.0.0.1"));
    s.params.insert(QStringLiteral("PT_PORT"), QString::number(closedPort()));
    s.params.insert(QStringLiteral("PT_USER"), QStringLiteral("alice"));
    s.params.insert(QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("pw"));
    if (!method.isNull())
        s.params.insert(QStringLiteral("PT_METHOD"), method);
    return s;
}

} // namespace

class TestConnectFaults : public QObject {
    Q_OBJECT

private slots:
    void init() { ldapspy::reset(); }

    void initializeFails_data()
    {
        QTest::addColumn<int>("rc");
        QTest::newRow("param error") << LDAP_PARAM_ERROR;
        QTest::newRow("no memory") << LDAP_NO_MEMORY;
    }

    void initializeFails()
    {
        QFETCH(int, rc);
        ldapspy::failInitialize(rc);
        LogCapture log;
        {
            ZMLDAP ldap(settingsFor(QStringLiteral("1")));
            QCOMPARE(ldap.connect(), rc);
            QVERIFY(ldapspy::setOptionCalls().isEmpty());
            QVERIFY(ldapspy::saslBinds().isEmpty());
            // Still not connected: nothing is searched.
            QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
            QVERIFY(ldapspy::searches().isEmpty());
        }
        QCOMPARE(lines(log), (QStringList{dbg(fn::connect, QStringLiteral("ldap_initialize error ") + QString::number(rc)),
                                          ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QVERIFY(ldapspy::unbound().isEmpty());
    }

    // A failed initialisation leaves an existing session as it was.
    void initializeFailsWhenConnected()
    {
        auto *ldap = new ZMLDAP(settingsFor(QStringLiteral("0")));
        QCOMPARE(ldap->connect(), 0);
        LDAP *first = ldapspy::initializedHandles().value(0);
        ldapspy::failInitialize(LDAP_PARAM_ERROR);
        QCOMPARE(ldap->connect(), LDAP_PARAM_ERROR);
        QVERIFY(ldapspy::unbound().isEmpty());
        delete ldap;
        QCOMPARE(ldapspy::unbound(), QList<LDAP *>{first});
    }

    void toleratedOption_data()
    {
        QTest::addColumn<int>("option");
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("rc");
        QTest::newRow("protocol version") << int(LDAP_OPT_PROTOCOL_VERSION) << QStringLiteral("LDAP_OPT_PROTOCOL_VERSION") << LDAP_UNWILLING_TO_PERFORM;
        QTest::newRow("time limit") << int(LDAP_OPT_TIMELIMIT) << QStringLiteral("LDAP_OPT_TIMELIMIT") << LDAP_OPT_ERROR;
    }

    void toleratedOption()
    {
        QFETCH(int, option);
        QFETCH(QString, name);
        QFETCH(int, rc);
        ldapspy::failSetOption(option, rc);
        const zelmora::ObjectInfo s = settingsFor(QStringLiteral("0"));
        LogCapture log;
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(lines(log), (QStringList{dbg(fn::connect, QStringLiteral("ldap_set_option set ") + name + QStringLiteral(" error ")
                                                               + hexText(rc) + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(rc))),
                                          ldbg(fn::connect, settingsDump(s))}));
        QVERIFY(ldapspy::unbound().isEmpty());
        // The later options were still set.
        QCOMPARE(ldapspy::setOptionCalls().last().option, int(LDAP_OPT_REFERRALS));
    }

    void referralsOptionFails_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<int>("rc");
        QTest::newRow("method 0, other") << QStringLiteral("0") << LDAP_OTHER;
        QTest::newRow("method 1, -1") << QStringLiteral("1") << LDAP_OPT_ERROR;
        QTest::newRow("method 8, 0x35") << QStringLiteral("8") << LDAP_UNWILLING_TO_PERFORM;
    }

    // Unlike the other two options, a refused referrals option ends connect().
    void referralsOptionFails()
    {
        QFETCH(QString, method);
        QFETCH(int, rc);
        ldapspy::failSetOption(LDAP_OPT_REFERRALS, rc);
        LogCapture log;
        ZMLDAP ldap(settingsFor(method));
        QCOMPARE(ldap.connect(), rc);
        const QString code = hexText(rc) + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(rc));
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary),
                 (QStringList{dbg(fn::connect, QStringLiteral("ldap_set_option set LDAP_OPT_REFERRALS error ") + code),
                              lcrit(fn::connect, QStringLiteral("ldap_connect error ") + code),
                              // This path releases the session itself, not through unbind().
                              ldbg(fn::connect, QStringLiteral("Unbind"))}));
        QVERIFY(fromLibrary);
        QCOMPARE(ldapspy::unbound(), ldapspy::initializedHandles());
        QVERIFY(ldapspy::saslBinds().isEmpty());
        // Disconnected.
        log.clear();
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QVERIFY(log.records().isEmpty());
        ldapspy::unbound().clear();
    }

    void referralsCodeInHex()
    {
        ldapspy::failSetOption(LDAP_OPT_REFERRALS, 0x50);
        LogCapture log;
        ZMLDAP ldap(settingsFor(QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0x50);
        QCOMPARE(log.records().at(1).text, QStringLiteral("ldap_connect error 50 ") + QString::fromUtf8(ldap_err2string(0x50)));
    }

    void unknownMethod_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("2") << QStringLiteral("2");
        QTest::newRow("-1") << QStringLiteral("-1");
        QTest::newRow("9") << QStringLiteral("9");
        QTest::newRow("1000") << QStringLiteral("1000");
    }

    void unknownMethod()
    {
        QFETCH(QString, method);
        const zelmora::ObjectInfo s = settingsFor(method);
        LogCapture log;
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), -1);
        QVERIFY(ldapspy::saslBinds().isEmpty());
        QCOMPARE(lines(log), (QStringList{ldbg(fn::connect, settingsDump(s)),
                                          lcrit(fn::connect, QStringLiteral("ldap_bind_s error -1 Can't contact LDAP server")),
                                          ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound(), ldapspy::initializedHandles());
    }

    // A failing bind's code is the result, as the bind returned it.
    void bindFails_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<int>("rc");
        QTest::addColumn<QString>("step");
        QTest::newRow("digest 49") << QStringLiteral("1") << LDAP_INVALID_CREDENTIALS << dbg(fn::digest, QStringLiteral("Use digest method"));
        QTest::newRow("gssapi local error") << QStringLiteral("8") << LDAP_LOCAL_ERROR << dbg(fn::gssapi, QStringLiteral("Use gssapi method"));
        QTest::newRow("digest absent method, 0x7b (hex with letters)") << QString() << 0x7b << dbg(fn::digest, QStringLiteral("Use digest method"));
    }

    void bindFails()
    {
        QFETCH(QString, method);
        QFETCH(int, rc);
        QFETCH(QString, step);
        ldapspy::answerSaslBind(rc);
        const zelmora::ObjectInfo s = settingsFor(method);
        LogCapture log;
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), rc);
        QCOMPARE(lines(log), (QStringList{ldbg(fn::connect, settingsDump(s)), step,
                                          lcrit(fn::connect, QStringLiteral("ldap_bind_s error ") + hexText(rc) + QLatin1Char(' ')
                                                                 + QString::fromUtf8(ldap_err2string(rc))),
                                          ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound(), ldapspy::initializedHandles());
    }

    // The settings dump is written only when the category's debug is on.
    void settingsDumpFollowsCategory()
    {
        const zelmora::ObjectInfo s = settingsFor(QStringLiteral("0"));
        QLoggingCategory::setFilterRules(QStringLiteral("platform.lib.zmauth.ldap.debug=false"));
        {
            LogCapture log;
            ZMLDAP ldap(s);
            QCOMPARE(ldap.connect(), 0);
            QVERIFY(log.records().isEmpty());
        }
        QLoggingCategory::setFilterRules(QString());
        LogCapture log;
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(log.records().size(), 1);
        // The password is in it, in clear.
        QVERIFY(log.records().first().text.contains(QStringLiteral("\"PT_USER_PASSWORD\", \"pw\"")));
        QVERIFY(log.records().first().text.startsWith(QStringLiteral("ObjectInfo(")));
    }
};

QTEST_GUILESS_MAIN(TestConnectFaults)
#include "tst_ldap_connect_faults.moc"
