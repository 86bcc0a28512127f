#include "session.h"

#include <cstring>
#include <vector>

#include <lber.h>
#include <sasl/sasl.h>

namespace doctor {

using namespace zmldap::detail;

namespace {

// The SASL answers of the library's own callback: the same strings, from the
// same record, so that the doctor's session binds as the library's does.
int answerFromSettings(LDAP *, unsigned, void *defaults, void *in)
{
    const auto *answers = static_cast<const LDAPDefaults *>(defaults);
    static const char empty[] = "";
    for (auto *interact = static_cast<sasl_interact_t *>(in); interact && interact->id != SASL_CB_LIST_END; ++interact) {
        const char *answer = nullptr;
        switch (interact->id) {
        case SASL_CB_GETREALM: answer = answers->realm; break;
        case SASL_CB_AUTHNAME: answer = answers->authcid; break;
        case SASL_CB_PASS: answer = answers->passwd; break;
        case SASL_CB_USER: answer = answers->authzid; break;
        default: break;
        }
        if (!answer)
            answer = empty;
        interact->result = answer;
        interact->len = unsigned(std::strlen(answer));
    }
    return LDAP_SUCCESS;
}

QString fromUtf8(const char *text)
{
    return text ? QString::fromUtf8(text) : QString();
}

} // namespace

QString userFilter(const Run &run)
{
    return run.hasSetting(db::system::ldap::USER_FILTER) ? run.setting(db::system::ldap::USER_FILTER)
                                                         : QStringLiteral("(&(objectClass=user)(objectCategory=person))");
}

QString loginAttribute(const Run &run)
{
    return run.hasSetting(db::system::ldap::USER_ID_PARAMETER) ? run.setting(db::system::ldap::USER_ID_PARAMETER)
                                                               : QStringLiteral("sAMAccountName");
}

bool isActiveDirectory(const Run &run)
{
    return run.facts.value(QStringLiteral("serverKind")).toString() == QLatin1String("ad");
}

Session::Session(const Run &run)
    : m_run(run)
{
}

Session::~Session() = default;

bool Session::open(QString *error)
{
    // The library's URI: host and port as the settings hold them; with
    // "PT_TLS" the session is protected as the library's is.
    const QString transport = m_run.setting(zmldap::key::TLS).trimmed().toLower();
    const bool ldaps = transport == QLatin1String("ldaps");
    const bool starttls = transport == QLatin1String("starttls");
    const QByteArray uri = (ldaps ? "ldaps://" : "ldap://") + m_run.host().toUtf8() + ':'
        + QByteArray::number(quint16(m_run.setting(db::system::ldap::PORT).toUInt()));
    LDAP *ld = nullptr;
    const int rc = ldap_initialize(&ld, uri.constData());
    if (rc != LDAP_SUCCESS || !ld) {
        *error = QStringLiteral("ldap_initialize %1 %2 for %3").arg(rc).arg(fromUtf8(ldap_err2string(rc)), QString::fromUtf8(uri));
        return false;
    }
    m_ld.reset(ld);
    const int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    const int seconds = m_run.input.timeout;
    ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &seconds);
    const timeval limit{seconds, 0};
    ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &limit);
    ldap_set_option(ld, LDAP_OPT_TIMEOUT, &limit);
    if (ldaps || starttls) {
        const int demand = LDAP_OPT_X_TLS_HARD;
        ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
        const int minimum = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
        ldap_set_option(ld, LDAP_OPT_X_TLS_PROTOCOL_MIN, &minimum);
        const QByteArray caFile = m_run.setting(zmldap::key::TLS_CA_FILE).toLocal8Bit();
        if (!caFile.isEmpty())
            ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, caFile.constData());
        const int clientContext = 0;
        ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &clientContext);
        if (m_run.method() == 8) {
            ldap_set_option(ld, LDAP_OPT_X_SASL_SECPROPS, "maxssf=0");
            const int binding = LDAP_OPT_X_SASL_CBINDING_TLS_ENDPOINT;
            ldap_set_option(ld, LDAP_OPT_X_SASL_CBINDING, &binding);
        }
    }
    if (starttls) {
        const int tlsRc = ldap_start_tls_s(ld, nullptr, nullptr);
        if (tlsRc != LDAP_SUCCESS) {
            *error = describe("ldap_start_tls_s", tlsRc);
            return false;
        }
    }
    return true;
}

int Session::bind(QString *error)
{
    const int method = m_run.method();
    const char *mechanism = method == 1 ? "DIGEST-MD5" : method == 8 ? "GSSAPI" : nullptr;
    if (method == 0)
        return LDAP_SUCCESS;
    if (!mechanism) {
        *error = QStringLiteral("PT_METHOD %1 is no method").arg(method);
        return -1;
    }
    m_defaults.reset(new LDAPDefaults(m_run.input.settings));
    const int rc = ldap_sasl_interactive_bind_s(m_ld.get(), nullptr, mechanism, nullptr, nullptr, LDAP_SASL_QUIET,
                                                answerFromSettings, m_defaults.get());
    if (rc != LDAP_SUCCESS)
        *error = describe("ldap_sasl_interactive_bind_s", rc);
    return rc;
}

