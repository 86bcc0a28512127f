#ifndef ZMLDAP_P_H
#define ZMLDAP_P_H

#include "zmldap.h"
#include "ldapguards_p.h"
#include "records_p.h"
#include "servers_p.h"

#include <QHash>
#include <QList>
#include <QString>

#include <memory>
#include <string>
#include <vector>

#include <lber.h>
#include <ldap.h>

namespace zmldap {
namespace detail {

// What a user search asks for when the settings name no filter.
const QString kDefaultUserFilter = QStringLiteral("(&(objectClass=user)(objectCategory=person))");
// Search time limit of every directory search.
constexpr int kSearchTimeLimitSeconds = 30;

// An optional setting's positive integer; 0 when absent, empty, "0" or not a
// positive integer (the setting is then off).
inline int positiveSetting(const QHash<QString, QString> &params, const QString &key)
{
    bool ok = false;
    const int value = params.value(key).toInt(&ok, 10);
    return ok && value > 0 ? value : 0;
}

// The time limit of a search: 30 seconds, or the settings' timeout when that
// is shorter.
inline int searchTimeLimit(const QHash<QString, QString> &params)
{
    const int timeout = positiveSetting(params, zmldap::key::TIMEOUT);
    return timeout > 0 && timeout < kSearchTimeLimitSeconds ? timeout : kSearchTimeLimitSeconds;
}

// A C string for libldap: sized by the UTF-16 length plus one and cut there
// (see stringToAttribute).
CString makeCString(const QString &str);

// The search's attribute list: null for all user attributes, otherwise the
// mapping's attribute names, null-terminated, in the hash's order.
class AttributeList {
public:
    void fill(const QHash<QString, QString> &mapping);
    char **get() const { return m_array.get(); }
    void reset();

private:
    std::vector<CString> m_names;
    std::unique_ptr<char *[]> m_array;
};

// The one walk over the attributes of an entry, in the server's order:
//     for (AttributeWalk a(ld, entry); a.next();) { a.name(), a.values() }
// ByName asks for each attribute by name (ldap_first_attribute,
// ldap_next_attribute, ldap_get_values_len), as the unpaged operations do;
// InPlace reads names and values where they lie in the entry
// (ldap_get_attribute_ber), without copying them or looking each attribute
// up again: the paged search's way. An attribute without a value list has
// no values. Whatever the walk holds is released as it moves on.
class AttributeWalk {
public:
    enum Reading { ByName, InPlace };

    AttributeWalk(LDAP *ld, LDAPMessage *entry, Reading reading = ByName)
        : m_ld(ld)
        , m_entry(entry)
        , m_reading(reading)
    {
    }

    bool next();

    // The attribute name's UTF-8 bytes (not zero-terminated when InPlace).
    const char *nameData() const { return m_nameData; }
    size_t nameSize() const { return m_nameSize; }
    QString name() const { return QString::fromUtf8(m_nameData, int(m_nameSize)); }
    ValueList values() const;
    int count() const { return m_count; }

private:
    bool first();

    LDAP *m_ld;
    LDAPMessage *m_entry;
    Reading m_reading;
    bool m_started = false;
    BerPtr m_ber;
    AttributePtr m_name;            // ByName
    ValuesPtr m_values;             // ByName
    std::unique_ptr<berval, BerMemFree> m_inPlace;   // InPlace: the array of values
    const char *m_nameData = nullptr;
    size_t m_nameSize = 0;
    int m_count = 0;
};

// The one search of the directory code. The account check, the iterator and
// the listing each make their buffers in their own order (a failed
// allocation is theirs to report), then run it: unpaged, one synchronous
// search for the whole result; paged, one request per page with the simple
// paged results control, handed out entry by entry as the entries arrive.
class DirectorySearch {
public:
    // The time limit comes from the settings (searchTimeLimit).
    DirectorySearch(LDAP *ld, int scope, const QHash<QString, QString> &settings);
    ~DirectorySearch();

    DirectorySearch(const DirectorySearch &) = delete;
    DirectorySearch &operator=(const DirectorySearch &) = delete;

    // These throw std::bad_alloc when a buffer cannot be made.
    void setBase(const QString &base);
    void setFilter(const QString &filter);
    void setAttributes(const QHash<QString, QString> &mapping);

    // Unpaged: one ldap_search_ext_s for the whole result; the buffers are
    // released when it returns. The search's result code; 0 and 10 are
    // answers.
    int run(MessagePtr &result);

