// connect() against the realm's slapd: anonymous sessions, DIGEST-MD5 and
// GSSAPI binds, the failures a real server gives, and what each leaves behind.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QtTest>

#include <optional>

class TestConnectBind : public QObject {
    Q_OBJECT

private:
    QString base() const { return RealmEnv::get().value(QStringLiteral("BASE_DN")); }
    // The entry of a login, read anonymously.
    QString dnOf(const QString &login) const
    {
        LDAP *ld = nullptr;
        ldap_initialize(&ld, RealmEnv::get().bytes(QStringLiteral("LDAP_URI")).constData());
        ldapspy::initializedHandles().removeLast();
        ldapspy::initializedUris().removeLast();
        const int version = LDAP_VERSION3;
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        LDAPMessage *res = nullptr;
        const QByteArray filter = "(sAMAccountName=" + login.toUtf8() + ')';
        const QByteArray b = base().toUtf8();
        ldap_search_ext_s(ld, b.constData(), LDAP_SCOPE_SUBTREE, filter.constData(), nullptr, 0, nullptr, nullptr, nullptr, 0, &res);
        ldapspy::searches().removeLast();
        QString dn;
        if (LDAPMessage *e = res ? ldap_first_entry(ld, res) : nullptr) {
            char *text = ldap_get_dn(ld, e);
            dn = QString::fromUtf8(text);
            ldap_memfree(text);
        }
        ldap_msgfree(res);
        ldap_unbind_ext(ld, nullptr, nullptr);
        ldapspy::unbound().removeLast();
        return dn;
    }

