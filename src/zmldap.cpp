#include "zmldap.h"
#include "zmldap_p.h"

#include "zmlogging.h"

#include <QByteArray>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>
#include <QVarLengthArray>
#include <QVector>

#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <lber.h>
#include <ldap.h>
#include <sasl/sasl.h>

namespace {

// What a user search asks for when the settings name no filter.
const QString kDefaultUserFilter = QStringLiteral("(&(objectClass=user)(objectCategory=person))");
// Login attribute of an Active Directory account.
const QString kDefaultUserIdAttribute = QStringLiteral("sAMAccountName");
// Search time limit of every directory search.
constexpr int kSearchTimeLimitSeconds = 30;

// Owners of what libldap hands out.
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
using MessagePtr = std::unique_ptr<LDAPMessage, MessageFree>;
using BerPtr = std::unique_ptr<BerElement, BerFree>;
using AttributePtr = std::unique_ptr<char, MemFree>;
using ValuesPtr = std::unique_ptr<berval *, ValuesFree>;
using CString = std::unique_ptr<char[]>;

// An owned UTF-8 copy for the SASL answers; null for an unset or empty setting.
char *ownedUtf8(const QString &value)
{
    if (value.isEmpty())
        return nullptr;
    const QByteArray utf8 = value.toUtf8();
    char *out = new char[utf8.size() + 1];
    std::memcpy(out, utf8.constData(), size_t(utf8.size()) + 1);
    return out;
}

// Length of a value up to its first zero byte: directory values are text here,
// binary ones included, so a GUID or a photo ends at its first zero.
inline int textLength(const berval *value)
{
    if (!value || !value->bv_val || value->bv_len == 0)
        return 0;
    const ber_len_t len = value->bv_len > ber_len_t(INT_MAX) ? ber_len_t(INT_MAX) : value->bv_len;
    const void *zero = std::memchr(value->bv_val, 0, len);
    return zero ? int(static_cast<const char *>(zero) - value->bv_val) : int(len);
}

inline QString decodeValue(const berval *value)
{
    const int len = textLength(value);
    return len ? QString::fromUtf8(value->bv_val, len) : QString::fromLatin1("");
}

// All values of one attribute as one text, joined with ";".
QString joinedValues(berval **values, int n)
{
    if (n == 1)
        return decodeValue(values[0]);
    // Decoding the joined bytes once gives the same text as decoding each value
    // and joining, with one exception: the decoder drops a byte-order mark at
    // the start of its input, so a later value that starts with one is decoded
    // on its own.
    QVarLengthArray<char, 1024> bytes;
    for (int i = 0; i < n; ++i) {
        const int len = textLength(values[i]);
        if (i > 0) {
            if (len >= 3 && std::memcmp(values[i]->bv_val, "\xEF\xBB\xBF", 3) == 0) {
                QStringList parts;
                parts.reserve(n);
                for (int j = 0; j < n; ++j)
                    parts.append(decodeValue(values[j]));
                return parts.join(QLatin1Char(';'));
            }
            bytes.append(';');
        }
        if (len)
            bytes.append(values[i]->bv_val, len);
    }
    return QString::fromUtf8(bytes.constData(), bytes.size());
}

// Keys of the lookup tables: bytes (an attribute name, a value's UTF-8 form)
// or text (UTF-16 units), viewed in storage that the table's entry owns. The
// key and hash types belong to this file, so that the tables' code stays
// private to the library.
struct BytesKey {
    std::string_view bytes;
    bool operator==(const BytesKey &other) const { return bytes == other.bytes; }
};
struct BytesHash {
    size_t operator()(const BytesKey &key) const { return std::hash<std::string_view>()(key.bytes); }
};

struct TextKey {
    std::u16string_view text;
    bool operator==(const TextKey &other) const { return text == other.text; }
};
struct TextHash {
    size_t operator()(const TextKey &key) const { return std::hash<std::u16string_view>()(key.text); }
};

inline BytesKey bytesKey(const char *data, size_t len)
{
    return BytesKey{std::string_view(data, len)};
}

inline TextKey textView(const QString &text)
{
    return TextKey{std::u16string_view(reinterpret_cast<const char16_t *>(text.utf16()), size_t(text.size()))};
}

inline TextKey textView(const QStringRef &text)
{
    return TextKey{std::u16string_view(reinterpret_cast<const char16_t *>(text.unicode()), size_t(text.size()))};
}

// Directory values repeat across users: first names, departments, titles.
// While one field keeps repeating, the records of a listing share one copy of
// each of its values; a field that does not (logins, mail addresses) stops
// being pooled after a sample, and its pool is dropped.
class ValuePool {
public:
    QString share(const QString &value)
    {
        if (!m_on || value.isEmpty())
            return value;
        const auto it = m_values.find(textView(value));
        if (it != m_values.end())
            return hit(it->second);
        if (miss())
            m_values.emplace(textView(value), value);
        return value;
    }