    // Paged, N entries a page (N > 0). Each call of next() hands out what
    // comes next: an entry (the caller owns it), the end of a page, the end
    // of the search, or a failure (rc() says which; a request still running
    // is abandoned). Each page may take the time limit.
    enum Step { Entry, PageEnd, Done, Failed };
    void setPageSize(int pageSize) { m_pageSize = pageSize; }
    Step next(MessagePtr &entry);
    // Entries of the page last ended or still arriving.
    int pageEntries() const { return m_pageEntries; }
    int rc() const { return m_rc; }

private:
    int request();
    Step fail(int rc);
    void release();

    LDAP *m_ld;
    int m_scope;
    int m_timeLimit;
    CString m_base;
    CString m_filter;
    AttributeList m_attributes;

    int m_pageSize = 0;
    int m_msgid = -1;           // the page request running, or -1
    BerMemPtr m_cookie;         // where the server continues; empty on the first page
    ber_len_t m_cookieLength = 0;
    long long m_deadline = 0;   // of the running page, on the monotonic clock (ms)
    int m_pageEntries = 0;
    int m_rc = LDAP_SUCCESS;
    bool m_done = false;
};

// A search code that counts as an answer: success, or a referral (the base
// lies in another server's part of the tree; referrals are not chased).
inline bool isAnswer(int rc)
{
    return rc == LDAP_SUCCESS || rc == LDAP_REFERRAL;
}

} // namespace detail
} // namespace zmldap

// Writes the UTF-8 form of str into buffer. Buffers are sized by the UTF-16
// length plus one and terminated at that length, which cuts longer UTF-8 text
// (anything outside ASCII) to that many bytes; the copy stops there too.
void stringToAttribute(const QString &str, char *buffer);

// State of one directory object. Every operation that talks to the server
// first tests ld: null means "not connected".
class ZMLDAPPrivate {
public:
    explicit ZMLDAPPrivate(const zelmora::ObjectInfo &settings);

    ZMLDAPPrivate(const ZMLDAPPrivate &) = delete;
    ZMLDAPPrivate &operator=(const ZMLDAPPrivate &) = delete;

    // 0 on success, the failing LDAP result code, or -1 for an unknown method.
    int connect();
    // Logs and releases the session.
    void unbind();
    int bindDigestMD5Linux(const QString &host, const QString &user, const QString &password);
    int bindGSSAPILinux();
    // Not used by the library; kept for simple binds by DN.
    int bindSimpleLinux(const QString &dn, const QString &password);

    // connect() with several servers or TLS: each server in turn gets the
    // whole sequence (initialise, options, TLS, bind) until one binds, one
    // refuses the credentials, or none is left.
    int connectToServers();
    // One server's sequence; *call names the step that failed.
    int tryServer(const zmldap::detail::Server &server, zmldap::detail::Transport transport, int timeout,
                  int method, std::string *uri, std::string *call);
    zmldap::Connection connection() const;

    bool checkADUser(const QString &user);
    bool getUserList(QList<zelmora::ObjectInfo> &list);
    bool getUserList(QList<zelmora::ObjectInfo> &list, const QHash<QString, QString> &mapping);

    zmldap::detail::SessionPtr ld;   // the session; released only with ldap_unbind_ext
    zelmora::ObjectInfo settings;    // read at use time by every operation
    QString resultObjectType;        // type name of every record produced
    std::string uri;                 // fixed at construction
    LDAPDefaults defaults;           // fixed at construction; its address goes to the SASL library
    std::string servedUri;           // server-list path: the server that bound; empty otherwise
};

// One search over a connected directory object, walked entry by entry.
class ZMLDAPObjectIteratorPrivate {
public:
    ZMLDAPObjectIteratorPrivate(ZMLDAP *ldap, zmldap::Scope scope, const QHash<QString, QString> &mapping);

    ZMLDAPObjectIteratorPrivate(const ZMLDAPObjectIteratorPrivate &) = delete;
    ZMLDAPObjectIteratorPrivate &operator=(const ZMLDAPObjectIteratorPrivate &) = delete;

    zelmora::ObjectInfo first();
    zelmora::ObjectInfo next();
    zelmora::ObjectInfo unpackEntry();

    zmldap::detail::MessagePtr result; // unpaged; null when there is nothing (more) to hand out
    LDAPMessage *current;              // borrowed from result or entries
    ZMLDAP *ldap;                      // not owned; outlives the iterator
    zmldap::Scope scope;
    int count;                         // ldap_count_entries of the search; paged, the entries of all pages
    QHash<QString, QString> mapping;   // attribute name -> field name(s)
    std::vector<zmldap::detail::MessagePtr> entries;   // paged: every entry of every page
    size_t position;                   // paged: index of current in entries
};

#endif // ZMLDAP_P_H
