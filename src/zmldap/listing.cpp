// The user search: the one search routine, the object iterator and the user
// listing.
#include "zmldap.h"
#include "zmldap_p.h"

#include "zmlogging.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDebug>
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

bool AttributeWalk::first()
{
    m_started = true;
    BerElement *cursor = nullptr;
    if (m_reading == ByName) {
        m_name.reset(ldap_first_attribute(m_ld, m_entry, &cursor));
        m_ber.reset(cursor);
        return m_name != nullptr;
    }
    // Past the entry's name to its first attribute.
    berval dn;
    const int rc = ldap_get_dn_ber(m_ld, m_entry, &cursor, &dn);
    m_ber.reset(cursor);
    return rc == LDAP_SUCCESS && m_ber;
}

bool AttributeWalk::next()
{
    m_values.reset();
    m_inPlace.reset();
    m_count = 0;
    m_nameData = nullptr;
    m_nameSize = 0;
    if (m_reading == ByName) {
        if (!m_started) {
            if (!first())
                return false;
        } else if (m_name) {
            // The name is freed before the next one is read, after its values.
            m_name.reset();
            m_name.reset(ldap_next_attribute(m_ld, m_entry, m_ber.get()));
        }
        if (!m_name)
            return false;
        m_nameData = m_name.get();
        m_nameSize = std::strlen(m_nameData);
        m_values.reset(ldap_get_values_len(m_ld, m_entry, m_name.get()));
        m_count = m_values ? ldap_count_values_len(m_values.get()) : 0;
        return true;
    }

    if (!m_started && !first())
        return false;
    if (!m_ber)
        return false;
    berval name = {0, nullptr};
    berval *values = nullptr;
    const int rc = ldap_get_attribute_ber(m_ld, m_entry, m_ber.get(), &name, &values);
    m_inPlace.reset(values);
    if (rc != LDAP_SUCCESS || !name.bv_val) {
        // The end of the entry (or a value that does not decode): no more.
        m_ber.reset();
        return false;
    }
    m_nameData = name.bv_val;
    m_nameSize = name.bv_len;
    while (values && values[m_count].bv_val)
        ++m_count;
    return true;
}

ValueList AttributeWalk::values() const
{
    if (m_reading == ByName)
        return ValueList(m_values.get(), m_count);
    return ValueList(m_inPlace.get(), m_count);
}

DirectorySearch::DirectorySearch(LDAP *ld, int scope, const QHash<QString, QString> &settings)
    : m_ld(ld)
    , m_scope(scope)
    , m_timeLimit(searchTimeLimit(settings))
{
}

DirectorySearch::~DirectorySearch()
{
    if (m_msgid >= 0)
        ldap_abandon_ext(m_ld, m_msgid, nullptr, nullptr);
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

// The request for the next page: the same search with the paged results
// control (non-critical, so that a server without paging answers it whole)
// carrying the server's last cookie.
int DirectorySearch::request()
{
    berval cookie;
    cookie.bv_len = m_cookieLength;
    cookie.bv_val = m_cookie.get();
    LDAPControl *made = nullptr;
    int rc = ldap_create_page_control(m_ld, ber_int_t(m_pageSize), &cookie, 0, &made);
    const ControlPtr control(made);
    if (rc != LDAP_SUCCESS)
        return rc;
    LDAPControl *serverControls[] = {control.get(), nullptr};
    timeval timeLimit = {m_timeLimit, 0};
    rc = ldap_search_ext(m_ld, m_base.get(), m_scope, m_filter.get(), m_attributes.get(), 0, serverControls, nullptr,
                         &timeLimit, 0, &m_msgid);
    if (rc != LDAP_SUCCESS)
        m_msgid = -1;
    m_deadline = QDeadlineTimer::current().deadline() + qint64(m_timeLimit) * 1000;
    m_pageEntries = 0;
    return rc;
}

DirectorySearch::Step DirectorySearch::next(MessagePtr &entry)
{
    if (m_done)
        return m_rc == LDAP_SUCCESS ? Done : Failed;
    if (m_msgid < 0) {
        const int rc = request();
        if (rc != LDAP_SUCCESS)
            return fail(rc);
    }
    for (;;) {
        // What is left of the page's time limit, as ldap_search_ext_s waits.
        const qint64 left = qMax<qint64>(0, m_deadline - QDeadlineTimer::current().deadline());
        timeval wait = {time_t(left / 1000), suseconds_t(left % 1000 * 1000)};
        LDAPMessage *received = nullptr;
        const int type = ldap_result(m_ld, m_msgid, LDAP_MSG_ONE, &wait, &received);
        MessagePtr message(received);
        if (type == 0)
            return fail(LDAP_TIMEOUT);
        if (type < 0) {
            int rc = LDAP_OTHER;
            ldap_get_option(m_ld, LDAP_OPT_RESULT_CODE, &rc);
            return fail(rc);
        }
        if (type == LDAP_RES_SEARCH_ENTRY) {
            ++m_pageEntries;
            entry = std::move(message);
            return Entry;
        }
        if (type != LDAP_RES_SEARCH_RESULT)
            continue;   // references (not chased, not counted) and anything else

        m_msgid = -1;
        int code = LDAP_SUCCESS;
        LDAPControl **returned = nullptr;
        const int rc = ldap_parse_result(m_ld, message.get(), &code, nullptr, nullptr, nullptr, &returned, 0);
        const ControlsPtr controls(returned);
        if (rc != LDAP_SUCCESS)
            return fail(rc);
        if (!isAnswer(code))
            return fail(code);
        // No control (a server that does not page) or an empty cookie: the
        // last page.
        berval cookie = {0, nullptr};
        LDAPControl *page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls.get(), nullptr);
        ber_int_t estimate = 0;
        if (page && ldap_parse_pageresponse_control(m_ld, page, &estimate, &cookie) != LDAP_SUCCESS)
            cookie = {0, nullptr};
        m_cookie.reset(cookie.bv_val);
        m_cookieLength = cookie.bv_val ? cookie.bv_len : 0;
        if (m_cookieLength == 0) {
            m_done = true;
            release();
        }
        return PageEnd;
    }
}

