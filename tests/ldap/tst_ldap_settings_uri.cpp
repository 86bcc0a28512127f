// A directory object built from its settings: the SASL defaults record, the
// server URI (16-bit port, no default port, plain scheme), setSettings that
// keeps address and credentials, info(), and a destructor that only unbinds
// what was connected.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

#include <cstring>

namespace {

zelmora::ObjectInfo settingsWith(const QHash<QString, QString> &params)
{
    zelmora::ObjectInfo s;
    s.params = params;
    return s;
}

} // namespace

class TestSettingsUri : public QObject {
    Q_OBJECT

private slots:
    void init() { ldapspy::reset(); }

    void defaultsFromSettings()
    {
        const zelmora::ObjectInfo s = settingsWith({{QStringLiteral("PT_USER"), QStringLiteral("alice")},
                                                    {QStringLiteral("PT_HOST"), QStringLiteral("dc1.example")},
                                                    {QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("secret")}});
        LDAPDefaults d(s);
        QCOMPARE(QByteArray(d.authzid), QByteArray("alice"));
        QCOMPARE(QByteArray(d.authcid), QByteArray("alice"));
        // The same setting, two arrays.
        QVERIFY(d.authzid != d.authcid);
        QCOMPARE(QByteArray(d.realm), QByteArray("dc1.example"));
        QCOMPARE(QByteArray(d.passwd), QByteArray("secret"));
    }

    // The arrays hold the whole UTF-8 form and its terminator.
    void defaultsUtf8()
    {
        const QString user = QStringLiteral("Иван");
        const QString password = QStringLiteral("Пароль-Ивана-3 \U0001F511");
        const QString host = QStringLiteral("хост.example");
        const zelmora::ObjectInfo s = settingsWith({{QStringLiteral("PT_USER"), user},
                                                    {QStringLiteral("PT_HOST"), host},
                                                    {QStringLiteral("PT_USER_PASSWORD"), password}});
        LDAPDefaults d(s);
        QCOMPARE(std::strlen(d.authzid), size_t(user.toUtf8().size()));
        QCOMPARE(QByteArray(d.authzid), user.toUtf8());
        QCOMPARE(QByteArray(d.authcid), user.toUtf8());
        QCOMPARE(QByteArray(d.realm), host.toUtf8());
        QCOMPARE(QByteArray(d.passwd), password.toUtf8());
        QVERIFY(std::strlen(d.passwd) > size_t(password.size()));
    }

    void defaultsUnset()
    {
        {
            LDAPDefaults d(zelmora::ObjectInfo{});
            QVERIFY(!d.authzid);
            QVERIFY(!d.realm);
            QVERIFY(!d.authcid);
            QVERIFY(!d.passwd);
        }
        {
            const zelmora::ObjectInfo s = settingsWith({{QStringLiteral("PT_HOST"), QStringLiteral("h")},
                                                        {QStringLiteral("PT_USER_PASSWORD"), QString::fromLatin1("")}});
            LDAPDefaults d(s);
            QVERIFY(!d.authzid);
            QVERIFY(!d.authcid);
            QVERIFY(!d.passwd);
            QCOMPARE(QByteArray(d.realm), QByteArray("h"));
        }
    }

    void defaultsAreACopy()
    {
        zelmora::ObjectInfo s = settingsWith({{QStringLiteral("PT_USER"), QStringLiteral("alice")}});
        LDAPDefaults d(s);
        s.params.insert(QStringLiteral("PT_USER"), QStringLiteral("bob"));
        s.params.insert(QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("x"));
        QCOMPARE(QByteArray(d.authzid), QByteArray("alice"));
        QVERIFY(!d.passwd);
    }

