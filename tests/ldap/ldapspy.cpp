#include "ldapspy.h"

#include <QSet>
#include <QVector>

#include <dlfcn.h>

#include <lber.h>

namespace {

template <typename F>
F realCall(const char *name)
{
    void *symbol = dlsym(RTLD_NEXT, name);
    if (!symbol)
        qFatal("ldapspy: no %s after the test program", name);
    return reinterpret_cast<F>(symbol);
}

#define REAL(name) static const auto real_##name = realCall<decltype(&::name)>(#name)

struct State {
    QList<QByteArray> uris;
    QList<LDAP *> handles;
    bool failInit = false;
    int initRc = 0;
    QList<SetOptionCall> options;
    int failOption = -1;
    int failOptionRc = 0;
    QList<LDAP *> unbound;
    QList<SaslBindCall> binds;
    bool answerBind = false;
    int bindRc = 0;
    QList<SearchCall> searches;
    QList<SearchCall> pagedSearches;
    bool forceSearch = false;
    int searchRc = 0;
    bool forceCount = false;
    int count = 0;
    QSet<QByteArray> noValues;
    QSet<QByteArray> emptyValues;
    int nullEntries = 0;
    int freed = 0;
};

State &state()
{
    static State s;
    return s;
}

} // namespace

extern "C" {

int ldap_initialize(LDAP **ldp, const char *url)
{
    REAL(ldap_initialize);
    State &s = state();
    s.uris.append(QByteArray(url ? url : ""));
    if (s.failInit)
        return s.initRc;
    const int rc = real_ldap_initialize(ldp, url);
    if (rc == LDAP_SUCCESS && ldp && *ldp)
        s.handles.append(*ldp);
    return rc;
}

int ldap_set_option(LDAP *ld, int option, const void *invalue)
{
    REAL(ldap_set_option);
    State &s = state();
    if (!ld)
        return real_ldap_set_option(ld, option, invalue);
    SetOptionCall call;
    call.ld = ld;
    call.option = option;
    call.nullValue = invalue == nullptr;
    if (invalue && (option == LDAP_OPT_PROTOCOL_VERSION || option == LDAP_OPT_TIMELIMIT))
        call.intValue = *static_cast<const int *>(invalue);
    if (invalue && (option == LDAP_OPT_NETWORK_TIMEOUT || option == LDAP_OPT_TIMEOUT)) {
        call.timeSec = long(static_cast<const timeval *>(invalue)->tv_sec);
        call.timeUsec = long(static_cast<const timeval *>(invalue)->tv_usec);
    }
    if (option == s.failOption)
        call.rc = s.failOptionRc;
    else
        call.rc = real_ldap_set_option(ld, option, invalue);
    s.options.append(call);
    return call.rc;
}

int ldap_unbind_ext(LDAP *ld, LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    REAL(ldap_unbind_ext);
    state().unbound.append(ld);
    return real_ldap_unbind_ext(ld, serverctrls, clientctrls);
}

int ldap_sasl_interactive_bind_s(LDAP *ld, const char *dn, const char *mechanism, LDAPControl **serverControls,
                                 LDAPControl **clientControls, unsigned flags, LDAP_SASL_INTERACT_PROC *proc,
                                 void *defaults)
{
    REAL(ldap_sasl_interactive_bind_s);
    State &s = state();
    SaslBindCall call;
    call.ld = ld;
    call.hasDn = dn != nullptr;
    call.mechanism = QByteArray(mechanism ? mechanism : "");
    call.hasServerControls = serverControls != nullptr;
    call.hasClientControls = clientControls != nullptr;
    call.flags = flags;
    call.interact = proc;
    call.defaults = defaults;
    s.binds.append(call);
    if (s.answerBind)
        return s.bindRc;
    return real_ldap_sasl_interactive_bind_s(ld, dn, mechanism, serverControls, clientControls, flags, proc, defaults);
}

namespace {

SearchCall searchCall(const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                      LDAPControl **serverctrls, LDAPControl **clientctrls, const struct timeval *timeout, int sizelimit)
{
    SearchCall call;
    call.base = QByteArray(base ? base : "");
    call.scope = scope;
    call.filter = QByteArray(filter ? filter : "");
    call.allAttributes = attrs == nullptr;
    for (char **a = attrs; a && *a; ++a)
        call.attributes.append(QByteArray(*a));
    call.attrsonly = attrsonly;
    call.hasServerControls = serverctrls != nullptr;
    call.hasClientControls = clientctrls != nullptr;
    for (LDAPControl **c = serverctrls; c && *c; ++c) {
        call.controlOids.append(QByteArray((*c)->ldctl_oid ? (*c)->ldctl_oid : ""));
        call.controlCritical.append((*c)->ldctl_iscritical != 0);
        call.controlValues.append(QByteArray((*c)->ldctl_value.bv_val, int((*c)->ldctl_value.bv_len)));
    }
    call.hasTimeout = timeout != nullptr;
    if (timeout) {
        call.timeoutSec = long(timeout->tv_sec);
        call.timeoutUsec = long(timeout->tv_usec);
    }
    call.sizelimit = sizelimit;
    return call;
}

} // namespace

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                      LDAPControl **serverctrls, LDAPControl **clientctrls, struct timeval *timeout, int sizelimit,
                      LDAPMessage **res)
{
    REAL(ldap_search_ext_s);
    SearchCall call = searchCall(base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout, sizelimit);
    call.rc = real_ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout,
                                     sizelimit, res);
    state().searches.append(call);
    return state().forceSearch ? state().searchRc : call.rc;
}

