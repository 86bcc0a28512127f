#ifndef ZMAUTH_TEST_THREADTEST_H
#define ZMAUTH_TEST_THREADTEST_H

// Shared by the threaded tests: how many threads and rounds, a start gate
// that lets every thread begin at once, the log records of every thread kept
// apart, and the process's open descriptors.

#include "realmenv.h"
#include "zelmora.h"

#include <zmkerberos.h>

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace threadtest {

// Threads per test: ZMAUTH_TEST_THREADS, default 8 (never fewer than 2).
int threads();
// Rounds per thread: ZMAUTH_TEST_ROUNDS, else full; under valgrind
// (ZMAUTH_VALGRIND), which runs one thread at a time, a tenth of that.
int rounds(int full);
bool underValgrind();
// Under valgrind, the replay cache is turned off for the process. Valgrind
// runs one thread at a time and does not let a thread that waits in
// fcntl(F_OFD_SETLKW), MIT's lock on the replay cache file, give up its
// turn: when two threads accept at once, the holder of the file lock never
// runs again and the test hangs. Called before any Kerberos use.
void offReplayCacheUnderValgrind();

// Runs body(0) .. body(count - 1), each on a thread of its own; all of them
// wait until every thread exists, then start together. Returns when all have
// ended.
void runTogether(int count, const std::function<void(int)> &body);

// One record as a thread handed it to Qt's message logger.
struct Record {
    QtMsgType type;
    QString category;
    QString text;
    QString file;
    QString function;
    std::thread::id thread;
};

// "level | category | function | text" of a record.
QString line(const Record &r);

// Installs a Qt message handler for its lifetime that keeps every record
// under a lock, with the thread that wrote it.
class RecordLog {
public:
    RecordLog();
    ~RecordLog();
    RecordLog(const RecordLog &) = delete;
    RecordLog &operator=(const RecordLog &) = delete;

    QList<Record> records() const;
    // One-line forms of the records one thread wrote, in its order, without
    // those of the SASL callback (see withoutCallback).
    QStringList linesOf(std::thread::id thread) const;
    // One-line forms of all records, in order.
    QStringList lines() const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &text);

    // A standard mutex, not QMutex: Qt's lock lives in uninstrumented code,
    // where ThreadSanitizer would not see it order the records.
    mutable std::mutex m_mutex;
    QList<Record> m_records;
    QtMessageHandler m_previous;
};

// Empty when every record is whole and where it belongs: a category of the
// library (or Qt's default category, where the directory code writes its
// progress), a source file of that category's subsystem, a function, and as
// a whole one of the lines the same calls wrote on one thread (known). A
// record made of two, or cut short, is none of them. Otherwise the first
// few records that are not.
QString strayRecords(const QList<Record> &records, const QSet<QString> &known);

// The end of a threaded run: no thread reported a problem, each thread's
// records are exactly its expected ones, and no record is stray. Empty when
// all hold, otherwise the first that does not, naming the thread.
QString threadsVerdict(const RecordLog &log, const std::vector<std::thread::id> &ids,
                       const std::vector<QStringList> &problems, const std::vector<QStringList> &expected,
                       const QSet<QString> &known);

// Open descriptors of this process.
int openDescriptors();

// The records a thread should have written: the reference lines of each
// round, one after another.
QStringList repeated(const QList<QStringList> &perRound);
// Empty when the lists are equal, otherwise where they part and a few lines
// of each from there.
// The lines without the SASL callback's. Cyrus SASL's DIGEST-MD5 keeps what
// it needs to authenticate again for the whole process, and a bind may ask
// the callback for its answers once more when that is taken or stale: how
// often depends on the other binds, not on the calls of the thread. Those
// lines still have to be whole ones (strayRecords).
QStringList withoutCallback(const QStringList &lines);
QString difference(const QStringList &actual, const QStringList &expected);

// Directory settings for the realm described by env: method "0", "1"
// (DIGEST-MD5 as the realm's user) or "8" (GSSAPI with the ticket of the
// thread's cache, no identity named); pageSize, when not empty, pages.
zelmora::ObjectInfo directorySettings(const RealmEnv &env, const QString &method,
                                      const QString &pageSize = QString());

// One directory round on a ZMLDAP of its own: connect, the account check of
// a user that exists and of one that does not, an unpaged and a paged
// listing and the iterator, then the object is destroyed. Empty when every
// result is as it must be, otherwise what was not.
QString directoryRound(const RealmEnv &env, const QString &method);

// The credential cache GSSAPI uses on this thread, read without changing it.
std::string threadCacheName();
// Points GSSAPI on this thread back at the default cache (KRB5CCNAME): what
// a caller does after a password login, whose private cache ~Client removes.
void resetThreadCacheName();

// One Kerberos round on this thread with a Service of its own: a password
// login of the realm's user named by key ("USER", "USER2" or "CYR_USER") on a
// Client of its own, the token accepted, the reply taken back (the
// mechanism's second step), the Client destroyed and its cache removed; then
// the thread's cache name reset, and the same with the process's own ticket
// (the default cache's). Empty when every result is as it must be.
QString kerberosRound(const RealmEnv &env, zmkrb::Service &service, const QString &key, const std::string &peer);

} // namespace threadtest

#endif // ZMAUTH_TEST_THREADTEST_H
