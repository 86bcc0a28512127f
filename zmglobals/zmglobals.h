// Stand-in for the system's companion library libzmglobals: the parts that
// libzmauth binds to. A deployment replaces it with the real library.
#ifndef ZMGLOBALS_H
#define ZMGLOBALS_H

#include "zelmora.h"

#include <QString>

// Turns a version, a build date and a build time into the version mark that
// the system shows for a binary.
ZMGLOBALS_EXPORT QString binVersionDateTimeToMark(QString version, QString date, QString time);

#endif // ZMGLOBALS_H
