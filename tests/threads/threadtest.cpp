#include "threadtest.h"
#include "ownrealm.h"

#include <zmldap.h>

#include <gssapi/gssapi_krb5.h>
#include <sys/stat.h>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace threadtest {

bool underValgrind()
{
    return qEnvironmentVariableIsSet("ZMAUTH_VALGRIND");
}

void offReplayCacheUnderValgrind()
{
    if (underValgrind())
        qputenv("KRB5RCACHETYPE", "none");
}

int threads()
{
    bool ok = false;
    const int n = qEnvironmentVariableIntValue("ZMAUTH_TEST_THREADS", &ok);
    return ok ? qMax(2, n) : 8;
}

int rounds(int full)
{
    bool ok = false;
    const int n = qEnvironmentVariableIntValue("ZMAUTH_TEST_ROUNDS", &ok);
    if (ok && n > 0)
        full = n;
    return underValgrind() ? qMax(1, full / 10) : full;
}

void runTogether(int count, const std::function<void(int)> &body)
{
    std::mutex mutex;
    std::condition_variable ready;
    int waiting = 0;
    std::vector<std::thread> workers;
    workers.reserve(count);
    for (int i = 0; i < count; ++i) {
        workers.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                if (++waiting == count)
                    ready.notify_all();
                else
                    ready.wait(lock, [&] { return waiting == count; });
            }
            body(i);
        });
    }
    for (std::thread &t : workers)
        t.join();
}

namespace {
RecordLog *g_log = nullptr;

QString levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return QStringLiteral("debug");
    case QtInfoMsg: return QStringLiteral("info");
    case QtWarningMsg: return QStringLiteral("warning");
    case QtCriticalMsg: return QStringLiteral("critical");
    case QtFatalMsg: return QStringLiteral("fatal");
    }
    return QStringLiteral("?");
}
} // namespace

QString line(const Record &r)
{
    return levelName(r.type) + QStringLiteral(" | ") + r.category + QStringLiteral(" | ") + r.function
        + QStringLiteral(" | ") + r.text;
}

RecordLog::RecordLog()
{
    g_log = this;
    m_previous = qInstallMessageHandler(&RecordLog::handler);
}

RecordLog::~RecordLog()
{
    qInstallMessageHandler(m_previous);
    g_log = nullptr;
}

void RecordLog::handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    RecordLog *self = g_log;
    if (!self)
        return;
    Record r{type, QString::fromUtf8(context.category), text, QString::fromUtf8(context.file),
             QString::fromUtf8(context.function), std::this_thread::get_id()};
    std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_records.append(r);
}

QList<Record> RecordLog::records() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

QStringList RecordLog::linesOf(std::thread::id thread) const
{
    QStringList out;
    for (const Record &r : records())
        if (r.thread == thread)
            out.append(line(r));
    return withoutCallback(out);
}

QStringList RecordLog::lines() const
{
    QStringList out;
    for (const Record &r : records())
        out.append(line(r));
    return out;
}

void RecordLog::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.clear();
}

QString threadsVerdict(const RecordLog &log, const std::vector<std::thread::id> &ids,
                       const std::vector<QStringList> &problems, const std::vector<QStringList> &expected,
                       const QSet<QString> &known)
{
    for (size_t i = 0; i < ids.size(); ++i) {
        if (!problems[i].isEmpty())
            return QStringLiteral("thread %1: ").arg(i) + problems[i].join(QLatin1Char('\n'));
        const QString diff = difference(log.linesOf(ids[i]), expected[i]);
        if (!diff.isEmpty())
            return diff;
    }
    return strayRecords(log.records(), known);
}

