// Where the initiator's credential cache name comes from: KRB5CCNAME, else
// /tmp/krb5cc_<real uid>, setCCFile over either. The name reaches MIT only as
// the hint of krb5_cc_new_unique, which the test fails on purpose so that no
// KDC is needed.
#include "krbtest.h"

#include <zmkerberos.h>

#include <QtTest>

#include <unistd.h>

class KrbCacheName : public QObject {
    Q_OBJECT

    // Runs authorize in password mode up to the cache creation and returns
    // the hint the library gave.
    std::string hintOf(zmkrb::Client &client)
    {
        krbtest::faults().newUnique = KRB5_CC_IO;
        const zmkrb::Result result = client.authorize("ZMAUTH.TEST", "alice", "x");
        krbtest::faults().newUnique = 0;
        if (result.status != 0 || krbtest::seen().newUniqueHints.size() != 1)
            return "<unexpected>";
        return krbtest::seen().newUniqueHints.front();
    }

private slots:
    void init()
    {
        krbtest::resetAll();
        qunsetenv("KRB5CCNAME");
    }

    void variableSetIsUsedUnchanged()
    {
        qputenv("KRB5CCNAME", "FILE:/var/tmp/some where/cache");
        zmkrb::Client client("HTTP@localhost");
        QCOMPARE(hintOf(client), std::string("FILE:/var/tmp/some where/cache"));
    }

    void variableSetButEmptyGivesEmptyName()
    {
        qputenv("KRB5CCNAME", "");
        zmkrb::Client client("HTTP@localhost");
        QCOMPARE(hintOf(client), std::string());
    }

    void variableUnsetGivesTmpAndRealUid()
    {
        zmkrb::Client client("HTTP@localhost");
        QCOMPARE(hintOf(client), "/tmp/krb5cc_" + std::to_string(getuid()));
    }

    // The variable is read when the Client is made, not later.
    void variableReadAtConstruction()
    {
        qputenv("KRB5CCNAME", "FILE:/first");
        zmkrb::Client client("HTTP@localhost");
        qputenv("KRB5CCNAME", "FILE:/second");
        QCOMPARE(hintOf(client), std::string("FILE:/first"));
    }

    void setCCFileOverridesVariable()
    {
        qputenv("KRB5CCNAME", "FILE:/from/env");
        zmkrb::Client client("HTTP@localhost");
        client.setCCFile("FILE:/from/setter");
        QCOMPARE(hintOf(client), std::string("FILE:/from/setter"));
    }

    void setCCFileOverridesDefault()
    {
        zmkrb::Client client("HTTP@localhost");
        client.setCCFile("MEMORY:x");
        QCOMPARE(hintOf(client), std::string("MEMORY:x"));
    }

    // A failed cache creation: one warning in krb5's words, a failed result,
    // only the krb5 context released, and nothing left for the destructor.
    void failedCacheCreationReleasesOnlyTheContext()
    {
        LogCapture log;
        krbtest::seen().recordReleases = true;
        {
            zmkrb::Client client("HTTP@localhost");
            krbtest::faults().newUnique = KRB5_CC_IO;
            const zmkrb::Result result = client.authorize("ZMAUTH.TEST", "alice", "secret");
            krbtest::faults().newUnique = 0;
            QCOMPARE(result.status, 0);
            QVERIFY(result.user.empty());
            QVERIFY(result.token.empty());
            QCOMPARE(krbtest::seen().releases, std::vector<std::string>{"krb5_free_context"});
        }
        QCOMPARE(krbtest::seen().releases, std::vector<std::string>{"krb5_free_context"});
        QCOMPARE(krbtest::krbTexts(log),
                 QStringList{QStringLiteral("Kerberos new cache Credentials cache I/O operation failed")});
        const LogRecord record = log.inCategory(QStringLiteral("platform.lib.zmauth.kerberos")).front();
        QCOMPARE(record.type, QtWarningMsg);
        QCOMPARE(record.file, QStringLiteral("src/zmkerberos_client_unix.cpp"));
        QCOMPARE(record.function,
                 QStringLiteral("int zmkrb::ClientPrivate::prepare_cred(const zmkrb::krb_string_t&, "
                                "const zmkrb::krb_string_t&, const zmkrb::krb_string_t&, gss_cred_id_struct*&, "
                                "_krb5_context*&, _krb5_ccache*&)"));
        QVERIFY(krbtest::krbTexts(log, QtDebugMsg).isEmpty());
    }
};

QTEST_GUILESS_MAIN(KrbCacheName)
#include "tst_krb_cache_name.moc"
