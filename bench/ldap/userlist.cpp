// The listing as the system calls it: one directory object, connect(),
// getUserList with the mapping, and the records kept until it returns.
//
//   bench_ldap_userlist HOST PORT BASE FILTER ATTRIBUTE=FIELDS...
//
// PAGE_SIZE=N in the environment sets PT_PAGE_SIZE: the paged listing.
#include "zmldap.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s HOST PORT BASE FILTER ATTRIBUTE=FIELDS...\n", argv[0]);
        return 2;
    }
    zelmora::ObjectInfo settings;
    settings.params.insert(QStringLiteral("PT_HOST"), QString::fromLocal8Bit(argv[1]));
    settings.params.insert(QStringLiteral("PT_PORT"), QString::fromLocal8Bit(argv[2]));
    settings.params.insert(QStringLiteral("PT_BASE_DN"), QString::fromLocal8Bit(argv[3]));
    settings.params.insert(QStringLiteral("PT_USER_FILTER"), QString::fromLocal8Bit(argv[4]));
    settings.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("0"));
    if (qEnvironmentVariableIsSet("PAGE_SIZE"))
        settings.params.insert(zmldap::key::PAGE_SIZE, qEnvironmentVariable("PAGE_SIZE"));
    QHash<QString, QString> mapping;
    for (int i = 5; i < argc; ++i) {
        const QString pair = QString::fromLocal8Bit(argv[i]);
        const int eq = pair.indexOf(QLatin1Char('='));
        mapping.insert(pair.left(eq), pair.mid(eq + 1));
    }

    ZMLDAP ldap(settings);
    if (const int rc = ldap.connect()) {
        std::fprintf(stderr, "connect: %d\n", rc);
        return 1;
    }
    QList<zelmora::ObjectInfo> list;
    if (!ldap.getUserList(list, mapping)) {
        std::fprintf(stderr, "getUserList failed\n");
        return 1;
    }
    long pairs = 0;
    for (const zelmora::ObjectInfo &r : list)
        pairs += r.params.size();
    std::printf("%d records, %ld pairs\n", list.size(), pairs);
    std::fflush(stdout);
    // The caller keeps the records; tearing 100,000 of them down is not part
    // of the listing (the floor has no records to free either).
    std::_Exit(0);
}
