#ifndef ZMAUTH_TEST_ADTEST_H
#define ZMAUTH_TEST_ADTEST_H

// Shared by the tests against the test domain (tests/ad/ad.sh). They run
// inside its network namespace through in-ns.sh, which puts the values of
// ad.env (AD_*) into the environment.

#include "krbtest.h"
#include "ldaptest.h"

#include <QList>
#include <QString>
#include <QStringList>

// First check of every program: it runs inside the domain's namespace.
#define AD_REQUIRED() QVERIFY2(ad::isUp(), "the test domain is needed (run through tests/ad/in-ns.sh)")

namespace ad {

inline QString value(const char *key) { return qEnvironmentVariable(key); }
inline QString value(const QByteArray &key) { return qEnvironmentVariable(key.constData()); }
inline std::string str(const char *key) { return value(key).toStdString(); }
inline std::string str(const QByteArray &key) { return value(key).toStdString(); }
inline bool isUp() { return !value("AD_DIR").isEmpty(); }

// The end of a test program: the ticket cache removed and the handles the
// library keeps on purpose given back. Empty when all is well, otherwise
// what went wrong.
std::string endProgram();

// A directory settings record for the DC, named by host (its host name or its
// address), with the auth method and the domain's base DN.
zelmora::ObjectInfo settings(const QString &method, const QString &host = value("AD_DC_HOST"));

// A ticket of the login whose name and password are in the environment under
// these keys, into KRB5CCNAME (kinit, the MIT program).
bool kinit(const char *loginKey, const char *passwordKey);

// The service principals of the tickets in KRB5CCNAME (klist), without the
// ticket-granting ticket.
QStringList cachedServices();

// The entries that ldapsearch finds with the ticket in KRB5CCNAME (SASL
// GSSAPI, like the library's method 8): the independent reading that the
// library's results are compared with. Search continuation references are
// counted into references.
QList<DirEntry> ldapsearch(const QString &base, const QString &filter, const QStringList &attributes,
                           int *exitCode, int *references = nullptr);

// Values of one attribute of the first entry a search on an open session finds.
QList<QByteArray> valuesOn(LDAP *ld, const QByteArray &base, int scope, const QByteArray &filter,
                           const QByteArray &attribute, int *rc = nullptr);

// Records in a comparable form: one sorted line per record (type, then its
// pairs sorted by key), the lines sorted.
QStringList recordLines(const QList<zelmora::ObjectInfo> &records);

// The records the listing must give for these entries: the attribute-to-field
// rule applied to what ldapsearch read.
QList<zelmora::ObjectInfo> expectedRecords(const QList<DirEntry> &entries, const QHash<QString, QString> &mapping);

// The one record whose field has this value.
zelmora::ObjectInfo recordWith(const QList<zelmora::ObjectInfo> &records, const QString &field, const QString &value);

} // namespace ad

#endif // ZMAUTH_TEST_ADTEST_H
