#ifndef ZMAUTH_FUZZ_FUZZCHECK_H
#define ZMAUTH_FUZZ_FUZZCHECK_H

// Shared by the fuzz targets. A broken invariant aborts, which libFuzzer
// reports like a crash and keeps the input for; the reason goes to stderr
// first.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QtGlobal>

#include <cstdio>
#include <cstdlib>

namespace fuzzcheck {

[[noreturn]] inline void fail(const char *file, int line, const char *condition, const QString &detail)
{
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, condition);
    if (!detail.isEmpty())
        std::fprintf(stderr, "  %s\n", detail.toUtf8().constData());
    std::abort();
}

// What the library handed to Qt's logger. The records are kept, not printed:
// thousands of warnings a second would bury libFuzzer's own output.
struct LogRecord {
    QtMsgType type;
    QString category;
    QString text;
};

inline QList<LogRecord> &records()
{
    static QList<LogRecord> list;
    return list;
}

inline void keepRecord(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    records().append(LogRecord{type, QString::fromLatin1(context.category ? context.category : ""), text});
}

// Called once from LLVMFuzzerInitialize.
inline void captureLog()
{
    qInstallMessageHandler(keepRecord);
}

// Shows control characters and what is not printable ASCII in a failure text.
inline QString visible(const QByteArray &bytes)
{
    QString out;
    for (const char c : bytes) {
        const uchar u = uchar(c);
        if (u >= 0x20 && u < 0x7f && u != '\\')
            out += QLatin1Char(c);
        else
            out += QStringLiteral("\\x%1").arg(u, 2, 16, QLatin1Char('0'));
    }
    return out;
}

inline QString visible(const QString &text)
{
    return visible(text.toUtf8());
}

} // namespace fuzzcheck

#define FUZZ_CHECK(condition, detail)                                                                       \
    do {                                                                                                    \
        if (!(condition))                                                                                   \
            fuzzcheck::fail(__FILE__, __LINE__, #condition, (detail));                                      \
    } while (0)

#endif // ZMAUTH_FUZZ_FUZZCHECK_H
