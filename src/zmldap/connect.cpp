// The directory object: its facade, the session's set-up and binds, and the
// SASL callback that answers from the defaults record.
#include "zmldap.h"
#include "zmldap_p.h"

#include "zmlogging.h"

#include <QByteArray>
#include <QDebug>

#include <cstring>
#include <sstream>

#include <lber.h>
#include <ldap.h>
#include <sasl/sasl.h>

// Answers the SASL library's questions from the directory object's defaults.
// Nothing is ever asked of a user: prompts and suggested answers are ignored.
static int zm_sasl_interact(LDAP *ld, unsigned int flags, void *defaults, void *in)
{
    Q_UNUSED(ld)
    Q_UNUSED(flags)
    static const char empty[] = "";

    qDebug() << "Interact";
    auto *interact = static_cast<sasl_interact_t *>(in);
    if (!interact || interact->id == SASL_CB_LIST_END)
        return LDAP_SUCCESS;

    const auto *answers = static_cast<const LDAPDefaults *>(defaults);
    for (; interact->id != SASL_CB_LIST_END; ++interact) {
        qDebug() << "Interact next";
        const char *answer = nullptr;
        switch (interact->id) {
        case SASL_CB_GETREALM:
            answer = answers ? answers->realm : nullptr;
            qDebug() << "Get realm" << answer;
            break;
        case SASL_CB_AUTHNAME:
            answer = answers ? answers->authcid : nullptr;
            qDebug() << "Get auth name" << answer;
            break;
        case SASL_CB_PASS:
            answer = answers ? answers->passwd : nullptr;
            qDebug() << "Get pass" << answer;
            break;
        case SASL_CB_USER:
            answer = answers ? answers->authzid : nullptr;
            qDebug() << "Get user" << answer;
            break;
        case SASL_CB_NOECHOPROMPT:
            qDebug() << "Get NO echo prompt";
            break;
        case SASL_CB_ECHOPROMPT:
            qDebug() << "Get echo prompt";
            break;
        default:
            break;
        }
        if (!answer || !*answer)
            answer = empty;
        interact->result = answer;
        interact->len = unsigned(std::strlen(answer));
    }
    return LDAP_SUCCESS;
}

// ---------------------------------------------------------------------------
// ZMLDAPPrivate

ZMLDAPPrivate::ZMLDAPPrivate(const zelmora::ObjectInfo &settings)
    : ld()
    , settings(settings)
    , resultObjectType(db::system::USER)
    , uri()
    , defaults(settings)
{
    const QString host = this->settings.params.value(db::system::ldap::HOST);
    // The port keeps only its low 16 bits; there is no default port.
    const quint16 port = quint16(this->settings.params.value(db::system::ldap::PORT).toUInt());
    std::ostringstream stream;
    stream << "ldap://" << host.toUtf8().toStdString() << ':' << port;
    uri = stream.str();
}

int ZMLDAPPrivate::connect()
{
    // Several servers or TLS: a path of its own; without those keys the
    // sequence below is untouched.
    servedUri.clear();
    if (zmldap::detail::serverListOn(settings.params))
        return connectToServers();

    // The handle is taken over only once it exists, so a failed initialisation
    // leaves ld as it was.
    LDAP *handle = nullptr;
    int rc = ldap_initialize(&handle, uri.c_str());
    if (rc < 0) {
        qDebug() << "ldap_initialize error" << rc;
        return rc;
    }
    if (!handle) {
        qDebug() << "ldap_initialize error" << rc;
        return LDAP_LOCAL_ERROR;
    }
    // The session a second connect() replaces stays open, never unbound:
    // released from the guard on purpose.
    (void)ld.release();
    ld.reset(handle);

    const int version = LDAP_VERSION3;
    rc = ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS)
        qDebug() << "ldap_set_option set LDAP_OPT_PROTOCOL_VERSION error" << Qt::hex << rc << ldap_err2string(rc);

    const int timeLimit = 60;
    rc = ldap_set_option(ld.get(), LDAP_OPT_TIMELIMIT, &timeLimit);
    if (rc != LDAP_OPT_SUCCESS)
        qDebug() << "ldap_set_option set LDAP_OPT_TIMELIMIT error" << Qt::hex << rc << ldap_err2string(rc);

    // Referrals are reported to the caller, never chased. Unlike the two
    // options above, a session that refuses this one is not used.
    rc = ldap_set_option(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (rc != LDAP_OPT_SUCCESS) {
        qDebug() << "ldap_set_option set LDAP_OPT_REFERRALS error" << Qt::hex << rc << ldap_err2string(rc);
        qCCritical(ldapc) << "ldap_connect error" << Qt::hex << rc << ldap_err2string(rc);
        // Released right here, so its "Unbind" record names connect().
        qCDebug(ldapc) << "Unbind";
        ld.reset();
        return rc;
    }

    // With a timeout set, neither the TCP connection nor a bind waits longer.
    if (const int timeout = zmldap::detail::positiveSetting(settings.params, zmldap::key::TIMEOUT)) {
        const timeval limit = {timeout, 0};
        int optionRc = ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &limit);
        if (optionRc != LDAP_OPT_SUCCESS)
            qDebug() << "ldap_set_option set LDAP_OPT_NETWORK_TIMEOUT error" << Qt::hex << optionRc
                     << ldap_err2string(optionRc);
        optionRc = ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &limit);
        if (optionRc != LDAP_OPT_SUCCESS)
            qDebug() << "ldap_set_option set LDAP_OPT_TIMEOUT error" << Qt::hex << optionRc << ldap_err2string(optionRc);
    }

    // The DIGEST-MD5 step takes these for its signature; the SASL exchange
    // answers from the defaults record built with the object.
    const QString host = settings.params.value(db::system::ldap::HOST);
    const QString user = settings.params.value(db::system::ldap::USER);
    const QString password = settings.params.value(db::system::ldap::USER_PASSWORD);

    // Absent: DIGEST-MD5. Text that is not a number: 0, no bind.
    const int method = settings.params.value(db::system::ldap::AUTH_METHOD, QStringLiteral("1")).toInt();

    // Writes the bind password: debug logging of this category is for the
    // integrator's own test set-ups.
    qCDebug(ldapc) << settings << settings.params;

    switch (method) {
    case 0:
        return rc;
    case 1:
        rc = bindDigestMD5Linux(host, user, password);
        break;
    case 8:
        rc = bindGSSAPILinux();
        break;
    default:
        rc = -1;
        break;
    }
    if (rc == LDAP_SUCCESS)
        return LDAP_SUCCESS;

    qCCritical(ldapc) << "ldap_bind_s error" << Qt::hex << rc << ldap_err2string(rc);
    unbind();
    return rc;
}

