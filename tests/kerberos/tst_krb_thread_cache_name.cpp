// A password login points GSSAPI on the calling thread at the Client's
// private cache and does not keep the name it replaced; ~Client removes that
// cache. Any later GSSAPI use on the thread, here an LDAP GSSAPI bind with a
// valid ticket in the thread's KRB5CCNAME cache, then fails until the caller
// resets the name. Other threads are not affected.
#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>
#include <zmldap.h>

#include <gssapi/gssapi_krb5.h>
#include <ldap.h>

#include <QtTest>

#include <thread>

namespace {

const QString kLdapCategory = QStringLiteral("platform.lib.zmauth.ldap");

// Settings of a GSSAPI bind that names no identity: the ticket says who.
zelmora::ObjectInfo gssapiSettings()
{
    const RealmEnv &env = RealmEnv::get();
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), env.value(QStringLiteral("LDAP_HOST")));
    s.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAP_PORT")));
    s.params.insert(QStringLiteral("PT_BASE_DN"), env.value(QStringLiteral("BASE_DN")));
    s.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("8"));
    return s;
}

struct Bind {
    int rc = -2;
    bool found = false;
    QStringList critical;
};

// One directory object: connect by GSSAPI, then look alice up.
Bind bindAndCheck()
{
    Bind out;
    LogCapture log;
    ZMLDAP ldap(gssapiSettings());
    out.rc = ldap.connect();
    out.found = ldap.checkADUser(RealmEnv::get().value(QStringLiteral("USER_NAME")));
    for (const LogRecord &r : log.inCategory(kLdapCategory))
        if (r.type == QtCriticalMsg)
            out.critical.append(r.text);
    return out;
}

// The cache GSSAPI uses on this thread, read without changing it (the call
// sets a name and hands back the one before; the same name is set again).
std::string threadCacheName()
{
    OM_uint32 minor = 0;
    const char *previous = nullptr;
    gss_krb5_ccache_name(&minor, "MEMORY:zmauth-probe", &previous);
    const std::string name = previous ? previous : "";
    gss_krb5_ccache_name(&minor, previous, nullptr);
    return name;
}

} // namespace

class KrbThreadCacheName : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm (ZMAUTH_REALM_DIR) is needed");
        QVERIFY2(!qgetenv("KRB5CCNAME").isEmpty(), "KRB5CCNAME is not set for this test");
    }
    void init() { krbtest::startRealmTest(); }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void ldapBindAfterClientNeedsTheNameReset()
    {
        const RealmEnv &env = RealmEnv::get();
        QVERIFY(krbtest::kinitUser(env));

        // The thread's own ticket binds.
        const Bind before = bindAndCheck();
        QCOMPARE(before.rc, 0);
        QVERIFY(before.found);

        std::string privateCache;
        {
            zmkrb::Client client(env.str("SERVICE_NAME"));
            client.setKTFile(env.str("SSO_KEYTAB"));
            const zmkrb::Result result = client.authorize(env.str("KRB5_REALM"), env.str("USER_NAME"),
                                                          env.str("USER_PASSWORD"));
            QCOMPARE(result.status, 1);
            QCOMPARE(krbtest::seen().createdCaches.size(), size_t(1));
            privateCache = krbtest::seen().createdCaches[0];
            QCOMPARE(threadCacheName(), privateCache);
        }
        krbtest::clearRegisteredKeytab();

        // The name still points at the removed file; the ticket in the
        // thread's KRB5CCNAME cache is still valid but not used.
        QVERIFY(!krbtest::fileExists(privateCache));
        QCOMPARE(threadCacheName(), privateCache);
        const Bind stale = bindAndCheck();
        // The SASL layer finds no credentials and libldap reports its local error.
        QCOMPARE(stale.rc, LDAP_LOCAL_ERROR);
        QVERIFY(!stale.found);
        QCOMPARE(stale.critical, QStringList{QStringLiteral("ldap_bind_s error -2 Local error")});

        // Another thread has its own name, the default: it binds.
        Bind other;
        std::thread thread([&other] { other = bindAndCheck(); });
        thread.join();
        QCOMPARE(other.rc, 0);
        QVERIFY(other.found);

        // The containment: reset the name on the thread that logged in.
        OM_uint32 minor = 0;
        QCOMPARE(gss_krb5_ccache_name(&minor, nullptr, nullptr), OM_uint32(GSS_S_COMPLETE));
        const Bind after = bindAndCheck();
        QCOMPARE(after.rc, 0);
        QVERIFY(after.found);
        QVERIFY(after.critical.isEmpty());
    }
};

QTEST_GUILESS_MAIN(KrbThreadCacheName)
#include "tst_krb_thread_cache_name.moc"
