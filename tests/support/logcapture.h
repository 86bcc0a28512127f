#ifndef ZMAUTH_TEST_LOGCAPTURE_H
#define ZMAUTH_TEST_LOGCAPTURE_H

#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

// One record as the library handed it to Qt's message logger.
struct LogRecord {
    QtMsgType type;
    QString category;
    QString text;
    QString function;
    QString file;
};

// Installs a Qt message handler for its lifetime and keeps every record.
// Records are also forwarded to the previous handler when ZMAUTH_TEST_ECHO_LOG
// is set, to read a failing test's log.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QList<LogRecord> records() const;
    QList<LogRecord> inCategory(const QString &category) const;
    // Texts of all records, in order.
    QStringList texts() const;
    // Texts of the records of one category, in order.
    QStringList texts(const QString &category) const;
    // Records whose text starts with prefix.
    QList<LogRecord> startingWith(const QString &prefix) const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &text);
    void add(const LogRecord &record);

    mutable QMutex m_mutex;
    QList<LogRecord> m_records;
    QtMessageHandler m_previous;
    bool m_echo;
};

// Category name of the records that go to Qt's default category.
inline QString defaultCategory() { return QStringLiteral("default"); }

#endif // ZMAUTH_TEST_LOGCAPTURE_H
