// The zmauth tool's mapping file reader on any bytes. It accepts exactly the
// JSON arrays; then its pairs are the ones the library reads from the same
// text in the custom field setting (the preview must show what an import
// does), its column order names every field code once and only codes that
// the file names, and it warns once for each oddity of each element, each
// warning one line. A refusal leaves the mapping empty.
#include "fuzzcheck.h"

#include "inputfiles.h"
#include "records_p.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QSet>
#include <QTextCodec>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    FieldMapping mapping;
    QString error;
    const bool ok = parseMapping(json, mapping, &error);

    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    FUZZ_CHECK(ok == (parseError.error == QJsonParseError::NoError && doc.isArray()), fuzzcheck::visible(json));
    if (!ok) {
        FUZZ_CHECK(!error.isEmpty(), fuzzcheck::visible(json));
        FUZZ_CHECK(mapping.pairs.isEmpty() && mapping.fieldOrder.isEmpty() && mapping.warnings.isEmpty(),
                   fuzzcheck::visible(json));
        return 0;
    }

    // The library reads the setting as text; the same bytes as text, where
    // the bytes are UTF-8 that survives the round trip.
    const QString text = QString::fromUtf8(json);
    if (text.toUtf8() == json) {
        const QHash<QString, QString> system = zmldap::detail::customFieldMapping(text);
        FUZZ_CHECK(mapping.pairs == system, fuzzcheck::visible(json));
    }

    QSet<QString> named;
    int oddities = 0;
    QSet<QString> seen;
    const QJsonArray array = doc.array();
    for (int i = 0; i < array.size(); ++i) {
        const QJsonObject element = array.at(i).toObject();
        if (element.isEmpty()) {
            ++oddities;
            continue;
        }
        // By iterating, as for the library's reader (see there).
        const QString attribute = element.constBegin().key();
        const QJsonValue value = element.constBegin().value();
        oddities += (element.size() > 1) + !value.isString() + seen.contains(attribute);
        seen.insert(attribute);
        const QString fields = value.toString();
        QStringList codes = fields.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (codes.size() <= 1)
            codes = QStringList{fields};
        for (const QString &code : codes)
            named.insert(code);
    }
    FUZZ_CHECK(mapping.warnings.size() == oddities, mapping.warnings.join(QLatin1Char('|')));
    for (const QString &warning : qAsConst(mapping.warnings))
        FUZZ_CHECK(!warning.contains(QLatin1Char('\n')) && !warning.contains(QLatin1Char('\r')), fuzzcheck::visible(warning));
    FUZZ_CHECK(QSet<QString>(mapping.fieldOrder.begin(), mapping.fieldOrder.end()) == named, fuzzcheck::visible(json));
    FUZZ_CHECK(mapping.fieldOrder.size() == named.size(), mapping.fieldOrder.join(QLatin1Char('|')));
    return 0;
}
