// The commands main() dispatches to. Each takes its arguments with args[0]
// the program path and returns the exit status (cli.h).
#ifndef ZMAUTH_TOOL_COMMANDS_H
#define ZMAUTH_TOOL_COMMANDS_H

#include <QStringList>

int runVersion(const QStringList &args);
int runHash(const QStringList &args);
int runLdap(const QStringList &args);
int runSso(const QStringList &args);
int runDoctor(const QStringList &args);

#endif // ZMAUTH_TOOL_COMMANDS_H
