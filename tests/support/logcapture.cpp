#include "logcapture.h"

#include <QMutexLocker>

namespace {
LogCapture *g_active = nullptr;
}

LogCapture::LogCapture()
    : m_previous(nullptr)
    , m_echo(qEnvironmentVariableIsSet("ZMAUTH_TEST_ECHO_LOG"))
{
    g_active = this;
    m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    g_active = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    LogCapture *self = g_active;
    if (!self)
        return;
    self->add({type, QString::fromUtf8(context.category), text, QString::fromUtf8(context.function),
               QString::fromUtf8(context.file)});
    if (self->m_echo && self->m_previous)
        self->m_previous(type, context, text);
}

void LogCapture::add(const LogRecord &record)
{
    QMutexLocker lock(&m_mutex);
    m_records.append(record);
}

QList<LogRecord> LogCapture::records() const
{
    QMutexLocker lock(&m_mutex);
    return m_records;
}

QList<LogRecord> LogCapture::inCategory(const QString &category) const
{
    QList<LogRecord> out;
    for (const LogRecord &r : records())
        if (r.category == category)
            out.append(r);
    return out;
}

QStringList LogCapture::texts() const
{
    QStringList out;
    for (const LogRecord &r : records())
        out.append(r.text);
    return out;
}

QStringList LogCapture::texts(const QString &category) const
{
    QStringList out;
    for (const LogRecord &r : inCategory(category))
        out.append(r.text);
    return out;
}

QList<LogRecord> LogCapture::startingWith(const QString &prefix) const
{
    QList<LogRecord> out;
    for (const LogRecord &r : records())
        if (r.text.startsWith(prefix))
            out.append(r);
    return out;
}

void LogCapture::clear()
{
    QMutexLocker lock(&m_mutex);
    m_records.clear();
}
