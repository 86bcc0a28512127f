// zmauth: the command-line companion of libzmauth, for the people who deploy
// the system: preview what a directory import would read, check an account,
// prove a keytab and service name work for single sign-on, hash a password,
// and diagnose a whole deployment's settings in one run.
// It calls the library through its public API only.
#include "cli.h"
#include "commands.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

const char *const kUsage =
    "Usage: zmauth COMMAND [options]\n"
    "\n"
    "Command-line companion of the system's authentication library.\n"
    "\n"
    "Commands:\n"
    "  version                          the library's version mark\n"
    "  hash [--algorithm NAME]          the stored form of a password read from standard input\n"
    "  ldap users --settings FILE [--mapping FILE] [--format table|json]\n"
    "                                   the user records a directory import would read\n"
    "  ldap check NAME --settings FILE  whether the directory holds the account NAME\n"
    "  sso --user U --realm R --target SERVICE@HOST --keytab FILE\n"
    "                                   a full single sign-on exchange in one process\n"
    "                                   (password from standard input)\n"
    "  doctor --settings FILE [--mapping FILE] [--keytab FILE --service NAME@HOST] [--user LOGIN]\n"
    "                                   diagnose a deployment's directory and single sign-on\n"
    "                                   settings: sixteen checks, each with a fix\n"
    "\n"
    "Run 'zmauth COMMAND --help' for the options of a command.\n"
    "Records of the library go to standard error only with --verbose (ldap, sso).\n"
    "\n";

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zmauth"));

    QStringList args = QCoreApplication::arguments();
    const QString program = args.takeFirst();
    const QString command = args.isEmpty() ? QString() : args.takeFirst();
    args.prepend(program);

    if (command.isEmpty() || command == QLatin1String("help") || command == QLatin1String("--help")
        || command == QLatin1String("-h")) {
        std::fprintf(command.isEmpty() ? stderr : stdout, "%s%s\n", kUsage, qPrintable(exitStatusHelp()));
        return command.isEmpty() ? ExitUsage : ExitOk;
    }
    if (command == QLatin1String("version") || command == QLatin1String("--version"))
        return runVersion(args);
    if (command == QLatin1String("hash"))
        return runHash(args);
    if (command == QLatin1String("ldap"))
        return runLdap(args);
    if (command == QLatin1String("sso"))
        return runSso(args);
    if (command == QLatin1String("doctor"))
        return runDoctor(args);

    std::fprintf(stderr, "zmauth: unknown command '%s'\nTry 'zmauth --help'.\n", command.toLocal8Bit().constData());
    return ExitUsage;
}
