#ifndef AUTHDATA_H
#define AUTHDATA_H

#include "zmauth_export.h"
#include "zelmora.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

// The logged-in user's session data, once per process. Written by the thread
// that logs in, read afterwards; nothing here is locked.
class ZMAUTH_EXPORT AuthData {
public:
    AuthData() = delete;

    static unsigned int userId();
    static QString user();
    static void setUser(unsigned int id, const QString &user);

    static QList<unsigned int> groupIds();
    static QStringList groups();
    static void addGroup(unsigned int id, const QString &name);

    static QStringList roles();
    static void setRoles(const QList<QString> &roles);

    static QString passwdHash();
    static void setPasswdHash(const QString &hash);

    static QByteArray sessionId();
    static void setSessionId(const QByteArray &id);

    static QString roletemplateId();
    static void setRoletemplateId(const QString &id);

    static QString serverVersion();
    static void setServerVersion(const QString &version);

    static void setRestrictions(zelmora::RoleDateRestrictionsType type,
                                const zelmora::_ROLE_DATE_RESTRICTIONS &r);
    static zelmora::_ROLE_DATE_RESTRICTIONS absenceReasonsRestrictions();
    static zelmora::_ROLE_DATE_RESTRICTIONS eventLogRestrictions();
    static zelmora::_ROLE_DATE_RESTRICTIONS workTimePlanningRestrictions();

private:
    static unsigned int m_id;
    static QString m_user;
    static QList<unsigned int> m_group_ids;
    static QStringList m_groups;
    static QStringList m_roles;
    static QString m_passwd_hash;
    static QByteArray m_session_id;
    static QString m_roletemplate_id;
    static QString m_server_version;
    static QHash<zelmora::RoleDateRestrictionsType, zelmora::_ROLE_DATE_RESTRICTIONS> m_date_restrictions;
};

// The library's version mark: "1.0.0" with the date and time it was built.
ZMAUTH_EXPORT QString getLibraryVersion_zmauth();

#endif // AUTHDATA_H
