#ifndef ZMAUTH_EXPORT_H
#define ZMAUTH_EXPORT_H

#include <QtGlobal>

// Everything is hidden by default; only what carries this macro is the
// library's interface.
#if defined(ZMAUTH_BUILD)
#  define ZMAUTH_EXPORT Q_DECL_EXPORT
#else
#  define ZMAUTH_EXPORT Q_DECL_IMPORT
#endif

#endif // ZMAUTH_EXPORT_H