    // The text of one value given by its UTF-8 bytes: a repeated value is
    // found by its bytes, without decoding it again.
    QString shareBytes(const char *data, int len)
    {
        if (!m_on || len == 0)
            return len ? QString::fromUtf8(data, len) : QString::fromLatin1("");
        const auto it = m_bytes.find(bytesKey(data, size_t(len)));
        if (it != m_bytes.end())
            return hit(it->second.text);
        const QString text = QString::fromUtf8(data, len);
        if (miss()) {
            const QByteArray bytes(data, len);
            m_bytes.emplace(bytesKey(bytes.constData(), size_t(len)), Encoded{bytes, text});
        }
        return text;
    }

    QString share(const QStringRef &value)
    {
        if (!m_on || value.isEmpty())
            return value.toString();
        const auto it = m_values.find(textView(value));
        if (it != m_values.end())
            return hit(it->second);
        QString text = value.toString();
        if (miss())
            m_values.emplace(textView(text), text);
        return text;
    }

private:
    static constexpr int kSample = 1024;
    static constexpr size_t kMaxValues = 65536;

    const QString &hit(const QString &value)
    {
        ++m_seen;
        ++m_hits;
        return value;
    }

    // Whether a new value is worth keeping; turns the pool off when the field
    // has shown that it does not repeat.
    bool miss()
    {
        ++m_seen;
        if ((m_seen % kSample == 0 && m_hits * 2 < m_seen) || m_values.size() >= kMaxValues) {
            m_on = false;
            m_values = {};
            m_bytes = {};
            return false;
        }
        return true;
    }

    struct Encoded {
        QByteArray bytes;
        QString text;
    };

