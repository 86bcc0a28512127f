#ifndef ZMLOGGING_H
#define ZMLOGGING_H

#include "zmauth_export.h"

#include <QLoggingCategory>

// "platform.lib.zmauth": for callers; the library itself does not log here.
ZMAUTH_EXPORT Q_DECLARE_LOGGING_CATEGORY(lauthc)
// "platform.lib.zmauth.ldap": directory access.
ZMAUTH_EXPORT Q_DECLARE_LOGGING_CATEGORY(ldapc)
// "platform.lib.zmauth.kerberos": Kerberos single sign-on.
ZMAUTH_EXPORT Q_DECLARE_LOGGING_CATEGORY(krbc)

#endif // ZMLOGGING_H