    bool kinitUser()
    {
        const RealmEnv &env = RealmEnv::get();
        QProcess kinit;
        kinit.start(QStringLiteral("kinit"), {env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM"))});
        if (!kinit.waitForStarted())
            return false;
        kinit.write(env.bytes(QStringLiteral("USER_PASSWORD")) + '\n');
        kinit.closeWriteChannel();
        if (!kinit.waitForFinished(30000))
            return false;
        if (kinit.exitCode() != 0)
            qWarning() << kinit.readAllStandardError();
        return kinit.exitCode() == 0;
    }

    int searchOn(LDAP *ld) const
    {
        int rc = -1;
        const int n = ldapspy::searchCount(ld, base().toUtf8().constData(), "(objectClass=person)", &rc);
        return rc == LDAP_SUCCESS ? n : -1;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    void init() { ldapspy::reset(); }

    void anonymous_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("0") << QStringLiteral("0");
        QTest::newRow("abc") << QStringLiteral("abc");
        QTest::newRow("empty") << QStringLiteral("");
    }

    // Method 0, text that is not a number, and an empty method: no bind.
    void anonymous()
    {
        QFETCH(QString, method);
        const zelmora::ObjectInfo settings = realmSettings(method);
        LogCapture log;
        {
            ZMLDAP ldap(settings);
            QCOMPARE(ldap.connect(), 0);
            QCOMPARE(ldapspy::saslBinds().size(), 0);
            QCOMPARE(ldapspy::initializedHandles().size(), 1);
            LDAP *ld = ldapspy::initializedHandles().first();
            QVERIFY(searchOn(ld) > 0);
            int rc = -1;
            QCOMPARE(ldapspy::whoAmI(ld, &rc), QString());
            QCOMPARE(rc, LDAP_SUCCESS);
            bool fromLibrary = false;
            QCOMPARE(lines(log, &fromLibrary), QStringList{ldbg(fn::connect, settingsDump(settings))});
            QVERIFY(fromLibrary);
            QVERIFY(ldapspy::unbound().isEmpty());
        }
        QCOMPARE(log.records().last().text, QStringLiteral("Unbind"));
        QCOMPARE(line(log.records().last()), ldbg(fn::unbind, QStringLiteral("Unbind")));
        QCOMPARE(ldapspy::unbound().size(), 1);
    }

    // The three options go on the new handle, in order, with these values.
    void optionsInOrder()
    {
        ZMLDAP ldap(realmSettings(QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0);
        LDAP *ld = ldapspy::initializedHandles().value(0);
        QList<SetOptionCall> calls;
        for (const SetOptionCall &c : ldapspy::setOptionCalls())
            if (c.ld == ld && (c.option == LDAP_OPT_PROTOCOL_VERSION || c.option == LDAP_OPT_TIMELIMIT || c.option == LDAP_OPT_REFERRALS))
                calls.append(c);
        QCOMPARE(calls.size(), 3);
        QCOMPARE(calls[0].option, LDAP_OPT_PROTOCOL_VERSION);
        QCOMPARE(calls[0].intValue, 3);
        QCOMPARE(calls[1].option, LDAP_OPT_TIMELIMIT);
        QCOMPARE(calls[1].intValue, 60);
        QCOMPARE(calls[2].option, LDAP_OPT_REFERRALS);
        QVERIFY(calls[2].nullValue);
        int version = 0;
        QCOMPARE(ldap_get_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version), LDAP_OPT_SUCCESS);
        QCOMPARE(version, 3);
        int limit = 0;
        QCOMPARE(ldap_get_option(ld, LDAP_OPT_TIMELIMIT, &limit), LDAP_OPT_SUCCESS);
        QCOMPARE(limit, 60);
        int referrals = -1;
        QCOMPARE(ldap_get_option(ld, LDAP_OPT_REFERRALS, &referrals), LDAP_OPT_SUCCESS);
        QCOMPARE(referrals, 0);
        QCOMPARE(ldapspy::initializedUris(),
                 QList<QByteArray>{"ldap://" + RealmEnv::get().bytes(QStringLiteral("LDAP_HOST")) + ':'
                                   + RealmEnv::get().bytes(QStringLiteral("LDAP_PORT"))});
    }

    void digest_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("password");
        const RealmEnv &env = RealmEnv::get();
        QTest::newRow("absent") << QString() << env.value(QStringLiteral("USER_NAME")) << env.value(QStringLiteral("USER_PASSWORD"));
        QTest::newRow("1") << QStringLiteral("1") << env.value(QStringLiteral("USER_NAME")) << env.value(QStringLiteral("USER_PASSWORD"));
        // The password goes out as its UTF-8 bytes.
        QTest::newRow("cyrillic password") << QStringLiteral("1") << env.value(QStringLiteral("CYR_USER_NAME"))
                                           << env.value(QStringLiteral("CYR_USER_PASSWORD"));
    }

    void digest()
    {
        QFETCH(QString, method);
        QFETCH(QString, user);
        QFETCH(QString, password);
        QVERIFY(!password.isEmpty());
        const zelmora::ObjectInfo settings = realmSettings(method, user, password);
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);

        QCOMPARE(ldapspy::saslBinds().size(), 1);
        const SaslBindCall bind = ldapspy::saslBinds().first();
        LDAP *ld = ldapspy::initializedHandles().value(0);
        QCOMPARE(bind.ld, ld);
        QVERIFY(!bind.hasDn);
        QCOMPARE(bind.mechanism, QByteArray("DIGEST-MD5"));
        QVERIFY(!bind.hasServerControls);
        QVERIFY(!bind.hasClientControls);
        QCOMPARE(bind.flags, unsigned(LDAP_SASL_QUIET));
        QVERIFY(bind.interact);
        QVERIFY(bind.defaults);

        QVERIFY(searchOn(ld) > 0);
        const QString id = ldapspy::whoAmI(ld);
        QCOMPARE(id, QStringLiteral("dn:") + dnOf(user).toLower());

        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::digest, QStringLiteral("Use digest method"))}));
        // The exchange asked for the password, and the log shows it.
        const QStringList callback = log.texts(defaultCategory());
        QVERIFY(callback.contains(QStringLiteral("Interact")));
        QVERIFY(callback.contains(QStringLiteral("Interact next")));
        QVERIFY2(callback.contains(QStringLiteral("Get pass ") + password), qPrintable(callback.join('\n')));
        QVERIFY(callback.contains(QStringLiteral("Get auth name ") + user));
        for (const LogRecord &r : log.records()) {
            QVERIFY2(isDirectorySource(r.file), qPrintable(r.file));
            if (r.text.startsWith(QStringLiteral("Interact")) || r.text.startsWith(QStringLiteral("Get ")))
                QCOMPARE(line(r), dbg(fn::interact, r.text));
        }
    }

    void gssapi()
    {
        const RealmEnv &env = RealmEnv::get();
        QVERIFY2(!qgetenv("KRB5CCNAME").isEmpty(), "KRB5CCNAME is not set for this test");
        QVERIFY(kinitUser());

        // No user setting: a GSSAPI bind names its identity by the ticket, and
        // an authorisation identity would ask the server for proxy rights.
        zelmora::ObjectInfo settings = realmSettings(QStringLiteral("8"));
        settings.params.remove(QStringLiteral("PT_USER"));
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(ldapspy::saslBinds().size(), 1);
        QCOMPARE(ldapspy::saslBinds().first().mechanism, QByteArray("GSSAPI"));
        QCOMPARE(ldapspy::saslBinds().first().flags, unsigned(LDAP_SASL_QUIET));
        LDAP *ld = ldapspy::initializedHandles().value(0);
        QVERIFY(searchOn(ld) > 0);
        QCOMPARE(ldapspy::whoAmI(ld), QStringLiteral("dn:") + dnOf(env.value(QStringLiteral("USER_NAME"))).toLower());
        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::gssapi, QStringLiteral("Use gssapi method"))}));
        for (const LogRecord &r : log.records())
            if (r.function == fn::interact)
                QCOMPARE(r.type, QtDebugMsg);

        QProcess::execute(QStringLiteral("kdestroy"), {});
    }

    // The server's refusal of the bind is the result, logged and unbound.
    void gssapiRefusedAuthorisationIdentity()
    {
        QVERIFY(kinitUser());
        zelmora::ObjectInfo settings = realmSettings(QStringLiteral("8"), QStringLiteral("bob"));
        LogCapture log;
        ZMLDAP ldap(settings);
        const int rc = ldap.connect();
        QVERIFY(rc != 0);
        const QStringList out = linesWithout(log, {fn::interact});
        QCOMPARE(out.mid(out.size() - 2),
                 (QStringList{lcrit(fn::connect, QStringLiteral("ldap_bind_s error ") + hexText(rc) + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(rc))),
                              ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound().size(), 1);
        QProcess::execute(QStringLiteral("kdestroy"), {});
    }

    void gssapiWithoutTicket()
    {
        QProcess::execute(QStringLiteral("kdestroy"), {});
        LogCapture log;
        ZMLDAP ldap(realmSettings(QStringLiteral("8")));
        const int rc = ldap.connect();
        QVERIFY(rc != 0);
        const QStringList out = linesWithout(log, {fn::interact});
        QCOMPARE(out.value(out.size() - 2),
                 lcrit(fn::connect, QStringLiteral("ldap_bind_s error ") + hexText(rc) + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(rc))));
        QCOMPARE(out.last(), ldbg(fn::unbind, QStringLiteral("Unbind")));
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
    }

    void wrongPassword()
    {
        const zelmora::ObjectInfo settings = realmSettings(QStringLiteral("1"), QString(), QStringLiteral("not-the-password"));
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), LDAP_INVALID_CREDENTIALS);
        LDAP *ld = ldapspy::initializedHandles().value(0);
        QCOMPARE(linesWithout(log, {fn::interact}),
                 (QStringList{ldbg(fn::connect, settingsDump(settings)), dbg(fn::digest, QStringLiteral("Use digest method")),
                              lcrit(fn::connect, QStringLiteral("ldap_bind_s error 31 Invalid credentials")),
                              ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound(), QList<LDAP *>{ld});

        // Disconnected: nothing talks to the server, nothing is logged.
        log.clear();
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list));
        QVERIFY(!ldap.getUserList(list, {}));
        ZMLDAPObjectIterator it(&ldap, {});
        QCOMPARE(it.size(), 0);
        QVERIFY(ldapspy::searches().isEmpty());
        QVERIFY(log.records().isEmpty());
    }

    void serverNotListening_data()
    {
        QTest::addColumn<QString>("method");
        QTest::newRow("digest") << QStringLiteral("1");
        QTest::newRow("gssapi") << QStringLiteral("8");
    }

    void serverNotListening()
    {
        QFETCH(QString, method);
        zelmora::ObjectInfo settings = realmSettings(method);
        settings.params.insert(QStringLiteral("PT_PORT"), QString::number(closedPort()));
        LogCapture log;
        ZMLDAP ldap(settings);
        QElapsedTimer timer;
        timer.start();
        const int rc = ldap.connect();
        QVERIFY(timer.elapsed() < 20000);
        QCOMPARE(rc, LDAP_SERVER_DOWN);
        const QStringList out = linesWithout(log, {fn::interact});
        QCOMPARE(out.mid(out.size() - 2),
                 (QStringList{lcrit(fn::connect, QStringLiteral("ldap_bind_s error -1 Can't contact LDAP server")),
                              ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound().size(), 1);
    }

    // Anonymous sessions do not contact the server: the first search does.
    void serverNotListeningAnonymous()
    {
        zelmora::ObjectInfo settings = realmSettings(QStringLiteral("0"));
        settings.params.insert(QStringLiteral("PT_PORT"), QString::number(closedPort()));
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QCOMPARE(log.records().last().type, QtCriticalMsg);
        QCOMPARE(line(log.records().last()), lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s -1 Can't contact LDAP server")));
    }

    void unknownMethod()
    {
        const zelmora::ObjectInfo settings = realmSettings(QStringLiteral("2"));
        LogCapture log;
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), -1);
        QVERIFY(ldapspy::saslBinds().isEmpty());
        QCOMPARE(lines(log), (QStringList{ldbg(fn::connect, settingsDump(settings)),
                                          lcrit(fn::connect, QStringLiteral("ldap_bind_s error -1 ") + QString::fromUtf8(ldap_err2string(-1))),
                                          ldbg(fn::unbind, QStringLiteral("Unbind"))}));
        QCOMPARE(ldapspy::unbound().size(), 1);
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QVERIFY(ldapspy::searches().isEmpty());
    }

    // Host, port and credentials stay as built; the method is read at use.
    void setSettingsKeepsAddressAndCredentials()
    {
        ZMLDAP ldap(realmSettings(QStringLiteral("0")));
        zelmora::ObjectInfo other = realmSettings(QStringLiteral("1"), QStringLiteral("bob"), QStringLiteral("wrong"));
        other.params.insert(QStringLiteral("PT_HOST"), QStringLiteral("127.0.0.9"));
        other.params.insert(QStringLiteral("PT_PORT"), QString::number(closedPort()));
        ldap.setSettings(other);
        QCOMPARE(ldap.info().params, other.params);
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(ldapspy::initializedUris(),
                 QList<QByteArray>{"ldap://" + RealmEnv::get().bytes(QStringLiteral("LDAP_HOST")) + ':'
                                   + RealmEnv::get().bytes(QStringLiteral("LDAP_PORT"))});
        QCOMPARE(ldapspy::saslBinds().size(), 1);
        QVERIFY(ldapspy::whoAmI(ldapspy::initializedHandles().value(0)).contains(RealmEnv::get().value(QStringLiteral("USER_NAME"))));
    }

    void unsetSettings_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<bool>("empty");   // false: absent
        for (const char *key : {"PT_HOST", "PT_PORT", "PT_USER", "PT_USER_PASSWORD", "PT_METHOD", "PT_BASE_DN",
                                "PT_USER_FILTER", "PT_USER_ID_PARAMETER", "PT_USER_CUSTOM_FIELDS_PARAMETER"}) {
            QTest::newRow((QByteArray(key) + " absent").constData()) << QString::fromLatin1(key) << false;
            QTest::newRow((QByteArray(key) + " empty").constData()) << QString::fromLatin1(key) << true;
        }
    }

    // Every operation with one setting missing or empty: a result, no crash.
    void unsetSettings()
    {
        QFETCH(QString, key);
        QFETCH(bool, empty);
        zelmora::ObjectInfo settings = realmSettings(QStringLiteral("1"));
        settings.params.insert(QStringLiteral("PT_USER_FILTER"), QStringLiteral("(objectClass=user)"));
        settings.params.insert(QStringLiteral("PT_USER_ID_PARAMETER"), QStringLiteral("sAMAccountName"));
        settings.params.insert(QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), QStringLiteral("[{\"cn\": \"PT_SURNAME PT_NAME\"}]"));
        if (empty)
            settings.params.insert(key, QString::fromLatin1(""));
        else
            settings.params.remove(key);
        LogCapture log;
        ZMLDAP ldap(settings);
        QElapsedTimer timer;
        timer.start();
        const int rc = ldap.connect();
        QVERIFY(timer.elapsed() < 20000);
        if (rc != 0) {
            QCOMPARE(line(log.records().last()), ldbg(fn::unbind, QStringLiteral("Unbind")));
            QCOMPARE(log.records().at(log.records().size() - 2).type, QtCriticalMsg);
            QCOMPARE(ldapspy::unbound().size(), 1);
        }
        const bool found = ldap.checkADUser(QStringLiteral("alice"));
        QList<zelmora::ObjectInfo> list;
        bool listed = false;
        {
            // An empty filter makes slapd answer with a notice of
            // disconnection. The iterator then sends the same filter on the
            // same session and, depending on timing, gets a notice of its own
            // (on the connection before slapd has closed it, or on one that
            // libldap opens again), so its search is covered too.
            std::optional<ServerDisconnectScope> libldapLoses;
            if (key == QStringLiteral("PT_USER_FILTER") && empty)
                libldapLoses.emplace();
            listed = ldap.getUserList(list);
            ZMLDAPObjectIterator it(&ldap, {});
            for (zelmora::ObjectInfo r = it.first(); !r.params.isEmpty(); r = it.next()) {
            }
        }
        // The session works with anything but the address and the credentials.
        if (key == QStringLiteral("PT_BASE_DN") || (key == QStringLiteral("PT_USER_ID_PARAMETER") && empty)) {
            QVERIFY(!found);
        } else if (key != QStringLiteral("PT_PORT") && key != QStringLiteral("PT_USER") && key != QStringLiteral("PT_USER_PASSWORD")
                   && key != QStringLiteral("PT_HOST")) {
            QCOMPARE(rc, 0);
            QVERIFY(found);
            QVERIFY(listed || key == QStringLiteral("PT_USER_FILTER"));
        }
        for (const LogRecord &r : log.records())
            QVERIFY2(isDirectorySource(r.file), qPrintable(r.file));
    }

    // connect() does not release a session it replaces; the test releases
    // the first handle itself.
    void secondConnect()
    {
        LDAP *first = nullptr;
        {
            ZMLDAP ldap(realmSettings(QStringLiteral("1")));
            QCOMPARE(ldap.connect(), 0);
            QCOMPARE(ldap.connect(), 0);
            QCOMPARE(ldapspy::initializedHandles().size(), 2);
            first = ldapspy::initializedHandles().at(0);
            LDAP *second = ldapspy::initializedHandles().at(1);
            QVERIFY(first != second);
            QVERIFY(ldapspy::unbound().isEmpty());
            QVERIFY(searchOn(first) > 0);
            QVERIFY(searchOn(second) > 0);
        }
        QCOMPARE(ldapspy::unbound(), QList<LDAP *>{ldapspy::initializedHandles().at(1)});
        ldap_unbind_ext(first, nullptr, nullptr);
    }

    // A second connect() whose bind fails returns that bind's code.
    void secondConnectFails()
    {
        zelmora::ObjectInfo settings = realmSettings(QStringLiteral("1"));
        ZMLDAP ldap(settings);
        QCOMPARE(ldap.connect(), 0);
        settings.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("2"));
        ldap.setSettings(settings);
        QCOMPARE(ldap.connect(), -1);
        QCOMPARE(ldapspy::unbound(), QList<LDAP *>{ldapspy::initializedHandles().at(1)});
        ldap_unbind_ext(ldapspy::initializedHandles().at(0), nullptr, nullptr);
    }
};

QTEST_GUILESS_MAIN(TestConnectBind)
#include "tst_ldap_connect_bind.moc"