    // Each key views the text (or the bytes) of the value stored with it.
    std::unordered_map<TextKey, QString, TextHash> m_values;
    std::unordered_map<BytesKey, Encoded, BytesHash> m_bytes;
    int m_seen = 0;
    int m_hits = 0;
    bool m_on = true;
};

// Where the values of one attribute go: the mapping's target text and, when it
// names two or more fields, those fields. A listing gives each field a pool.
struct FieldTarget {
    QString key;
    QVector<QString> fields;
    std::vector<ValuePool> pools;   // empty: values are not shared
};

FieldTarget makeTarget(const QString &key, bool pooled = false)
{
    FieldTarget target;
    target.key = key;
    const QVector<QStringRef> parts = key.splitRef(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (parts.size() >= 2) {
        target.fields.reserve(parts.size());
        for (const QStringRef &part : parts)
            target.fields.append(part.toString());
    }
    if (pooled)
        target.pools.resize(size_t(qMax(1, target.fields.size())));
    return target;
}

inline QString shared(FieldTarget &target, int field, const QString &text)
{
    return target.pools.empty() ? text : target.pools[size_t(field)].share(text);
}

inline QString shared(FieldTarget &target, int field, const QStringRef &text)
{
    return target.pools.empty() ? text.toString() : target.pools[size_t(field)].share(text);
}

// One field takes the joined values as they are. Several fields share the
// words of the joined values in order; the last field takes all remaining
// words, and fields left without a word are stored empty.
void storeValues(QHash<QString, QString> &params, FieldTarget &target, const QString &joined)
{
    const int m = target.fields.size();
    if (m < 2) {
        params.insert(target.key, shared(target, 0, joined));
        return;
    }
    QVarLengthArray<QStringRef, 16> words;
    const QChar *text = joined.constData();
    const int size = joined.size();
    for (int i = 0; i < size;) {
        while (i < size && text[i] == QLatin1Char(' '))
            ++i;
        const int start = i;
        while (i < size && text[i] != QLatin1Char(' '))
            ++i;
        if (i > start)
            words.append(QStringRef(&joined, start, i - start));
    }
    const int w = words.size();
    for (int i = 0; i < m - 1; ++i)
        params.insert(target.fields[i], i < w ? shared(target, i, words[i]) : QString::fromLatin1(""));
    const int last = m - 1;
    if (w <= last) {
        params.insert(target.fields[last], QString::fromLatin1(""));
    } else if (w == last + 1) {
        params.insert(target.fields[last], shared(target, last, words[last]));
    } else {
        int restSize = w - last - 1;
        for (int i = last; i < w; ++i)
            restSize += words[i].size();
        QString rest;
        rest.reserve(restSize);
        for (int i = last; i < w; ++i) {
            if (i > last)
                rest.append(QLatin1Char(' '));
            rest.append(words[i]);
        }
        params.insert(target.fields[last], shared(target, last, rest));
    }
}

struct MappedAttribute {
    QByteArray name;     // UTF-8, as the server spells it
    FieldTarget target;
};

// The mapping of one listing, prepared once: attribute names are matched by
// their bytes as the server sends them, without decoding each name.
class AttributeTargets {
public:
    explicit AttributeTargets(const QHash<QString, QString> &mapping)
        : m_mapping(mapping)
        , m_unmapped(makeTarget(QString(), true))
    {
        // Reserved up front: the index points into the stored names.
        m_attributes.reserve(size_t(mapping.size()));
        m_index.reserve(size_t(mapping.size()));
        for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it) {
            QByteArray name = it.key().toUtf8();
            // A name that does not survive the round trip through UTF-8 cannot
            // equal a decoded attribute name.
            if (QString::fromUtf8(name) != it.key())
                continue;
            m_attributes.push_back(MappedAttribute{name, makeTarget(it.value(), true)});
            const QByteArray &stored = m_attributes.back().name;
            m_index.emplace(bytesKey(stored.constData(), size_t(stored.size())), m_attributes.size() - 1);
        }
    }

    FieldTarget &find(const char *attribute)
    {
        if (m_mapping.isEmpty())
            return m_unmapped;
        const size_t len = std::strlen(attribute);
        const auto it = m_index.find(bytesKey(attribute, len));
        if (it != m_index.end())
            return m_attributes[it->second].target;
        // Only a name that is not plain ASCII can decode to a mapped name with
        // other bytes (a byte-order mark, a replaced invalid sequence).
        for (size_t i = 0; i < len; ++i) {
            if (static_cast<unsigned char>(attribute[i]) >= 0x80) {
                m_scratch = makeTarget(m_mapping.value(QString::fromUtf8(attribute, int(len))));
                return m_scratch;
            }
        }
        return m_unmapped;
    }

private:
    const QHash<QString, QString> &m_mapping;
    std::vector<MappedAttribute> m_attributes;
    std::unordered_map<BytesKey, size_t, BytesHash> m_index;
    FieldTarget m_unmapped;
    FieldTarget m_scratch;
};

// Attribute list of a search: null for all user attributes, otherwise the
// mapping's attribute names, null-terminated.
struct AttributeList {
    std::vector<CString> names;
    std::unique_ptr<char *[]> array;

    char **get() const { return array.get(); }
    void reset()
    {
        names.clear();
        array.reset();
    }
};

} // namespace

// Writes the UTF-8 form of str into buffer. Buffers are sized by the UTF-16
// length plus one and terminated at that length, which cuts longer UTF-8 text
// (anything outside ASCII) to that many bytes; the copy stops there too.
static void stringToAttribute(const QString &str, char *buffer)
{
    const QByteArray utf8 = str.toUtf8();
    const int n = qMin(utf8.size(), str.size());
    std::memcpy(buffer, utf8.constData(), size_t(n));
    buffer[n] = '\0';
}

namespace {

CString makeCString(const QString &str)
{
    CString buffer(new char[size_t(str.length()) + 1]);
    stringToAttribute(str, buffer.get());
    buffer[str.length()] = '\0';
    return buffer;
}

void fillAttributeList(AttributeList &list, const QHash<QString, QString> &mapping)
{
    if (mapping.isEmpty())
        return;
    list.array.reset(new char *[size_t(mapping.size()) + 1]);
    list.names.reserve(size_t(mapping.size()));
    int i = 0;
    for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it) {
        list.names.push_back(makeCString(it.key()));
        list.array[i++] = list.names.back().get();
    }
    list.array[i] = nullptr;
}

} // namespace

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
// LDAPDefaults

