#include "logsink.h"

#include <QHash>
#include <QLoggingCategory>

#include <cstdio>

namespace {

bool g_verbose = false;
QLoggingCategory::CategoryFilter g_previousFilter = nullptr;
QHash<QString, QString> g_lastCritical;
QHash<QString, QString> g_lastWarning;

bool isLibraryCategory(const char *name)
{
    return qstrncmp(name, "platform.lib.zmauth", 19) == 0;
}

// Applied to every category whenever the rules change, after the rules
// themselves: QT_LOGGING_RULES cannot switch the password-bearing debug
// records back on behind the user's back, and --verbose switches them on
// even if the environment says otherwise.
void categoryFilter(QLoggingCategory *category)
{
    if (g_previousFilter)
        g_previousFilter(category);
    const char *name = category->categoryName();
    if (!g_verbose) {
        category->setEnabled(QtDebugMsg, false);
        category->setEnabled(QtInfoMsg, false);
    } else if (isLibraryCategory(name) || qstrcmp(name, "default") == 0) {
        category->setEnabled(QtDebugMsg, true);
        category->setEnabled(QtInfoMsg, true);
    }
}

const char *levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return "debug";
    case QtInfoMsg: return "info";
    case QtWarningMsg: return "warning";
    case QtCriticalMsg: return "critical";
    case QtFatalMsg: return "fatal";
    }
    return "?";
}

void handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const QString category = QString::fromLatin1(context.category ? context.category : "default");
    if (type == QtDebugMsg || type == QtInfoMsg) {
        // Second line of defence: a record that got past the filter is still
        // dropped unless verbose.
        if (!g_verbose)
            return;
    } else if (type == QtCriticalMsg) {
        g_lastCritical.insert(category, text);
        g_lastWarning.insert(category, text);
    } else if (type == QtWarningMsg) {
        g_lastWarning.insert(category, text);
    }

    // The library's own warnings and criticals are shown by the command that
    // failed; everything else (and everything when verbose) goes out now.
    const bool kept = isLibraryCategory(context.category ? context.category : "")
        && (type == QtWarningMsg || type == QtCriticalMsg);
    if (kept && !g_verbose)
        return;
    std::fprintf(stderr, "[%s] %s: %s\n", levelName(type), qPrintable(category),
                 text.toLocal8Bit().constData());
    std::fflush(stderr);
}

} // namespace

namespace LogSink {

// Installing again only changes verbosity: the filter in place is then this
// sink's own, and chaining to it would call it from itself without end.
void install(bool verbose)
{
    g_verbose = verbose;
    qInstallMessageHandler(handler);
    const QLoggingCategory::CategoryFilter previous = QLoggingCategory::installFilter(categoryFilter);
    if (previous != categoryFilter)
        g_previousFilter = previous;
}

void clear()
{
    g_lastCritical.clear();
    g_lastWarning.clear();
}

QString lastCritical(const QString &category)
{
    return g_lastCritical.value(category);
}

QString lastWarning(const QString &category)
{
    return g_lastWarning.value(category);
}

} // namespace LogSink