    void uri_data()
    {
        QTest::addColumn<QVariant>("host");   // invalid: key absent
        QTest::addColumn<QVariant>("port");
        QTest::addColumn<QByteArray>("uri");
        const QVariant absent;
        QTest::newRow("dc1:389") << QVariant(QStringLiteral("dc1")) << QVariant(QStringLiteral("389")) << QByteArray("ldap://dc1:389");
        QTest::newRow("636 stays plain ldap") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("636")) << QByteArray("ldap://h:636");
        QTest::newRow("65536") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("65536")) << QByteArray("ldap://h:0");
        QTest::newRow("70000") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("70000")) << QByteArray("ldap://h:4464");
        QTest::newRow("65535") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("65535")) << QByteArray("ldap://h:65535");
        QTest::newRow("abc") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("abc")) << QByteArray("ldap://h:0");
        QTest::newRow("-1") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("-1")) << QByteArray("ldap://h:0");
        QTest::newRow("2^32") << QVariant(QStringLiteral("h")) << QVariant(QStringLiteral("4294967296")) << QByteArray("ldap://h:0");
        QTest::newRow("empty port") << QVariant(QStringLiteral("h")) << QVariant(QString::fromLatin1("")) << QByteArray("ldap://h:0");
        QTest::newRow("absent port") << QVariant(QStringLiteral("h")) << absent << QByteArray("ldap://h:0");
        QTest::newRow("absent host") << absent << QVariant(QStringLiteral("389")) << QByteArray("ldap://:389");
        QTest::newRow("empty map") << absent << absent << QByteArray("ldap://:0");
        QTest::newRow("non-ASCII host") << QVariant(QStringLiteral("контроллер.пример")) << QVariant(QStringLiteral("389"))
                                        << QByteArray("ldap://") + QStringLiteral("контроллер.пример").toUtf8() + QByteArray(":389");
        QTest::newRow("host with blanks and colon") << QVariant(QStringLiteral("a b:c")) << QVariant(QStringLiteral("1"))
                                                    << QByteArray("ldap://a b:c:1");
    }

    // The URI as ldap_initialize receives it. Method 0 contacts nothing.
    void uri()
    {
        QFETCH(QVariant, host);
        QFETCH(QVariant, port);
        QFETCH(QByteArray, uri);
        zelmora::ObjectInfo s;
        if (host.isValid())
            s.params.insert(QStringLiteral("PT_HOST"), host.toString());
        if (port.isValid())
            s.params.insert(QStringLiteral("PT_PORT"), port.toString());
        s.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("0"));
        LogCapture log;
        {
            ZMLDAP ldap(s);
            QVERIFY(log.records().isEmpty());
            ldap.connect();
            QCOMPARE(ldapspy::initializedUris(), QList<QByteArray>{uri});
        }
        // The handle, if the library made one, is released once.
        QCOMPARE(ldapspy::unbound(), ldapspy::initializedHandles());
    }

    // Nothing logged, nothing contacted, and a destructor that calls nothing.
    void emptySettingsNeverConnected()
    {
        LogCapture log;
        {
            ZMLDAP ldap{zelmora::ObjectInfo{}};
            QVERIFY(log.records().isEmpty());
            QVERIFY(ldap.info().params.isEmpty());
        }
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary), QStringList{ldbg(fn::unbind, QStringLiteral("Unbind"))});
        QVERIFY(fromLibrary);
        QVERIFY(ldapspy::unbound().isEmpty());
        QVERIFY(ldapspy::initializedUris().isEmpty());
    }

    void deleteThroughBase()
    {
        LogCapture log;
        ZMLDAP *ldap = new ZMLDAP(zelmora::ObjectInfo{});
        delete ldap;
        QCOMPARE(lines(log), QStringList{ldbg(fn::unbind, QStringLiteral("Unbind"))});
    }

    // setSettings replaces what info() shows and what is read at use time, not
    // the URI fixed at construction.
    void setSettingsKeepsUri()
    {
        const zelmora::ObjectInfo first = settingsWith({{QStringLiteral("PT_HOST"), QStringLiteral("first.example")},
                                                        {QStringLiteral("PT_PORT"), QStringLiteral("1389")},
                                                        {QStringLiteral("PT_METHOD"), QStringLiteral("0")}});
        ZMLDAP ldap(first);
        QCOMPARE(ldap.info().params, first.params);
        const zelmora::ObjectInfo second = settingsWith({{QStringLiteral("PT_HOST"), QStringLiteral("second.example")},
                                                         {QStringLiteral("PT_PORT"), QStringLiteral("2389")},
                                                         {QStringLiteral("PT_METHOD"), QStringLiteral("0")}});
        LogCapture log;
        ldap.setSettings(second);
        QVERIFY(log.records().isEmpty());
        QCOMPARE(ldap.info().params, second.params);
        QCOMPARE(&ldap.info(), &ldap.info());
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(ldapspy::initializedUris(), QList<QByteArray>{"ldap://first.example:1389"});
    }

    void setSettingsKeepsSessionUntouched()
    {
        ZMLDAP ldap(settingsWith({{QStringLiteral("PT_HOST"), QStringLiteral("h")}, {QStringLiteral("PT_METHOD"), QStringLiteral("0")}}));
        QCOMPARE(ldap.connect(), 0);
        ldap.setSettings(zelmora::ObjectInfo{});
        QVERIFY(ldapspy::unbound().isEmpty());
        QCOMPARE(ldapspy::initializedUris().size(), 1);
    }

    void infoIsTheStoredRecord()
    {
        zelmora::ObjectInfo s = settingsWith({{QStringLiteral("PT_BASE_DN"), QStringLiteral("dc=x")}});
        s.type = QStringLiteral("OT_LDAP");
        ZMLDAP ldap(s);
        QCOMPARE(ldap.info().type, QStringLiteral("OT_LDAP"));
        QCOMPARE(ldap.info().params.value(QStringLiteral("PT_BASE_DN")), QStringLiteral("dc=x"));
        QVERIFY(ldap.info().params.value(QStringLiteral("PT_HOST")).isNull());
    }

    // Any text in every setting: nothing is validated at construction.
    void anyText()
    {
        const QString junk = QString::fromUtf8("\xE2\x80\x8F%zz[::]\t\n") + QChar(0) + QStringLiteral("é");
        QHash<QString, QString> params;
        for (const QString &key : {QStringLiteral("PT_HOST"), QStringLiteral("PT_PORT"), QStringLiteral("PT_USER"),
                                   QStringLiteral("PT_USER_PASSWORD"), QStringLiteral("PT_BASE_DN"),
                                   QStringLiteral("PT_USER_FILTER"), QStringLiteral("PT_USER_ID_PARAMETER"),
                                   QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER")})
            params.insert(key, junk);
        params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("0"));
        ZMLDAP ldap(settingsWith(params));
        ldap.connect();
        ldap.setResultObjectType(junk);
        QCOMPARE(ldapspy::initializedUris().size(), 1);
        QVERIFY(ldapspy::initializedUris().first().startsWith("ldap://"));
    }
};

QTEST_GUILESS_MAIN(TestSettingsUri)
#include "tst_ldap_settings_uri.moc"
