#include "cli.h"

#include <QCoreApplication>

#include <cstdio>

QString exitStatusHelp()
{
    return QStringLiteral(
        "Exit status:\n"
        "  0  success (ldap check: the account was found)\n"
        "  1  ldap check: the account was not found\n"
        "  2  usage error, or an input file that cannot be read or parsed\n"
        "  3  the directory connection or bind failed\n"
        "  4  the directory search failed\n"
        "  5  a single sign-on step failed\n"
        "  6  doctor: at least one check failed (warnings alone exit 0)");
}

void printError(const QString &command, const QString &message)
{
    std::fprintf(stderr, "zmauth %s: %s\n", qPrintable(command), message.toLocal8Bit().constData());
}

void printWarning(const QString &command, const QString &message)
{
    std::fprintf(stderr, "zmauth %s: warning: %s\n", qPrintable(command), message.toLocal8Bit().constData());
}

int parseCommandLine(QCommandLineParser &parser, const QString &command, const QStringList &args,
                     Positional positional)
{
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Show this help."));
    parser.addOption(help);
    if (!parser.parse(args)) {
        printError(command, parser.errorText());
        std::fprintf(stderr, "Try 'zmauth %s --help'.\n", qPrintable(command));
        return ExitUsage;
    }
    if (parser.isSet(help)) {
        // Qt names the program by the path it was started with; the usage
        // line should name the command instead.
        QString text = parser.helpText();
        const QString prefix = QStringLiteral("Usage: ") + QCoreApplication::arguments().constFirst();
        if (text.startsWith(prefix))
            text.replace(0, prefix.size(), QStringLiteral("Usage: zmauth ") + command);
        const int lineEnd = text.indexOf(QLatin1Char('\n'));
        if (lineEnd > 0)
            text.insert(lineEnd, QLatin1Char('\n'));
        std::fprintf(stdout, "%s\n%s\n", text.toLocal8Bit().constData(), qPrintable(exitStatusHelp()));
        return ExitOk;
    }
    if (positional == Positional::Rejected && !parser.positionalArguments().isEmpty()) {
        printError(command, QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst()));
        std::fprintf(stderr, "Try 'zmauth %s --help'.\n", qPrintable(command));
        return ExitUsage;
    }
    return -1;
}

bool validFormat(const QString &command, const QString &format)
{
    if (format == QLatin1String("table") || format == QLatin1String("json"))
        return true;
    printError(command, QStringLiteral("--format must be table or json, not '%1'").arg(format));
    return false;
}

bool requireOption(const QCommandLineParser &parser, const QString &command, const QString &name)
{
    if (parser.isSet(name) && !parser.value(name).isEmpty())
        return true;
    printError(command, QStringLiteral("--%1 is required").arg(name));
    std::fprintf(stderr, "Try 'zmauth %s --help'.\n", qPrintable(command));
    return false;
}

void warnVerbose(VerboseRecords records)
{
    if (records == VerboseRecords::Directory)
        std::fprintf(stderr, "zmauth: warning: --verbose shows the library's debug records, "
                             "which include the directory bind password in clear text\n");
    else
        std::fprintf(stderr, "zmauth: warning: --verbose shows the library's debug records; "
                             "treat them as secret (the directory's include the bind password)\n");
}
