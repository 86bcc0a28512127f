// The SASL interaction callback: which answer each question gets from the
// directory object's defaults, the shared empty answer, and its log lines.
// The callback and its defaults are taken from the bind call that connect()
// makes; the test then drives them with its own interaction arrays.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

#include <sasl/sasl.h>

#include <cstring>
#include <vector>

namespace {

sasl_interact_t question(unsigned long id)
{
    sasl_interact_t q;
    std::memset(&q, 0, sizeof q);
    q.id = id;
    q.challenge = "challenge";
    q.prompt = "prompt";
    q.defresult = "default answer";
    q.result = reinterpret_cast<const void *>(0x1);   // overwritten by the callback
    q.len = 12345;
    return q;
}

} // namespace

class TestSaslInteract : public QObject {
    Q_OBJECT

private:
    // Connects with method 1 against a bind call that answers by itself, and
    // hands out the callback and defaults the library passed.
    bool capture(ZMLDAP &ldap, LDAP_SASL_INTERACT_PROC **proc, void **defaults)
    {
        ldapspy::answerSaslBind(LDAP_SUCCESS);
        if (ldap.connect() != 0 || ldapspy::saslBinds().size() != 1)
            return false;
        *proc = ldapspy::saslBinds().first().interact;
        *defaults = ldapspy::saslBinds().first().defaults;
        return *proc && *defaults;
    }

    static zelmora::ObjectInfo settings(const QString &user, const QString &host, const QString &password)
    {
        zelmora::ObjectInfo s;
        if (!user.isNull())
            s.params.insert(QStringLiteral("PT_USER"), user);
        if (!host.isNull())
            s.params.insert(QStringLiteral("PT_HOST"), host);
        if (!password.isNull())
            s.params.insert(QStringLiteral("PT_USER_PASSWORD"), password);
        s.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("1"));
        return s;
    }

