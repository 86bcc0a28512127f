// The checks of several servers and TLS: discovery (the SRV records of
// "PT_DOMAIN", each controller's answer, and which one connect() would use)
// and tls (the handshake, chain, host name, protocol and expiry of the
// server's certificate, with a fix for each failure).
#include "doctor.h"
#include "session.h"
#include "servers_p.h"

#include "zmldap.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QLocale>
#include <QProcess>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>
#include <memory>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace doctor {

namespace {

// Milliseconds to a TCP connection with host:port, or -1 (reason in *error).
qint64 tcpConnectMs(const QString &host, int port, int timeoutSeconds, QString *error)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    const int rc = getaddrinfo(host.toUtf8().constData(), QByteArray::number(port).constData(), &hints, &list);
    if (rc != 0) {
        *error = QStringLiteral("getaddrinfo: ") + QString::fromLocal8Bit(gai_strerror(rc));
        return -1;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> owner(list, freeaddrinfo);
    QElapsedTimer timer;
    timer.start();
    const int fd = ::socket(list->ai_family, list->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, list->ai_protocol);
    if (fd < 0) {
        *error = QStringLiteral("socket failed");
        return -1;
    }
    std::unique_ptr<int, void (*)(int *)> closer(new int(fd), [](int *p) { ::close(*p); delete p; });
    int result = 0;
    if (::connect(fd, list->ai_addr, list->ai_addrlen) != 0) {
        result = errno;
        if (result == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, timeoutSeconds * 1000) <= 0) {
                *error = QStringLiteral("no answer within %1 s").arg(timeoutSeconds);
                return -1;
            }
            socklen_t length = sizeof result;
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &result, &length);
        }
    }
    if (result != 0) {
        *error = QString::fromLocal8Bit(std::strerror(result));
        return -1;
    }
    return timer.elapsed();
}

QString firstValue(const Entry &entry, const char *name)
{
    for (auto it = entry.attributes.begin(); it != entry.attributes.end(); ++it)
        if (it.key().compare(QLatin1String(name), Qt::CaseInsensitive) == 0 && !it.value().isEmpty())
            return QString::fromUtf8(it.value().constFirst());
    return QString();
}

// The server the tls check looks at: "PT_HOST", else the first failover entry.
bool tlsTarget(const Run &run, QString *host, int *port)
{
    const bool ldaps = run.setting(zmldap::key::TLS).trimmed().toLower() == QLatin1String("ldaps");
    *host = run.host().trimmed();
    *port = int(quint16(run.setting(db::system::ldap::PORT).toUInt()));
    if (host->isEmpty()) {
        const QString entry = run.setting(zmldap::key::FAILOVER_HOSTS).simplified().section(QLatin1Char(' '), 0, 0);
        const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^\\[?([^\\]]+?)\\]?(?::(\\d+))?$")).match(entry);
        if (!m.hasMatch())
            return false;
        *host = m.captured(1);
        *port = m.captured(2).toInt();
    }
    if (*port == 0)
        *port = ldaps ? 636 : 389;
    return !host->isEmpty();
}

} // namespace