QString strayRecords(const QList<Record> &records, const QSet<QString> &known)
{
    QStringList problems;
    for (const Record &r : records) {
        bool placed = false;
        if (r.category == QLatin1String("platform.lib.zmauth.ldap") || r.category == QLatin1String("default"))
            placed = r.file.startsWith(QLatin1String("src/zmldap/")) && r.file.endsWith(QLatin1String(".cpp"));
        else if (r.category == QLatin1String("platform.lib.zmauth.kerberos"))
            placed = r.file == QLatin1String("src/zmkerberos_client_unix.cpp")
                || r.file == QLatin1String("src/zmkerberos_service_unix.cpp");
        if (!placed || r.function.isEmpty() || !known.contains(line(r)))
            problems.append(r.file + QStringLiteral(": ") + line(r));
        if (problems.size() == 5)
            break;
    }
    return problems.join(QLatin1Char('\n'));
}

int openDescriptors()
{
    return openFileDescriptors();
}

QStringList repeated(const QList<QStringList> &perRound)
{
    QStringList out;
    for (const QStringList &round : perRound)
        out += round;
    return out;
}

QStringList withoutCallback(const QStringList &lines)
{
    QStringList out;
    for (const QString &l : lines)
        if (!l.contains(QLatin1String(" | int zm_sasl_interact(")))
            out.append(l);
    return out;
}

QString difference(const QStringList &actual, const QStringList &expected)
{
    if (actual == expected)
        return QString();
    int at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at])
        ++at;
    QString out = QStringLiteral("%1 records, %2 expected; they part at %3\nactual:\n").arg(actual.size()).arg(expected.size()).arg(at);
    out += actual.mid(at, 8).join(QLatin1Char('\n')) + QStringLiteral("\nexpected:\n") + expected.mid(at, 8).join(QLatin1Char('\n'));
    return out;
}

zelmora::ObjectInfo directorySettings(const RealmEnv &env, const QString &method, const QString &pageSize)
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), env.value(QStringLiteral("LDAP_HOST")));
    s.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAP_PORT")));
    s.params.insert(QStringLiteral("PT_BASE_DN"), env.value(QStringLiteral("BASE_DN")));
    s.params.insert(QStringLiteral("PT_METHOD"), method);
    // A GSSAPI bind names nobody: the ticket says who (a bare login as the
    // authorisation identity is refused by this directory).
    if (method != QLatin1String("8")) {
        s.params.insert(QStringLiteral("PT_USER"), env.value(QStringLiteral("USER_NAME")));
        s.params.insert(QStringLiteral("PT_USER_PASSWORD"), env.value(QStringLiteral("USER_PASSWORD")));
    }
    if (!pageSize.isEmpty())
        s.params.insert(zmldap::key::PAGE_SIZE, pageSize);
    return s;
}

namespace {
QStringList sortedLogins(const QList<zelmora::ObjectInfo> &records)
{
    QStringList out;
    for (const zelmora::ObjectInfo &r : records)
        out.append(r.params.value(QStringLiteral("PT_LOGIN")));
    out.sort();
    return out;
}
} // namespace

