#include "ownrealm.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <unistd.h>

namespace {

// Starting 100,000 bulk users takes seconds; these only guard against hangs.
const int kStartGuardMs = 600000;
const int kStopGuardMs = 120000;
const int kEndGuardMs = 30000;
const int kStartAttempts = 3;

bool runRealmScript(const QStringList &arguments, int guardMs, QString *output)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("bash"), QStringList{QStringLiteral(ZMAUTH_REALM_SCRIPT)} + arguments);
    if (!process.waitForStarted(kEndGuardMs) || !process.waitForFinished(guardMs)) {
        process.kill();
        process.waitForFinished();
        if (output)
            *output = QStringLiteral("realm.sh did not finish");
        return false;
    }
    if (output)
        *output = QString::fromLocal8Bit(process.readAll());
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

} // namespace

// realm.sh gives each start a few seconds to see both servers listening; on a
// machine loaded far beyond its cores (the valgrind run beside other builds)
// that can run out, so a start is tried again in a fresh directory.
OwnRealm::OwnRealm(const QStringList &options)
{
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("no temporary directory: ") + m_dir.errorString();
        return;
    }
    for (int attempt = 1; attempt <= kStartAttempts && !m_env.isValid(); ++attempt) {
        m_path = m_dir.filePath(QStringLiteral("realm-%1").arg(attempt));
        QString output;
        if (!runRealmScript(QStringList{QStringLiteral("start"), m_path} + options, kStartGuardMs, &output)) {
            m_error += QStringLiteral("realm.sh start %1 failed: %2\n").arg(m_path, output);
            continue;
        }
        m_env = RealmEnv::fromDir(m_path);
        if (!m_env.isValid())
            m_error += QStringLiteral("no realm.env in %1\n").arg(m_path);
    }
    if (m_env.isValid())
        m_error.clear();
}

OwnRealm::~OwnRealm()
{
    if (!m_path.isEmpty())
        runRealmScript({QStringLiteral("stop"), m_path}, kStopGuardMs, nullptr);
}

void OwnRealm::useInThisProcess(const QString &cacheName) const
{
    qputenv("KRB5_CONFIG", m_env.bytes(QStringLiteral("KRB5_CONFIG")));
    qputenv("KRB5RCACHEDIR", m_env.bytes(QStringLiteral("KRB5RCACHEDIR")));
    qputenv("KRB5CCNAME", "FILE:" + m_env.bytes(QStringLiteral("CCACHE_DIR")) + '/' + cacheName.toUtf8());
    qputenv("LDAPNOINIT", "1");
}

bool OwnRealm::endServer(const char *pidKey, int signal) const
{
    bool ok = false;
    const pid_t pid = pid_t(m_env.value(QString::fromLatin1(pidKey)).toLong(&ok));
    if (!ok || pid <= 1 || ::kill(pid, signal) != 0)
        return false;
    for (int waited = 0; waited < kEndGuardMs; waited += 10) {
        if (!processRunning(pid))
            return true;
        QThread::msleep(10);
    }
    return false;
}

bool processRunning(pid_t pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray text = stat.readAll();
    // The state follows the command name, which is in parentheses.
    const int close = text.lastIndexOf(')');
    if (close < 0 || close + 2 >= text.size())
        return false;
    const char state = text.at(close + 2);
    return state != 'Z' && state != 'X';
}

int openFileDescriptors()
{
    return int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System).size());
}

qint64 residentBytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields[1].toLongLong() * sysconf(_SC_PAGESIZE) : -1;
}
