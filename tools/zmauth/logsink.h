#ifndef ZMAUTH_TOOL_LOGSINK_H
#define ZMAUTH_TOOL_LOGSINK_H

#include <QString>

// Takes over Qt's message output for the tool. The library reports a failure
// as one record (critical for the directory, warning for Kerberos); the sink
// keeps the last such record per category so that a command can show it as
// its error line, instead of letting it scroll past on standard error.
//
// Debug records are off unless verbose: the directory code writes the bind
// password into them (the settings dump on connect and the SASL answers).
namespace LogSink {

void install(bool verbose);

// Forgets the records kept so far, to tell one operation's failure from the
// last one's.
void clear();

// Text of the last critical record of the category, or an empty string.
QString lastCritical(const QString &category);
// Text of the last warning or critical record of the category, or empty.
QString lastWarning(const QString &category);

} // namespace LogSink

#endif // ZMAUTH_TOOL_LOGSINK_H
