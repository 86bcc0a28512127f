// connect() plus checkADUser against the test domain's DC, one line per
// round with its wall time in milliseconds:
//
//   bench_ldap_servers fixed|discovery|dead-first ROUNDS
//
// fixed: "PT_HOST" = the DC's name; discovery: "PT_DOMAIN" (the SRV look-up
// at every connect()); dead-first: a failover list whose first entry is an
// address where nothing answers, then the DC. Method 8 with the ticket in
// KRB5CCNAME; "PT_TIMEOUT" from TIMEOUT (default 1). Within one process the
// dead server is remembered after its first failure and tried last.
#include "zmldap.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.warning=false\n*.critical=false"));
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_ldap_servers fixed|discovery|dead-first ROUNDS\n");
        return 2;
    }
    const QString mode = QString::fromLatin1(argv[1]);
    const int rounds = std::atoi(argv[2]);
    const QString dc = qEnvironmentVariable("AD_DC_HOST");
    const QString dead = qEnvironmentVariable("DEAD_ADDRESS", QStringLiteral("10.213.0.77"));

    zelmora::ObjectInfo settings;
    settings.params.insert(db::system::ldap::PORT, QStringLiteral("389"));
    settings.params.insert(db::system::ldap::AUTH_METHOD, QStringLiteral("8"));
    settings.params.insert(db::system::ldap::BASE_DN, qEnvironmentVariable("AD_BASE_DN"));
    settings.params.insert(zmldap::key::TIMEOUT, qEnvironmentVariable("TIMEOUT", QStringLiteral("1")));
    if (mode == QLatin1String("fixed")) {
        settings.params.insert(db::system::ldap::HOST, dc);
    } else if (mode == QLatin1String("discovery")) {
        settings.params.insert(db::system::ldap::HOST, QString());
        settings.params.insert(zmldap::key::DNS_DOMAIN, qEnvironmentVariable("AD_DNS_DOMAIN"));
    } else if (mode == QLatin1String("dead-first")) {
        settings.params.insert(db::system::ldap::HOST, QString());
        settings.params.insert(zmldap::key::FAILOVER_HOSTS, dead + QLatin1Char(' ') + dc);
    } else {
        std::fprintf(stderr, "unknown mode %s\n", argv[1]);
        return 2;
    }
    const QString user = qEnvironmentVariable("AD_USER_NAME");
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        ZMLDAP ldap(settings);
        const int rc = ldap.connect();
        const bool found = rc == 0 && ldap.checkADUser(user);
        const double ms = double(timer.nsecsElapsed()) / 1e6;
        if (!found) {
            std::fprintf(stderr, "round %d: connect %d, account %s\n", i, rc, found ? "found" : "not found");
            return 1;
        }
        std::printf("%.2f\n", ms);
    }
    return 0;
}
