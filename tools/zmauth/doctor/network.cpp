// The doctor's network checks: the host's name, the name of its address (what
// GSSAPI asks the KDC for), and a TCP connection to the directory port.
#include "doctor.h"

#include <QElapsedTimer>
#include <QJsonArray>

#include <cerrno>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace doctor {

namespace {

struct AddrInfoFree {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using AddrInfoPtr = std::unique_ptr<addrinfo, AddrInfoFree>;

// Closes a socket when it goes out of scope.
class Socket {
public:
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

QString gaiText(const char *call, int rc)
{
    return QStringLiteral("%1 %2 %3").arg(QLatin1String(call)).arg(rc).arg(QString::fromLocal8Bit(gai_strerror(rc)));
}

QString numericAddress(const sockaddr *address, socklen_t length)
{
    char text[NI_MAXHOST];
    if (getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0)
        return QString();
    return QString::fromLatin1(text);
}

// Every address a name resolves to, in the resolver's order, for TCP.
// Returns the getaddrinfo result code.
int resolve(const QString &host, int flags, QStringList *addresses, QString *canonical = nullptr)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo *list = nullptr;
    const int rc = getaddrinfo(host.toUtf8().constData(), nullptr, &hints, &list);
    if (rc != 0)
        return rc;
    const AddrInfoPtr owner(list);
    if (canonical && list->ai_canonname)
        *canonical = QString::fromUtf8(list->ai_canonname);
    for (const addrinfo *info = list; info; info = info->ai_next) {
        const QString address = numericAddress(info->ai_addr, info->ai_addrlen);
        if (!address.isEmpty() && !addresses->contains(address))
            *addresses << address;
    }
    return 0;
}

// The address with the port, as a connection names it.
QString withPort(const QString &address, const QString &port)
{
    return (address.contains(QLatin1Char(':')) ? QLatin1Char('[') + address + QLatin1Char(']') : address)
        + QLatin1Char(':') + port;
}

bool isOwnAddress(const QString &address)
{
    // libldap names these by the machine's own host name.
    return address == QLatin1String("127.0.0.1") || address == QLatin1String("0.0.0.0") || address == QLatin1String("::1");
}

QStringList factList(const Run &run, const char *key)
{
    QStringList list;
    for (const QJsonValue &value : run.facts.value(QLatin1String(key)).toArray())
        list << value.toString();
    return list;
}

} // namespace

Outcome checkDns(const Run &run)
{
    const QString host = run.host().trimmed();
    QStringList addresses;
    if (resolve(host, AI_NUMERICHOST, &addresses) == 0)
        return pass(QStringLiteral("PT_HOST %1 is an address").arg(host),
                    QJsonObject{{QStringLiteral("addresses"), QJsonArray::fromStringList(addresses)}});
    const int rc = resolve(host, 0, &addresses);
    if (rc != 0)
        return fail(QStringLiteral("%1 does not resolve: %2").arg(host, gaiText("getaddrinfo", rc)),
                    QStringLiteral("set \"PT_HOST\" to a name this machine resolves (the domain's DNS, or /etc/hosts) "
                                   "or to the server's address"));
    return pass(QStringLiteral("%1 resolves to %2").arg(host, addresses.join(QLatin1String(", "))),
                QJsonObject{{QStringLiteral("addresses"), QJsonArray::fromStringList(addresses)}});
}

// The name a resolver gives an address (a PTR record or a hosts line), or
// the getnameinfo result code.
int nameOf(const QString &address, QString *name)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    const int rc = getaddrinfo(address.toLatin1().constData(), nullptr, &hints, &list);
    if (rc != 0)
        return rc;
    const AddrInfoPtr owner(list);
    char text[NI_MAXHOST];
    const int named = getnameinfo(list->ai_addr, list->ai_addrlen, text, sizeof text, nullptr, 0, NI_NAMEREQD);
    if (named == 0)
        *name = QString::fromUtf8(text);
    return named;
}

