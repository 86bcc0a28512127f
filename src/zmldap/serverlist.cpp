// connect() over a list of servers and over TLS. Every server gets the same
// sequence as the single-server connect(), plus the TLS settings, each step
// bounded by the timeout, so that a dead or silent server costs at most one
// timeout per step before the next one is tried. A refused credential ends
// the walk at once: the same wrong password sent to every controller would
// count against the account's lockout threshold once per controller.
#include "zmldap.h"
#include "zmldap_p.h"

#include "zmlogging.h"

#include <QByteArray>
#include <QDebug>

#include <lber.h>
#include <ldap.h>

using zmldap::detail::Server;
using zmldap::detail::Transport;

namespace {

// Per try when several servers are configured and no timeout is: a dead first
// controller must never hang connect().
constexpr int kFailoverTimeoutSeconds = 5;

// Codes after which the next server may serve: it is down, unreachable,
// busy, unavailable, or did not answer in time.
bool serverUnreachable(int rc)
{
    switch (rc) {
    case LDAP_SERVER_DOWN:
    case LDAP_TIMEOUT:
    case LDAP_CONNECT_ERROR:
    case LDAP_BUSY:
    case LDAP_UNAVAILABLE:
        return true;
    default:
        return false;
    }
}

std::string serverUri(const Server &server, Transport transport)
{
    std::string uri = transport == Transport::Ldaps ? "ldaps://" : "ldap://";
    if (server.host.find(':') != std::string::npos)
        uri += '[' + server.host + ']';
    else
        uri += server.host;
    return uri + ':' + std::to_string(server.port);
}

// A text option of libldap, released with ldap_memfree.
QString textOption(LDAP *ld, int option)
{
    char *value = nullptr;
    if (ldap_get_option(ld, option, &value) != LDAP_OPT_SUCCESS || !value)
        return QString();
    zmldap::detail::AttributePtr owner(value);
    return QString::fromUtf8(value);
}

} // namespace

int ZMLDAPPrivate::connectToServers()
{
    using namespace zmldap::detail;
    const Transport transport = transportSetting(settings.params);
    const bool failover = failoverOn(settings.params);
    int timeout = positiveSetting(settings.params, zmldap::key::TIMEOUT);
    if (!timeout && failover)
        timeout = kFailoverTimeoutSeconds;

    // Writes the bind password, as the single-server connect() does.
    qCDebug(ldapc) << settings << settings.params;

    // Absent: DIGEST-MD5. Text that is not a number: 0, no bind.
    const int method = settings.params.value(db::system::ldap::AUTH_METHOD, QStringLiteral("1")).toInt();
    if (method != 0 && method != 1 && method != 8) {
        qCCritical(ldapc) << "ldap_bind_s error" << Qt::hex << -1 << ldap_err2string(-1);
        unbind();
        return -1;
    }

    // Discovery runs here, not at construction: a DNS change counts from the
    // next connection on.
    std::vector<Server> servers = candidateServers(settings.params, transport, timeout);
    if (failover)
        putRecentFailuresLast(servers);

    int rc = LDAP_SERVER_DOWN;
    std::string call = "ldap_connect";
    for (size_t i = 0; i < servers.size(); ++i) {
        std::string uri;
        rc = tryServer(servers[i], transport, timeout, method, &uri, &call);
        if (rc == LDAP_SUCCESS) {
            if (failover)
                noteServed(servers[i]);
            servedUri = uri;
            return LDAP_SUCCESS;
        }
        if (!serverUnreachable(rc)) {
            if (method == 8 && transport != Transport::Plain
                && (rc == LDAP_STRONG_AUTH_REQUIRED || rc == LDAP_UNWILLING_TO_PERFORM) && call == "ldap_bind_s")
                qCWarning(ldapc).noquote()
                    << QString::fromStdString(uri)
                    << "refuses GSSAPI inside TLS; GSSAPI over plain LDAP is sealed by Kerberos itself,"
                       " so leave PT_TLS off for this directory";
            break;
        }
        if (failover)
            noteFailed(servers[i]);
        if (i + 1 == servers.size())
            break;
        qCDebug(ldapc).noquote() << "Passing over" << QString::fromStdString(uri) << "-"
                                 << QString::fromStdString(call) << "error" << Qt::hex << rc << ldap_err2string(rc);
        // Released without a record: the walk goes on.
        ld.reset();
    }
    if (servers.empty())
        qCDebug(ldapc) << "No directory server to try";

    qCCritical(ldapc).noquote() << QString::fromStdString(call) + QStringLiteral(" error") << Qt::hex << rc
                                << ldap_err2string(rc);
    unbind();
    return rc;
}

