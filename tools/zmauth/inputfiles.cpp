#include "inputfiles.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

namespace {

bool readFile(const QString &path, QByteArray &data, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    data = file.readAll();
    return true;
}

bool parseJson(const QString &path, const QByteArray &data, QJsonDocument &doc, QString *error)
{
    QJsonParseError parseError;
    doc = QJsonDocument::fromJson(data, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("%1 is not valid JSON: %2 at offset %3")
                     .arg(path, parseError.errorString())
                     .arg(parseError.offset);
        return false;
    }
    return true;
}

// A name as JSON writes it, quotes included: control characters come out
// escaped, so that a message stays one line whatever the file holds.
QString quoted(const QString &name)
{
    const QByteArray json = QJsonDocument(QJsonArray{name}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

} // namespace

bool loadSettings(const QString &path, zelmora::ObjectInfo &settings, QString *error)
{
    QByteArray data;
    return readFile(path, data, error) && parseSettings(data, path, settings, error);
}

bool parseSettings(const QByteArray &json, const QString &path, zelmora::ObjectInfo &settings, QString *error)
{
    QJsonDocument doc;
    if (!parseJson(path, json, doc, error))
        return false;
    if (!doc.isObject()) {
        *error = QStringLiteral("%1 must hold a JSON object of setting keys").arg(path);
        return false;
    }
    const QJsonObject object = doc.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QJsonValue value = it.value();
        QString text;
        switch (value.type()) {
        case QJsonValue::String:
            text = value.toString();
            break;
        case QJsonValue::Double:
            text = QString::number(value.toDouble(), 'g', 17);
            break;
        case QJsonValue::Array:
            text = QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
            break;
        case QJsonValue::Object:
            text = QString::fromUtf8(QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact));
            break;
        default:
            *error = QStringLiteral("%1: the value of %2 must be text").arg(path, quoted(it.key()));
            return false;
        }
        settings.params.insert(it.key(), text);
    }
    return true;
}

bool parseMapping(const QByteArray &json, FieldMapping &mapping, QString *error)
{
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("not valid JSON: %1 at offset %2")
                     .arg(parseError.errorString())
                     .arg(parseError.offset);
        return false;
    }
    if (!doc.isArray()) {
        *error = QStringLiteral("not a JSON array of {\"attribute\": \"FIELD ...\"} objects");
        return false;
    }
    const QJsonArray array = doc.array();
    for (int i = 0; i < array.size(); ++i) {
        const QJsonObject element = array.at(i).toObject();
        if (element.isEmpty()) {
            mapping.warnings << QStringLiteral("element %1 is not an object with a member; it maps nothing").arg(i);
            continue;
        }
        // QJsonObject keeps its members sorted by key, and the system takes
        // the first one.
        const QString attribute = element.begin().key();
        const QJsonValue value = element.begin().value();
        if (element.size() > 1)
            mapping.warnings << QStringLiteral("element %1 has %2 members; only %3 (first in key order) counts")
                                    .arg(i).arg(element.size()).arg(quoted(attribute));
        if (!value.isString())
            mapping.warnings << QStringLiteral("element %1: the value for %2 is not text; its values land under an empty field code")
                                    .arg(i).arg(quoted(attribute));
        if (mapping.pairs.contains(attribute))
            mapping.warnings << QStringLiteral("element %1 maps %2 again; this later one wins").arg(i).arg(quoted(attribute));
        const QString fields = value.toString();
        mapping.pairs.insert(attribute, fields);
        // Several codes are split on blanks; a single one is used as it stands.
        QStringList codes = fields.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (codes.size() <= 1)
            codes = QStringList{fields};
        for (const QString &code : codes) {
            if (!mapping.fieldOrder.contains(code))
                mapping.fieldOrder << code;
        }
    }
    return true;
}

bool loadMapping(const QString &path, FieldMapping &mapping, QString *error)
{
    QByteArray data;
    if (!readFile(path, data, error))
        return false;
    if (!parseMapping(data, mapping, error)) {
        *error = path + QStringLiteral(" is ") + *error;
        return false;
    }
    return true;
}
