// Owners of what libldap hands out: the library's directory code and the
// zmauth doctor's own session use the same ones.
#ifndef ZMLDAP_LDAPGUARDS_P_H
#define ZMLDAP_LDAPGUARDS_P_H

#include <memory>

#include <lber.h>
#include <ldap.h>

namespace zmldap {
namespace detail {

struct SessionFree {
    void operator()(LDAP *ld) const { ldap_unbind_ext(ld, nullptr, nullptr); }
};
struct MessageFree {
    void operator()(LDAPMessage *message) const { ldap_msgfree(message); }
};
struct BerFree {
    // The cursor reads the message's own buffer: free the cursor only.
    void operator()(BerElement *ber) const { ber_free(ber, 0); }
};
struct MemFree {
    void operator()(char *p) const { ldap_memfree(p); }
};
struct ValuesFree {
    void operator()(berval **values) const { ldap_value_free_len(values); }
};
struct ControlFree {
    void operator()(LDAPControl *control) const { ldap_control_free(control); }
};
struct ControlsFree {
    void operator()(LDAPControl **controls) const { ldap_controls_free(controls); }
};
struct BerMemFree {
    void operator()(void *p) const { ber_memfree(p); }
};
// A null-terminated array of strings from liblber (referrals of a result).
struct BerVectorFree {
    void operator()(char **strings) const { ber_memvfree(reinterpret_cast<void **>(strings)); }
};
using SessionPtr = std::unique_ptr<LDAP, SessionFree>;
using MessagePtr = std::unique_ptr<LDAPMessage, MessageFree>;
using BerPtr = std::unique_ptr<BerElement, BerFree>;
using AttributePtr = std::unique_ptr<char, MemFree>;
using MemPtr = std::unique_ptr<char, MemFree>; // a DN or message from libldap
using ValuesPtr = std::unique_ptr<berval *, ValuesFree>;
using ControlPtr = std::unique_ptr<LDAPControl, ControlFree>;
using ControlsPtr = std::unique_ptr<LDAPControl *, ControlsFree>;
using BerMemPtr = std::unique_ptr<char, BerMemFree>;
using BerVectorPtr = std::unique_ptr<char *, BerVectorFree>;
using CString = std::unique_ptr<char[]>;

} // namespace detail
} // namespace zmldap

#endif // ZMLDAP_LDAPGUARDS_P_H
