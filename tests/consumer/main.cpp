// A program built against an installed libzmauth, as an integrator builds
// one: every API family is reached through the umbrella header, without a
// server. Prints one line and exits 0 when everything answered as expected.
#include <zmauth.h>

#include <QBuffer>
#include <QDataStream>
#include <QLoggingCategory>

#include <cstdio>

static int failures = 0;

static void expect(bool ok, const char *what)
{
    if (!ok) {
        std::fprintf(stderr, "consumer: FAILED: %s\n", what);
        ++failures;
    }
}

int main()
{
    // What a production program does first: the directory's debug records
    // carry the bind password.
    QLoggingCategory::setFilterRules(QStringLiteral("platform.lib.zmauth*.debug=false\ndefault.debug=false"));

    const QString version = getLibraryVersion_zmauth();
    expect(version.startsWith(QStringLiteral("1.0.0")), "version mark starts with 1.0.0");

    expect(PassHash::encrypt(QString(), QCryptographicHash::Md5) == QStringLiteral("MD5:d41d8cd98f00b204e9800998ecf8427e"),
           "MD5 of the empty password");

    AuthData::setUser(7, QStringLiteral("alice"));
    expect(AuthData::user() == QStringLiteral("alice") && AuthData::userId() == 7, "session store");

    zelmora::KrbLoginResult out;
    out.token = QByteArray("\x01\x02", 2);
    out.user = QStringLiteral("alice@EXAMPLE.COM");
    QByteArray bytes;
    {
        QDataStream stream(&bytes, QIODevice::WriteOnly);
        stream << out;
    }
    zelmora::KrbLoginResult in;
    {
        QDataStream stream(bytes);
        stream >> in;
    }
    expect(in.token == out.token && in.user == out.user, "Kerberos login record round trip");

    zelmora::ObjectInfo settings;
    settings.params.insert(db::system::ldap::HOST, QStringLiteral("127.0.0.1"));
    settings.params.insert(db::system::ldap::PORT, QStringLiteral("1"));
    {
        ZMLDAP directory(settings);
        expect(directory.info().params.value(db::system::ldap::HOST) == QStringLiteral("127.0.0.1"), "directory settings");
        // Not connected: answers without contacting anything.
        expect(!directory.checkADUser(QStringLiteral("alice")), "account check before connect");
    }
    expect(!ZMLDAP::userDbValues().isEmpty(), "user field catalogue");

    zmkrb::Client client("HTTP@localhost");
    zmkrb::Result result;
    expect(result.status == 0, "Kerberos result record");
    expect(ldapc().categoryName() == QByteArray("platform.lib.zmauth.ldap"), "directory logging category");

    if (failures)
        return 1;
    std::printf("consumer ok: libzmauth %s\n", qPrintable(version));
    return 0;
}