Outcome checkDiscovery(const Run &run)
{
    using namespace zmldap::detail;
    const QString domain = run.setting(zmldap::key::DNS_DOMAIN).trimmed();
    const QString site = run.setting(zmldap::key::SITE).trimmed();
    const int timeout = run.input.timeout;
    QStringList names;
    if (!site.isEmpty())
        names << QStringLiteral("_ldap._tcp.%1._sites.dc._msdcs.%2").arg(site, domain);
    names << QStringLiteral("_ldap._tcp.dc._msdcs.") + domain;

    Findings findings;
    QStringList srvTexts;
    std::vector<Server> servers;
    auto lookUp = [&](const QString &name) {
        std::vector<SrvRecord> records;
        std::string failure;
        if (!lookUpSrv(name.toStdString(), timeout, records, &failure)) {
            srvTexts << QStringLiteral("%1: look-up failed (%2)").arg(name, QString::fromStdString(failure));
            return;
        }
        QStringList found;
        for (const SrvRecord &r : orderSrv(records)) {
            found << QStringLiteral("%1:%2 (priority %3, weight %4)")
                         .arg(QString::fromStdString(r.target)).arg(r.port).arg(r.priority).arg(r.weight);
            bool seen = false;
            for (const Server &s : servers)
                seen = seen || (s.host == r.target && s.port == r.port);
            if (!seen)
                servers.push_back(Server{r.target, r.port, true});
        }
        srvTexts << name + QStringLiteral(": ") + (found.isEmpty() ? QStringLiteral("no records") : found.join(QLatin1String(", ")));
    };
    for (const QString &name : names)
        lookUp(name);
    if (servers.empty())
        lookUp(QStringLiteral("_ldap._tcp.") + domain);
    findings.pass(QStringLiteral("SRV ") + srvTexts.join(QLatin1String("; ")));
    if (servers.empty())
        return fail(QStringLiteral("SRV ") + srvTexts.join(QLatin1String("; ")),
                    QStringLiteral("DNS names no directory server for \"PT_DOMAIN\" %1: check the domain name and that "
                                   "this machine uses the domain's DNS servers")
                        .arg(domain));

    int answering = 0;
    for (const Server &server : servers) {
        const QString where = QStringLiteral("%1:%2").arg(QString::fromStdString(server.host)).arg(server.port);
        QString error;
        const qint64 ms = tcpConnectMs(QString::fromStdString(server.host), server.port, timeout, &error);
        if (ms < 0) {
            findings.warn(where + QStringLiteral(" does not answer: ") + error,
                          QStringLiteral("%1 is published but unreachable: connect() passes it over after "
                                         "\"PT_TIMEOUT\"; bring it up or remove its SRV records")
                              .arg(where));
            continue;
        }
        Run probe = run;
        probe.input.settings.params.insert(db::system::ldap::HOST, QString::fromStdString(server.host));
        probe.input.settings.params.insert(db::system::ldap::PORT, QString::number(server.port));
        Session session(probe);
        QString why;
        SearchResult rootDse;
        if (session.open(&why))
            rootDse = session.search(QString(), LDAP_SCOPE_BASE, QStringLiteral("(objectClass=*)"),
                                     {QStringLiteral("dnsHostName"), QStringLiteral("isSynchronized"),
                                      QStringLiteral("currentTime")},
                                     1);
        if (rootDse.rc != LDAP_SUCCESS || rootDse.entries.isEmpty()) {
            findings.warn(QStringLiteral("%1: TCP in %2 ms, but no root DSE (%3)").arg(where).arg(ms).arg(why.isEmpty() ? rootDse.text : why),
                          QStringLiteral("%1 accepts connections but does not answer LDAP: check the DC's services").arg(where));
            continue;
        }
        ++answering;
        const Entry &e = rootDse.entries.constFirst();
        findings.pass(QStringLiteral("%1: TCP in %2 ms, dnsHostName %3, isSynchronized %4, currentTime %5")
                          .arg(where).arg(ms)
                          .arg(firstValue(e, "dnsHostName"), firstValue(e, "isSynchronized"), firstValue(e, "currentTime")));
    }
    if (answering == 0)
        findings.fail(QStringLiteral("none of the %1 published servers answers").arg(servers.size()),
                      QStringLiteral("connect() will fail: bring a domain controller up or check the network path"));

    // What connect() itself picks, anonymously and with the run's timeout.
    zelmora::ObjectInfo settings = run.librarySettings();
    settings.params.insert(db::system::ldap::AUTH_METHOD, QStringLiteral("0"));
    ZMLDAP directory(settings);
    if (directory.connect() == 0)
        findings.pass(QStringLiteral("connect() would use ") + directory.connection().uri);
    return findings.outcome(QString(), QJsonObject{{QStringLiteral("discoveredServers"), int(servers.size())}});
}

