// The attribute-to-field rule of the user listing on arbitrary entries: a
// mapping of arbitrary attribute names (some not even valid UTF-16) to
// arbitrary field texts, and entries whose attribute names and values are
// any bytes (zeros, invalid UTF-8, byte-order marks). The entries go through
// one AttributeTargets, as in a listing, so the value pools carry values from
// one entry to the next. After every attribute the record must hold what the
// rule gives, worked out here from the rule's own terms:
//   - a value is decoded as UTF-8 up to its first zero byte;
//   - the key is the mapping's value for the decoded name (the empty key for
//     a name it lacks, and for every name when the mapping is empty);
//   - a key of one field (or none) takes the values joined with ";";
//   - a key of several fields shares the words of the joined values, the
//     last field taking the rest joined with " ", fields without a word
//     stored empty;
//   - a later attribute replaces what an earlier one stored under a key.
#include "fuzzcheck.h"

#include "records_p.h"

#include <QStringList>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace zmldap::detail;

namespace {

// Bytes in a heap block of exactly their size, so that reading one byte too
// far is caught.
struct Exact {
    explicit Exact(const std::string &bytes)
        : data(new char[bytes.size()])
        , size(bytes.size())
    {
        std::memcpy(data.get(), bytes.data(), bytes.size());
    }
    std::unique_ptr<char[]> data;
    size_t size;
};

QString decodedValue(const std::string &bytes)
{
    const size_t zero = bytes.find('\0');
    const std::string text = zero == std::string::npos ? bytes : bytes.substr(0, zero);
    return QString::fromUtf8(text.data(), int(text.size()));
}

// The rule for one attribute, applied to the expected record.
void applyRule(QHash<QString, QString> &expected, const QHash<QString, QString> &mapping, const std::string &name,
               const std::vector<std::string> &values)
{
    const QString key = mapping.isEmpty() ? QString() : mapping.value(QString::fromUtf8(name.data(), int(name.size())));
    QStringList decoded;
    for (const std::string &value : values)
        decoded << decodedValue(value);
    const QString joined = decoded.join(QLatin1Char(';'));
    const QStringList fields = key.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (fields.size() < 2) {
        expected.insert(key, joined);
        return;
    }
    const QStringList words = joined.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const int last = fields.size() - 1;
    for (int i = 0; i < last; ++i)
        expected.insert(fields[i], i < words.size() ? words[i] : QString());
    expected.insert(fields[last], words.size() > last ? words.mid(last).join(QLatin1Char(' ')) : QString());
}

QString describe(const QHash<QString, QString> &record)
{
    QStringList pairs;
    for (auto it = record.constBegin(); it != record.constEnd(); ++it)
        pairs << fuzzcheck::visible(it.key()) + QStringLiteral("=") + fuzzcheck::visible(it.value());
    pairs.sort();
    return pairs.join(QStringLiteral(", "));
}

// A mapping key: UTF-8 text, or UTF-16 units as they come (lone surrogates
// included), which no attribute name can decode to.
QString mappingKey(FuzzedDataProvider &input)
{
    if (input.ConsumeBool()) {
        const std::string bytes = input.ConsumeRandomLengthString(24);
        return QString::fromUtf8(bytes.data(), int(bytes.size()));
    }
    const std::string units = input.ConsumeRandomLengthString(24);
    return QString(reinterpret_cast<const QChar *>(units.data()), int(units.size() / 2));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);

    QHash<QString, QString> mapping;
    std::vector<std::string> mappedNames;   // UTF-8 of the mapping's keys, for names that hit
    const int pairs = input.ConsumeIntegralInRange(0, 6);
    for (int i = 0; i < pairs; ++i) {
        const QString key = mappingKey(input);
        const std::string fields = input.ConsumeRandomLengthString(40);
        mapping.insert(key, QString::fromUtf8(fields.data(), int(fields.size())));
        const QByteArray utf8 = key.toUtf8();
        mappedNames.emplace_back(utf8.constData(), size_t(utf8.size()));
    }

    AttributeTargets targets(mapping);
    const int entries = input.ConsumeIntegralInRange(1, 4);
    for (int e = 0; e < entries && input.remaining_bytes() > 0; ++e) {
        QHash<QString, QString> record;
        QHash<QString, QString> expected;
        const int attributes = input.ConsumeIntegralInRange(0, 8);
        for (int a = 0; a < attributes; ++a) {
            std::string name;
            if (!mappedNames.empty() && input.ConsumeBool())
                name = mappedNames[input.ConsumeIntegralInRange<size_t>(0, mappedNames.size() - 1)];
            else
                name = input.ConsumeRandomLengthString(24);
            const int count = input.ConsumeIntegralInRange(0, 4);
            std::vector<std::string> values;
            for (int v = 0; v < count; ++v)
                values.push_back(input.ConsumeRandomLengthString(48));
            // The listing never stores an attribute without values.
            if (values.empty())
                continue;

            std::vector<Exact> blocks;
            blocks.reserve(values.size());
            for (const std::string &value : values)
                blocks.emplace_back(value);
            std::unique_ptr<berval[]> array(new berval[values.size()]);
            std::unique_ptr<berval *[]> list(new berval *[values.size() + 1]);
            for (size_t v = 0; v < values.size(); ++v) {
                array[v].bv_len = ber_len_t(blocks[v].size);
                array[v].bv_val = blocks[v].data.get();
                list[v] = &array[v];
            }
            list[values.size()] = nullptr;
            // Both ways libldap hands values out: a list of pointers, or an
            // array read in place.
            const ValueList valueList = input.ConsumeBool() ? ValueList(list.get(), int(values.size()))
                                                            : ValueList(array.get(), int(values.size()));

            const Exact nameBytes(name);
            storeAttribute(record, targets.find(nameBytes.data.get(), nameBytes.size), valueList);
            applyRule(expected, mapping, name, values);
            FUZZ_CHECK(record == expected, QStringLiteral("attribute ") + fuzzcheck::visible(QByteArray::fromStdString(name))
                                               + QStringLiteral("\n  got      ") + describe(record)
                                               + QStringLiteral("\n  expected ") + describe(expected));
        }
    }
    return 0;
}