int ZMLDAPPrivate::tryServer(const Server &server, Transport transport, int timeout, int method, std::string *uri,
                             std::string *call)
{
    *uri = serverUri(server, transport);
    *call = "ldap_initialize";
    LDAP *handle = nullptr;
    int rc = ldap_initialize(&handle, uri->c_str());
    if (rc < 0 || !handle) {
        qDebug() << "ldap_initialize error" << rc;
        return rc < 0 ? rc : LDAP_LOCAL_ERROR;
    }
    // A session of an earlier connect() ends here.
    ld.reset(handle);

    const int version = LDAP_VERSION3;
    rc = ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS)
        qDebug() << "ldap_set_option set LDAP_OPT_PROTOCOL_VERSION error" << Qt::hex << rc << ldap_err2string(rc);
    const int timeLimit = 60;
    rc = ldap_set_option(ld.get(), LDAP_OPT_TIMELIMIT, &timeLimit);
    if (rc != LDAP_OPT_SUCCESS)
        qDebug() << "ldap_set_option set LDAP_OPT_TIMELIMIT error" << Qt::hex << rc << ldap_err2string(rc);
    *call = "ldap_connect";
    rc = ldap_set_option(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (rc != LDAP_OPT_SUCCESS) {
        qDebug() << "ldap_set_option set LDAP_OPT_REFERRALS error" << Qt::hex << rc << ldap_err2string(rc);
        return rc;
    }

    if (timeout > 0) {
        const timeval limit = {timeout, 0};
        int optionRc = ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &limit);
        if (optionRc != LDAP_OPT_SUCCESS)
            qDebug() << "ldap_set_option set LDAP_OPT_NETWORK_TIMEOUT error" << Qt::hex << optionRc
                     << ldap_err2string(optionRc);
        optionRc = ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &limit);
        if (optionRc != LDAP_OPT_SUCCESS)
            qDebug() << "ldap_set_option set LDAP_OPT_TIMEOUT error" << Qt::hex << optionRc << ldap_err2string(optionRc);
    }

    if (transport != Transport::Plain) {
        // All on this session's handle with a context of its own: libldap's
        // process-wide defaults belong to whoever else uses it. There is no
        // way to turn the verification off.
        const int demand = LDAP_OPT_X_TLS_HARD;
        *call = "ldap_set_option set LDAP_OPT_X_TLS_REQUIRE_CERT";
        if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_TLS_REQUIRE_CERT, &demand)) != LDAP_OPT_SUCCESS)
            return rc;
        const int minimum = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
        *call = "ldap_set_option set LDAP_OPT_X_TLS_PROTOCOL_MIN";
        if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_TLS_PROTOCOL_MIN, &minimum)) != LDAP_OPT_SUCCESS)
            return rc;
        const QByteArray caFile = settings.params.value(zmldap::key::TLS_CA_FILE).toLocal8Bit();
        if (!caFile.isEmpty()) {
            *call = "ldap_set_option set LDAP_OPT_X_TLS_CACERTFILE";
            if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_TLS_CACERTFILE, caFile.constData())) != LDAP_OPT_SUCCESS)
                return rc;
        }
        // Last: the new context takes the options set before it.
        const int clientContext = 0;
        *call = "ldap_set_option set LDAP_OPT_X_TLS_NEWCTX";
        if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_TLS_NEWCTX, &clientContext)) != LDAP_OPT_SUCCESS)
            return rc;
    }

    if (method == 8) {
        // The name from the failover list or the SRV record is the service's
        // host name as it is: no reverse look-up of the address.
        if (server.byName) {
            *call = "ldap_set_option set LDAP_OPT_X_SASL_NOCANON";
            if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON)) != LDAP_OPT_SUCCESS)
                return rc;
        }
        if (transport != Transport::Plain) {
            // Inside TLS a domain controller takes GSSAPI without a SASL
            // layer, bound to the TLS channel by the server's certificate.
            *call = "ldap_set_option set LDAP_OPT_X_SASL_SECPROPS";
            if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_SASL_SECPROPS, "maxssf=0")) != LDAP_OPT_SUCCESS)
                return rc;
            const int binding = LDAP_OPT_X_SASL_CBINDING_TLS_ENDPOINT;
            *call = "ldap_set_option set LDAP_OPT_X_SASL_CBINDING";
            if ((rc = ldap_set_option(ld.get(), LDAP_OPT_X_SASL_CBINDING, &binding)) != LDAP_OPT_SUCCESS)
                return rc;
        }
    }

    // The connection is made now, so that a dead server shows even when no
    // bind follows; with LDAP over TLS this includes the handshake.
    *call = "ldap_connect";
    if ((rc = ldap_connect(ld.get())) != LDAP_SUCCESS)
        return rc;
    if (transport == Transport::StartTls) {
        *call = "ldap_start_tls_s";
        if ((rc = ldap_start_tls_s(ld.get(), nullptr, nullptr)) != LDAP_SUCCESS)
            return rc;
    }

    *call = "ldap_bind_s";
    switch (method) {
    case 1:
        return bindDigestMD5Linux(settings.params.value(db::system::ldap::HOST),
                                  settings.params.value(db::system::ldap::USER),
                                  settings.params.value(db::system::ldap::USER_PASSWORD));
    case 8:
        return bindGSSAPILinux();
    default:
        return LDAP_SUCCESS;
    }
}

zmldap::Connection ZMLDAPPrivate::connection() const
{
    zmldap::Connection info;
    if (!ld)
        return info;
    info.connected = true;
    info.uri = QString::fromStdString(servedUri.empty() ? uri : servedUri);
    info.tlsProtocol = textOption(ld.get(), LDAP_OPT_X_TLS_VERSION);
    info.tlsCipher = textOption(ld.get(), LDAP_OPT_X_TLS_CIPHER);
    ber_len_t ssf = 0;
    if (ldap_get_option(ld.get(), LDAP_OPT_X_SASL_SSF, &ssf) == LDAP_OPT_SUCCESS)
        info.saslSsf = int(ssf);
    return info;
}