Outcome checkTls(const Run &run)
{
    const QString transport = run.setting(zmldap::key::TLS).trimmed().toLower();
    QString host;
    int port = 0;
    if (!tlsTarget(run, &host, &port))
        return fail(QStringLiteral("no server to look at"), QStringLiteral("set \"PT_HOST\" or \"PT_FAILOVER_HOSTS\""));
    const QString caFile = run.setting(zmldap::key::TLS_CA_FILE);
    const QString where = QStringLiteral("%1:%2").arg(host).arg(port);

    // openssl's own client says what the handshake and the verification found.
    QStringList args{QStringLiteral("s_client"), QStringLiteral("-connect"), where, QStringLiteral("-servername"), host,
                     QStringLiteral("-showcerts")};
    const bool address = QRegularExpression(QStringLiteral("^[0-9.]+$|:")).match(host).hasMatch();
    args << (address ? QStringLiteral("-verify_ip") : QStringLiteral("-verify_hostname")) << host;
    if (transport == QLatin1String("starttls"))
        args << QStringLiteral("-starttls") << QStringLiteral("ldap");
    if (!caFile.isEmpty())
        args << QStringLiteral("-CAfile") << caFile;
    QProcess client;
    client.start(QStringLiteral("openssl"), args);
    client.closeWriteChannel();
    if (!client.waitForFinished(run.input.timeout * 1000 + 2000)) {
        client.kill();
        client.waitForFinished();
        return fail(QStringLiteral("no TLS handshake with %1 within %2 s").arg(where).arg(run.input.timeout),
                    QStringLiteral("check that %1 serves %2").arg(where, transport == QLatin1String("ldaps") ? QStringLiteral("LDAPS") : QStringLiteral("StartTLS")));
    }
    const QString out = QString::fromLocal8Bit(client.readAllStandardOutput());
    const QRegularExpressionMatch verify = QRegularExpression(QStringLiteral("Verify return code: (\\d+) \\(([^)]*)\\)")).match(out);
    const QRegularExpressionMatch protocol = QRegularExpression(QStringLiteral("New, (\\S+), Cipher is (\\S+)")).match(out);
    const QRegularExpressionMatch cert = QRegularExpression(
        QStringLiteral("-----BEGIN CERTIFICATE-----[^-]+-----END CERTIFICATE-----")).match(out);
    if (!verify.hasMatch() || !cert.hasMatch())
        return fail(QStringLiteral("no TLS handshake with %1").arg(where),
                    QStringLiteral("check that %1 serves %2 and \"PT_TLS\"").arg(where, transport == QLatin1String("ldaps") ? QStringLiteral("LDAPS (636)") : QStringLiteral("StartTLS (389)")));

    Findings findings;
    const int code = verify.captured(1).toInt();
    const QString proto = protocol.captured(1);
    findings.pass(QStringLiteral("handshake with %1 (%2, %3)").arg(where, proto, protocol.captured(2)));
    if (proto == QLatin1String("TLSv1") || proto == QLatin1String("TLSv1.1") || proto.startsWith(QLatin1String("SSL")))
        findings.fail(QStringLiteral("protocol %1").arg(proto), QStringLiteral("the library needs TLS 1.2 at least: enable it on the server"));
    switch (code) {
    case 0:
        findings.pass(QStringLiteral("chain verified against %1, host name %2 matches")
                          .arg(caFile.isEmpty() ? QStringLiteral("the system's trust store") : caFile, host));
        break;
    case 62:
    case 64:
        findings.fail(QStringLiteral("the certificate does not name %1").arg(host),
                      QStringLiteral("set \"PT_HOST\" (or the failover entry) to a name the certificate carries, "
                                     "e.g. the DC's DNS name, not its address"));
        break;
    case 10:
        findings.fail(QStringLiteral("the certificate has expired"), QStringLiteral("renew the server's certificate"));
        break;
    case 9:
        findings.fail(QStringLiteral("the certificate is not yet valid"), QStringLiteral("check the server's and this machine's clocks"));
        break;
    default:
        findings.fail(QStringLiteral("chain not verified: %1 (%2)").arg(verify.captured(2)).arg(code),
                      QStringLiteral("set \"PT_TLS_CA_FILE\" to the PEM file of the CA that issued the server's "
                                     "certificate (a Samba DC: private/tls/ca.pem)"));
        break;
    }

    QProcess x509;
    x509.start(QStringLiteral("openssl"), {QStringLiteral("x509"), QStringLiteral("-noout"), QStringLiteral("-enddate")});
    x509.write(cert.captured(0).toLatin1() + '\n');
    x509.closeWriteChannel();
    x509.waitForFinished(10000);
    const QString end = QString::fromLatin1(x509.readAllStandardOutput()).trimmed().section(QLatin1Char('='), 1).simplified();
    const QDateTime notAfter = QLocale::c().toDateTime(end, QStringLiteral("MMM d HH:mm:ss yyyy 'GMT'"));
    if (notAfter.isValid()) {
        QDateTime utc = notAfter;
        utc.setTimeSpec(Qt::UTC);
        const qint64 days = QDateTime::currentDateTimeUtc().daysTo(utc);
        if (days < 0)
            ; // reported as expired above
        else if (days < 30)
            findings.warn(QStringLiteral("the certificate expires in %1 days (%2)").arg(days).arg(utcText(utc.toSecsSinceEpoch())),
                          QStringLiteral("renew the server's certificate before it expires"));
        else
            findings.pass(QStringLiteral("the certificate expires in %1 days").arg(days));
    }
    return findings.outcome(QString(), QJsonObject{{QStringLiteral("tlsProtocol"), proto}});
}

} // namespace doctor
