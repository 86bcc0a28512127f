// 10,000 acceptNew calls on one Service, each with a fresh initiator token of
// the realm's user, on a realm of this program's own. Every call must name
// the user and give a reply; the acceptor contexts the library keeps on
// purpose are given back by the interposers as the run goes, so that what the
// figures show is everything else: the open descriptors back to their count
// after the warm-up, the resident size growing by less than 2 MiB after it.
#include "krbtest.h"
#include "longrun.h"
#include "ownrealm.h"

#include <zmkerberos.h>

#include <gssapi/gssapi_krb5.h>

#include <QtTest>

class LongRunAccept : public QObject {
    Q_OBJECT

    std::unique_ptr<OwnRealm> realm;

private slots:
    void initTestCase()
    {
        QString error;
        realm = krbtest::startOwnRealm(QStringLiteral("accept"), &error);
        QVERIFY2(realm, qPrintable(error));
    }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishOwnRealm(realm);
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void acceptManyOnOneService()
    {
        const RealmEnv &env = realm->env();
        const QString principal = env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@')
            + env.value(QStringLiteral("KRB5_REALM"));
        // A ticket in the process's cache: the test's initiator uses it, and
        // the Service gets a credential of its own, as on a server.
        QVERIFY(krbtest::kinitUser(env));
        QVERIFY(zmkrb::Client(env.str("SERVICE_NAME")).setKTFile(env.str("SERVICE_KEYTAB")));
        zmkrb::Service service;
        QCOMPARE(krbtest::heldCredentials(), 1);

        // The initiator side, straight on GSSAPI, deletes its own contexts.
        OM_uint32 minor = 0;
        gss_cred_id_t initiator = GSS_C_NO_CREDENTIAL;
        QCOMPARE(gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, gss_mech_set_krb5, GSS_C_INITIATE,
                                  &initiator, nullptr, nullptr),
                 OM_uint32(GSS_S_COMPLETE));
        const std::string targetText = env.str("SERVICE_NAME");
        gss_buffer_desc targetBuffer{targetText.size(), const_cast<char *>(targetText.data())};
        gss_name_t target = GSS_C_NO_NAME;
        QCOMPARE(gss_import_name(&minor, &targetBuffer, GSS_C_NT_HOSTBASED_SERVICE, &target),
                 OM_uint32(GSS_S_COMPLETE));

        const int calls = longrun::count(10000);
        int failures = 0;
        QString firstFailure;
        const std::string expectedUser = principal.toStdString();
        {
            longrun::RecordCounter records;
            longrun::Meter meter("acceptNew on one Service", calls);
            for (int i = 0; i < calls; ++i) {
                if (i == longrun::warmUp(calls))
                    meter.warm();
                gss_ctx_id_t context = GSS_C_NO_CONTEXT;
                gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
                const OM_uint32 major = gss_init_sec_context(&minor, initiator, &context, target, gss_mech_krb5,
                                                             GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE,
                                                             GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr,
                                                             &output, nullptr, nullptr);
                const unsigned char *bytes = static_cast<const unsigned char *>(output.value);
                const zmkrb::token_t token = bytes ? zmkrb::token_t(bytes, bytes + output.length) : zmkrb::token_t();
                gss_release_buffer(&minor, &output);
                const zmkrb::Result r = service.acceptNew("peer", token);
                gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
                krbtest::releaseHeldContexts();
                if (GSS_ERROR(major) || r.status != 1 || r.user != expectedUser || r.token.empty()) {
                    if (!failures++)
                        firstFailure = QStringLiteral("call %1: initiator %2, status %3, user %4")
                                           .arg(i)
                                           .arg(major, 0, 16)
                                           .arg(r.status)
                                           .arg(QString::fromStdString(r.user));
                }
            }
            meter.end();
            QVERIFY2(failures == 0,
                     qPrintable(QString::number(failures) + QStringLiteral(" failed, first ") + firstFailure));
            QCOMPARE(records.warnings() + records.criticals(), 0);
            QCOMPARE(meter.atEnd().fds, meter.atWarm().fds);
            const QString rss = meter.rssProblem(longrun::kRssBound);
            QVERIFY2(rss.isEmpty(), qPrintable(rss));
        }
        gss_release_name(&minor, &target);
        gss_release_cred(&minor, &initiator);
    }
};

QTEST_GUILESS_MAIN(LongRunAccept)
#include "tst_longrun_accept.moc"
