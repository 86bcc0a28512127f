// The doctor's own LDAP session, for what the library does not offer: the
// root DSE, counting with and without paging, sampling entries. It opens and
// binds the way the library does, with the run's timeout on every step.
#ifndef ZMAUTH_TOOL_DOCTOR_SESSION_H
#define ZMAUTH_TOOL_DOCTOR_SESSION_H

#include "doctor.h"

#include "zmldap.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <memory>

#include "ldapguards_p.h"

namespace doctor {

// One entry as the server sent it: attribute names spelled as the server
// spells them.
struct Entry {
    QString dn;
    QMap<QString, QList<QByteArray>> attributes;
};

struct SearchResult {
    int rc = LDAP_OTHER;
    QList<Entry> entries;
    int count = 0;          // entries received (also when they are not kept)
    QString matched;        // the matched DN of a "no such object" answer
    QStringList referrals;  // where a referral answer points
    QByteArray cookie;      // the paged results cookie of the answer
    QString text;           // "ldap_search_ext_s 32 No such object (diagnostic)"
};

class Session {
public:
    explicit Session(const Run &run);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // A session to PT_HOST:PT_PORT with the library's options and the run's
    // timeout. False with the reason.
    bool open(QString *error);
    // Binds as the settings say (method 0: no bind). 0 or the LDAP code; the
    // text of a failure in *error.
    int bind(QString *error);
    // open() and bind() in one.
    bool openBound(QString *error);

    // A synchronous search with the run's time limit. keepEntries false: only
    // count them. pageSize > 0: one page, continuing from cookie.
    SearchResult search(const QString &base, int scope, const QString &filter, const QStringList &attributes,
                        int sizeLimit, bool keepEntries = true, int pageSize = 0, const QByteArray &cookie = QByteArray());

    // The entry itself (scope base), counted, not read: whether it exists
    // and may be read.
    SearchResult readEntry(const QString &dn);

    // "<call> <code> <text>", with the server's diagnostic message when it
    // sent one.
    QString describe(const char *call, int rc) const;

private:
    const Run &m_run;
    zmldap::detail::SessionPtr m_ld;
    std::unique_ptr<LDAPDefaults> m_defaults;
};

// The filter of the user listing: PT_USER_FILTER, or the library's default.
QString userFilter(const Run &run);
// The login attribute of the account check: PT_USER_ID_PARAMETER, or sAMAccountName.
QString loginAttribute(const Run &run);
// Up to `limit` user entries below the base, with these attributes (empty:
// all). *error holds the failure when false.
bool sampleUsers(Session &session, const Run &run, const QStringList &attributes, int limit, QList<Entry> *entries,
                 QString *error);
// Whether the root DSE said the server is Active Directory.
bool isActiveDirectory(const Run &run);

} // namespace doctor

#endif // ZMAUTH_TOOL_DOCTOR_SESSION_H
