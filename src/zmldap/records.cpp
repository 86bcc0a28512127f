#include "records_p.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>
#include <QVarLengthArray>

#include <climits>
#include <cstring>

namespace zmldap {
namespace detail {

namespace {

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

inline QString shared(FieldTarget &target, int field, const QString &text)
{
    return target.pools.empty() ? text : target.pools[size_t(field)].share(text);
}

inline QString shared(FieldTarget &target, int field, const QStringRef &text)
{
    return target.pools.empty() ? text.toString() : target.pools[size_t(field)].share(text);
}

} // namespace

int textLength(const berval *value)
{
    if (!value || !value->bv_val || value->bv_len == 0)
        return 0;
    const ber_len_t len = value->bv_len > ber_len_t(INT_MAX) ? ber_len_t(INT_MAX) : value->bv_len;
    const void *zero = std::memchr(value->bv_val, 0, len);
    return zero ? int(static_cast<const char *>(zero) - value->bv_val) : int(len);
}

QString decodeValue(const berval *value)
{
    const int len = textLength(value);
    return len ? QString::fromUtf8(value->bv_val, len) : QString::fromLatin1("");
}

QString joinedValues(const ValueList &values)
{
    const int n = values.size();
    if (n == 1)
        return decodeValue(values.at(0));
    // Decoding the joined bytes once gives the same text as decoding each value
    // and joining, with one exception: the decoder drops a byte-order mark at
    // the start of its input, so a later value that starts with one is decoded
    // on its own.
    QVarLengthArray<char, 1024> bytes;
    for (int i = 0; i < n; ++i) {
        const berval *value = values.at(i);
        const int len = textLength(value);
        if (i > 0) {
            if (len >= 3 && std::memcmp(value->bv_val, "\xEF\xBB\xBF", 3) == 0) {
                QStringList parts;
                parts.reserve(n);
                for (int j = 0; j < n; ++j)
                    parts.append(decodeValue(values.at(j)));
                return parts.join(QLatin1Char(';'));
            }
            bytes.append(';');
        }
        if (len)
            bytes.append(value->bv_val, len);
    }
    return QString::fromUtf8(bytes.constData(), bytes.size());
}

// ---------------------------------------------------------------------------
// ValuePool

QString ValuePool::share(const QString &value)
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

QString ValuePool::share(const QStringRef &value)
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

QString ValuePool::shareBytes(const char *data, int len)
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

const QString &ValuePool::hit(const QString &value)
{
    ++m_seen;
    ++m_hits;
    return value;
}

// Whether a new value is worth keeping; turns the pool off when the field
// has shown that it does not repeat, or when the pool is full.
bool ValuePool::miss()
{
    ++m_seen;
    if ((m_seen % kSample == 0 && m_hits * 2 < m_seen) || size() >= kMaxValues) {
        m_on = false;
        m_values = {};
        m_bytes = {};
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Field targets

FieldTarget makeTarget(const QString &key, bool pooled)
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

void storeAttribute(QHash<QString, QString> &params, FieldTarget &target, const ValueList &values)
{
    if (values.size() == 1 && target.fields.size() < 2 && !target.pools.empty()) {
        const berval *value = values.at(0);
        params.insert(target.key, target.pools[0].shareBytes(value->bv_val, textLength(value)));
        return;
    }
    storeValues(params, target, joinedValues(values));
}

// ---------------------------------------------------------------------------
// AttributeTargets

AttributeTargets::AttributeTargets(const QHash<QString, QString> &mapping)
    : m_mapping(mapping)
    , m_unmapped(makeTarget(QString(), true))
{
    // Reserved up front: the index points into the stored names.
    m_attributes.reserve(size_t(mapping.size()));
    m_index.reserve(size_t(mapping.size()));
    for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it) {
        QByteArray name = it.key().toUtf8();
        // A name that does not survive the round trip through UTF-8 cannot
        // equal a decoded attribute name. All of its bytes count: a name read
        // in place is sized, not cut at a zero byte.
        if (QString::fromUtf8(name.constData(), name.size()) != it.key())
            continue;
        m_attributes.push_back(MappedAttribute{name, makeTarget(it.value(), true)});
        const QByteArray &stored = m_attributes.back().name;
        m_index.emplace(bytesKey(stored.constData(), size_t(stored.size())), m_attributes.size() - 1);
    }
}

FieldTarget &AttributeTargets::find(const char *attribute, size_t len)
{
    if (m_mapping.isEmpty())
        return m_unmapped;
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

// ---------------------------------------------------------------------------
// The custom field mapping

QHash<QString, QString> customFieldMapping(const QString &setting)
{
    QHash<QString, QString> mapping;
    const QJsonArray array = QJsonDocument::fromJson(setting.toLocal8Bit()).array();
    for (int i = 0; i < array.size(); ++i) {
        const QJsonObject object = array.at(i).toObject();
        if (object.isEmpty())
            continue;
        const auto member = object.constBegin();
        mapping.insert(member.key(), member.value().toString());
    }
    return mapping;
}

} // namespace detail
} // namespace zmldap