private slots:
    void init() { ldapspy::reset(); }

    void defaultsArgumentIsTheRecord()
    {
        ZMLDAP ldap(settings(QStringLiteral("alice"), QStringLiteral("dc1"), QStringLiteral("pw")));
        LDAP_SASL_INTERACT_PROC *proc = nullptr;
        void *defaults = nullptr;
        QVERIFY(capture(ldap, &proc, &defaults));
        const auto *d = static_cast<const LDAPDefaults *>(defaults);
        QCOMPARE(QByteArray(d->authzid), QByteArray("alice"));
        QCOMPARE(QByteArray(d->realm), QByteArray("dc1"));
        QCOMPARE(QByteArray(d->authcid), QByteArray("alice"));
        QCOMPARE(QByteArray(d->passwd), QByteArray("pw"));
        QCOMPARE(ldapspy::saslBinds().first().mechanism, QByteArray("DIGEST-MD5"));
        // The same record for every bind of this object.
        QCOMPARE(ldap.connect(), 0);
        QCOMPARE(ldapspy::saslBinds().at(1).defaults, defaults);
        ldap_unbind_ext(ldapspy::initializedHandles().at(0), nullptr, nullptr);
    }

    void everyQuestion()
    {
        const QString password = QStringLiteral("Пароль-Ивана-3");
        ZMLDAP ldap(settings(QStringLiteral("ivan"), QStringLiteral("dc1.example"), password));
        LDAP_SASL_INTERACT_PROC *proc = nullptr;
        void *defaults = nullptr;
        QVERIFY(capture(ldap, &proc, &defaults));
        const auto *d = static_cast<const LDAPDefaults *>(defaults);

        std::vector<sasl_interact_t> qs{question(SASL_CB_GETREALM), question(SASL_CB_AUTHNAME), question(SASL_CB_PASS),
                                        question(SASL_CB_USER), question(SASL_CB_NOECHOPROMPT), question(SASL_CB_ECHOPROMPT),
                                        question(SASL_CB_LANGUAGE), question(SASL_CB_CNONCE), question(SASL_CB_LIST_END)};
        LogCapture log;
        QCOMPARE(proc(nullptr, 0, defaults, qs.data()), LDAP_SUCCESS);

        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary),
                 (QStringList{dbg(fn::interact, QStringLiteral("Interact")),
                              dbg(fn::interact, QStringLiteral("Interact next")), dbg(fn::interact, QStringLiteral("Get realm dc1.example")),
                              dbg(fn::interact, QStringLiteral("Interact next")), dbg(fn::interact, QStringLiteral("Get auth name ivan")),
                              dbg(fn::interact, QStringLiteral("Interact next")), dbg(fn::interact, QStringLiteral("Get pass ") + password),
                              dbg(fn::interact, QStringLiteral("Interact next")), dbg(fn::interact, QStringLiteral("Get user ivan")),
                              dbg(fn::interact, QStringLiteral("Interact next")), dbg(fn::interact, QStringLiteral("Get NO echo prompt")),
                              dbg(fn::interact, QStringLiteral("Interact next")), dbg(fn::interact, QStringLiteral("Get echo prompt")),
                              dbg(fn::interact, QStringLiteral("Interact next")),
                              dbg(fn::interact, QStringLiteral("Interact next"))}));
        QVERIFY(fromLibrary);

        // The answers point into the defaults record, not copies.
        QCOMPARE(qs[0].result, static_cast<const void *>(d->realm));
        QCOMPARE(qs[0].len, unsigned(std::strlen(d->realm)));
        QCOMPARE(qs[1].result, static_cast<const void *>(d->authcid));
        QCOMPARE(qs[2].result, static_cast<const void *>(d->passwd));
        // The password's UTF-8 bytes, all of them.
        QCOMPARE(qs[2].len, unsigned(password.toUtf8().size()));
        QCOMPARE(QByteArray(static_cast<const char *>(qs[2].result), int(qs[2].len)), password.toUtf8());
        QCOMPARE(qs[3].result, static_cast<const void *>(d->authzid));
        QCOMPARE(qs[3].len, 4u);

        // Questions without an answer share one static empty string.
        const void *empty = qs[4].result;
        QVERIFY(empty);
        QCOMPARE(*static_cast<const char *>(empty), '\0');
        for (int i = 4; i < 8; ++i) {
            QCOMPARE(qs[size_t(i)].result, empty);
            QCOMPARE(qs[size_t(i)].len, 0u);
        }
        // Prompts and suggested answers are left alone.
        QCOMPARE(QByteArray(qs[4].defresult), QByteArray("default answer"));
        // The end marker is not touched.
        QCOMPARE(qs[8].len, 12345u);
    }

    // Null and empty settings give the static empty string with length 0.
    void unsetAnswers_data()
    {
        QTest::addColumn<QString>("value");
        QTest::newRow("absent") << QString();
        QTest::newRow("empty") << QString::fromLatin1("");
    }

    void unsetAnswers()
    {
        QFETCH(QString, value);
        ZMLDAP ldap(settings(value, value, value));
        LDAP_SASL_INTERACT_PROC *proc = nullptr;
        void *defaults = nullptr;
        QVERIFY(capture(ldap, &proc, &defaults));
        std::vector<sasl_interact_t> qs{question(SASL_CB_GETREALM), question(SASL_CB_AUTHNAME), question(SASL_CB_PASS),
                                        question(SASL_CB_USER), question(SASL_CB_ECHOPROMPT), question(SASL_CB_LIST_END)};
        LogCapture log;
        QCOMPARE(proc(nullptr, 0, defaults, qs.data()), LDAP_SUCCESS);
        const void *empty = qs[4].result;
        for (int i = 0; i < 5; ++i) {
            QCOMPARE(qs[size_t(i)].result, empty);
            QCOMPARE(qs[size_t(i)].len, 0u);
        }
        QCOMPARE(*static_cast<const char *>(empty), '\0');
        // The log lines name the question with nothing after it.
        const QStringList texts = log.texts();
        QCOMPARE(texts.size(), 11);
        QCOMPARE(texts.at(2).trimmed(), QStringLiteral("Get realm"));
        QCOMPARE(texts.at(4).trimmed(), QStringLiteral("Get auth name"));
        QCOMPARE(texts.at(6).trimmed(), QStringLiteral("Get pass"));
        QCOMPARE(texts.at(8).trimmed(), QStringLiteral("Get user"));

        // And the same static string in another directory object.
        ZMLDAP other(settings(QString(), QString(), QString()));
        ldapspy::reset();
        QVERIFY(capture(other, &proc, &defaults));
        std::vector<sasl_interact_t> again{question(SASL_CB_PASS), question(SASL_CB_LIST_END)};
        proc(nullptr, 0, defaults, again.data());
        QCOMPARE(again[0].result, empty);
    }

    void endMarkerFirst()
    {
        ZMLDAP ldap(settings(QStringLiteral("alice"), QStringLiteral("h"), QStringLiteral("pw")));
        LDAP_SASL_INTERACT_PROC *proc = nullptr;
        void *defaults = nullptr;
        QVERIFY(capture(ldap, &proc, &defaults));
        std::vector<sasl_interact_t> qs{question(SASL_CB_LIST_END), question(SASL_CB_PASS), question(SASL_CB_LIST_END)};
        LogCapture log;
        QCOMPARE(proc(nullptr, 0, defaults, qs.data()), LDAP_SUCCESS);
        QCOMPARE(lines(log), QStringList{dbg(fn::interact, QStringLiteral("Interact"))});
        QCOMPARE(qs[1].len, 12345u);
    }

    // Session and flags are not looked at.
    void sessionAndFlagsIgnored()
    {
        ZMLDAP ldap(settings(QStringLiteral("alice"), QStringLiteral("h"), QStringLiteral("pw")));
        LDAP_SASL_INTERACT_PROC *proc = nullptr;
        void *defaults = nullptr;
        QVERIFY(capture(ldap, &proc, &defaults));
        std::vector<sasl_interact_t> qs{question(SASL_CB_PASS), question(SASL_CB_LIST_END)};
        QCOMPARE(proc(reinterpret_cast<LDAP *>(0x10), LDAP_SASL_INTERACTIVE | LDAP_SASL_AUTOMATIC, defaults, qs.data()), LDAP_SUCCESS);
        QCOMPARE(QByteArray(static_cast<const char *>(qs[0].result)), QByteArray("pw"));
    }

    // What the bind's GSSAPI form passes.
    void gssapiBindArguments()
    {
        zelmora::ObjectInfo s = settings(QStringLiteral("alice"), QStringLiteral("h"), QStringLiteral("pw"));
        s.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("8"));
        ZMLDAP ldap(s);
        ldapspy::answerSaslBind(LDAP_SUCCESS);
        LogCapture log;
        QCOMPARE(ldap.connect(), 0);
        const SaslBindCall call = ldapspy::saslBinds().value(0);
        QCOMPARE(call.mechanism, QByteArray("GSSAPI"));
        QVERIFY(!call.hasDn);
        QVERIFY(!call.hasServerControls);
        QVERIFY(!call.hasClientControls);
        QCOMPARE(call.flags, unsigned(LDAP_SASL_QUIET));
        QCOMPARE(call.ld, ldapspy::initializedHandles().value(0));
        QCOMPARE(lines(log), (QStringList{ldbg(fn::connect, settingsDump(s)), dbg(fn::gssapi, QStringLiteral("Use gssapi method"))}));
    }
};

QTEST_GUILESS_MAIN(TestSaslInteract)
#include "tst_ldap_sasl_interact.moc"
