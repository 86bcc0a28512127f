// Runs the zmauth binary (or a command that runs it) as a user would and
// keeps its exit status and both output streams.
#ifndef ZMAUTH_TEST_TOOLRUN_H
#define ZMAUTH_TEST_TOOLRUN_H

#include "realmenv.h"

#include <QByteArray>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

struct ToolRun {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
    QString outText() const { return QString::fromUtf8(out); }
    QString errText() const { return QString::fromUtf8(err); }
    QStringList outLines() const { return outText().split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
    QStringList errLines() const { return errText().split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
};

// The program with its arguments, the input on standard input. A hang guard
// of 180 s (a whole doctor run under valgrind takes over a minute): a run
// that takes longer is killed and reports exit -1.
ToolRun runCommand(const QString &program, const QStringList &args, const QByteArray &input = QByteArray(),
                   const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());
ToolRun runTool(const QStringList &args, const QByteArray &input = QByteArray(),
                const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment());
QString toolPath();

// DATA written to PATH, which is returned; a failure ends the test program.
QString writeFile(const QString &path, const QByteArray &data);

// A settings file for --settings at PATH: the realm's server and base, method 1
// (DIGEST-MD5 as the realm's user), then CHANGES (a null value removes the key).
QString writeSettingsFile(const QString &path, const RealmEnv &realm, const QJsonObject &changes = QJsonObject());

// For failure messages: the exit status and both streams.
QByteArray describe(const ToolRun &run);

#endif // ZMAUTH_TEST_TOOLRUN_H
