#ifndef ZMLDAP_H
#define ZMLDAP_H

#include "zmauth_export.h"
#include "zelmora.h"

#include <QHash>
#include <QList>
#include <QString>

namespace zmldap {
// Search scope of the object iterator; any other value searches the subtree.
enum Scope {
    Base = 0,
    OneLevel = 1,
    Subtree = 2
};

// Optional keys of the directory settings record, beyond the system's own.
// Absent, "0", empty or not a positive integer: off, and the directory object
// behaves exactly as without them.
namespace key {
// Page size N: the iterator and the user listing search with the simple paged
// results control, N entries per page, and read every page.
const QString PAGE_SIZE = QStringLiteral("PT_PAGE_SIZE");
// Seconds S: connect() gives up on the TCP connection and on every bind after
// S seconds, and every search waits at most S seconds (at most 30 in any case).
const QString TIMEOUT = QStringLiteral("PT_TIMEOUT");

// Several servers. With either of the next two set, connect() tries in turn
// "PT_HOST" with "PT_PORT" (when the host is not empty), the failover hosts
// and the servers DNS names for the domain, each once, and stops at the first
// that binds or at a credential failure. Each try is bounded by the timeout,
// or by 5 seconds when none is set.
// Blank-separated host[:port] entries ([v6]:port for IPv6 addresses).
const QString FAILOVER_HOSTS = QStringLiteral("PT_FAILOVER_HOSTS");
// DNS domain whose SRV records name the directory servers, looked up at
// every connect().
const QString DNS_DOMAIN = QStringLiteral("PT_DOMAIN");
// Site whose domain controllers are tried before the rest of the domain's.
const QString SITE = QStringLiteral("PT_SITE");

// Transport: "starttls" or "ldaps" (port 636 unless given); absent, empty,
// "0" or "none": plain LDAP. The certificate chain and the host name are
// always verified, TLS 1.2 at least.
const QString TLS = QStringLiteral("PT_TLS");
// PEM bundle of the CAs that the server's certificate must chain to; absent:
// the system's trust store.
const QString TLS_CA_FILE = QStringLiteral("PT_TLS_CA_FILE");
} // namespace key

// The server a directory object is bound to and how the session is
// protected, as ZMLDAP::connection() reports it.
struct Connection {
    bool connected = false;  // false: no session; the other members are empty
    QString uri;             // ldap://host:port or ldaps://host:port
    QString tlsProtocol;     // as libldap names it, e.g. "TLS1.3"; empty without TLS
    QString tlsCipher;       // as libldap names it, e.g. "AES-256-GCM"; empty without TLS
    int saslSsf = 0;         // strength of the SASL security layer; 0: none
};

// A text made safe to use as the value of a search filter's assertion
// (RFC 4515): *, (, ), \ and NUL become \2a, \28, \29, \5c and \00; every
// other character, non-ASCII included, stays as it is. Escape every name a
// user typed before it reaches ZMLDAP::checkADUser, which takes it as it is.
ZMAUTH_EXPORT QString escapeFilterValue(const QString &value);
} // namespace zmldap

// The four answers a SASL bind asks for, as C strings owned by the record.
// The interaction callback hands out pointers into them, so they live as long
// as the directory object. Unset or empty settings leave a member null.
class ZMAUTH_EXPORT LDAPDefaults {
public:
    explicit LDAPDefaults(const zelmora::ObjectInfo &settings);
    ~LDAPDefaults()
    {
        delete[] authzid;
        delete[] realm;
        delete[] authcid;
        delete[] passwd;
    }

    LDAPDefaults(const LDAPDefaults &) = delete;
    LDAPDefaults &operator=(const LDAPDefaults &) = delete;

    char *authzid; // "PT_USER"
    char *realm;   // "PT_HOST"
    char *authcid; // "PT_USER"
    char *passwd;  // "PT_USER_PASSWORD"
};

class ZMLDAPPrivate;
class ZMLDAPObjectIteratorPrivate;

// One directory server, configured by a directory settings record. The host,
// port and SASL answers are fixed when the object is built; connect() once,
// then check accounts or list users. Destroying the object unbinds.
class ZMAUTH_EXPORT ZMLDAP {
public:
    explicit ZMLDAP(const zelmora::ObjectInfo &settings);
    virtual ~ZMLDAP();

    ZMLDAP(const ZMLDAP &) = delete;
    ZMLDAP &operator=(const ZMLDAP &) = delete;

    // Replaces the settings read at use time (method, base DN, filter,
    // login attribute, mappings); host, port and credentials stay as built.
    void setSettings(const zelmora::ObjectInfo &settings);
    // Type name stamped on every record produced afterwards ("OT_USER" by default).
    void setResultObjectType(const QString &type);
    // The current settings record; valid until the next setSettings().
    const zelmora::ObjectInfo &info();

    // LDAP result code: 0 on success, -1 for an unknown auth method.
    int connect();
    bool checkADUser(const QString &user);
    bool getUserList(QList<zelmora::ObjectInfo> &list);
    bool getUserList(QList<zelmora::ObjectInfo> &list, QHash<QString, QString> mapping);

    // Field catalogues: user fields, employee fields (code -> label) and the
    // default directory attribute of each user field.
    static const QHash<QString, QString> &userDbValues();
    static const QHash<QString, QString> &employeeDbValues();
    static const QHash<QString, QString> &adDefaultValues();

    // The server of the current session and its protection, read from the
    // session itself.
    zmldap::Connection connection() const;

private:
    friend class ZMLDAPObjectIteratorPrivate;
    ZMLDAPPrivate *const d;
};

// One synchronous search over a connected directory; hands the entries out as
// object records, each attribute mapped onto fields by the mapping. The
// ZMLDAP must outlive the iterator.
class ZMAUTH_EXPORT ZMLDAPObjectIterator {
public:
    ZMLDAPObjectIterator(ZMLDAP *ldap, const QHash<QString, QString> &mapping);
    ZMLDAPObjectIterator(ZMLDAP *ldap, zmldap::Scope scope, const QHash<QString, QString> &mapping);
    virtual ~ZMLDAPObjectIterator();

    // It owns its search result: copies would release it twice.
    ZMLDAPObjectIterator(const ZMLDAPObjectIterator &) = delete;
    ZMLDAPObjectIterator &operator=(const ZMLDAPObjectIterator &) = delete;

    int size() const;
    zelmora::ObjectInfo first();
    zelmora::ObjectInfo next();

private:
    ZMLDAPObjectIteratorPrivate *const d;
};

#endif // ZMLDAP_H
