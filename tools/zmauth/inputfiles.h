#ifndef ZMAUTH_TOOL_INPUTFILES_H
#define ZMAUTH_TOOL_INPUTFILES_H

#include "zelmora.h"

#include <QHash>
#include <QString>
#include <QStringList>

// A directory settings record from a JSON object whose members are the
// system's setting keys ("PT_HOST", "PT_PORT", "PT_METHOD", ...). The system
// stores every value as text; numbers are taken as their text and an array or
// object (a custom field mapping written inline) as its compact JSON text.
// Returns false with a one-line reason.
bool loadSettings(const QString &path, zelmora::ObjectInfo &settings, QString *error);
// The same from the file's text; PATH only names it in the reason.
bool parseSettings(const QByteArray &json, const QString &path, zelmora::ObjectInfo &settings, QString *error);

// An attribute-to-field mapping read from the system's custom field form: a
// JSON array of one-member objects, attribute -> field code(s) separated by
// blanks. It is read the way the system reads it (first member in key order,
// a later pair for the same attribute wins, a value that is no text maps to
// the empty field code), so the preview shows what an import would do; every
// such oddity is reported in warnings.
struct FieldMapping {
    QHash<QString, QString> pairs;
    // Field codes in the order the mapping names them, for the table columns.
    QStringList fieldOrder;
    QStringList warnings;
};

// From JSON text. Fails (false) only when the text is not a JSON array.
bool parseMapping(const QByteArray &json, FieldMapping &mapping, QString *error);
bool loadMapping(const QString &path, FieldMapping &mapping, QString *error);

#endif // ZMAUTH_TOOL_INPUTFILES_H
