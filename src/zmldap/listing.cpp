// The user search: the one search routine, the object iterator and the user
// listing.
#include "zmldap.h"
#include "records_p.h"
#include "zmldap_p.h"

#include "zmlogging.h"

#include <QByteArray>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>

#include <cstring>
#include <new>

using namespace zmldap::detail;

void stringToAttribute(const QString &str, char *buffer)
{
    const QByteArray utf8 = str.toUtf8();
    const int n = qMin(utf8.size(), str.size());
    std::memcpy(buffer, utf8.constData(), size_t(n));
    buffer[n] = '\0';
}

namespace zmldap {
namespace detail {

CString makeCString(const QString &str)
{
    CString buffer(new char[size_t(str.length()) + 1]);
    stringToAttribute(str, buffer.get());
    buffer[str.length()] = '\0';
    return buffer;
}

void AttributeList::fill(const QHash<QString, QString> &mapping)
{
    if (mapping.isEmpty())
        return;
    m_array.reset(new char *[size_t(mapping.size()) + 1]);
    m_names.reserve(size_t(mapping.size()));
    int i = 0;
    for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it) {
        m_names.push_back(makeCString(it.key()));
        m_array[i++] = m_names.back().get();
    }
    m_array[i] = nullptr;
}

void AttributeList::reset()
{
    m_names.clear();
    m_array.reset();
}

DirectorySearch::DirectorySearch(LDAP *ld, int scope, const QHash<QString, QString> &settings)
    : m_ld(ld)
    , m_scope(scope)
    , m_timeLimit(searchTimeLimit(settings))
{
}

void DirectorySearch::setBase(const QString &base)
{
    m_base = makeCString(base);
}

void DirectorySearch::setFilter(const QString &filter)
{
    m_filter = makeCString(filter);
}

void DirectorySearch::setAttributes(const QHash<QString, QString> &mapping)
{
    m_attributes.fill(mapping);
}

int DirectorySearch::run(MessagePtr &result)
{
    LDAPMessage *message = nullptr;
    // Also the client's wait: it overrides the session's LDAP_OPT_TIMEOUT.
    timeval timeLimit = {m_timeLimit, 0};
    const int rc = ldap_search_ext_s(m_ld, m_base.get(), m_scope, m_filter.get(), m_attributes.get(), 0, nullptr,
                                     nullptr, &timeLimit, 0, &message);
    result.reset(message);
    release();
    return rc;
}

void DirectorySearch::release()
{
    m_attributes.reset();
    m_filter.reset();
    m_base.reset();
}

} // namespace detail
} // namespace zmldap

namespace {

// The filter of a user search: only an absent key selects the default.
QString userFilter(const QHash<QString, QString> &params)
{
    const auto it = params.constFind(db::system::ldap::USER_FILTER);
    return it != params.constEnd() ? it.value() : kDefaultUserFilter;
}

} // namespace

// ---------------------------------------------------------------------------
// User listing

bool ZMLDAPPrivate::getUserList(QList<zelmora::ObjectInfo> &list)
{
    // The custom field mapping: a JSON array of objects, each giving one pair
    // by its first member (in key order). Anything else contributes nothing.
    QHash<QString, QString> mapping;
    const QByteArray text = settings.params.value(db::system::ldap::USER_CUSTOM_FIELDS_PARAMETER).toLocal8Bit();
    const QJsonArray array = QJsonDocument::fromJson(text).array();
    for (int i = 0; i < array.size(); ++i) {
        const QJsonObject object = array.at(i).toObject();
        if (object.isEmpty())
            continue;
        const auto member = object.constBegin();
        mapping.insert(member.key(), member.value().toString());
    }
    return getUserList(list, mapping);
}

bool ZMLDAPPrivate::getUserList(QList<zelmora::ObjectInfo> &list, const QHash<QString, QString> &mapping)
{
    if (!ld)
        return false;

    DirectorySearch search(ld.get(), LDAP_SCOPE_SUBTREE, settings.params);
    const QString base = settings.params.value(db::system::ldap::BASE_DN);
    const QString filter = userFilter(settings.params);
    try {
        search.setBase(base);
        search.setFilter(filter);
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::getUserList" << e.what();
        return false;
    }

    qCDebug(ldapc) << "get user list" << base << filter << mapping;

    search.setAttributes(mapping);
    MessagePtr result;
    const int rc = search.run(result);
    if (!isAnswer(rc)) {
        qCCritical(ldapc) << "ldap_search_ext_s error" << Qt::hex << rc << ldap_err2string(rc);
        return false;
    }

    const int count = ldap_count_entries(ld.get(), result.get());
    if (count == 0) {
        qCCritical(ldapc) << "ldap_count_entries error";
        return false;
    }
    qCDebug(ldapc) << "Entries" << count;

    // The mapping is split into fields once for the whole listing. With no
    // mapping every attribute goes under the empty key, the last one winning.
    AttributeTargets targets(mapping);
    if (count > 0)
        list.reserve(list.size() + count);

    zelmora::ObjectInfo record;
    record.type = resultObjectType;
    int taken = 0;
    for (LDAPMessage *entry = result ? ldap_first_entry(ld.get(), result.get()) : nullptr; entry;
         entry = ldap_next_entry(ld.get(), entry)) {
        for (AttributeWalk attribute(ld.get(), entry); attribute.next();) {
            if (attribute.count() > 0)
                storeAttribute(record.params, targets.find(attribute.name()), attribute.values(), attribute.count());
        }
        list.append(record);

        if (++taken == count)
            return true;
        record = zelmora::ObjectInfo();
        record.type = resultObjectType;
    }

    qCCritical(ldapc) << "ldap_*_entry error";
    return false;
}