LDAPDefaults::LDAPDefaults(const zelmora::ObjectInfo &settings)
    : authzid(nullptr)
    , realm(nullptr)
    , authcid(nullptr)
    , passwd(nullptr)
{
    try {
        // The realm is the directory host; both identities are the one user.
        authzid = ownedUtf8(settings.params.value(db::system::ldap::USER));
        realm = ownedUtf8(settings.params.value(db::system::ldap::HOST));
        authcid = ownedUtf8(settings.params.value(db::system::ldap::USER));
        passwd = ownedUtf8(settings.params.value(db::system::ldap::USER_PASSWORD));
    } catch (...) {
        delete[] authzid;
        delete[] realm;
        delete[] authcid;
        delete[] passwd;
        throw;
    }
}

// ---------------------------------------------------------------------------
// ZMLDAPPrivate

ZMLDAPPrivate::ZMLDAPPrivate(const zelmora::ObjectInfo &settings)
    : ld(nullptr)
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
    ld = handle;

    const int version = LDAP_VERSION3;
    rc = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != LDAP_OPT_SUCCESS)
        qDebug() << "ldap_set_option set LDAP_OPT_PROTOCOL_VERSION error" << Qt::hex << rc << ldap_err2string(rc);

    const int timeLimit = 60;
    rc = ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &timeLimit);
    if (rc != LDAP_OPT_SUCCESS)
        qDebug() << "ldap_set_option set LDAP_OPT_TIMELIMIT error" << Qt::hex << rc << ldap_err2string(rc);

    // Referrals are reported to the caller, never chased. Unlike the two
    // options above, a session that refuses this one is not used.
    rc = ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    if (rc != LDAP_OPT_SUCCESS) {
        qDebug() << "ldap_set_option set LDAP_OPT_REFERRALS error" << Qt::hex << rc << ldap_err2string(rc);
        qCCritical(ldapc) << "ldap_connect error" << Qt::hex << rc << ldap_err2string(rc);
        // Released right here, so its "Unbind" record names connect().
        qCDebug(ldapc) << "Unbind";
        ldap_unbind_ext(ld, nullptr, nullptr);
        ld = nullptr;
        return rc;
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
    ld = nullptr;
    return rc;
}

void ZMLDAPPrivate::unbind()
{
    qCDebug(ldapc) << "Unbind";
    if (ld)
        ldap_unbind_ext(ld, nullptr, nullptr);
}

int ZMLDAPPrivate::bindDigestMD5Linux(const QString &host, const QString &user, const QString &password)
{
    Q_UNUSED(host)
    Q_UNUSED(user)
    Q_UNUSED(password)
    qDebug() << "Use digest method";
    return ldap_sasl_interactive_bind_s(ld, nullptr, "DIGEST-MD5", nullptr, nullptr, LDAP_SASL_QUIET,
                                        zm_sasl_interact, &defaults);
}