int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
                    LDAPControl **serverctrls, LDAPControl **clientctrls, struct timeval *timeout, int sizelimit,
                    int *msgidp)
{
    REAL(ldap_search_ext);
    SearchCall call = searchCall(base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout, sizelimit);
    call.rc = real_ldap_search_ext(ld, base, scope, filter, attrs, attrsonly, serverctrls, clientctrls, timeout,
                                   sizelimit, msgidp);
    state().pagedSearches.append(call);
    return call.rc;
}

int ldap_count_entries(LDAP *ld, LDAPMessage *chain)
{
    REAL(ldap_count_entries);
    const int real = real_ldap_count_entries(ld, chain);
    return state().forceCount ? state().count : real;
}

struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *target)
{
    REAL(ldap_get_values_len);
    State &s = state();
    const QByteArray name(target ? target : "");
    if (s.noValues.contains(name))
        return nullptr;
    if (s.emptyValues.contains(name)) {
        auto **list = static_cast<struct berval **>(ber_memalloc(sizeof(struct berval *)));
        list[0] = nullptr;
        return list;
    }
    return real_ldap_get_values_len(ld, entry, target);
}

LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *chain)
{
    REAL(ldap_first_entry);
    if (!ld || !chain)
        ++state().nullEntries;
    return real_ldap_first_entry(ld, chain);
}

LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry)
{
    REAL(ldap_next_entry);
    if (!ld || !entry)
        ++state().nullEntries;
    return real_ldap_next_entry(ld, entry);
}

int ldap_msgfree(LDAPMessage *lm)
{
    REAL(ldap_msgfree);
    if (lm)
        ++state().freed;
    return real_ldap_msgfree(lm);
}

} // extern "C"

