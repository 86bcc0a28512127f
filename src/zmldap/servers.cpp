// Which directory servers connect() tries, in which order, and the memory of
// those that failed lately. The table is the library's one piece of
// process-wide mutable state with a lock; both come into being only when a
// directory object works with several servers.
#include "servers_p.h"

#include "zmldap.h"

#include <QStringList>

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace zmldap {
namespace detail {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kFailureMemory(60);

std::string serverKey(const Server &server)
{
    return QString::fromStdString(server.host).toLower().toStdString() + ':' + std::to_string(server.port);
}

std::mutex &failureLock()
{
    static std::mutex lock;
    return lock;
}

// Guarded by failureLock().
std::map<std::string, Clock::time_point> &failures()
{
    static std::map<std::string, Clock::time_point> table;
    return table;
}

int defaultPort(Transport transport)
{
    return transport == Transport::Ldaps ? 636 : 389;
}

// "host", "host:port", "[v6]" or "[v6]:port"; a port that is not a number
// from 1 to 65535 makes the entry unusable.
bool parseHostPort(const QString &entry, Transport transport, Server &server)
{
    QString host = entry;
    QString port;
    if (entry.startsWith(QLatin1Char('['))) {
        const int close = entry.indexOf(QLatin1Char(']'));
        if (close < 0)
            return false;
        host = entry.mid(1, close - 1);
        const QString rest = entry.mid(close + 1);
        if (!rest.isEmpty()) {
            if (!rest.startsWith(QLatin1Char(':')))
                return false;
            port = rest.mid(1);
        }
    } else if (entry.count(QLatin1Char(':')) == 1) {
        const int colon = entry.indexOf(QLatin1Char(':'));
        host = entry.left(colon);
        port = entry.mid(colon + 1);
    }
    if (host.isEmpty())
        return false;
    server.host = host.toStdString();
    if (port.isNull()) {
        server.port = defaultPort(transport);
        return true;
    }
    bool ok = false;
    const int number = port.toInt(&ok, 10);
    if (!ok || number < 1 || number > 65535)
        return false;
    server.port = number;
    return true;
}

} // namespace

Transport transportSetting(const QHash<QString, QString> &params)
{
    const QString value = params.value(zmldap::key::TLS).trimmed().toLower();
    if (value == QLatin1String("starttls"))
        return Transport::StartTls;
    if (value == QLatin1String("ldaps"))
        return Transport::Ldaps;
    return Transport::Plain;
}

bool failoverOn(const QHash<QString, QString> &params)
{
    return !params.value(zmldap::key::FAILOVER_HOSTS).trimmed().isEmpty()
        || !params.value(zmldap::key::DNS_DOMAIN).trimmed().isEmpty();
}

bool serverListOn(const QHash<QString, QString> &params)
{
    return failoverOn(params) || transportSetting(params) != Transport::Plain;
}

std::vector<Server> candidateServers(const QHash<QString, QString> &params, Transport transport, int timeoutSeconds)
{
    std::vector<Server> servers;
    std::set<std::string> seen;
    auto add = [&](const Server &server) {
        if (seen.insert(serverKey(server)).second)
            servers.push_back(server);
    };

    const QString host = params.value(db::system::ldap::HOST);
    if (!host.isEmpty()) {
        Server server;
        server.host = host.toStdString();
        // The port keeps its low 16 bits, as the single-server URI does; none
        // given means the transport's own port.
        server.port = quint16(params.value(db::system::ldap::PORT).toUInt());
        if (server.port == 0)
            server.port = defaultPort(transport);
        add(server);
    }

    const QStringList entries = params.value(zmldap::key::FAILOVER_HOSTS).simplified().split(QLatin1Char(' '),
                                                                                          Qt::SkipEmptyParts);
    for (const QString &entry : entries) {
        Server server;
        server.byName = true;
        if (parseHostPort(entry, transport, server))
            add(server);
    }

    const QString domain = params.value(zmldap::key::DNS_DOMAIN).trimmed();
    if (!domain.isEmpty()) {
        std::vector<Server> found = discoverServers(domain, params.value(zmldap::key::SITE), timeoutSeconds);
        for (Server &server : found) {
            // LDAP over TLS has its own port; the records name the plain one.
            if (transport == Transport::Ldaps && server.port == 389)
                server.port = 636;
            add(server);
        }
    }
    return servers;
}

void noteFailed(const Server &server)
{
    std::lock_guard<std::mutex> guard(failureLock());
    failures()[serverKey(server)] = Clock::now();
}

void noteServed(const Server &server)
{
    std::lock_guard<std::mutex> guard(failureLock());
    failures().erase(serverKey(server));
}

void putRecentFailuresLast(std::vector<Server> &servers)
{
    std::vector<Server> fresh;
    std::vector<Server> failedLately;
    {
        std::lock_guard<std::mutex> guard(failureLock());
        const Clock::time_point now = Clock::now();
        auto &table = failures();
        for (auto it = table.begin(); it != table.end();) {
            if (now - it->second >= kFailureMemory)
                it = table.erase(it);
            else
                ++it;
        }
        for (Server &server : servers)
            (table.count(serverKey(server)) ? failedLately : fresh).push_back(std::move(server));
    }
    fresh.insert(fresh.end(), failedLately.begin(), failedLately.end());
    servers = std::move(fresh);
}

} // namespace detail
} // namespace zmldap
