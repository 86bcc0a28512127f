#ifndef ZMLDAP_RECORDS_P_H
#define ZMLDAP_RECORDS_P_H

// Building object records from directory values: value decoding, the value
// pool that lets a listing's records share repeated values, and the field
// targets that an attribute mapping names.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringRef>
#include <QVector>

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <lber.h>

namespace zmldap {
namespace detail {

// The values of one attribute as libldap hands them out: the list of
// pointers that ldap_get_values_len makes, or the array of bervals that
// ldap_get_attribute_ber reads in place.
class ValueList {
public:
    ValueList() = default;
    ValueList(berval **list, int n)
        : m_list(list)
        , m_size(n)
    {
    }
    ValueList(berval *array, int n)
        : m_array(array)
        , m_size(n)
    {
    }

    int size() const { return m_size; }
    const berval *at(int i) const { return m_list ? m_list[i] : &m_array[i]; }

private:
    berval **m_list = nullptr;
    berval *m_array = nullptr;
    int m_size = 0;
};

// Length of a value up to its first zero byte: directory values are text here,
// binary ones included, so a GUID or a photo ends at its first zero.
int textLength(const berval *value);
// The value's text: its bytes up to the first zero, as UTF-8.
QString decodeValue(const berval *value);
// All values of one attribute as one text, joined with ";".
QString joinedValues(const ValueList &values);

// Keys of the lookup tables: bytes (an attribute name, a value's UTF-8 form)
// or text (UTF-16 units), viewed in storage that the table's entry owns.
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

// Directory values repeat across users: first names, departments, titles.
// While one field keeps repeating, the records of a listing share one copy of
// each of its values; a field that does not (logins, mail addresses) stops
// being pooled after a sample, and its pool is dropped. A pool also stops at
// kMaxValues values, counted over both of its tables.
class ValuePool {
public:
    static constexpr int kSample = 1024;
    static constexpr size_t kMaxValues = 65536;

    QString share(const QString &value);
    QString share(const QStringRef &value);
    // The text of one value given by its UTF-8 bytes: a repeated value is
    // found by its bytes, without decoding it again.
    QString shareBytes(const char *data, int len);

    // Values held, by text and by bytes.
    size_t size() const { return m_values.size() + m_bytes.size(); }
    bool isPooling() const { return m_on; }

private:
    const QString &hit(const QString &value);
    bool miss();

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

FieldTarget makeTarget(const QString &key, bool pooled = false);

// One field takes the joined values as they are. Several fields share the
// words of the joined values in order; the last field takes all remaining
// words, and fields left without a word are stored empty.
void storeValues(QHash<QString, QString> &params, FieldTarget &target, const QString &joined);

// Stores the values of one attribute by the target's rule; a single value
// of a pooled one-field target is looked up by its bytes.
void storeAttribute(QHash<QString, QString> &params, FieldTarget &target, const ValueList &values);

// The mapping of one listing, prepared once: attribute names are matched by
// their bytes as the server sends them, without decoding each name. With an
// empty mapping every attribute goes under the empty key.
class AttributeTargets {
public:
    explicit AttributeTargets(const QHash<QString, QString> &mapping);
    // The target of an attribute name given by its UTF-8 bytes.
    FieldTarget &find(const char *attribute, size_t len);

private:
    struct MappedAttribute {
        QByteArray name;     // UTF-8, as the server spells it
        FieldTarget target;
    };

    const QHash<QString, QString> &m_mapping;
    std::vector<MappedAttribute> m_attributes;
    std::unordered_map<BytesKey, size_t, BytesHash> m_index;
    FieldTarget m_unmapped;
    FieldTarget m_scratch;
};

// The mapping that the custom field setting ("PT_USER_CUSTOM_FIELDS_PARAMETER")
// holds: a JSON array of objects, each giving one pair by its first member in
// key order, a later pair for the same attribute winning. The text is read in
// the locale's 8-bit encoding; anything else contributes nothing, silently.
QHash<QString, QString> customFieldMapping(const QString &setting);

} // namespace detail
} // namespace zmldap

#endif // ZMLDAP_RECORDS_P_H
