#ifndef ZMAUTH_TOOL_CLI_H
#define ZMAUTH_TOOL_CLI_H

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

// Exit status of every command; the same table is printed by --help.
enum ExitCode {
    ExitOk = 0,              // success; for "ldap check": the account was found
    ExitNotFound = 1,        // "ldap check": no such account
    ExitUsage = 2,           // bad command line, unreadable or malformed input file
    ExitConnectFailed = 3,   // the directory connection or bind failed
    ExitDirectoryFailed = 4, // the directory search failed
    ExitSsoFailed = 5,       // a single sign-on step failed
    ExitDoctorFailed = 6     // "doctor": at least one check failed
};

QString exitStatusHelp();

// Whether a command takes positional arguments (and checks them itself).
enum class Positional { Rejected, Allowed };

// Parses a command's arguments (args[0] is the program path). Returns -1 when
// the command should run; otherwise the exit code to end with, after printing
// the help (--help) or the error.
int parseCommandLine(QCommandLineParser &parser, const QString &command, const QStringList &args,
                     Positional positional = Positional::Rejected);

// "zmauth <command>: <message>" on standard error, one line.
void printError(const QString &command, const QString &message);
void printWarning(const QString &command, const QString &message);
// --format is table or json; anything else is a usage error, reported here.
bool validFormat(const QString &command, const QString &format);
// A required option that is missing is a usage error.
bool requireOption(const QCommandLineParser &parser, const QString &command, const QString &name);

// One line on standard error before any debug record is printed.
enum class VerboseRecords { Directory, Kerberos };
void warnVerbose(VerboseRecords records);

#endif // ZMAUTH_TOOL_CLI_H
