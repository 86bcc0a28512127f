#include "zmlogging.h"

// One category per subsystem, built on first use with Qt's default enabling.
Q_LOGGING_CATEGORY(lauthc, "platform.lib.zmauth")
Q_LOGGING_CATEGORY(ldapc, "platform.lib.zmauth.ldap")
Q_LOGGING_CATEGORY(krbc, "platform.lib.zmauth.kerberos")
