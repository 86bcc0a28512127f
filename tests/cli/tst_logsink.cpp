// The tool's log sink, built into this program: installing it a second time
// (a command that installs it after another one did) changes only the
// verbosity, and the category filter that was in place before the first
// install still runs, once per category.
#include "logsink.h"

#include <QLoggingCategory>
#include <QtTest>

namespace {

int g_earlierFilterCalls = 0;
QLoggingCategory::CategoryFilter g_qtFilter = nullptr;

void earlierFilter(QLoggingCategory *category)
{
    ++g_earlierFilterCalls;
    if (g_qtFilter)
        g_qtFilter(category);
}

const char *const kKerberos = "platform.lib.zmauth.kerberos";

} // namespace

class LogSinkInstall : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { g_qtFilter = QLoggingCategory::installFilter(earlierFilter); }

    void secondInstallChangesVerbosityOnly()
    {
        LogSink::install(false);
        LogSink::install(true);
        {
            g_earlierFilterCalls = 0;
            QLoggingCategory category(kKerberos);
            QCOMPARE(g_earlierFilterCalls, 1);
            QVERIFY(category.isDebugEnabled());
            QVERIFY(category.isWarningEnabled());
        }
        LogSink::install(false);
        {
            g_earlierFilterCalls = 0;
            QLoggingCategory category(kKerberos);
            QCOMPARE(g_earlierFilterCalls, 1);
            QVERIFY(!category.isDebugEnabled());
            QVERIFY(category.isWarningEnabled());
        }
    }

    // The records a command shows as its error line are still kept.
    void recordsKeptAfterSecondInstall()
    {
        LogSink::install(false);
        LogSink::install(false);
        LogSink::clear();
        QLoggingCategory category(kKerberos);
        qCWarning(category).noquote() << "Accept sec context failed:";
        QCOMPARE(LogSink::lastWarning(QString::fromLatin1(kKerberos)), QStringLiteral("Accept sec context failed:"));
        QCOMPARE(LogSink::lastCritical(QString::fromLatin1(kKerberos)), QString());
    }
};

QTEST_GUILESS_MAIN(LogSinkInstall)
#include "tst_logsink.moc"
