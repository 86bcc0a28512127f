// The doctor's verdicts, what a run knows, and the texts the checks share.
#include "doctor.h"

#include "zmldap.h"

#include <QDateTime>

namespace doctor {

QString statusName(Status status)
{
    switch (status) {
    case Status::Pass: return QStringLiteral("PASS");
    case Status::Warn: return QStringLiteral("WARN");
    case Status::Fail: return QStringLiteral("FAIL");
    case Status::Skip: return QStringLiteral("SKIP");
    }
    return QString();
}

Outcome pass(const QString &finding, const QJsonObject &facts)
{
    return Outcome{Status::Pass, finding, QString(), QString(), facts};
}

Outcome warn(const QString &finding, const QString &fix, const QJsonObject &facts)
{
    return Outcome{Status::Warn, finding, fix, QString(), facts};
}

Outcome fail(const QString &finding, const QString &fix, const QJsonObject &facts)
{
    return Outcome{Status::Fail, finding, fix, QString(), facts};
}

Outcome skip(const QString &reason)
{
    return Outcome{Status::Skip, QString(), QString(), reason, QJsonObject()};
}

void Findings::pass(const QString &finding)
{
    add(Status::Pass, finding, QString());
}

void Findings::warn(const QString &finding, const QString &fix)
{
    add(Status::Warn, finding, fix);
}

void Findings::fail(const QString &finding, const QString &fix)
{
    add(Status::Fail, finding, fix);
}

void Findings::add(Status status, const QString &finding, const QString &fix)
{
    if (status == Status::Fail || (status == Status::Warn && m_status == Status::Pass))
        m_status = status;
    m_findings << finding;
    if (!fix.isEmpty() && !m_fixes.contains(fix))
        m_fixes << fix;
}

Outcome Findings::outcome(const QString &whenClean, const QJsonObject &facts) const
{
    const QString joined = m_findings.join(QLatin1String("; "));
    if (m_status == Status::Pass)
        return doctor::pass(joined.isEmpty() ? whenClean : joined, facts);
    return Outcome{m_status, joined, m_fixes.join(QLatin1String("; ")), QString(), facts};
}

bool Run::ok(const QString &id) const
{
    const Status s = status(id);
    return s == Status::Pass || s == Status::Warn;
}

int Run::method() const
{
    if (!input.settingsRead)
        return -1;
    return input.settings.params.value(db::system::ldap::AUTH_METHOD, QStringLiteral("1")).toInt();
}

zelmora::ObjectInfo Run::librarySettings() const
{
    zelmora::ObjectInfo settings = input.settings;
    settings.params.insert(zmldap::key::TIMEOUT, QString::number(input.timeout));
    return settings;
}

QString Run::host() const
{
    return setting(db::system::ldap::HOST);
}

QString Run::hostPort() const
{
    return host() + QLatin1Char(':') + setting(db::system::ldap::PORT);
}

QString methodName(int method)
{
    switch (method) {
    case 0: return QStringLiteral("0 (anonymous)");
    case 1: return QStringLiteral("1 (DIGEST-MD5)");
    case 8: return QStringLiteral("8 (GSSAPI)");
    }
    return QString::number(method);
}

int settingsPageSize(const Run &run)
{
    bool ok = false;
    const int size = run.setting(zmldap::key::PAGE_SIZE).toInt(&ok, 10);
    return ok && size > 0 ? size : 0;
}

QString utcText(qint64 secondsSinceEpoch)
{
    return QDateTime::fromSecsSinceEpoch(secondsSinceEpoch, Qt::UTC).toString(QStringLiteral("yyyy-MM-dd HH:mm:ss 'UTC'"));
}

QString distanceFromNow(qint64 seconds)
{
    const qint64 delta = seconds - QDateTime::currentSecsSinceEpoch();
    const qint64 span = delta < 0 ? -delta : delta;
    QString text;
    if (span < 60)
        text = QStringLiteral("%1 s").arg(span);
    else if (span < 3600)
        text = QStringLiteral("%1 min").arg(span / 60);
    else if (span < 2 * 86400)
        text = QStringLiteral("%1 h %2 min").arg(span / 3600).arg(span % 3600 / 60);
    else
        text = QStringLiteral("%1 days").arg(span / 86400);
    return delta < 0 ? text + QStringLiteral(" ago") : QStringLiteral("in ") + text;
}

QString clockFix()
{
    return QStringLiteral("synchronise this machine's clock with the domain's (NTP against the domain controllers); "
                          "Kerberos refuses clocks more than 300 s apart");
}

} // namespace doctor
