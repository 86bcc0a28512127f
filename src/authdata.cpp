#include "authdata.h"

#include "zmglobals.h"

unsigned int AuthData::m_id = 0;
QString AuthData::m_user;
QList<unsigned int> AuthData::m_group_ids;
QStringList AuthData::m_groups;
QStringList AuthData::m_roles;
QString AuthData::m_passwd_hash;
QByteArray AuthData::m_session_id;
QString AuthData::m_roletemplate_id;
QString AuthData::m_server_version;
QHash<zelmora::RoleDateRestrictionsType, zelmora::_ROLE_DATE_RESTRICTIONS> AuthData::m_date_restrictions;

unsigned int AuthData::userId() { return m_id; }
QString AuthData::user() { return m_user; }

void AuthData::setUser(unsigned int id, const QString &user)
{
    m_id = id;
    m_user = user;
}

QList<unsigned int> AuthData::groupIds() { return m_group_ids; }
QStringList AuthData::groups() { return m_groups; }

// The two lists stay parallel because they only ever grow together.
void AuthData::addGroup(unsigned int id, const QString &name)
{
    m_group_ids.append(id);
    m_groups.append(name);
}

QStringList AuthData::roles() { return m_roles; }

void AuthData::setRoles(const QList<QString> &roles)
{
    // QList's assignment already does nothing when both share their data.
    m_roles = roles;
}

QString AuthData::passwdHash() { return m_passwd_hash; }
void AuthData::setPasswdHash(const QString &hash) { m_passwd_hash = hash; }

QByteArray AuthData::sessionId() { return m_session_id; }
void AuthData::setSessionId(const QByteArray &id) { m_session_id = id; }

QString AuthData::roletemplateId() { return m_roletemplate_id; }
void AuthData::setRoletemplateId(const QString &id) { m_roletemplate_id = id; }

QString AuthData::serverVersion() { return m_server_version; }
void AuthData::setServerVersion(const QString &version) { m_server_version = version; }

void AuthData::setRestrictions(zelmora::RoleDateRestrictionsType type, const zelmora::_ROLE_DATE_RESTRICTIONS &r)
{
    m_date_restrictions.insert(type, r);
}

// Lookups must not insert: an unknown area stays absent from the table.
zelmora::_ROLE_DATE_RESTRICTIONS AuthData::absenceReasonsRestrictions()
{
    return m_date_restrictions.value(zelmora::AbsenceReasons);
}

zelmora::_ROLE_DATE_RESTRICTIONS AuthData::eventLogRestrictions()
{
    return m_date_restrictions.value(zelmora::EventLog);
}

zelmora::_ROLE_DATE_RESTRICTIONS AuthData::workTimePlanningRestrictions()
{
    return m_date_restrictions.value(zelmora::WorkTimePlanning);
}

QString getLibraryVersion_zmauth()
{
    return binVersionDateTimeToMark(QStringLiteral("1.0.0"), QStringLiteral(__DATE__), QStringLiteral(__TIME__));
}