DirectorySearch::Step DirectorySearch::fail(int rc)
{
    if (m_msgid >= 0)
        ldap_abandon_ext(m_ld, m_msgid, nullptr, nullptr);
    m_msgid = -1;
    m_rc = rc;
    m_done = true;
    release();
    return Failed;
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
    return getUserList(list, customFieldMapping(settings.params.value(db::system::ldap::USER_CUSTOM_FIELDS_PARAMETER)));
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
    // The mapping is split into fields once for the whole listing. With no
    // mapping every attribute goes under the empty key, the last one winning.
    AttributeTargets targets(mapping);
    const auto unpack = [&](LDAPMessage *entry, AttributeWalk::Reading reading) {
        zelmora::ObjectInfo record;
        record.type = resultObjectType;
        for (AttributeWalk attribute(ld.get(), entry, reading); attribute.next();) {
            if (attribute.count() > 0)
                storeAttribute(record.params, targets.find(attribute.nameData(), attribute.nameSize()),
                               attribute.values());
        }
        return record;
    };

    if (const int pageSize = positiveSetting(settings.params, zmldap::key::PAGE_SIZE)) {
        // Each entry becomes a record as it arrives and is released, so the
        // listing holds the records and one entry, not the whole result. The
        // records stay appended only if every page succeeds.
        search.setPageSize(pageSize);
        const int before = list.size();
        int total = 0;
        for (;;) {
            MessagePtr entry;
            const DirectorySearch::Step step = search.next(entry);
            if (step == DirectorySearch::Entry) {
                list.append(unpack(entry.get(), AttributeWalk::InPlace));
            } else if (step == DirectorySearch::PageEnd) {
                total += search.pageEntries();
                qCDebug(ldapc) << "Entries" << search.pageEntries();
            } else if (step == DirectorySearch::Done) {
                break;
            } else {
                list.erase(list.begin() + before, list.end());
                qCCritical(ldapc) << "ldap_search_ext_s error" << Qt::hex << search.rc() << ldap_err2string(search.rc());
                return false;
            }
        }
        if (total == 0) {
            qCCritical(ldapc) << "ldap_count_entries error";
            return false;
        }
        return true;
    }

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

    if (count > 0)
        list.reserve(list.size() + count);
    int taken = 0;
    for (LDAPMessage *entry = result ? ldap_first_entry(ld.get(), result.get()) : nullptr; entry;
         entry = ldap_next_entry(ld.get(), entry)) {
        list.append(unpack(entry, AttributeWalk::ByName));
        if (++taken == count)
            return true;
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
    , entries()
    , position(0)
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

    if (const int pageSize = positiveSetting(directory->settings.params, zmldap::key::PAGE_SIZE)) {
        // Every page is read now, to know the total; the entries are kept
        // for first() and next().
        search.setPageSize(pageSize);
        std::vector<MessagePtr> received;
        for (;;) {
            MessagePtr entry;
            const DirectorySearch::Step step = search.next(entry);
            if (step == DirectorySearch::Entry) {
                received.push_back(std::move(entry));
            } else if (step == DirectorySearch::PageEnd) {
                qCDebug(ldapc) << "Entries" << search.pageEntries();
            } else if (step == DirectorySearch::Done) {
                break;
            } else {
                qCCritical(ldapc) << "ldap_search_ext_s error" << Qt::hex << search.rc();
                return;
            }
        }
        if (received.empty()) {
            qCCritical(ldapc) << "ldap_count_entries error";
            return;
        }
        count = int(received.size());
        entries = std::move(received);
        return;
    }

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
    LDAP *const handle = ldap->d->ld.get();
    if (!entries.empty()) {
        // A session that has gone since the search has no entries either.
        position = 0;
        current = handle ? entries.front().get() : nullptr;
        if (current)
            return unpackEntry();
        qCCritical(ldapc) << "ldap_first_entry error";
        entries.clear();
        return zelmora::ObjectInfo();
    }
    if (!result)
        return zelmora::ObjectInfo();
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
    LDAP *const handle = ldap->d->ld.get();
    if (!entries.empty()) {
        // As unpaged: before first() there is no successor, and running off
        // the end is reported and releases the entries.
        current = handle && current && ++position < entries.size() ? entries[position].get() : nullptr;
        if (current)
            return unpackEntry();
        qCCritical(ldapc) << "ldap_next_entry error";
        entries.clear();
        return zelmora::ObjectInfo();
    }
    if (!result)
        return zelmora::ObjectInfo();
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

    // Entries of a paged search are read in place, as the listing does.
    const AttributeWalk::Reading reading = entries.empty() ? AttributeWalk::ByName : AttributeWalk::InPlace;
    for (AttributeWalk attribute(ldap->d->ld.get(), current, reading); attribute.next();) {
        const int n = attribute.count();
        if (n == 0)
            continue;

        const ValueList values = attribute.values();
        QStringList texts;
        texts.reserve(n);
        for (int i = 0; i < n; ++i)
            texts.append(decodeValue(values.at(i)));
        const QString attributeName = attribute.name();
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
