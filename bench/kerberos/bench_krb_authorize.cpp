// Password-mode logins per second against the realm's KDC: one Client per
// login (one exchange each), authorize with the user's password.
//
//   bench_krb_authorize REALM_DIR [logins]
#include <zmkerberos.h>

#include <QCoreApplication>
#include <QLoggingCategory>

#include "realmenv.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>


int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench_krb_authorize REALM_DIR [logins]\n");
        return 1;
    }
    const RealmEnv env = RealmEnv::fromDir(QString::fromLocal8Bit(argv[1]));
    if (!env.isValid()) {
        std::fprintf(stderr, "bench_krb_authorize: cannot read realm.env\n");
        return 1;
    }
    const int logins = argc > 2 ? std::atoi(argv[2]) : 300;
    qputenv("KRB5_CONFIG", env.value("KRB5_CONFIG").toUtf8());
    qputenv("KRB5RCACHEDIR", env.value("KRB5RCACHEDIR").toUtf8());
    // The fallback's "Add credentials" warning comes with every MIT login;
    // its text is not what is measured here.
    QLoggingCategory::setFilterRules(QStringLiteral("platform.lib.zmauth.kerberos.warning=false\n"
                                                    "platform.lib.zmauth.kerberos.debug=false"));

    const std::string service = env.value("SERVICE_NAME").toStdString();
    const std::string keytab = env.value("SSO_KEYTAB").toStdString();
    const std::string realm = env.value("KRB5_REALM").toStdString();
    const std::string user = env.value("USER_NAME").toStdString();
    const std::string password = env.value("USER_PASSWORD").toStdString();

    int ok = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < logins; ++i) {
        zmkrb::Client client(service);
        client.setKTFile(keytab);
        ok += client.authorize(realm, user, password).status == 1;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("authorize (password mode, one Client each): %d logins, %d succeeded, %.3f s, %.1f ms/login, "
                "%.0f logins/s\n",
                logins, ok, seconds, seconds / logins * 1e3, logins / seconds);
    return ok == logins ? 0 : 1;
}
