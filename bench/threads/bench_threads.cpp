// Throughput by thread count: Service::acceptNew per second (beside the same
// tokens accepted by gss_accept_sec_context itself), and connect plus
// checkADUser per second by DIGEST-MD5 and by GSSAPI, at 1, 2, 4 and 8
// threads in one run. Every thread has objects of its own. Beside each
// figure, per second of wall time: slapd's CPU time (for the directory), and
// the worker threads' time on a core, waiting for one, and blocked; which
// says whether the machine's cores, the server or the library's callers'
// waiting set the rate.
//
//   bench_threads REALM_DIR [tokens per count] [directory rounds per count]
#include <zmkerberos.h>
#include <zmldap.h>

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include "realmenv.h"
#include "tokens.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
const int kCounts[] = {1, 2, 4, 8};

// CPU seconds (user and system) slapd has used, from /proc/PID/stat.
double slapdSeconds(const QString &pid)
{
    QFile f(QStringLiteral("/proc/") + pid + QStringLiteral("/stat"));
    if (!f.open(QIODevice::ReadOnly))
        benchkrb::die("cannot read slapd's /proc stat");
    const QByteArray stat = f.readAll();
    // Fields after the command name, which is in parentheses and may hold blanks.
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    // utime and stime are fields 14 and 15 of the line, 12 and 13 here.
    return double(fields.value(11).toLongLong() + fields.value(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

// Nanoseconds the calling thread has run on a core and waited for one
// (runnable, not running), from /proc/thread-self/schedstat.
struct Sched {
    double run = 0;
    double wait = 0;
};
Sched threadSched()
{
    Sched s;
    if (FILE *f = std::fopen("/proc/thread-self/schedstat", "r")) {
        unsigned long long run = 0, wait = 0;
        if (std::fscanf(f, "%llu %llu", &run, &wait) == 2) {
            s.run = double(run);
            s.wait = double(wait);
        }
        std::fclose(f);
    }
    return s;
}

// Where the worker threads' time went, in thread-seconds per wall second:
// on a core, waiting for a core (the machine is busy), and the rest,
// blocked (the server's answer, a lock, the disk).
struct Spread {
    double seconds = 0;
    double running = 0;
    double queued = 0;
    double blocked = 0;
};

// Runs body(thread, index) for index 0 .. total-1, shared out over count
// threads. Any false result ends the run.
template <typename Body>
Spread spread(int count, int total, Body body)
{
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    std::vector<Sched> used(static_cast<size_t>(count));
    const auto start = Clock::now();
    for (int t = 0; t < count; ++t)
        threads.emplace_back([&, t] {
            const Sched before = threadSched();
            for (int i = t; i < total; i += count)
                if (!body(t, i))
                    failed = true;
            const Sched after = threadSched();
            used[size_t(t)].run = after.run - before.run;
            used[size_t(t)].wait = after.wait - before.wait;
        });
    for (std::thread &th : threads)
        th.join();
    Spread out;
    out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (failed)
        benchkrb::die("a call failed");
    for (const Sched &u : used) {
        out.running += u.run / 1e9 / out.seconds;
        out.queued += u.wait / 1e9 / out.seconds;
    }
    out.blocked = qMax(0.0, count - out.running - out.queued);
    return out;
}

zelmora::ObjectInfo settings(const RealmEnv &env, const QString &method)
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), env.value(QStringLiteral("LDAP_HOST")));
    s.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAP_PORT")));
    s.params.insert(QStringLiteral("PT_BASE_DN"), env.value(QStringLiteral("BASE_DN")));
    s.params.insert(QStringLiteral("PT_METHOD"), method);
    if (method == QLatin1String("1")) {
        s.params.insert(QStringLiteral("PT_USER"), env.value(QStringLiteral("USER_NAME")));
        s.params.insert(QStringLiteral("PT_USER_PASSWORD"), env.value(QStringLiteral("USER_PASSWORD")));
    }
    return s;
}