bool Session::openBound(QString *error)
{
    if (!open(error))
        return false;
    QString why;
    if (bind(&why) != LDAP_SUCCESS) {
        *error = QStringLiteral("the doctor's own session could not bind: ") + why;
        return false;
    }
    return true;
}

QString Session::describe(const char *call, int rc) const
{
    QString text = QStringLiteral("%1 %2 %3").arg(QLatin1String(call)).arg(rc).arg(fromUtf8(ldap_err2string(rc)));
    char *diagnostic = nullptr;
    if (m_ld && ldap_get_option(m_ld.get(), LDAP_OPT_DIAGNOSTIC_MESSAGE, &diagnostic) == LDAP_OPT_SUCCESS && diagnostic) {
        const MemPtr owner(diagnostic);
        const QString message = QString::fromUtf8(diagnostic).trimmed();
        if (!message.isEmpty())
            text += QStringLiteral(" (%1)").arg(message);
    }
    return text;
}

SearchResult Session::search(const QString &base, int scope, const QString &filter, const QStringList &attributes,
                             int sizeLimit, bool keepEntries, int pageSize, const QByteArray &cookie)
{
    SearchResult result;
    std::vector<QByteArray> names;
    for (const QString &attribute : attributes)
        names.push_back(attribute.toUtf8());
    std::vector<char *> attrs;
    for (QByteArray &name : names)
        attrs.push_back(name.data());
    attrs.push_back(nullptr);

    ControlPtr page;
    LDAPControl *controls[2] = {nullptr, nullptr};
    if (pageSize > 0) {
        berval value{ber_len_t(cookie.size()), const_cast<char *>(cookie.constData())};
        LDAPControl *control = nullptr;
        const int rc = ldap_create_page_control(m_ld.get(), pageSize, &value, 0, &control);
        if (rc != LDAP_SUCCESS) {
            result.rc = rc;
            result.text = describe("ldap_create_page_control", rc);
            return result;
        }
        page.reset(control);
        controls[0] = control;
    }

    timeval limit{m_run.input.timeout, 0};
    LDAPMessage *message = nullptr;
    result.rc = ldap_search_ext_s(m_ld.get(), base.toUtf8().constData(), scope, filter.toUtf8().constData(),
                                  attributes.isEmpty() ? nullptr : attrs.data(), 0, pageSize > 0 ? controls : nullptr,
                                  nullptr, &limit, sizeLimit, &message);
    const MessagePtr owner(message);
    result.text = describe("ldap_search_ext_s", result.rc);
    if (!message)
        return result;

    for (LDAPMessage *entry = ldap_first_entry(m_ld.get(), message); entry; entry = ldap_next_entry(m_ld.get(), entry)) {
        ++result.count;
        if (!keepEntries)
            continue;
        Entry record;
        const MemPtr dn(ldap_get_dn(m_ld.get(), entry));
        record.dn = fromUtf8(dn.get());
        BerElement *cursor = nullptr;
        char *attribute = ldap_first_attribute(m_ld.get(), entry, &cursor);
        const BerPtr cursorOwner(cursor);
        for (; attribute; attribute = ldap_next_attribute(m_ld.get(), entry, cursor)) {
            const AttributePtr name(attribute);
            const ValuesPtr values(ldap_get_values_len(m_ld.get(), entry, attribute));
            QList<QByteArray> &list = record.attributes[QString::fromUtf8(attribute)];
            for (berval **value = values.get(); value && *value; ++value)
                list << QByteArray((*value)->bv_val, int((*value)->bv_len));
        }
        result.entries << record;
    }

    int code = 0;
    char *matched = nullptr;
    char **referrals = nullptr;
    LDAPControl **serverControls = nullptr;
    if (ldap_parse_result(m_ld.get(), message, &code, &matched, nullptr, &referrals, &serverControls, 0) == LDAP_SUCCESS) {
        const MemPtr matchedOwner(matched);
        const BerVectorPtr referralsOwner(referrals);
        const ControlsPtr controlsOwner(serverControls);
        result.matched = fromUtf8(matched);
        for (char **referral = referrals; referral && *referral; ++referral)
            result.referrals << fromUtf8(*referral);
        if (LDAPControl *response = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, serverControls, nullptr)) {
            ber_int_t estimate = 0;
            berval next{0, nullptr};
            if (ldap_parse_pageresponse_control(m_ld.get(), response, &estimate, &next) == LDAP_SUCCESS) {
                result.cookie = QByteArray(next.bv_val, int(next.bv_len));
                ber_memfree(next.bv_val);
            }
        }
    }
    return result;
}

SearchResult Session::readEntry(const QString &dn)
{
    return search(dn, LDAP_SCOPE_BASE, QStringLiteral("(objectClass=*)"), {QStringLiteral("1.1")}, 0, false);
}

bool sampleUsers(Session &session, const Run &run, const QStringList &attributes, int limit, QList<Entry> *entries,
                 QString *error)
{
    const SearchResult result = session.search(run.setting(db::system::ldap::BASE_DN), LDAP_SCOPE_SUBTREE, userFilter(run),
                                               attributes, limit);
    // A sample stops at its own size limit.
    if (result.rc != LDAP_SUCCESS && result.rc != LDAP_SIZELIMIT_EXCEEDED && result.rc != LDAP_REFERRAL) {
        *error = result.text;
        return false;
    }
    *entries = result.entries;
    return true;
}

} // namespace doctor
