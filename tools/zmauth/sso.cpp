// "sso": the initiator and the acceptor of single sign-on in one process, to
// prove that a keytab, a service name and an account work together before the
// system's client and server are pointed at them.
#include "cli.h"
#include "commands.h"
#include "logsink.h"
#include "password.h"
#include "ssoexchange.h"

#include "zmkerberos.h"
#include "zmlogging.h"

#include <QFileInfo>

#include <cstdio>

namespace {

QString kerberosCategory()
{
    return QString::fromLatin1(krbc().categoryName());
}

const char *statusText(int status)
{
    switch (status) {
    case 0: return "failed";
    case 1: return "done";
    case 2: return "continue needed";
    }
    return "unknown";
}

void printStep(const char *side, const char *step, const zmkrb::Result &result, const char *userLabel)
{
    QString line = QStringLiteral("%1 %2 status %3 (%4)")
                       .arg(QString::fromLatin1(side), -9)
                       .arg(QString::fromLatin1(step), -18)
                       .arg(result.status)
                       .arg(QString::fromLatin1(statusText(result.status)));
    if (result.status != 0) {
        line += QStringLiteral(", token %1 bytes").arg(result.token.size());
        if (!result.user.empty())
            line += QStringLiteral(", %1 %2").arg(QString::fromLatin1(userLabel), QString::fromStdString(result.user));
    }
    std::printf("%s\n", line.toLocal8Bit().constData());
    std::fflush(stdout);
}

// The library writes each Kerberos failure as one warning; that text is the
// reason shown.
int failed(const QString &command, const char *step, const QString &user = QString())
{
    const QString reason = LogSink::lastWarning(kerberosCategory());
    printError(command, QStringLiteral("%1 failed%2").arg(QString::fromLatin1(step),
                                                          reason.isEmpty() ? QStringLiteral("; the library logged no Kerberos text")
                                                                           : QStringLiteral(":\n") + reason));
    // The most common surprise when proving a setup: a service keytab alone
    // is not enough for a password login on MIT Kerberos.
    if (!user.isEmpty() && reason.contains(QStringLiteral("No key table entry found for ") + user))
        std::fprintf(stderr, "hint: a password login needs the keytab to hold the user's key as well as the service key\n");
    return ExitSsoFailed;
}

} // namespace

const char *completeSsoExchange(zmkrb::Client &client, zmkrb::Service &service, const zmkrb::krb_string_t &peer,
                                zmkrb::Result &initiator, zmkrb::Result &acceptor,
                                const std::function<void(const char *, const char *, const zmkrb::Result &)> &onStep)
{
    acceptor = service.acceptNew(peer, initiator.token);
    onStep("acceptor", "acceptNew", acceptor);
    if (acceptor.status == 0)
        return "acceptNew";
    // Kerberos with mutual authentication needs one reply from the acceptor;
    // a mechanism that wants more gets a few rounds.
    for (int round = 0; round < 4 && !acceptor.token.empty(); ++round) {
        initiator = client.authorizeContinue(acceptor.token);
        onStep("initiator", "authorizeContinue", initiator);
        if (initiator.status == 0)
            return "authorizeContinue";
        if (initiator.status == 1)
            break;
        acceptor = service.acceptContinue(peer, initiator.token);
        onStep("acceptor", "acceptContinue", acceptor);
        if (acceptor.status == 0)
            return "acceptContinue";
    }
    return initiator.status == 1 && acceptor.status == 1 ? nullptr : "exchange";
}

