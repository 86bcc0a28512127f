// The SASL defaults record and the field catalogues.
#include "zmldap.h"

#include <QByteArray>

#include <cstring>

namespace {

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

} // namespace

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
// Field catalogues
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