void ZMLDAPPrivate::unbind()
{
    qCDebug(ldapc) << "Unbind";
    ld.reset();
}

int ZMLDAPPrivate::bindDigestMD5Linux(const QString &host, const QString &user, const QString &password)
{
    Q_UNUSED(host)
    Q_UNUSED(user)
    Q_UNUSED(password)
    qDebug() << "Use digest method";
    return ldap_sasl_interactive_bind_s(ld.get(), nullptr, "DIGEST-MD5", nullptr, nullptr, LDAP_SASL_QUIET,
                                        zm_sasl_interact, &defaults);
}

int ZMLDAPPrivate::bindGSSAPILinux()
{
    qDebug() << "Use gssapi method";
    // Kerberos credentials come from the process's credential cache.
    return ldap_sasl_interactive_bind_s(ld.get(), nullptr, "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET,
                                        zm_sasl_interact, &defaults);
}

int ZMLDAPPrivate::bindSimpleLinux(const QString &dn, const QString &password)
{
    qDebug() << "Use simple method";
    const QByteArray dnUtf8 = dn.toUtf8();
    QByteArray passwordUtf8 = password.toUtf8();
    berval credentials;
    credentials.bv_val = passwordUtf8.data();
    credentials.bv_len = ber_len_t(passwordUtf8.size());
    // libldap dereferences the handle unchecked.
    if (!ld)
        return LDAP_PARAM_ERROR;

    berval *serverCredentials = nullptr;
    int rc = ldap_sasl_bind_s(ld.get(), dnUtf8.constData(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr,
                              &serverCredentials);
    if (serverCredentials && rc == LDAP_SASL_BIND_IN_PROGRESS) {
        qDebug() << "Bind in progress";
        rc = ldap_sasl_bind_s(ld.get(), dnUtf8.constData(), LDAP_SASL_SIMPLE, serverCredentials, nullptr, nullptr,
                              nullptr);
    }
    ber_bvfree(serverCredentials);
    return rc;
}

// ---------------------------------------------------------------------------
// ZMLDAP

ZMLDAP::ZMLDAP(const zelmora::ObjectInfo &settings)
    : d(new ZMLDAPPrivate(settings))
{
}

ZMLDAP::~ZMLDAP()
{
    d->unbind();
    delete d;
}

void ZMLDAP::setSettings(const zelmora::ObjectInfo &settings)
{
    d->settings = settings;
}

void ZMLDAP::setResultObjectType(const QString &type)
{
    d->resultObjectType = type;
}

const zelmora::ObjectInfo &ZMLDAP::info()
{
    return d->settings;
}

int ZMLDAP::connect()
{
    return d->connect();
}

zmldap::Connection ZMLDAP::connection() const
{
    return d->connection();
}

bool ZMLDAP::checkADUser(const QString &user)
{
    return d->checkADUser(user);
}

bool ZMLDAP::getUserList(QList<zelmora::ObjectInfo> &list)
{
    return d->getUserList(list);
}

bool ZMLDAP::getUserList(QList<zelmora::ObjectInfo> &list, QHash<QString, QString> mapping)
{
    return d->getUserList(list, mapping);
}
