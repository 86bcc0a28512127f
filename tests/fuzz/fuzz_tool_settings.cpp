// The zmauth tool's settings file reader on any bytes. It accepts exactly the
// JSON objects whose values are text, numbers, arrays or objects, and then
// holds every member as text that gives the member back: the string itself,
// the number exactly, the array or object as compact JSON. Keys that
// the file lacks keep what the record held before. A refusal is one line
// that names the file.
#include "fuzzcheck.h"

#include "inputfiles.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

#include <cstddef>
#include <cstdint>

namespace {
const QString kPath = QStringLiteral("settings.json");
const QString kKept = QStringLiteral("PT_KEPT");
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    zelmora::ObjectInfo settings;
    settings.params.insert(kKept, QStringLiteral("before"));
    QString error;
    const bool ok = parseSettings(json, kPath, settings, &error);

    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    bool acceptable = parseError.error == QJsonParseError::NoError && doc.isObject();
    const QJsonObject object = doc.object();
    for (auto it = object.begin(); acceptable && it != object.end(); ++it) {
        const QJsonValue::Type type = it.value().type();
        acceptable = type == QJsonValue::String || type == QJsonValue::Double || type == QJsonValue::Array
                     || type == QJsonValue::Object;
    }
    FUZZ_CHECK(ok == acceptable, fuzzcheck::visible(json) + QStringLiteral(" -> ") + error);
    if (!ok) {
        FUZZ_CHECK(error.startsWith(kPath), error);
        FUZZ_CHECK(!error.contains(QLatin1Char('\n')) && !error.contains(QLatin1Char('\r')), fuzzcheck::visible(error));
        return 0;
    }

    // Qt drops a leading U+FEFF from a name only after it has merged the
    // object's repeated names, so "\xEF\xBB\xBF" and "" can both stay in the
    // object as the same name. The setting then takes the later value.
    QHash<QString, QJsonValue> members;
    for (auto it = object.begin(); it != object.end(); ++it)
        members.insert(it.key(), it.value());
    // A byte order mark, raw or escaped, also changes a value between reads:
    // Qt drops one leading U+FEFF from a string without escapes but keeps it
    // when an escape follows, and writes it back raw.
    const bool marks = json.contains("\xEF\xBB\xBF") || json.toLower().contains("\\ufeff");
    // Names holding U+0000 are ordered one way when Qt reads them raw and
    // another when it reads them escaped, as it writes them: a nested object
    // with two such names comes back with its members swapped.
    const bool nulNames = json.contains('\0') || json.toLower().contains("\\u0000");
    FUZZ_CHECK(settings.params.size() == members.size() + (members.contains(kKept) ? 0 : 1), fuzzcheck::visible(json));
    if (!members.contains(kKept))
        FUZZ_CHECK(settings.params.value(kKept) == QLatin1String("before"), settings.params.value(kKept));
    for (auto it = members.cbegin(); it != members.cend(); ++it) {
        FUZZ_CHECK(settings.params.contains(it.key()), fuzzcheck::visible(it.key()));
        const QString text = settings.params.value(it.key());
        const QJsonValue value = it.value();
        switch (value.type()) {
        case QJsonValue::String:
            FUZZ_CHECK(text == value.toString(), fuzzcheck::visible(text));
            break;
        case QJsonValue::Double: {
            bool number = false;
            const double back = text.toDouble(&number);
            FUZZ_CHECK(number && back == value.toDouble(), fuzzcheck::visible(text));
            break;
        }
        default: {
            // The text is JSON of the same kind that reads back to itself,
            // byte for byte unless the file holds a mark or a name with
            // U+0000 (see above): such a value can lose a mark or a merged
            // member, or change its members' order, on every read.
            QJsonParseError textError;
            const QByteArray utf8 = text.toUtf8();
            const QJsonDocument inner = QJsonDocument::fromJson(utf8, &textError);
            FUZZ_CHECK(textError.error == QJsonParseError::NoError, fuzzcheck::visible(text));
            FUZZ_CHECK(inner.isArray() == value.isArray() && inner.isObject() == value.isObject(), fuzzcheck::visible(text));
            if (!marks && !nulNames)
                FUZZ_CHECK(inner.toJson(QJsonDocument::Compact) == utf8, fuzzcheck::visible(text));
            break;
        }
        }
    }
    return 0;
}