int runSso(const QStringList &args)
{
    const QString command = QStringLiteral("sso");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Runs a whole single sign-on exchange in one process: the initiator gets a ticket for\n"
                       "USER@REALM with the password read from standard input (one line; no echo on a\n"
                       "terminal) and makes a token for the target service; the acceptor, using the keytab,\n"
                       "validates it and names the client; the initiator checks the acceptor's reply.\n"
                       "Prints each step's status and the client principal; on failure the Kerberos text.\n"
                       "The Kerberos configuration comes from the environment as usual (KRB5_CONFIG).\n"
                       "With MIT Kerberos, a password login needs the keytab to hold the user's key as\n"
                       "well as the service key."));
    const QCommandLineOption user(QStringList{QStringLiteral("u"), QStringLiteral("user")},
                                  QStringLiteral("User name, without the realm."), QStringLiteral("U"));
    const QCommandLineOption realm(QStringList{QStringLiteral("r"), QStringLiteral("realm")},
                                   QStringLiteral("Kerberos realm, e.g. EXAMPLE.COM."), QStringLiteral("R"));
    const QCommandLineOption target(QStringList{QStringLiteral("t"), QStringLiteral("target")},
                                    QStringLiteral("Target service as SERVICE@HOST, e.g. HTTP@server.example.com."),
                                    QStringLiteral("SERVICE@HOST"));
    const QCommandLineOption keytab(QStringList{QStringLiteral("k"), QStringLiteral("keytab")},
                                    QStringLiteral("Keytab of the acceptor (the service's key)."), QStringLiteral("FILE"));
    const QCommandLineOption verbose(QStringList{QStringLiteral("v"), QStringLiteral("verbose")},
                                     QStringLiteral("Show the library's debug records on standard error."));
    parser.addOption(user);
    parser.addOption(realm);
    parser.addOption(target);
    parser.addOption(keytab);
    parser.addOption(verbose);
    const int parsed = parseCommandLine(parser, command, args);
    if (parsed >= 0)
        return parsed;
    for (const char *name : {"user", "realm", "target", "keytab"}) {
        if (!requireOption(parser, command, QString::fromLatin1(name)))
            return ExitUsage;
    }
    const QFileInfo keytabFile(parser.value(keytab));
    if (!keytabFile.isFile() || !keytabFile.isReadable()) {
        printError(command, QStringLiteral("cannot read keytab %1").arg(parser.value(keytab)));
        return ExitUsage;
    }

    const std::string userName = parser.value(user).toStdString();
    const std::string realmName = parser.value(realm).toStdString();
    const QByteArray prompt = QStringLiteral("Password for %1@%2: ").arg(parser.value(user), parser.value(realm)).toLocal8Bit();
    const QByteArray password = readPassword(prompt.constData());

    if (parser.isSet(verbose))
        warnVerbose(VerboseRecords::Kerberos);
    LogSink::install(parser.isSet(verbose));

    // The keytab registration is process-wide, and a Service acquires its
    // acceptor credential as it is constructed: register through the Client
    // first so that the Service is built on this keytab, not on the default
    // one.
    const std::string keytabPath = keytabFile.absoluteFilePath().toStdString();
    zmkrb::Client client(parser.value(target).toStdString());
    if (!client.setKTFile(keytabPath)) {
        printError(command, QStringLiteral("GSSAPI refused the keytab %1").arg(keytabFile.absoluteFilePath()));
        return ExitSsoFailed;
    }
    zmkrb::Service service;
    service.setKTFile(keytabPath);

    // The peer names the calling host in the acceptor's table; everything
    // happens in this process.
    const zmkrb::krb_string_t peer = "localhost";

    LogSink::clear();
    zmkrb::Result initiator = client.authorize(realmName, userName, password.toStdString());
    printStep("initiator", "authorize", initiator, "user");
    if (initiator.status == 0)
        return failed(command, "authorize", parser.value(user));

    zmkrb::Result acceptor;
    const char *failedStep = completeSsoExchange(client, service, peer, initiator, acceptor,
                                                 [](const char *side, const char *step, const zmkrb::Result &result) {
                                                     printStep(side, step, result,
                                                               qstrcmp(side, "acceptor") == 0 ? "client" : "user");
                                                 });
    if (failedStep && qstrcmp(failedStep, "exchange") == 0) {
        printError(command, QStringLiteral("the exchange did not complete"));
        return ExitSsoFailed;
    }
    if (failedStep)
        return failed(command, failedStep);

    std::printf("client principal: %s\n", acceptor.user.c_str());
    return ExitOk;
}
