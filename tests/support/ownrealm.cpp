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

// realm.sh itself waits for both servers and tries other ports when a start
// fails, so one call is all a test needs.
OwnRealm::OwnRealm(const QStringList &options)
{
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("no temporary directory: ") + m_dir.errorString();
        return;
    }
    m_path = m_dir.filePath(QStringLiteral("realm"));
    QString output;
    if (!runRealmScript(QStringList{QStringLiteral("start"), m_path} + options, kStartGuardMs, &output)) {
        m_error = QStringLiteral("realm.sh start %1 failed: %2").arg(m_path, output);
        return;
    }
    m_env = RealmEnv::fromDir(m_path);
    if (!m_env.isValid())
        m_error = QStringLiteral("no realm.env in %1").arg(m_path);
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