void discard(QtMsgType, const QMessageLogContext &, const QString &) {}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2)
        benchkrb::die("usage: bench_threads REALM_DIR [tokens] [directory rounds]");
    const int tokenCount = argc > 2 ? std::atoi(argv[2]) : 20000;
    const int dirRounds = argc > 3 ? std::atoi(argv[3]) : 400;
    const benchkrb::AcceptorRun run = benchkrb::prepareAcceptorRun(argv[1], tokenCount);
    const RealmEnv env = RealmEnv::fromDir(QString::fromLocal8Bit(argv[1]));
    // The directory code's debug records would cost more than the calls.
    qInstallMessageHandler(discard);
    zmkrb::Client("unused@localhost").setKTFile(run.keytab);

    // The ticket of the realm's user for the GSSAPI binds, in a cache of the run.
    qputenv("KRB5CCNAME", (QStringLiteral("FILE:") + env.value(QStringLiteral("CCACHE_DIR")) + QStringLiteral("/bench-threads")).toUtf8());
    QProcess kinit;
    kinit.start(QStringLiteral("kinit"), {env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM"))});
    kinit.write(env.bytes(QStringLiteral("USER_PASSWORD")) + "\n");
    kinit.closeWriteChannel();
    if (!kinit.waitForFinished(30000) || kinit.exitCode() != 0)
        benchkrb::die("kinit failed");

    const QString slapd = env.value(QStringLiteral("SLAPD_PID"));
    const QString alice = env.value(QStringLiteral("USER_NAME"));
    std::printf("threads: %d tokens and %d directory rounds per thread count, %ld cores\n", tokenCount, dirRounds,
                sysconf(_SC_NPROCESSORS_ONLN));
    {
        QFile load(QStringLiteral("/proc/loadavg"));
        if (load.open(QIODevice::ReadOnly))
            std::printf("  load average at start: %s", load.readAll().constData());
    }
    std::printf("  %-30s %7s %8s %6s %8s %8s %8s %8s\n", "what", "threads", "per s", "x 1", "slapd", "running",
                "queued", "blocked");

    // Warm-ups, not counted: the first accepts, and each method's first binds
    // (the GSSAPI ones fetch slapd's service ticket into the cache).
    spread(1, qMin(200, tokenCount), [&](int, int i) {
        zmkrb::Service service;
        return service.acceptNew("bench-peer", run.tokens[size_t(i)]).status == 1;
    });
    double base = 0;
    for (int count : kCounts) {
        std::vector<zmkrb::Service> services(static_cast<size_t>(count));
        const Spread used = spread(count, tokenCount, [&](int t, int i) {
            const zmkrb::Result r = services[size_t(t)].acceptNew("bench-peer", run.tokens[size_t(i)]);
            return r.status == 1 && r.user == run.user;
        });
        const double rate = tokenCount / used.seconds;
        if (count == 1)
            base = rate;
        std::printf("  %-30s %7d %8.0f %6.2f %8s %8.2f %8.2f %8.2f\n", "Service::acceptNew", count, rate, rate / base,
                    "-", used.running, used.queued, used.blocked);
    }
    // The reference: the same tokens straight into gss_accept_sec_context,
    // once keeping every context as acceptNew does, once deleting each. What
    // MIT's acceptor and the process' memory allow at each thread count,
    // without the library.
    for (const bool deleteContext : {false, true}) {
        const char *what = deleteContext ? "raw accept, context deleted" : "raw accept, context kept";
        for (int count : kCounts) {
            const Spread used = spread(count, tokenCount, [&](int, int i) {
                const zmkrb::Result r = benchkrb::rawAccept(run.tokens[size_t(i)], deleteContext);
                return r.status == 1 && r.user == run.user;
            });
            const double rate = tokenCount / used.seconds;
            if (count == 1)
                base = rate;
            std::printf("  %-30s %7d %8.0f %6.2f %8s %8.2f %8.2f %8.2f\n", what, count, rate, rate / base, "-",
                        used.running, used.queued, used.blocked);
        }
    }

    for (const QString &method : {QStringLiteral("1"), QStringLiteral("8")}) {
        const zelmora::ObjectInfo s = settings(env, method);
        const char *what = method == QLatin1String("1") ? "connect+checkADUser DIGEST-MD5" : "connect+checkADUser GSSAPI";
        spread(2, 10, [&](int, int) {
            ZMLDAP ldap(s);
            return ldap.connect() == 0 && ldap.checkADUser(alice);
        });
        for (int count : kCounts) {
            const double server = slapdSeconds(slapd);
            const Spread used = spread(count, dirRounds, [&](int, int) {
                ZMLDAP ldap(s);
                return ldap.connect() == 0 && ldap.checkADUser(alice);
            });
            const double rate = dirRounds / used.seconds;
            if (count == 1)
                base = rate;
            std::printf("  %-30s %7d %8.0f %6.2f %8.2f %8.2f %8.2f %8.2f\n", what, count, rate, rate / base,
                        (slapdSeconds(slapd) - server) / used.seconds, used.running, used.queued, used.blocked);
        }
    }
    return 0;
}