Outcome checkReverseDns(const Run &run)
{
    const QString address = factList(run, "addresses").value(0);
    if (isOwnAddress(address)) {
        // libldap names a loopback peer by this machine's own canonical name,
        // without asking a resolver about the address.
        char hostname[256] = {};
        if (gethostname(hostname, sizeof hostname - 1) != 0)
            return fail(QStringLiteral("%1 is this machine, and its host name cannot be read: %2")
                            .arg(address, QString::fromLocal8Bit(std::strerror(errno))),
                        QStringLiteral("give this machine a host name"));
        QStringList ignored;
        QString canonical;
        const int rc = resolve(QString::fromLocal8Bit(hostname), AI_CANONNAME, &ignored, &canonical);
        const QString name = rc == 0 && !canonical.isEmpty() ? canonical : QString::fromLocal8Bit(hostname);
        return pass(QStringLiteral("%1 is this machine, named %2: GSSAPI asks the KDC for ldap/%2").arg(address, name),
                    QJsonObject{{QStringLiteral("spnHost"), name}});
    }
    QString name;
    const int named = nameOf(address, &name);
    if (named != 0) {
        const QString host = run.host().trimmed();
        const QString hostsLine = host == address ? QStringLiteral("\"%1 <the server's host name>\"").arg(address)
                                                  : QStringLiteral("\"%1 %2\"").arg(address, host);
        return fail(QStringLiteral("%1 has no name (%2): GSSAPI asks the KDC for ldap/%1, which a domain does not "
                                   "have, and the bind fails with -2 Local error")
                        .arg(address, gaiText("getnameinfo", named)),
                    QStringLiteral("give %1 a name: a PTR record in the domain's DNS (a reverse zone), or the line %2 "
                                   "in this machine's /etc/hosts")
                        .arg(address, hostsLine),
                    QJsonObject{{QStringLiteral("spnHost"), address}});
    }
    const QJsonObject facts{{QStringLiteral("spnHost"), name}};
    QStringList back;
    const int rc = resolve(name, 0, &back);
    if (rc != 0)
        return warn(QStringLiteral("%1 -> %2, which does not resolve (%3); GSSAPI asks the KDC for ldap/%2")
                        .arg(address, name, gaiText("getaddrinfo", rc)),
                    QStringLiteral("add an A record (or hosts entry) for %1 -> %2").arg(name, address), facts);
    if (!back.contains(address))
        return warn(QStringLiteral("%1 -> %2, which resolves to %3, not back to %1; GSSAPI asks the KDC for ldap/%2")
                        .arg(address, name, back.join(QLatin1String(", "))),
                    QStringLiteral("make the PTR record of %1 and the A record of %2 agree").arg(address, name), facts);
    return pass(QStringLiteral("%1 -> %2 -> %1: GSSAPI asks the KDC for ldap/%2").arg(address, name), facts);
}

Outcome checkTcp(const Run &run)
{
    const QString port = run.setting(db::system::ldap::PORT).trimmed();
    const QStringList addresses = factList(run, "addresses");
    QElapsedTimer timer;
    timer.start();
    const qint64 budget = qint64(run.input.timeout) * 1000;
    QStringList failures;
    bool silent = false;
    for (const QString &address : addresses) {
        addrinfo hints{};
        hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo *list = nullptr;
        const int rc = getaddrinfo(address.toLatin1().constData(), port.toLatin1().constData(), &hints, &list);
        if (rc != 0) {
            failures << QStringLiteral("%1: %2").arg(withPort(address, port), gaiText("getaddrinfo", rc));
            continue;
        }
        const AddrInfoPtr owner(list);
        const Socket socket(::socket(list->ai_family, list->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, list->ai_protocol));
        if (socket.fd() < 0) {
            failures << QStringLiteral("%1: socket: %2").arg(withPort(address, port), QString::fromLocal8Bit(std::strerror(errno)));
            continue;
        }
        int error = 0;
        if (::connect(socket.fd(), list->ai_addr, list->ai_addrlen) != 0) {
            error = errno;
            if (error == EINPROGRESS) {
                pollfd p{socket.fd(), POLLOUT, 0};
                const qint64 left = budget - timer.elapsed();
                const int ready = left > 0 ? ::poll(&p, 1, int(left)) : 0;
                if (ready <= 0) {
                    silent = true;
                    failures << QStringLiteral("%1: no answer within %2 s").arg(withPort(address, port)).arg(run.input.timeout);
                    continue;
                }
                socklen_t length = sizeof error;
                ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &length);
            }
        }
        if (error == 0)
            return pass(QStringLiteral("connected to %1").arg(withPort(address, port)),
                        QJsonObject{{QStringLiteral("connectedAddress"), address}});
        failures << QStringLiteral("%1: connect: %2 (errno %3)")
                        .arg(withPort(address, port), QString::fromLocal8Bit(std::strerror(error)))
                        .arg(error);
    }
    if (addresses.isEmpty())
        failures << QStringLiteral("no address to connect to");
    return fail(QStringLiteral("cannot connect: ") + failures.join(QLatin1String("; ")),
                silent ? QStringLiteral("a firewall drops the connection, or PT_HOST is not the directory server: "
                                        "check \"PT_HOST\" and the network path to port %1")
                             .arg(port)
                       : QStringLiteral("check \"PT_PORT\" (389 for a domain controller's LDAP) and that the directory "
                                        "server runs and listens on \"PT_HOST\""));
}

} // namespace doctor