namespace ldapspy {

void reset()
{
    state() = State();
}

QList<QByteArray> &initializedUris() { return state().uris; }
QList<LDAP *> &initializedHandles() { return state().handles; }

void failInitialize(int rc)
{
    state().failInit = true;
    state().initRc = rc;
}

QList<SetOptionCall> &setOptionCalls() { return state().options; }

void failSetOption(int option, int rc)
{
    state().failOption = option;
    state().failOptionRc = rc;
}

QList<LDAP *> &unbound() { return state().unbound; }
QList<SaslBindCall> &saslBinds() { return state().binds; }

void answerSaslBind(int rc)
{
    state().answerBind = true;
    state().bindRc = rc;
}

QList<SearchCall> &searches() { return state().searches; }
QList<SearchCall> &pagedSearches() { return state().pagedSearches; }

void forceSearchRc(int rc)
{
    state().forceSearch = true;
    state().searchRc = rc;
}

void forceCountEntries(int value)
{
    state().forceCount = true;
    state().count = value;
}

void noValuesFor(const QByteArray &attribute) { state().noValues.insert(attribute); }
void emptyValuesFor(const QByteArray &attribute) { state().emptyValues.insert(attribute); }
int nullEntryCalls() { return state().nullEntries; }
int messagesFreed() { return state().freed; }

QList<DirEntry> readEntries(const QByteArray &uri, const QByteArray &base, int scope, const QByteArray &filter,
                            const QList<QByteArray> &attributes, int *rcOut)
{
    const State saved = state();
    state() = State();
    QList<DirEntry> out;
    LDAP *ld = nullptr;
    int rc = ldap_initialize(&ld, uri.constData());
    if (rc == LDAP_SUCCESS) {
        const int version = LDAP_VERSION3;
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        QList<QByteArray> names = attributes;
        QVector<char *> list;
        for (QByteArray &n : names)
            list.append(n.data());
        list.append(nullptr);
        LDAPMessage *res = nullptr;
        rc = ldap_search_ext_s(ld, base.constData(), scope, filter.constData(), attributes.isEmpty() ? nullptr : list.data(),
                               0, nullptr, nullptr, nullptr, 0, &res);
        for (LDAPMessage *e = res ? ldap_first_entry(ld, res) : nullptr; e; e = ldap_next_entry(ld, e)) {
            DirEntry entry;
            char *dn = ldap_get_dn(ld, e);
            entry.dn = QByteArray(dn);
            ldap_memfree(dn);
            BerElement *ber = nullptr;
            for (char *a = ldap_first_attribute(ld, e, &ber); a; a = ldap_next_attribute(ld, e, ber)) {
                DirAttribute attribute;
                attribute.name = QByteArray(a);
                if (struct berval **values = ldap_get_values_len(ld, e, a)) {
                    for (struct berval **v = values; *v; ++v)
                        attribute.values.append(QByteArray((*v)->bv_val, int((*v)->bv_len)));
                    ldap_value_free_len(values);
                }
                entry.attributes.append(attribute);
                ldap_memfree(a);
            }
            if (ber)
                ber_free(ber, 0);
            out.append(entry);
        }
        if (res)
            ldap_msgfree(res);
        ldap_unbind_ext(ld, nullptr, nullptr);
    }
    if (rcOut)
        *rcOut = rc;
    state() = saved;
    return out;
}

int searchCount(LDAP *ld, const char *base, const char *filter, int *rcOut)
{
    LDAPMessage *res = nullptr;
    struct timeval tv = {10, 0};
    const int rc = ldap_search_ext_s(ld, base, LDAP_SCOPE_SUBTREE, filter, nullptr, 0, nullptr, nullptr, &tv, 0, &res);
    if (rcOut)
        *rcOut = rc;
    int n = -1;
    if (rc == LDAP_SUCCESS)
        n = ldap_count_entries(ld, res);
    if (res)
        ldap_msgfree(res);
    // The test's own search is not one the library made.
    state().searches.removeLast();
    return n;
}

QString whoAmI(LDAP *ld, int *rcOut)
{
    struct berval *id = nullptr;
    const int rc = ldap_whoami_s(ld, &id, nullptr, nullptr);
    if (rcOut)
        *rcOut = rc;
    QString out;
    if (id) {
        out = QString::fromUtf8(id->bv_val, int(id->bv_len));
        ber_bvfree(id);
    }
    return out;
}

} // namespace ldapspy