// ---------------------------------------------------------------------------
// ZMLDAPObjectIteratorPrivate

ZMLDAPObjectIteratorPrivate::ZMLDAPObjectIteratorPrivate(ZMLDAP *ldap, zmldap::Scope scope,
                                                         const QHash<QString, QString> &mapping)
    : result()
    , current(nullptr)
    , ldap(ldap)
    , scope(scope)
    , count(0)
    , mapping()
{
    ZMLDAPPrivate *const directory = ldap ? ldap->d : nullptr;
    if (!directory || !directory->ld)
        return;

    this->mapping = mapping;

    int ldapScope = LDAP_SCOPE_SUBTREE;
    if (scope == zmldap::Base)
        ldapScope = LDAP_SCOPE_BASE;
    else if (scope == zmldap::OneLevel)
        ldapScope = LDAP_SCOPE_ONELEVEL;

    DirectorySearch search(directory->ld.get(), ldapScope, directory->settings.params);
    try {
        search.setBase(directory->settings.params.value(db::system::ldap::BASE_DN));
        search.setFilter(userFilter(directory->settings.params));
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::checkLogin" << e.what();
        return;
    }
    search.setAttributes(this->mapping);

    MessagePtr searchResult;
    const int rc = search.run(searchResult);
    if (!isAnswer(rc)) {
        qCCritical(ldapc) << "ldap_search_ext_s error" << Qt::hex << rc;
        return;
    }

    count = ldap_count_entries(directory->ld.get(), searchResult.get());
    if (count == 0) {
        qCCritical(ldapc) << "ldap_count_entries error";
        return;
    }
    qCDebug(ldapc) << "Entries" << count;
    result = std::move(searchResult);
}

zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::first()
{
    if (!result)
        return zelmora::ObjectInfo();
    LDAP *const handle = ldap->d->ld.get();
    // libldap asserts on a null handle; a disconnected object has no entries.
    current = handle ? ldap_first_entry(handle, result.get()) : nullptr;
    if (current)
        return unpackEntry();

    qCCritical(ldapc) << "ldap_first_entry error";
    result.reset();
    return zelmora::ObjectInfo();
}

zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::next()
{
    if (!result)
        return zelmora::ObjectInfo();
    LDAP *const handle = ldap->d->ld.get();
    // Before first() there is no current entry, and its successor is none;
    // libldap would abort on a null entry (or handle), so it is not asked.
    current = handle && current ? ldap_next_entry(handle, current) : nullptr;
    if (current)
        return unpackEntry();

    // Also the normal end of the results.
    qCCritical(ldapc) << "ldap_next_entry error";
    result.reset();
    return zelmora::ObjectInfo();
}

zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::unpackEntry()
{
    zelmora::ObjectInfo record;
    qCDebug(ldapc) << QStringLiteral("----------------------- NEW ENTRY -----------------------");

    for (AttributeWalk attribute(ldap->d->ld.get(), current); attribute.next();) {
        const int n = attribute.count();
        if (n == 0)
            continue;

        QStringList texts;
        texts.reserve(n);
        for (int i = 0; i < n; ++i)
            texts.append(decodeValue(attribute.values()[i]));
        const QString attributeName = QString::fromUtf8(attribute.name());
        qCDebug(ldapc) << "\tATTRIBUTE" << attributeName << "---" << texts;

        // With no mapping every attribute keeps its own name; with one,
        // attributes it does not name go under the empty key.
        const QString key = mapping.isEmpty() ? attributeName : mapping.value(attributeName);
        FieldTarget target = makeTarget(key);
        storeValues(record.params, target, texts.join(QLatin1Char(';')));
    }

    // Read now, so a type set between first() and next() applies.
    record.type = ldap->d->resultObjectType;
    return record;
}

// ---------------------------------------------------------------------------
// ZMLDAPObjectIterator

ZMLDAPObjectIterator::ZMLDAPObjectIterator(ZMLDAP *ldap, const QHash<QString, QString> &mapping)
    : ZMLDAPObjectIterator(ldap, zmldap::Subtree, mapping)
{
}

ZMLDAPObjectIterator::ZMLDAPObjectIterator(ZMLDAP *ldap, zmldap::Scope scope, const QHash<QString, QString> &mapping)
    : d(new ZMLDAPObjectIteratorPrivate(ldap, scope, mapping))
{
}

ZMLDAPObjectIterator::~ZMLDAPObjectIterator()
{
    delete d;
}

int ZMLDAPObjectIterator::size() const
{
    return d->count;
}

zelmora::ObjectInfo ZMLDAPObjectIterator::first()
{
    return d->first();
}

zelmora::ObjectInfo ZMLDAPObjectIterator::next()
{
    return d->next();
}
