#ifndef ZMAUTH_TEST_OWNREALM_H
#define ZMAUTH_TEST_OWNREALM_H

#include "realmenv.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <sys/types.h>

// A realm (slapd and KDC) of one test program, in a private temporary
// directory: for the tests that stop or kill a server, or need bulk users,
// while other tests use the shared realm of the run in parallel. Stopped and
// removed when the object goes, also when the test failed.
class OwnRealm {
public:
    // realm.sh start DIR with the options (for example {"--bulk", "1000"}).
    explicit OwnRealm(const QStringList &options = {});
    ~OwnRealm();

    OwnRealm(const OwnRealm &) = delete;
    OwnRealm &operator=(const OwnRealm &) = delete;

    bool isValid() const { return m_env.isValid(); }
    // What went wrong when the start failed.
    QString error() const { return m_error; }
    const RealmEnv &env() const { return m_env; }

    // Points this process's Kerberos and LDAP libraries at this realm:
    // KRB5_CONFIG, KRB5RCACHEDIR, LDAPNOINIT, and KRB5CCNAME, a cache of the
    // given name in the realm's cache directory (not created).
    void useInThisProcess(const QString &cacheName) const;

    // Sends the signal to the server whose PID realm.env names (SLAPD_PID or
    // KDC_PID) and waits until it has ended (gone or a zombie, its sockets
    // closed). False if the signal could not be sent or it did not end
    // within the hang guard.
    bool endServer(const char *pidKey, int signal) const;

private:
    QTemporaryDir m_dir;
    QString m_path; // the realm's directory inside m_dir
    RealmEnv m_env;
    QString m_error;
};

// True while the process exists and is not a zombie.
bool processRunning(pid_t pid);

// Open file descriptors of this process.
int openFileDescriptors();
// Resident set size of this process, in bytes.
qint64 residentBytes();

#endif // ZMAUTH_TEST_OWNREALM_H
