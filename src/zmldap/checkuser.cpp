// The account check: does the directory hold an account with this login?
#include "zmldap.h"
#include "zmldap_p.h"

#include "zmlogging.h"

#include <QDebug>

#include <new>

using namespace zmldap::detail;

namespace {

// Login attribute of an Active Directory account.
const QString kDefaultUserIdAttribute = QStringLiteral("sAMAccountName");

} // namespace

bool ZMLDAPPrivate::checkADUser(const QString &user)
{
    if (!ld)
        return false;

    DirectorySearch search(ld.get(), LDAP_SCOPE_SUBTREE, settings.params);
    const QString base = settings.params.value(db::system::ldap::BASE_DN);
    try {
        search.setBase(base);
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::checkLogin" << e.what();
        return false;
    }

    qCDebug(ldapc) << "check AD user" << base << user << settings.params.value(db::system::ldap::USER_ID_PARAMETER);

    // Only an absent key selects the default: an empty one is sent as it is.
    const auto idIt = settings.params.constFind(db::system::ldap::USER_ID_PARAMETER);
    const QString attribute = idIt != settings.params.constEnd() ? idIt.value() : kDefaultUserIdAttribute;
    // The name goes into the filter unescaped: "*" matches every account.
    try {
        search.setFilter(QStringLiteral("(%1=%2)").arg(attribute).arg(user));
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::checkLogin" << e.what();
        return false;
    }

    MessagePtr result;
    const int rc = search.run(result);
    if (!isAnswer(rc)) {
        qCCritical(ldapc) << "ldap_search_ext_s" << Qt::hex << rc << ldap_err2string(rc);
        return false;
    }

    const int count = ldap_count_entries(ld.get(), result.get());
    qCDebug(ldapc) << "entries " << count;
    if (count == 0)
        return false;

    // Every value of every entry found, for the debug log only.
    for (LDAPMessage *entry = result ? ldap_first_entry(ld.get(), result.get()) : nullptr; entry;
         entry = ldap_next_entry(ld.get(), entry)) {
        for (AttributeWalk attribute(ld.get(), entry); attribute.next();) {
            const ValueList values = attribute.values();
            for (int i = 0; i < values.size(); ++i)
                qCDebug(ldapc) << attribute.name() << decodeValue(values.at(i));
        }
    }
    return true;
}

QString zmldap::escapeFilterValue(const QString &value)
{
    QString out;
    out.reserve(value.size());
    for (const QChar c : value) {
        switch (c.unicode()) {
        case '*':
            out += QLatin1String("\\2a");
            break;
        case '(':
            out += QLatin1String("\\28");
            break;
        case ')':
            out += QLatin1String("\\29");
            break;
        case '\\':
            out += QLatin1String("\\5c");
            break;
        case 0:
            out += QLatin1String("\\00");
            break;
        default:
            out += c;
            break;
        }
    }
    return out;
}
