// Shared vocabulary of the system: setting keys, object-type names and the
// records that travel between the system's programs. The generic object
// record itself is implemented by the companion library libzmglobals.
#ifndef ZELMORA_COMMON_H
#define ZELMORA_COMMON_H

#include <QDateTime>
#include <QDebug>
#include <QHash>
#include <QMap>
#include <QString>
#include <QtGlobal>

#if defined(ZMGLOBALS_BUILD)
#  define ZMGLOBALS_EXPORT Q_DECL_EXPORT
#else
#  define ZMGLOBALS_EXPORT Q_DECL_IMPORT
#endif

// Namespace-scope const QString has internal linkage: every translation unit
// gets its own copy, built at load time.
namespace db {
namespace system {
const QString USER = QStringLiteral("OT_USER");

namespace ldap {
const QString NAME = QStringLiteral("PT_NAME");
const QString HOST = QStringLiteral("PT_HOST");
const QString PORT = QStringLiteral("PT_PORT");
const QString USER = QStringLiteral("PT_USER");
const QString USER_PASSWORD = QStringLiteral("PT_USER_PASSWORD");
const QString AUTH_METHOD = QStringLiteral("PT_METHOD");
const QString BASE_DN = QStringLiteral("PT_BASE_DN");
const QString USER_FILTER = QStringLiteral("PT_USER_FILTER");
const QString USER_ID_PARAMETER = QStringLiteral("PT_USER_ID_PARAMETER");
const QString USER_CUSTOM_FIELDS_PARAMETER = QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER");
const QString EMPLOYEE_CUSTOM_FIELDS_PARAMETER = QStringLiteral("PT_EMPLOYEE_CUSTOM_FIELDS_PARAMETER");
const QString DEFAULT_USER_ROLE_TEMPLATE = QStringLiteral("PT_DEFAULT_USER_ROLE_TEMPLATE");
const QString DEFAULT_USER_IDENT_TYPE = QStringLiteral("PT_DEFAULT_USER_IDENT_TYPE");
const QString SPN = QStringLiteral("PT_SPN");
const QString ENABLE_SSO = QStringLiteral("PT_ENABLE_SSO");
} // namespace ldap
} // namespace system

namespace user {
const QString LOGIN = QStringLiteral("PT_LOGIN");
const QString ROLE_TEMPLATE = QStringLiteral("PT_ROLETEMPLATE");
} // namespace user

namespace worker {
const QString LAST_NAME = QStringLiteral("PT_SURNAME");
const QString FIRST_NAME = QStringLiteral("PT_NAME");
const QString MIDDLE_NAME = QStringLiteral("PT_PATRONYMIC");
const QString WORKERNUM = QStringLiteral("PT_WORKERNUM");
} // namespace worker
} // namespace db

namespace zelmora {

// Value type of the inheritance maps of ObjectInfo. Its layout is shared with
// libzmglobals, which allocates and copies these records: 16 bytes of plain
// data, then two date-times.
struct _INHERIT_DATA {
    quint64 objectId = 0;
    quint32 objectType = 0;
    quint32 flags = 0;
    QDateTime begin;
    QDateTime end;
};

// The system's generic record of one stored object. Implemented in
// libzmglobals; the destructor is inline so that every program destroys the
// records it holds itself. Member order and sizes are binding.
class ZMGLOBALS_EXPORT ObjectInfo {
public:
    ObjectInfo();
    ObjectInfo(const ObjectInfo &other);
    ObjectInfo &operator=(const ObjectInfo &other);
    ~ObjectInfo() {}

    quint64 id;                                   // not used by libzmauth
    QString type;                                 // object type name, e.g. "OT_USER"
    quint64 parentId;                             // not used by libzmauth
    QHash<QString, QString> params;               // parameter or field code -> text value
    QDateTime modified;                           // not used by libzmauth
    QMap<unsigned int, _INHERIT_DATA> inheritedFrom; // not used by libzmauth
    QMap<unsigned int, _INHERIT_DATA> inheritedBy;   // not used by libzmauth
};

// Areas of the system that a role can restrict by date.
enum RoleDateRestrictionsType : qint32 {
    AbsenceReasons = 0,
    EventLog = 1,
    WorkTimePlanning = 2
};

// Date restriction of one area, opaque to libzmauth: four 32-bit integers set
// by the role settings of the wider system. All zero means "none known".
struct _ROLE_DATE_RESTRICTIONS {
    qint32 value1 = 0;
    qint32 value2 = 0;
    qint32 value3 = 0;
    qint32 value4 = 0;
};

// Outcome of an ordinary login as it travels between the system's programs.
// Declaration order is binding; the stream order is set by its operators.
struct LoginResult {
    qint32 result = 0;
    qint32 userId = 0;
    QString login;
    QString message;
    QString roleTemplateId;
    qint32 flags = 0;
    QByteArray sessionId;
    QString serverVersion;
    qint32 reserved = 0;
};

// Outcome of a Kerberos login: the counterpart of zmkrb::Result's token and user.
struct KrbLoginResult {
    QByteArray token;
    QString user;
};

} // namespace zelmora

ZMGLOBALS_EXPORT QDebug operator<<(QDebug debug, const zelmora::ObjectInfo &info);

#endif // ZELMORA_COMMON_H