int ZMLDAPPrivate::bindGSSAPILinux()
{
    qDebug() << "Use gssapi method";
    // Kerberos credentials come from the process's credential cache.
    return ldap_sasl_interactive_bind_s(ld, nullptr, "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET,
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
    int rc = ldap_sasl_bind_s(ld, dnUtf8.constData(), LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr,
                              &serverCredentials);
    if (serverCredentials && rc == LDAP_SASL_BIND_IN_PROGRESS) {
        qDebug() << "Bind in progress";
        rc = ldap_sasl_bind_s(ld, dnUtf8.constData(), LDAP_SASL_SIMPLE, serverCredentials, nullptr, nullptr,
                              nullptr);
    }
    ber_bvfree(serverCredentials);
    return rc;
}

bool ZMLDAPPrivate::checkADUser(const QString &user)
{
    if (!ld)
        return false;

    const QString base = settings.params.value(db::system::ldap::BASE_DN);
    CString baseBuffer;
    try {
        baseBuffer = makeCString(base);
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::checkLogin" << e.what();
        return false;
    }

    qCDebug(ldapc) << "check AD user" << base << user << settings.params.value(db::system::ldap::USER_ID_PARAMETER);

    // Only an absent key selects the default: an empty one is sent as it is.
    const auto idIt = settings.params.constFind(db::system::ldap::USER_ID_PARAMETER);
    const QString attribute = idIt != settings.params.constEnd() ? idIt.value() : kDefaultUserIdAttribute;
    // The name goes into the filter unescaped: "*" matches every account.
    const QString filter = QStringLiteral("(%1=%2)").arg(attribute).arg(user);
    CString filterBuffer;
    try {
        filterBuffer = makeCString(filter);
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::checkLogin" << e.what();
        return false;
    }

    LDAPMessage *message = nullptr;
    timeval timeLimit = {kSearchTimeLimitSeconds, 0};
    const int rc = ldap_search_ext_s(ld, baseBuffer.get(), LDAP_SCOPE_SUBTREE, filterBuffer.get(), nullptr, 0,
                                     nullptr, nullptr, &timeLimit, 0, &message);
    const MessagePtr result(message);
    baseBuffer.reset();
    filterBuffer.reset();

    if (rc != LDAP_SUCCESS && rc != LDAP_REFERRAL) {
        qCCritical(ldapc) << "ldap_search_ext_s" << Qt::hex << rc << ldap_err2string(rc);
        return false;
    }

    const int count = ldap_count_entries(ld, result.get());
    qCDebug(ldapc) << "entries " << count;
    if (count == 0)
        return false;

    for (LDAPMessage *entry = result ? ldap_first_entry(ld, result.get()) : nullptr; entry;
         entry = ldap_next_entry(ld, entry)) {
        BerElement *cursor = nullptr;
        char *name = ldap_first_attribute(ld, entry, &cursor);
        const BerPtr ber(cursor);
        for (; name; name = ldap_next_attribute(ld, entry, ber.get())) {
            const AttributePtr attribute(name);
            const ValuesPtr values(ldap_get_values_len(ld, entry, name));
            const int n = values ? ldap_count_values_len(values.get()) : 0;
            for (int i = 0; i < n; ++i)
                qCDebug(ldapc) << QString::fromUtf8(name) << decodeValue(values.get()[i]);
        }
    }
    return true;
}

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

    const QString base = settings.params.value(db::system::ldap::BASE_DN);
    const auto filterIt = settings.params.constFind(db::system::ldap::USER_FILTER);
    const QString filter = filterIt != settings.params.constEnd() ? filterIt.value() : kDefaultUserFilter;
    CString baseBuffer;
    CString filterBuffer;
    try {
        baseBuffer = makeCString(base);
        filterBuffer.reset(new char[size_t(filter.length()) + 1]);
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::getUserList" << e.what();
        return false;
    }

    qCDebug(ldapc) << "get user list" << base << filter << mapping;

    stringToAttribute(filter, filterBuffer.get());
    filterBuffer[filter.length()] = '\0';

    AttributeList attributes;
    fillAttributeList(attributes, mapping);

    LDAPMessage *message = nullptr;
    timeval timeLimit = {kSearchTimeLimitSeconds, 0};
    const int rc = ldap_search_ext_s(ld, baseBuffer.get(), LDAP_SCOPE_SUBTREE, filterBuffer.get(), attributes.get(),
                                     0, nullptr, nullptr, &timeLimit, 0, &message);
    const MessagePtr result(message);
    attributes.reset();
    filterBuffer.reset();
    baseBuffer.reset();

    if (rc != LDAP_SUCCESS && rc != LDAP_REFERRAL) {
        qCCritical(ldapc) << "ldap_search_ext_s error" << Qt::hex << rc << ldap_err2string(rc);
        return false;
    }

    const int count = ldap_count_entries(ld, result.get());
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
    for (LDAPMessage *entry = result ? ldap_first_entry(ld, result.get()) : nullptr; entry;
         entry = ldap_next_entry(ld, entry)) {
        BerElement *cursor = nullptr;
        char *name = ldap_first_attribute(ld, entry, &cursor);
        BerPtr ber(cursor);
        for (; name; name = ldap_next_attribute(ld, entry, ber.get())) {
            const AttributePtr attribute(name);
            const ValuesPtr values(ldap_get_values_len(ld, entry, name));
            if (!values)
                continue;
            const int n = ldap_count_values_len(values.get());
            if (n == 0)
                continue;
            FieldTarget &target = targets.find(name);
            if (n == 1 && target.fields.size() < 2 && !target.pools.empty()) {
                const berval *value = values.get()[0];
                record.params.insert(target.key, target.pools[0].shareBytes(value->bv_val, textLength(value)));
            } else {
                storeValues(record.params, target, joinedValues(values.get(), n));
            }
        }
        list.append(record);
        ber.reset();

        if (++taken == count)
            return true;
        record = zelmora::ObjectInfo();
        record.type = resultObjectType;
    }

    qCCritical(ldapc) << "ldap_*_entry error";
    return false;
}

