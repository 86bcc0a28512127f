// The reader of the custom field mapping setting on any text. Whatever the
// text, it writes no log record, a text that is no JSON array maps nothing,
// and every pair it gives comes from an element of the array: an object whose
// first member in key order names the attribute, the last such element giving
// the value (a value that is no text giving the empty one).
#include "fuzzcheck.h"

#include "records_p.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextCodec>

#include <cstddef>
#include <cstdint>

using zmldap::detail::customFieldMapping;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The reader uses the locale's 8-bit encoding; a server runs in UTF-8.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    fuzzcheck::captureLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString setting = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    fuzzcheck::records().clear();
    const QHash<QString, QString> mapping = customFieldMapping(setting);
    FUZZ_CHECK(fuzzcheck::records().isEmpty(), fuzzcheck::records().first().text);

    const QJsonDocument doc = QJsonDocument::fromJson(setting.toLocal8Bit());
    if (!doc.isArray()) {
        FUZZ_CHECK(mapping.isEmpty(), fuzzcheck::visible(setting));
        return 0;
    }
    const QJsonArray array = doc.array();
    FUZZ_CHECK(mapping.size() <= array.size(), fuzzcheck::visible(setting));

    // Each element that is an object with members names its first member.
    // (Looked up by iterating: Qt drops a leading U+FEFF from a member name
    // it decodes, and then cannot find the member by that name.)
    QHash<QString, int> lastElement;
    for (int i = 0; i < array.size(); ++i) {
        const QJsonObject object = array.at(i).toObject();
        if (!object.isEmpty())
            lastElement.insert(object.constBegin().key(), i);
    }
    FUZZ_CHECK(mapping.size() == lastElement.size(), fuzzcheck::visible(setting));
    for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it) {
        FUZZ_CHECK(lastElement.contains(it.key()), fuzzcheck::visible(it.key()));
        const QJsonObject element = array.at(lastElement.value(it.key())).toObject();
        const QJsonValue value = element.constBegin().value();
        const QString expected = value.isString() ? value.toString() : QString();
        FUZZ_CHECK(it.value() == expected, fuzzcheck::visible(it.value()) + QStringLiteral(" / ") + fuzzcheck::visible(expected));
    }
    return 0;
}
