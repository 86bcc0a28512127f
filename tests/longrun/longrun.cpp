#include "longrun.h"
#include "ownrealm.h"

#include <QSet>

#include <valgrind/valgrind.h>

#include <cstdio>

// The allocator's quarantine would hold every freed block for a while and
// make the resident size grow with the number of calls, whatever the code
// does: off for the long runs, so that the bound means the same as in the
// plain build. Options from ASAN_OPTIONS still apply on top of these.
#if defined(__SANITIZE_ADDRESS__)
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options()
{
    return "quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
}
#endif

namespace longrun {

int count(int full)
{
    bool ok = false;
    const int divisor = qEnvironmentVariableIntValue("ZMAUTH_LONGRUN_DIVISOR", &ok);
    return qMax(1, ok && divisor > 1 ? full / divisor : full);
}

int warmUp(int cycles)
{
    return qMax(1, cycles / 10);
}

bool underValgrind()
{
    return RUNNING_ON_VALGRIND;
}

Usage usageNow()
{
    Usage u;
    u.fds = openFileDescriptors();
    u.rss = residentBytes();
    return u;
}

namespace {
QString mib(qint64 bytes)
{
    return QString::number(double(bytes) / (1024.0 * 1024.0), 'f', 2) + QStringLiteral(" MiB");
}
} // namespace

Meter::Meter(const char *what, int cycles)
    : m_what(QString::fromLatin1(what))
    , m_cycles(cycles)
    , m_start(usageNow())
    , m_warm(m_start)
{
    m_timer.start();
}

void Meter::end()
{
    m_end = usageNow();
    const QString text = QStringLiteral("%1: %2 cycles (warm-up %3) in %4 s; open descriptors %5 at the start, "
                                        "%6 after the warm-up, %7 at the end; resident %8 at the start, %9 after "
                                        "the warm-up, %10 at the end (growth %11)%12")
                             .arg(m_what)
                             .arg(m_cycles)
                             .arg(warmUp(m_cycles))
                             .arg(QString::number(double(m_timer.elapsed()) / 1000.0, 'f', 1))
                             .arg(m_start.fds)
                             .arg(m_warm.fds)
                             .arg(m_end.fds)
                             .arg(mib(m_start.rss), mib(m_warm.rss), mib(m_end.rss), mib(growth()))
                             .arg(underValgrind() ? QStringLiteral(", under valgrind") : QString());
    // Straight to the output, past any message handler.
    std::printf("FIGURES %s\n", qPrintable(text));
    std::fflush(stdout);
}

QString Meter::rssProblem(qint64 bound) const
{
    if (underValgrind() || growth() < bound)
        return QString();
    return QStringLiteral("%1: resident size grew by %2 bytes after the warm-up (bound %3)")
        .arg(m_what)
        .arg(growth())
        .arg(bound);
}

namespace {

int g_debug = 0;
int g_warnings = 0;
int g_criticals = 0;
QSet<QString> g_problems;

void countingHandler(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg:
        ++g_debug;
        return;
    case QtWarningMsg:
        ++g_warnings;
        break;
    case QtCriticalMsg:
    case QtFatalMsg:
        ++g_criticals;
        break;
    }
    g_problems.insert(text.section(QLatin1Char('\n'), 0, 0));
}

} // namespace

RecordCounter::RecordCounter()
{
    g_debug = g_warnings = g_criticals = 0;
    g_problems.clear();
    m_previous = qInstallMessageHandler(countingHandler);
}

RecordCounter::~RecordCounter()
{
    qInstallMessageHandler(m_previous);
}

int RecordCounter::debug() const { return g_debug; }
int RecordCounter::warnings() const { return g_warnings; }
int RecordCounter::criticals() const { return g_criticals; }

QStringList RecordCounter::problemLines() const
{
    QStringList out = g_problems.values();
    out.sort();
    return out;
}

} // namespace longrun