// ---------------------------------------------------------------------------
// ZMLDAP

ZMLDAP::ZMLDAP(const zelmora::ObjectInfo &settings)
    : d(new ZMLDAPPrivate(settings))
{
}

ZMLDAP::~ZMLDAP()
{
    if (d) {
        d->unbind();
        delete d;
    }
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

const QHash<QString, QString> &ZMLDAP::userDbValues()
{
    static QHash<QString, QString> values;
    if (!values.isEmpty())
        return values;
    values.insert(QStringLiteral("PT_LOGIN"), QStringLiteral("Логин Zelmora-Studio"));
    // One key for the composed full name, split over the three name fields.
    values.insert(QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC"), QStringLiteral("ФИО"));
    values.insert(QStringLiteral("PT_SURNAME"), QStringLiteral("Фамилия"));
    values.insert(QStringLiteral("PT_NAME"), QStringLiteral("Имя"));
    values.insert(QStringLiteral("PT_PATRONYMIC"), QStringLiteral("Отчество"));
    values.insert(QStringLiteral("PT_ROLETEMPLATE"), QStringLiteral("Шаблон ролей"));
    return values;
}

const QHash<QString, QString> &ZMLDAP::employeeDbValues()
{
    static QHash<QString, QString> values;
    if (!values.isEmpty())
        return values;
    values.insert(QStringLiteral("PT_NAME"), QStringLiteral("Имя"));
    values.insert(QStringLiteral("PT_SURNAME"), QStringLiteral("Фамилия"));
    values.insert(QStringLiteral("PT_PATRONYMIC"), QStringLiteral("Отчество"));
    values.insert(QStringLiteral("PT_WORKERNUM"), QStringLiteral("Табельный номер"));
    // Unprefixed keys are values the system composes or derives.
    values.insert(QStringLiteral("FIO"), QStringLiteral("ФИО"));
    values.insert(QStringLiteral("IOF"), QStringLiteral("Имя отчество фамилия"));
    values.insert(QStringLiteral("DEPARTMENT"), QStringLiteral("Подразделение"));
    values.insert(QStringLiteral("JOB"), QStringLiteral("Должность"));
    values.insert(QStringLiteral("CARD_10"), QStringLiteral("Карта: десятичный"));
    values.insert(QStringLiteral("CARD_16"), QStringLiteral("Карта: шестнадцатеричный"));
    values.insert(QStringLiteral("CARD_CODE"), QStringLiteral("Карта: семейство-код"));
    values.insert(QStringLiteral("PT_DATE_BEGIN"), QStringLiteral("Дата приема"));
    values.insert(QStringLiteral("PT_DATE_END"), QStringLiteral("Дата увольнения"));
    values.insert(QStringLiteral("PT_GENDER"), QStringLiteral("Пол"));
    values.insert(QStringLiteral("PT_BIRTHDAY"), QStringLiteral("Дата рождения"));
    values.insert(QStringLiteral("PT_DOC_TYPE"), QStringLiteral("Вид документа"));
    values.insert(QStringLiteral("PT_DOC_SERIES"), QStringLiteral("Серия документа"));
    values.insert(QStringLiteral("PT_DOC_NUMBER"), QStringLiteral("Номер документа"));
    values.insert(QStringLiteral("DOC_SN"), QStringLiteral("Серия и номер документа"));
    values.insert(QStringLiteral("PT_EMAIL"), QStringLiteral("Электронная почта"));
    values.insert(QStringLiteral("PT_PHONE"), QStringLiteral("Телефон"));
    values.insert(QStringLiteral("PT_PIN"), QStringLiteral("Пин-код"));
    values.insert(QStringLiteral("PHOTO_PATH"), QStringLiteral("Фотография"));
    return values;
}

const QHash<QString, QString> &ZMLDAP::adDefaultValues()
{
    static QHash<QString, QString> values;
    if (!values.isEmpty())
        return values;
    values.insert(QStringLiteral("PT_LOGIN"), QStringLiteral("sAMAccountName"));
    values.insert(QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC"), QStringLiteral("cn"));
    values.insert(QStringLiteral("PT_SURNAME"), QStringLiteral("sn"));
    // Offered, but filled from the full name rather than an attribute of their own.
    values.insert(QStringLiteral("PT_NAME"), QString::fromLatin1(""));
    values.insert(QStringLiteral("PT_PATRONYMIC"), QString::fromLatin1(""));
    return values;
}

// ---------------------------------------------------------------------------
// ZMLDAPObjectIteratorPrivate

ZMLDAPObjectIteratorPrivate::ZMLDAPObjectIteratorPrivate(ZMLDAP *ldap, zmldap::Scope scope,
                                                         const QHash<QString, QString> &mapping)
    : result(nullptr)
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

    const QString base = directory->settings.params.value(db::system::ldap::BASE_DN);
    const auto filterIt = directory->settings.params.constFind(db::system::ldap::USER_FILTER);
    const QString filter = filterIt != directory->settings.params.constEnd() ? filterIt.value() : kDefaultUserFilter;
    CString baseBuffer;
    CString filterBuffer;
    try {
        baseBuffer = makeCString(base);
        filterBuffer = makeCString(filter);
    } catch (const std::bad_alloc &e) {
        qCCritical(ldapc) << "ZMLDAPPrivate::checkLogin" << e.what();
        return;
    }

    AttributeList attributes;
    fillAttributeList(attributes, this->mapping);

    int ldapScope = LDAP_SCOPE_SUBTREE;
    if (scope == zmldap::Base)
        ldapScope = LDAP_SCOPE_BASE;
    else if (scope == zmldap::OneLevel)
        ldapScope = LDAP_SCOPE_ONELEVEL;

    LDAPMessage *message = nullptr;
    timeval timeLimit = {kSearchTimeLimitSeconds, 0};
    const int rc = ldap_search_ext_s(directory->ld, baseBuffer.get(), ldapScope, filterBuffer.get(), attributes.get(),
                                     0, nullptr, nullptr, &timeLimit, 0, &message);
    MessagePtr searchResult(message);
    attributes.reset();
    filterBuffer.reset();
    baseBuffer.reset();

    // A referral is an answer, not a failure.
    if (rc != LDAP_SUCCESS && rc != LDAP_REFERRAL) {
        qCCritical(ldapc) << "ldap_search_ext_s error" << Qt::hex << rc;
        return;
    }

    count = ldap_count_entries(directory->ld, searchResult.get());
    if (count == 0) {
        qCCritical(ldapc) << "ldap_count_entries error";
        return;
    }
    qCDebug(ldapc) << "Entries" << count;
    result = searchResult.release();
}

ZMLDAPObjectIteratorPrivate::~ZMLDAPObjectIteratorPrivate()
{
    if (result)
        ldap_msgfree(result);
}

zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::first()
{
    if (!result)
        return zelmora::ObjectInfo();
    LDAP *const handle = ldap->d->ld;
    // libldap asserts on a null handle; a disconnected object has no entries.
    current = handle ? ldap_first_entry(handle, result) : nullptr;
    if (current)
        return unpackEntry();

    qCCritical(ldapc) << "ldap_first_entry error";
    ldap_msgfree(result);
    result = nullptr;
    return zelmora::ObjectInfo();
}

zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::next()
{
    if (!result)
        return zelmora::ObjectInfo();
    LDAP *const handle = ldap->d->ld;
    // Before first() there is no current entry, and its successor is none;
    // libldap would abort on a null entry (or handle), so it is not asked.
    current = handle && current ? ldap_next_entry(handle, current) : nullptr;
    if (current)
        return unpackEntry();

    // Also the normal end of the results.
    qCCritical(ldapc) << "ldap_next_entry error";
    ldap_msgfree(result);
    result = nullptr;
    return zelmora::ObjectInfo();
}

zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::unpackEntry()
{
    LDAP *const handle = ldap->d->ld;
    zelmora::ObjectInfo record;

    BerElement *cursor = nullptr;
    char *name = ldap_first_attribute(handle, current, &cursor);
    const BerPtr ber(cursor);
    qCDebug(ldapc) << QStringLiteral("----------------------- NEW ENTRY -----------------------");

    for (; name; name = ldap_next_attribute(handle, current, ber.get())) {
        const AttributePtr attribute(name);
        const ValuesPtr values(ldap_get_values_len(handle, current, name));
        if (!values)
            continue;
        const int n = ldap_count_values_len(values.get());
        if (n == 0)
            continue;

        QStringList texts;
        texts.reserve(n);
        for (int i = 0; i < n; ++i)
            texts.append(decodeValue(values.get()[i]));
        const QString attributeName = QString::fromUtf8(name);
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
