// slapd killed with SIGKILL while the library talks to it, each time in a
// realm of this program's own: the calls fail with the directory library's
// "server down" code and one critical record, nothing crashes, and the
// directory object can still be used (and fails the same way) and destroyed.
//
// "In the middle of a listing" is counted, not timed: ber_get_next, which
// libldap calls through liblber's PLT once per message it receives, is
// interposed here, and slapd is killed once a set number of entries has
// arrived. The interposer only decides when; the fault is a real one.
#include "logcapture.h"
#include "ownrealm.h"
#include "zmldap.h"

#include <QtTest>

#include <lber.h>
#include <ldap.h>

#include <csignal>
#include <dlfcn.h>

namespace {

const QString kLdapCategory = QStringLiteral("platform.lib.zmauth.ldap");
const QString kListing = QStringLiteral("bool ZMLDAPPrivate::getUserList(QList<zelmora::ObjectInfo>&, const QHash<QString, QString>&)");
const QString kCheck = QStringLiteral("bool ZMLDAPPrivate::checkADUser(const QString&)");
const QHash<QString, QString> kMapping{{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
                                       {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")}};

const OwnRealm *g_realm = nullptr;
long g_killAfter = 0;     // 0: never
long g_messages = 0;      // complete messages libldap received
bool g_killed = false;

zelmora::ObjectInfo settingsFor(const RealmEnv &env, const QString &method)
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), env.value(QStringLiteral("LDAP_HOST")));
    s.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAP_PORT")));
    s.params.insert(QStringLiteral("PT_BASE_DN"), env.value(QStringLiteral("BASE_DN")));
    s.params.insert(QStringLiteral("PT_USER"), env.value(QStringLiteral("USER_NAME")));
    s.params.insert(QStringLiteral("PT_USER_PASSWORD"), env.value(QStringLiteral("USER_PASSWORD")));
    s.params.insert(QStringLiteral("PT_METHOD"), method);
    return s;
}

// "function | text" of the critical records.
QStringList criticals(const LogCapture &log)
{
    QStringList out;
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtCriticalMsg)
            out.append(r.function + QStringLiteral(" | ") + r.text);
    return out;
}

const QString kServerDown = QString::fromUtf8(ldap_err2string(LDAP_SERVER_DOWN));

} // namespace

extern "C" ber_tag_t ber_get_next(Sockbuf *sb, ber_len_t *len, BerElement *ber)
{
    using Fn = ber_tag_t (*)(Sockbuf *, ber_len_t *, BerElement *);
    static const Fn next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "ber_get_next"));
    const ber_tag_t tag = next(sb, len, ber);
    if (tag != LBER_DEFAULT && g_killAfter > 0 && ++g_messages == g_killAfter)
        g_killed = g_realm->endServer("SLAPD_PID", SIGKILL);
    return tag;
}

class SlapdKilled : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        g_realm = nullptr;
        g_killAfter = 0;
        g_messages = 0;
        g_killed = false;
    }

    // 100,000 users, killed after the first 1,000 entries arrived: far more
    // than slapd and the socket buffers can hold ahead of the reader, so the
    // rest never comes.
    void killedInTheMiddleOfAListing()
    {
        OwnRealm realm({QStringLiteral("--bulk"), QStringLiteral("100000")});
        QVERIFY2(realm.isValid(), qPrintable(realm.error()));
        realm.useInThisProcess(QStringLiteral("listing"));
        const RealmEnv &env = realm.env();
        QCOMPARE(env.value(QStringLiteral("BULK_USERS")), QStringLiteral("100000"));

        ZMLDAP ldap(settingsFor(env, QStringLiteral("0")));
        QCOMPARE(ldap.connect(), 0);

        g_realm = &realm;
        g_messages = 0;
        g_killAfter = 1000;
        LogCapture log;
        zelmora::ObjectInfo earlier;
        earlier.params.insert(QStringLiteral("PT_LOGIN"), QStringLiteral("earlier"));
        QList<zelmora::ObjectInfo> list{earlier};
        QVERIFY(!ldap.getUserList(list, kMapping));
        const long killAfter = g_killAfter;
        g_killAfter = 0;

        QVERIFY2(g_killed, "slapd did not end after SIGKILL");
        QVERIFY(!processRunning(pid_t(env.value(QStringLiteral("SLAPD_PID")).toLong())));
        qInfo("slapd killed after %ld messages; %ld arrived in all", killAfter, g_messages);
        // Killed in the middle: entries had arrived, most had not.
        QVERIFY2(g_messages >= 1000 && g_messages < 100000, qPrintable(QString::number(g_messages)));
        // The search as a whole failed: nothing is appended, the caller's
        // record stays.
        QCOMPARE(list.size(), 1);
        QCOMPARE(list.first().params.value(QStringLiteral("PT_LOGIN")), QStringLiteral("earlier"));
        QCOMPARE(criticals(log), QStringList{kListing + QStringLiteral(" | ldap_search_ext_s error -1 ") + kServerDown});

        // The object is still usable: every call fails the same way, cleanly.
        log.clear();
        QVERIFY(!ldap.checkADUser(env.value(QStringLiteral("USER_NAME"))));
        QVERIFY(!ldap.getUserList(list, kMapping));
        QCOMPARE(list.size(), 1);
        QCOMPARE(criticals(log), (QStringList{kCheck + QStringLiteral(" | ldap_search_ext_s -1 ") + kServerDown,
                                              kListing + QStringLiteral(" | ldap_search_ext_s error -1 ") + kServerDown}));
    }

    // An authenticated session whose server dies before the account check.
    void killedBetweenConnectAndCheck()
    {
        OwnRealm realm;
        QVERIFY2(realm.isValid(), qPrintable(realm.error()));
        realm.useInThisProcess(QStringLiteral("check"));
        const RealmEnv &env = realm.env();

        LogCapture log;
        ZMLDAP ldap(settingsFor(env, QStringLiteral("1")));
        QCOMPARE(ldap.connect(), 0);
        QVERIFY(ldap.checkADUser(env.value(QStringLiteral("USER_NAME"))));
        QVERIFY(criticals(log).isEmpty());

        QVERIFY(realm.endServer("SLAPD_PID", SIGKILL));
        log.clear();
        QVERIFY(!ldap.checkADUser(env.value(QStringLiteral("USER_NAME"))));
        QCOMPARE(criticals(log), QStringList{kCheck + QStringLiteral(" | ldap_search_ext_s -1 ") + kServerDown});
        // No entry count is logged for a search that failed.
        for (const LogRecord &r : log.records())
            QVERIFY2(!r.text.startsWith(QStringLiteral("entries")), qPrintable(r.text));

        log.clear();
        QVERIFY(!ldap.checkADUser(env.value(QStringLiteral("USER2_NAME"))));
        QCOMPARE(criticals(log), QStringList{kCheck + QStringLiteral(" | ldap_search_ext_s -1 ") + kServerDown});
    }
};

QTEST_GUILESS_MAIN(SlapdKilled)
#include "tst_fault_slapd_killed.moc"
