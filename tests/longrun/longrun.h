#ifndef ZMAUTH_TEST_LONGRUN_H
#define ZMAUTH_TEST_LONGRUN_H

// Shared by the long-run tests: how many cycles to run, what the process
// holds before and after, and the log records the cycles wrote.

#include <QElapsedTimer>
#include <QString>
#include <QStringList>
#include <QtGlobal>

namespace longrun {

// The full count, divided by ZMAUTH_LONGRUN_DIVISOR when set (the valgrind
// run uses a smaller count); at least 1.
int count(int full);
// Cycles run before the figures that the end is compared with are taken.
int warmUp(int cycles);
// True under valgrind, whose allocator makes the resident size meaningless.
bool underValgrind();

struct Usage {
    int fds = 0;
    qint64 rss = 0;
};
Usage usageNow();

// Open descriptors and resident size at the start, after the warm-up and at
// the end of a run.
class Meter {
public:
    explicit Meter(const char *what, int cycles);
    void warm() { m_warm = usageNow(); }
    void end();
    const Usage &atWarm() const { return m_warm; }
    const Usage &atEnd() const { return m_end; }
    // Resident growth after the warm-up, in bytes.
    qint64 growth() const { return m_end.rss - m_warm.rss; }
    // Empty when the bound holds or cannot be measured (valgrind).
    QString rssProblem(qint64 bound) const;

private:
    QString m_what;
    int m_cycles;
    Usage m_start;
    Usage m_warm;
    Usage m_end;
    QElapsedTimer m_timer;
};

const qint64 kRssBound = 2 * 1024 * 1024;

// Replaces the message handler for its lifetime: counts the records by
// type and keeps the distinct texts of warnings and criticals, so that a run
// of thousands of calls neither floods the output nor grows a record list.
class RecordCounter {
public:
    RecordCounter();
    ~RecordCounter();
    RecordCounter(const RecordCounter &) = delete;
    RecordCounter &operator=(const RecordCounter &) = delete;

    int debug() const;
    int warnings() const;
    int criticals() const;
    // Distinct first lines of the warning and critical texts.
    QStringList problemLines() const;

private:
    QtMessageHandler m_previous;
};

} // namespace longrun

#endif // ZMAUTH_TEST_LONGRUN_H
