#ifndef ZMLDAP_P_H
#define ZMLDAP_P_H

#include "zmldap.h"

#include <QHash>
#include <QList>
#include <QString>

#include <string>

#include <ldap.h>

// State of one directory object. Every operation that talks to the server
// first tests ld: null means "not connected".
class ZMLDAPPrivate {
public:
    explicit ZMLDAPPrivate(const zelmora::ObjectInfo &settings);

    ZMLDAPPrivate(const ZMLDAPPrivate &) = delete;
    ZMLDAPPrivate &operator=(const ZMLDAPPrivate &) = delete;

    // 0 on success, the failing LDAP result code, or -1 for an unknown method.
    int connect();
    // Logs and releases the session; callers reset ld themselves.
    void unbind();
    int bindDigestMD5Linux(const QString &host, const QString &user, const QString &password);
    int bindGSSAPILinux();
    // Not used by the library; kept for simple binds by DN.
    int bindSimpleLinux(const QString &dn, const QString &password);

    bool checkADUser(const QString &user);
    bool getUserList(QList<zelmora::ObjectInfo> &list);
    bool getUserList(QList<zelmora::ObjectInfo> &list, const QHash<QString, QString> &mapping);

    LDAP *ld;                        // owned; released only with ldap_unbind_ext
    zelmora::ObjectInfo settings;    // read at use time by every operation
    QString resultObjectType;        // type name of every record produced
    std::string uri;                 // fixed at construction
    LDAPDefaults defaults;           // fixed at construction; its address goes to the SASL library
};

// One search over a connected directory object, walked entry by entry.
class ZMLDAPObjectIteratorPrivate {
public:
    ZMLDAPObjectIteratorPrivate(ZMLDAP *ldap, zmldap::Scope scope, const QHash<QString, QString> &mapping);
    ~ZMLDAPObjectIteratorPrivate();

    ZMLDAPObjectIteratorPrivate(const ZMLDAPObjectIteratorPrivate &) = delete;
    ZMLDAPObjectIteratorPrivate &operator=(const ZMLDAPObjectIteratorPrivate &) = delete;

    zelmora::ObjectInfo first();
    zelmora::ObjectInfo next();
    zelmora::ObjectInfo unpackEntry();

    LDAPMessage *result;               // owned; null when there is nothing (more) to hand out
    LDAPMessage *current;              // borrowed from result
    ZMLDAP *ldap;                      // not owned; outlives the iterator
    zmldap::Scope scope;
    int count;                         // ldap_count_entries of the search
    QHash<QString, QString> mapping;   // attribute name -> field name(s)
};

#endif // ZMLDAP_P_H
