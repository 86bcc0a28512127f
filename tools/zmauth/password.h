#ifndef ZMAUTH_TOOL_PASSWORD_H
#define ZMAUTH_TOOL_PASSWORD_H

#include <QByteArray>

// Reads one line from standard input as the password, without the line end.
// On a terminal the prompt goes to standard error and echo is off while the
// line is typed (and is switched back on if the tool is interrupted). From a
// pipe or file, no prompt; the first line is taken and an empty input gives an
// empty password.
QByteArray readPassword(const char *prompt);

#endif // ZMAUTH_TOOL_PASSWORD_H