QString directoryRound(const RealmEnv &env, const QString &method)
{
    const QStringList fixed = env.value(QStringLiteral("FIXED_USERS")).split(QLatin1Char(' '));
    const QHash<QString, QString> mapping{{QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")},
                                          {QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")}};
    QStringList problems;
    ZMLDAP ldap(directorySettings(env, method));
    const int rc = ldap.connect();
    if (rc != 0)
        return QStringLiteral("method %1: connect() returned %2").arg(method).arg(rc);
    if (!ldap.checkADUser(env.value(QStringLiteral("USER2_NAME"))))
        problems.append(QStringLiteral("checkADUser did not find bob"));
    if (ldap.checkADUser(QStringLiteral("nobody-here")))
        problems.append(QStringLiteral("checkADUser found nobody-here"));

    QList<zelmora::ObjectInfo> unpaged;
    if (!ldap.getUserList(unpaged, mapping) || sortedLogins(unpaged) != fixed)
        problems.append(QStringLiteral("unpaged listing: ") + sortedLogins(unpaged).join(QLatin1Char(' ')));
    // Pages of three: the seven users come in three pages.
    ldap.setSettings(directorySettings(env, method, QStringLiteral("3")));
    QList<zelmora::ObjectInfo> paged;
    if (!ldap.getUserList(paged, mapping) || sortedLogins(paged) != fixed)
        problems.append(QStringLiteral("paged listing: ") + sortedLogins(paged).join(QLatin1Char(' ')));
    ldap.setSettings(directorySettings(env, method));

    ZMLDAPObjectIterator it(&ldap, mapping);
    QList<zelmora::ObjectInfo> walked;
    for (int i = 0; i < it.size(); ++i)
        walked.append(i == 0 ? it.first() : it.next());
    if (sortedLogins(walked) != fixed)
        problems.append(QStringLiteral("iterator: ") + sortedLogins(walked).join(QLatin1Char(' ')));
    if (!problems.isEmpty())
        problems.prepend(QStringLiteral("method ") + method + QLatin1Char(':'));
    return problems.join(QLatin1Char(' '));
}

std::string threadCacheName()
{
    // The call sets a name and hands back the one before; that one is set again.
    OM_uint32 minor = 0;
    const char *previous = nullptr;
    gss_krb5_ccache_name(&minor, "MEMORY:zmauth-probe", &previous);
    const std::string name = previous ? previous : "";
    gss_krb5_ccache_name(&minor, name.empty() ? nullptr : name.c_str(), nullptr);
    return name;
}

void resetThreadCacheName()
{
    OM_uint32 minor = 0;
    gss_krb5_ccache_name(&minor, nullptr, nullptr);
}

namespace {
bool exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}
} // namespace

QString kerberosRound(const RealmEnv &env, zmkrb::Service &service, const QString &key, const std::string &peer)
{
    const std::string realm = env.str(QStringLiteral("KRB5_REALM"));
    const std::string user = env.str(key + QStringLiteral("_NAME"));
    QStringList problems;
    std::string cache;
    {
        zmkrb::Client client(env.str(QStringLiteral("SERVICE_NAME")));
        const zmkrb::Result first = client.authorize(realm, user, env.str(key + QStringLiteral("_PASSWORD")));
        if (first.status != 1 || first.user != user || first.token.empty())
            return QStringLiteral("password authorize: status %1").arg(first.status);
        const zmkrb::Result accepted = service.acceptNew(peer, first.token);
        if (accepted.status != 1 || accepted.user != user + "@" + realm || accepted.token.empty())
            return QStringLiteral("acceptNew of %1's token: status %2, user %3")
                .arg(QString::fromStdString(user)).arg(accepted.status).arg(QString::fromStdString(accepted.user));
        const zmkrb::Result done = client.authorizeContinue(accepted.token);
        if (done.status != 1 || !done.token.empty())
            problems.append(QStringLiteral("authorizeContinue: status %1").arg(done.status));
        cache = threadCacheName();
        if (!exists(cache))
            problems.append(QStringLiteral("the private cache is not the thread's: ") + QString::fromStdString(cache));
    }
    if (exists(cache))
        problems.append(QStringLiteral("left behind: ") + QString::fromStdString(cache));
    resetThreadCacheName();

    zmkrb::Client client(env.str(QStringLiteral("SERVICE_NAME")));
    const zmkrb::Result first = client.authorize("", "", "");
    if (first.status != 1 || !first.user.empty() || first.token.empty())
        return QStringLiteral("process-credential authorize: status %1").arg(first.status);
    const zmkrb::Result accepted = service.acceptNew(peer, first.token);
    if (accepted.status != 1 || accepted.user != env.str(QStringLiteral("USER_NAME")) + "@" + realm)
        problems.append(QStringLiteral("acceptNew of the process's ticket: status %1").arg(accepted.status));
    else if (client.authorizeContinue(accepted.token).status != 1)
        problems.append(QStringLiteral("authorizeContinue of the process's ticket"));
    return problems.join(QLatin1Char(' '));
}

} // namespace threadtest
