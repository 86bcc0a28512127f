// The three field catalogues: every key and label, built once and shared.
#include "zmldap.h"

#include <QtTest>

class TestCatalogues : public QObject {
    Q_OBJECT

private slots:
    void userFields()
    {
        const QHash<QString, QString> expected{
            {QStringLiteral("PT_LOGIN"), QStringLiteral("Логин Zelmora-Studio")},
            {QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC"), QStringLiteral("ФИО")},
            {QStringLiteral("PT_SURNAME"), QStringLiteral("Фамилия")},
            {QStringLiteral("PT_NAME"), QStringLiteral("Имя")},
            {QStringLiteral("PT_PATRONYMIC"), QStringLiteral("Отчество")},
            {QStringLiteral("PT_ROLETEMPLATE"), QStringLiteral("Шаблон ролей")},
        };
        QCOMPARE(ZMLDAP::userDbValues().size(), 6);
        QCOMPARE(ZMLDAP::userDbValues(), expected);
        QCOMPARE(ZMLDAP::userDbValues().value(QStringLiteral("PT_LOGIN")),
                 QString::fromUtf8("\xD0\x9B\xD0\xBE\xD0\xB3\xD0\xB8\xD0\xBD Zelmora-Studio"));
        QCOMPARE(&ZMLDAP::userDbValues(), &ZMLDAP::userDbValues());
    }

    void employeeFields()
    {
        const QHash<QString, QString> expected{
            {QStringLiteral("PT_NAME"), QStringLiteral("Имя")},
            {QStringLiteral("PT_SURNAME"), QStringLiteral("Фамилия")},
            {QStringLiteral("PT_PATRONYMIC"), QStringLiteral("Отчество")},
            {QStringLiteral("PT_WORKERNUM"), QStringLiteral("Табельный номер")},
            {QStringLiteral("FIO"), QStringLiteral("ФИО")},
            {QStringLiteral("IOF"), QStringLiteral("Имя отчество фамилия")},
            {QStringLiteral("DEPARTMENT"), QStringLiteral("Подразделение")},
            {QStringLiteral("JOB"), QStringLiteral("Должность")},
            {QStringLiteral("CARD_10"), QStringLiteral("Карта: десятичный")},
            {QStringLiteral("CARD_16"), QStringLiteral("Карта: шестнадцатеричный")},
            {QStringLiteral("CARD_CODE"), QStringLiteral("Карта: семейство-код")},
            {QStringLiteral("PT_DATE_BEGIN"), QStringLiteral("Дата приема")},
            {QStringLiteral("PT_DATE_END"), QStringLiteral("Дата увольнения")},
            {QStringLiteral("PT_GENDER"), QStringLiteral("Пол")},
            {QStringLiteral("PT_BIRTHDAY"), QStringLiteral("Дата рождения")},
            {QStringLiteral("PT_DOC_TYPE"), QStringLiteral("Вид документа")},
            {QStringLiteral("PT_DOC_SERIES"), QStringLiteral("Серия документа")},
            {QStringLiteral("PT_DOC_NUMBER"), QStringLiteral("Номер документа")},
            {QStringLiteral("DOC_SN"), QStringLiteral("Серия и номер документа")},
            {QStringLiteral("PT_EMAIL"), QStringLiteral("Электронная почта")},
            {QStringLiteral("PT_PHONE"), QStringLiteral("Телефон")},
            {QStringLiteral("PT_PIN"), QStringLiteral("Пин-код")},
            {QStringLiteral("PHOTO_PATH"), QStringLiteral("Фотография")},
        };
        QCOMPARE(ZMLDAP::employeeDbValues().size(), 23);
        QCOMPARE(ZMLDAP::employeeDbValues(), expected);
        QVERIFY(!ZMLDAP::employeeDbValues().contains(QStringLiteral("PT_LOGIN")));
        QCOMPARE(&ZMLDAP::employeeDbValues(), &ZMLDAP::employeeDbValues());
    }

    void defaultAttributes()
    {
        const QHash<QString, QString> &ad = ZMLDAP::adDefaultValues();
        QCOMPARE(ad.size(), 5);
        QCOMPARE(ad.value(QStringLiteral("PT_LOGIN")), QStringLiteral("sAMAccountName"));
        QCOMPARE(ad.value(QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")), QStringLiteral("cn"));
        QCOMPARE(ad.value(QStringLiteral("PT_SURNAME")), QStringLiteral("sn"));
        QVERIFY(ad.contains(QStringLiteral("PT_NAME")));
        QVERIFY(ad.value(QStringLiteral("PT_NAME")).isEmpty());
        QVERIFY(!ad.value(QStringLiteral("PT_NAME")).isNull());
        QVERIFY(ad.contains(QStringLiteral("PT_PATRONYMIC")));
        QVERIFY(ad.value(QStringLiteral("PT_PATRONYMIC")).isEmpty());
        QVERIFY(!ad.contains(QStringLiteral("PT_ROLETEMPLATE")));
        QCOMPARE(&ZMLDAP::adDefaultValues(), &ad);
    }

    // A caller's copy is its own.
    void copiesAreIndependent()
    {
        QHash<QString, QString> copy = ZMLDAP::userDbValues();
        copy.clear();
        QCOMPARE(ZMLDAP::userDbValues().size(), 6);
    }
};

QTEST_GUILESS_MAIN(TestCatalogues)
#include "tst_ldap_catalogues.moc"
