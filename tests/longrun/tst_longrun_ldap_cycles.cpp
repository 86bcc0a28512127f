// 1,000 cycles of build, connect, list 1,000 users and destroy a ZMLDAP, on a
// realm of this program's own with 1,000 bulk users. Counted, not timed: every
// cycle must succeed with the full list and no failure record, the open
// descriptors must be back to their count after the warm-up, and the resident
// size may not grow by 2 MiB or more after it.
#include "longrun.h"
#include "ownrealm.h"
#include "zmldap.h"

#include <QtTest>

class LongRunLdapCycles : public QObject {
    Q_OBJECT

private slots:
    void buildConnectListDestroy()
    {
        OwnRealm realm({QStringLiteral("--bulk"), QStringLiteral("1000")});
        QVERIFY2(realm.isValid(), qPrintable(realm.error()));
        realm.useInThisProcess(QStringLiteral("ldap-cycles"));
        const RealmEnv &env = realm.env();

        zelmora::ObjectInfo settings;
        settings.params.insert(QStringLiteral("PT_HOST"), env.value(QStringLiteral("LDAP_HOST")));
        settings.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAP_PORT")));
        settings.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("0"));
        settings.params.insert(QStringLiteral("PT_BASE_DN"), env.value(QStringLiteral("BULK_DN")));
        const QHash<QString, QString> mapping{
            {QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
            {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")},
            {QStringLiteral("mail"), QStringLiteral("PT_EMAIL")},
            {QStringLiteral("department"), QStringLiteral("PT_DEPARTMENT")}};

        const int cycles = longrun::count(1000);
        int failures = 0;
        QString firstFailure;
        longrun::RecordCounter records;
        longrun::Meter meter("ldap build-connect-list-destroy", cycles);
        for (int i = 0; i < cycles; ++i) {
            if (i == longrun::warmUp(cycles))
                meter.warm();
            ZMLDAP ldap(settings);
            const int rc = ldap.connect();
            QList<zelmora::ObjectInfo> list;
            const bool listed = rc == 0 && ldap.getUserList(list, mapping);
            if (!listed || list.size() != 1000 || list.first().params.value(QStringLiteral("PT_LOGIN")).isEmpty()) {
                if (!failures++)
                    firstFailure = QStringLiteral("cycle %1: connect %2, %3 users").arg(i).arg(rc).arg(list.size());
            }
        }
        meter.end();

        QVERIFY2(failures == 0, qPrintable(QString::number(failures) + QStringLiteral(" failed, first ") + firstFailure));
        QCOMPARE(records.warnings() + records.criticals(), 0);
        QVERIFY(records.debug() > 0);
        QCOMPARE(meter.atEnd().fds, meter.atWarm().fds);
        const QString rss = meter.rssProblem(longrun::kRssBound);
        QVERIFY2(rss.isEmpty(), qPrintable(rss));
    }
};

QTEST_GUILESS_MAIN(LongRunLdapCycles)
#include "tst_longrun_ldap_cycles.moc"
