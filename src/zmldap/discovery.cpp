// Directory servers found through DNS: SRV records of the domain's
// controllers (per site first) or of its plain LDAP service. The resolver
// state is this call's own, so concurrent look-ups in other threads do not
// share it, and its retry settings keep the look-up within the timeout.
#include "servers_p.h"

#include "zmlogging.h"

#include <QDebug>
#include <QRandomGenerator>

#include <algorithm>
#include <cstring>
#include <memory>

#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

namespace zmldap {
namespace detail {

namespace {

// Owns a resolver state from res_ninit to res_nclose.
class ResolverState {
public:
    ResolverState() { std::memset(&m_state, 0, sizeof m_state); }
    ~ResolverState()
    {
        if (m_open)
            res_nclose(&m_state);
    }
    ResolverState(const ResolverState &) = delete;
    ResolverState &operator=(const ResolverState &) = delete;

    bool open(int timeoutSeconds)
    {
        if (res_ninit(&m_state) != 0)
            return false;
        m_open = true;
        // One try per name server, each waiting at most the timeout.
        m_state.retrans = timeoutSeconds > 0 ? timeoutSeconds : 1;
        m_state.retry = 1;
        return true;
    }
    res_state get() { return &m_state; }

private:
    struct __res_state m_state;
    bool m_open = false;
};

constexpr int kAnswerSize = 65536;

} // namespace

bool lookUpSrv(const std::string &name, int timeoutSeconds, std::vector<SrvRecord> &records, std::string *failure)
{
    records.clear();
    ResolverState resolver;
    if (!resolver.open(timeoutSeconds)) {
        *failure = "resolver not initialised";
        return false;
    }
    std::unique_ptr<unsigned char[]> answer(new unsigned char[kAnswerSize]);
    const int length = res_nsearch(resolver.get(), name.c_str(), ns_c_in, ns_t_srv, answer.get(), kAnswerSize);
    if (length < 0) {
        const int error = resolver.get()->res_h_errno;
        // A name without records is an empty answer, not a failure.
        if (error == HOST_NOT_FOUND || error == NO_DATA)
            return true;
        *failure = hstrerror(error);
        return false;
    }
    ns_msg message;
    if (ns_initparse(answer.get(), std::min(length, kAnswerSize), &message) != 0) {
        *failure = "malformed answer";
        return false;
    }
    const int count = ns_msg_count(message, ns_s_an);
    for (int i = 0; i < count; ++i) {
        ns_rr rr;
        if (ns_parserr(&message, ns_s_an, i, &rr) != 0)
            continue;
        if (ns_rr_type(rr) != ns_t_srv || ns_rr_rdlen(rr) < 7)
            continue;
        const unsigned char *rdata = ns_rr_rdata(rr);
        SrvRecord record;
        record.priority = ns_get16(rdata);
        record.weight = ns_get16(rdata + 2);
        record.port = ns_get16(rdata + 4);
        char target[NS_MAXDNAME];
        if (dn_expand(ns_msg_base(message), ns_msg_end(message), rdata + 6, target, sizeof target) < 0)
            continue;
        record.target = target;
        records.push_back(record);
    }
    return true;
}

std::vector<SrvRecord> orderSrv(std::vector<SrvRecord> records)
{
    records.erase(std::remove_if(records.begin(), records.end(),
                                 [](const SrvRecord &r) { return r.target.empty() || r.target == "."; }),
                  records.end());
    std::stable_sort(records.begin(), records.end(),
                     [](const SrvRecord &a, const SrvRecord &b) { return a.priority < b.priority; });
    std::vector<SrvRecord> ordered;
    ordered.reserve(records.size());
    auto begin = records.begin();
    while (begin != records.end()) {
        auto end = std::find_if(begin, records.end(), [&](const SrvRecord &r) { return r.priority != begin->priority; });
        // Zero weights first, so that they have a small chance too.
        std::vector<SrvRecord> group(begin, end);
        std::stable_partition(group.begin(), group.end(), [](const SrvRecord &r) { return r.weight == 0; });
        while (!group.empty()) {
            quint32 total = 0;
            for (const SrvRecord &r : group)
                total += quint32(r.weight);
            auto chosen = group.begin();
            if (total == 0) {
                // No weights at all: spread the load evenly.
                chosen += QRandomGenerator::global()->bounded(quint32(group.size()));
            } else {
                const quint32 pick = QRandomGenerator::global()->bounded(total + 1);
                quint32 running = 0;
                for (auto it = group.begin(); it != group.end(); ++it) {
                    running += quint32(it->weight);
                    if (running >= pick) {
                        chosen = it;
                        break;
                    }
                }
            }
            ordered.push_back(*chosen);
            group.erase(chosen);
        }
        begin = end;
    }
    return ordered;
}

std::vector<Server> discoverServers(const QString &domain, const QString &site, int timeoutSeconds)
{
    const std::string domainName = domain.trimmed().toStdString();
    std::vector<std::string> names;
    if (!site.trimmed().isEmpty())
        names.push_back("_ldap._tcp." + site.trimmed().toStdString() + "._sites.dc._msdcs." + domainName);
    names.push_back("_ldap._tcp.dc._msdcs." + domainName);

    std::vector<Server> servers;
    auto take = [&](const std::vector<SrvRecord> &records) {
        for (const SrvRecord &r : orderSrv(records)) {
            Server server;
            server.host = r.target;
            // dn_expand gives no trailing dot; an absolute name keeps none either.
            if (!server.host.empty() && server.host.back() == '.')
                server.host.pop_back();
            server.port = r.port;
            server.byName = true;
            servers.push_back(server);
        }
    };
    auto lookUp = [&](const std::string &name) {
        std::vector<SrvRecord> records;
        std::string failure;
        if (!lookUpSrv(name, timeoutSeconds, records, &failure)) {
            qCDebug(ldapc) << "DNS look-up of" << name.c_str() << "failed:" << failure.c_str();
            return false;
        }
        take(records);
        return true;
    };

    for (const std::string &name : names)
        lookUp(name);
    // Directories that are not a domain's controllers publish only this.
    if (servers.empty())
        lookUp("_ldap._tcp." + domainName);
    return servers;
}

} // namespace detail
} // namespace zmldap
