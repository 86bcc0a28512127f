#ifndef ZMAUTH_TEST_KRBTEST_H
#define ZMAUTH_TEST_KRBTEST_H

// Shared by the Kerberos test programs (compiled into each of them, so that
// the interposed C functions below are part of the executable).
//
// Every listed MIT function is interposed: the executable's definition runs
// instead of the library's for calls from libzmauth and from the test, and
// forwards to the real one unless a fault is armed. Calls that MIT makes to
// its own functions are forwarded untouched and never recorded.

#include "logcapture.h"
#include "ownrealm.h"
#include "realmenv.h"

#include <gssapi/gssapi.h>
#include <krb5.h>

#include <QString>
#include <QStringList>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace krbtest {

// Faults to produce on the next calls from libzmauth or the test. A code of 0
// means "forward to the real function".
struct Faults {
    krb5_error_code initContext = 0;
    krb5_error_code newUnique = 0;
    krb5_error_code buildPrincipal = 0;
    krb5_error_code ccInitialize = 0;
    krb5_error_code storeCred = 0;
    bool ccGetNameNull = false;
    bool errorMessageNull = false;
    // gss_import_name fails with this major status for exactly this text.
    std::string importNameText;
    OM_uint32 importNameMajor = 0;
    OM_uint32 addCredMajor = 0;
};
Faults &faults();

// What the interposers saw.
struct Seen {
    std::vector<std::string> newUniqueHints; // hint argument of krb5_cc_new_unique
    std::vector<std::string> createdCaches;  // residual of each cache it created
    std::vector<std::string> releases;       // release calls while recordReleases is on
    bool recordReleases = false;
    int gssDeleteSecContext = 0;             // calls of gss_delete_sec_context from libzmauth
};
Seen &seen();
void resetAll();

// Handles the library keeps on purpose for the life of the process or of the
// exchange: initiator and acceptor security contexts, and the acceptor
// credential of each Service. The interposers note them; this releases what
// nobody else released, so that a leak report means a real leak.
void releaseHeldHandles();
// The same for the security contexts alone, for long runs that give them
// back as they go while a Service keeps its credential.
void releaseHeldContexts();
int heldContexts();
int heldCredentials();

// Points GSSAPI on this thread back at the default cache (KRB5CCNAME): a
// password login leaves it on the Client's private cache.
void resetThreadCache();

// Credential cache files that the library created in this process and that
// still exist: a finished test leaves none behind. Only the caches seen here
// count, since other test programs of the same run create their own /tmp/tkt*
// files at the same time.
std::vector<std::string> leftoverCaches();

// Every realm test starts and ends the same way: nothing recorded, GSSAPI on
// this thread back on the default cache, no keytab registered or named in
// KRB5_KTNAME; at the end, no ticket left in the test's own cache.
void startRealmTest();
void endRealmTest();

// The end of a test program: the library deleted no security context and left
// no cache file behind. Gives back the handles the library keeps on purpose,
// so that the leak check sees only real leaks. Empty when all is well,
// otherwise what went wrong.
std::string finishProgram();
bool fileExists(const std::string &path);

// kinit (the MIT program) of user@realm into the cache the environment's
// KRB5CCNAME names; true on success.
bool kinit(const QString &principal, const QString &password);
// kinit of the realm's user (USER_NAME, alice) with her password.
bool kinitUser(const RealmEnv &env);
// Removes the cache KRB5CCNAME names.
void kdestroy();

// For programs that stop or load a realm's servers: a realm of their own,
// made this process's (OwnRealm::useInThisProcess with the cache name), and
// startRealmTest. Null, with the reason in error, when it did not start.
std::unique_ptr<OwnRealm> startOwnRealm(const QString &cacheName, QString *error);
// The end of such a program: endRealmTest and finishProgram (whose problems
// it returns), then the realm is stopped.
std::string finishOwnRealm(std::unique_ptr<OwnRealm> &realm);
// A first initiator token for SERVICE_NAME from a password login of the
// realm's user (the Client is gone when this returns). user names the pair
// of realm.env keys: "USER" (alice), "USER2" (bob) or "CYR_USER" (ivan).
std::vector<unsigned char> freshToken();
std::vector<unsigned char> freshToken(const RealmEnv &env, const QString &user = QStringLiteral("USER"));
// Clears the acceptor keytab registered for the process.
void clearRegisteredKeytab();

// Texts of the "platform.lib.zmauth.kerberos" records of one type.
QStringList krbTexts(const LogCapture &log, QtMsgType type = QtWarningMsg);
// The message krb5 has for a code, with a context of its own.
QString krb5Text(krb5_error_code code);
// Shows line feeds and tabs in failure output.
QString visible(const QString &text);

} // namespace krbtest

#endif // ZMAUTH_TEST_KRBTEST_H
