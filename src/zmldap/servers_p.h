#ifndef ZMLDAP_SERVERS_P_H
#define ZMLDAP_SERVERS_P_H

// The list of directory servers that connect() works through when the
// settings name more than one way to reach the directory, and the DNS
// look-up that contributes to it.

#include <QHash>
#include <QString>

#include <string>
#include <vector>

namespace zmldap {
namespace detail {

// One server to try. byName: reached by a DNS name the settings or DNS gave
// (failover list, SRV record), so a GSSAPI bind may name it as it is.
struct Server {
    std::string host;
    int port = 0;
    bool byName = false;
};

// One SRV answer as DNS gives it.
struct SrvRecord {
    int priority = 0;
    int weight = 0;
    int port = 0;
    std::string target;
};

// "PT_TLS": plain LDAP, StartTLS on the plain port, or LDAP over TLS.
enum class Transport { Plain, StartTls, Ldaps };
Transport transportSetting(const QHash<QString, QString> &params);

// Whether the settings ask for several servers ("PT_FAILOVER_HOSTS" or
// "PT_DOMAIN" not blank).
bool failoverOn(const QHash<QString, QString> &params);

// Whether connect() takes the server-list path: failover or TLS asked for.
bool serverListOn(const QHash<QString, QString> &params);

// The SRV records of one name, in the answer's order. False when the look-up
// failed (reason in *failure); an empty answer is not a failure.
bool lookUpSrv(const std::string &name, int timeoutSeconds, std::vector<SrvRecord> &records, std::string *failure);

// The records in the order RFC 2782 gives: ascending priority and, within a
// priority, a weighted random draw. A target of "." (no service) is dropped.
std::vector<SrvRecord> orderSrv(std::vector<SrvRecord> records);

// The servers DNS names for domain (site first when given, then the domain's
// controllers, else the plain LDAP service). One debug record per look-up
// that failed.
std::vector<Server> discoverServers(const QString &domain, const QString &site, int timeoutSeconds);

// PT_HOST:PT_PORT, the failover list, then the discovered servers, each once.
std::vector<Server> candidateServers(const QHash<QString, QString> &params, Transport transport, int timeoutSeconds);

// The process-wide table of servers that failed within the last minute.
void noteFailed(const Server &server);
void noteServed(const Server &server);
// Those that failed recently move behind the others; the order within each
// group stays.
void putRecentFailuresLast(std::vector<Server> &servers);

} // namespace detail
} // namespace zmldap

#endif // ZMLDAP_SERVERS_P_H
