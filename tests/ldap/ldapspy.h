#ifndef ZMAUTH_TEST_LDAPSPY_H
#define ZMAUTH_TEST_LDAPSPY_H

// Interposed calls of libldap for the directory tests. Every call is forwarded
// to the real library unless a test arms a fault; each records what the
// library under test passed, so that a test can check the exact arguments and
// reach the session handle that connect() opened.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <ldap.h>

struct SearchCall {
    QByteArray base;      // the bytes up to the terminating zero
    int scope = -1;
    QByteArray filter;
    bool allAttributes = false;   // null attribute list
    QList<QByteArray> attributes;
    int attrsonly = -1;
    bool hasServerControls = false;
    bool hasClientControls = false;
    bool hasTimeout = false;
    long timeoutSec = -1;
    long timeoutUsec = -1;
    int sizelimit = -1;
    int rc = 0;
    // The server controls, in order: OID, criticality and value bytes.
    QList<QByteArray> controlOids;
    QList<bool> controlCritical;
    QList<QByteArray> controlValues;
};

struct SaslBindCall {
    LDAP *ld = nullptr;
    bool hasDn = false;
    QByteArray mechanism;
    bool hasServerControls = false;
    bool hasClientControls = false;
    unsigned flags = 0;
    LDAP_SASL_INTERACT_PROC *interact = nullptr;
    void *defaults = nullptr;
};

struct SetOptionCall {
    LDAP *ld = nullptr;
    int option = 0;
    bool nullValue = false;
    int intValue = 0;   // for the integer options
    long timeSec = -1;  // for the two timeout options (a struct timeval)
    long timeUsec = -1;
    int rc = 0;
};

namespace ldapspy {

// Forget every record and disarm every fault.
void reset();

// ldap_initialize: every URI passed and every handle created, in order.
QList<QByteArray> &initializedUris();
QList<LDAP *> &initializedHandles();
// Make the next ldap_initialize calls return rc without calling the library.
void failInitialize(int rc);

// ldap_set_option on a session handle; the option id fails with rc when armed.
QList<SetOptionCall> &setOptionCalls();
void failSetOption(int option, int rc);

// ldap_unbind_ext: the handles released, in order.
QList<LDAP *> &unbound();

// ldap_sasl_interactive_bind_s: every call. When answered, the library is not
// called and rc is returned.
QList<SaslBindCall> &saslBinds();
void answerSaslBind(int rc);

// ldap_search_ext_s: every call as the library under test made it.
QList<SearchCall> &searches();

// ldap_search_ext (the request that ldap_result answers, as a paged search
// sends one per page): every call as the library under test made it.
QList<SearchCall> &pagedSearches();

// ldap_search_ext_s: return this code instead of the library's (the result
// the library made is still handed back).
void forceSearchRc(int rc);

// ldap_count_entries: return this value instead of the library's.
void forceCountEntries(int value);

// ldap_get_values_len: for this attribute return no list at all, or a list
// with no values.
void noValuesFor(const QByteArray &attribute);
void emptyValuesFor(const QByteArray &attribute);

// Calls of ldap_first_entry / ldap_next_entry with a null argument (libldap
// asserts on those and would have aborted already; counted for the record).
int nullEntryCalls();

// ldap_msgfree calls with a non-null message.
int messagesFreed();

// One entry as the server returns it: attribute names in order, raw values.
struct DirAttribute {
    QByteArray name;
    QList<QByteArray> values;
};
struct DirEntry {
    QByteArray dn;
    QList<DirAttribute> attributes;
    QList<QByteArray> valuesOf(const QByteArray &name) const
    {
        for (const DirAttribute &a : attributes)
            if (a.name == name)
                return a.values;
        return {};
    }
};

// Reads entries anonymously from the realm on a session of its own, with no
// fault armed and nothing recorded.
QList<DirEntry> readEntries(const QByteArray &uri, const QByteArray &base, int scope, const QByteArray &filter,
                            const QList<QByteArray> &attributes = {}, int *rc = nullptr);

// A search on an open session, straight on libldap: the number of entries, or
// -1 with rc set on failure.
int searchCount(LDAP *ld, const char *base, const char *filter, int *rc = nullptr);
// The identity the server sees for a session (empty for anonymous).
QString whoAmI(LDAP *ld, int *rc = nullptr);

} // namespace ldapspy

#endif // ZMAUTH_TEST_LDAPSPY_H
