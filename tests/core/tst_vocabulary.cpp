// Shared setting keys, the logging categories, the object record of the
// companion library and the library's version mark.
#include "authdata.h"
#include "zmlogging.h"
#include "zelmora.h"

#include <QRegularExpression>
#include <QtTest>

#include <dlfcn.h>

namespace {
struct MarkCall {
    int calls = 0;
    QString version, date, time;
} g_mark;
}

// Stands in front of the companion library's function to see exactly what
// the library hands it; the real function still builds the mark.
QString binVersionDateTimeToMark(QString version, QString date, QString time)
{
    ++g_mark.calls;
    g_mark.version = version;
    g_mark.date = date;
    g_mark.time = time;
    using Fn = QString (*)(QString, QString, QString);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "_Z24binVersionDateTimeToMark7QStringS_S_"));
    return real ? real(version, date, time) : QString();
}

class TestVocabulary : public QObject {
    Q_OBJECT
private slots:
    void settingKeysHaveTheSystemsTexts();
    void unusedDirectoryKeysAreDefinedToo();
    void fieldCodesHaveTheSystemsTexts();
    void categoriesHaveTheirExactNames();
    void categoryAccessorsReturnTheSameObject();
    void categoriesEnableEveryMessageTypeByDefault();
    void versionPassesVersionBuildDateAndTimeInCompilerForms();
    void versionIsStableWithinOneBuild();
    void missingSettingReadsAsNullString();
    void objectInfoCopiesKeepTypeAndParameters();
    void objectInfoDebugDumpShowsTypeAndParameters();
};

void TestVocabulary::settingKeysHaveTheSystemsTexts()
{
    QCOMPARE(db::system::ldap::HOST, QStringLiteral("PT_HOST"));
    QCOMPARE(db::system::ldap::PORT, QStringLiteral("PT_PORT"));
    QCOMPARE(db::system::ldap::USER, QStringLiteral("PT_USER"));
    QCOMPARE(db::system::ldap::USER_PASSWORD, QStringLiteral("PT_USER_PASSWORD"));
    QCOMPARE(db::system::ldap::AUTH_METHOD, QStringLiteral("PT_METHOD"));
    QCOMPARE(db::system::ldap::BASE_DN, QStringLiteral("PT_BASE_DN"));
    QCOMPARE(db::system::ldap::USER_FILTER, QStringLiteral("PT_USER_FILTER"));
    QCOMPARE(db::system::ldap::USER_ID_PARAMETER, QStringLiteral("PT_USER_ID_PARAMETER"));
    QCOMPARE(db::system::ldap::USER_CUSTOM_FIELDS_PARAMETER, QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"));
    QCOMPARE(db::system::USER, QStringLiteral("OT_USER"));
}

void TestVocabulary::unusedDirectoryKeysAreDefinedToo()
{
    QCOMPARE(db::system::ldap::NAME, QStringLiteral("PT_NAME"));
    QCOMPARE(db::system::ldap::EMPLOYEE_CUSTOM_FIELDS_PARAMETER, QStringLiteral("PT_EMPLOYEE_CUSTOM_FIELDS_PARAMETER"));
    QCOMPARE(db::system::ldap::DEFAULT_USER_ROLE_TEMPLATE, QStringLiteral("PT_DEFAULT_USER_ROLE_TEMPLATE"));
    QCOMPARE(db::system::ldap::DEFAULT_USER_IDENT_TYPE, QStringLiteral("PT_DEFAULT_USER_IDENT_TYPE"));
    QCOMPARE(db::system::ldap::SPN, QStringLiteral("PT_SPN"));
    QCOMPARE(db::system::ldap::ENABLE_SSO, QStringLiteral("PT_ENABLE_SSO"));
}

void TestVocabulary::fieldCodesHaveTheSystemsTexts()
{
    QCOMPARE(db::user::LOGIN, QStringLiteral("PT_LOGIN"));
    QCOMPARE(db::user::ROLE_TEMPLATE, QStringLiteral("PT_ROLETEMPLATE"));
    QCOMPARE(db::worker::LAST_NAME, QStringLiteral("PT_SURNAME"));
    QCOMPARE(db::worker::FIRST_NAME, QStringLiteral("PT_NAME"));
    QCOMPARE(db::worker::MIDDLE_NAME, QStringLiteral("PT_PATRONYMIC"));
    QCOMPARE(db::worker::WORKERNUM, QStringLiteral("PT_WORKERNUM"));
}

void TestVocabulary::categoriesHaveTheirExactNames()
{
    QCOMPARE(QByteArray(lauthc().categoryName()), QByteArray("platform.lib.zmauth"));
    QCOMPARE(QByteArray(ldapc().categoryName()), QByteArray("platform.lib.zmauth.ldap"));
    QCOMPARE(QByteArray(krbc().categoryName()), QByteArray("platform.lib.zmauth.kerberos"));
}

void TestVocabulary::categoryAccessorsReturnTheSameObject()
{
    QCOMPARE(&ldapc(), &ldapc());
    QCOMPARE(&lauthc(), &lauthc());
    QCOMPARE(&krbc(), &krbc());
    QVERIFY(&ldapc() != &krbc());
}

void TestVocabulary::categoriesEnableEveryMessageTypeByDefault()
{
    if (qEnvironmentVariableIsSet("QT_LOGGING_RULES"))
        QSKIP("QT_LOGGING_RULES is set for this run");
    for (const QLoggingCategory *c : {&lauthc(), &ldapc(), &krbc()}) {
        QVERIFY(c->isDebugEnabled());
        QVERIFY(c->isInfoEnabled());
        QVERIFY(c->isWarningEnabled());
        QVERIFY(c->isCriticalEnabled());
    }
}

void TestVocabulary::versionPassesVersionBuildDateAndTimeInCompilerForms()
{
    g_mark = MarkCall();
    const QString mark = getLibraryVersion_zmauth();
    QCOMPARE(g_mark.calls, 1);
    QCOMPARE(g_mark.version, QStringLiteral("1.0.0"));
    // "Jul 16 2026", "Jul  6 2026": month, day padded with a blank, year.
    QVERIFY2(QRegularExpression(QStringLiteral("^(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] [0-9]{4}$"))
                 .match(g_mark.date).hasMatch(),
             qPrintable(g_mark.date));
    QVERIFY2(QRegularExpression(QStringLiteral("^[0-2][0-9]:[0-5][0-9]:[0-6][0-9]$")).match(g_mark.time).hasMatch(),
             qPrintable(g_mark.time));
    // The library hands back what the companion library built, unchanged.
    using Fn = QString (*)(QString, QString, QString);
    Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "_Z24binVersionDateTimeToMark7QStringS_S_"));
    QVERIFY(real);
    QCOMPARE(mark, real(g_mark.version, g_mark.date, g_mark.time));
    QVERIFY(mark.startsWith(QStringLiteral("1.0.0")));
}

void TestVocabulary::versionIsStableWithinOneBuild()
{
    QCOMPARE(getLibraryVersion_zmauth(), getLibraryVersion_zmauth());
}

void TestVocabulary::missingSettingReadsAsNullString()
{
    zelmora::ObjectInfo settings;
    QVERIFY(settings.params.value(db::system::ldap::HOST).isNull());
    settings.params.insert(db::system::ldap::PORT, QStringLiteral("389"));
    QVERIFY(settings.params.value(db::system::ldap::HOST).isNull());
    QCOMPARE(settings.params.value(db::system::ldap::PORT), QStringLiteral("389"));
}

void TestVocabulary::objectInfoCopiesKeepTypeAndParameters()
{
    zelmora::ObjectInfo a;
    QVERIFY(a.type.isNull());
    QVERIFY(a.params.isEmpty());
    a.type = db::system::USER;
    a.params.insert(QStringLiteral("PT_LOGIN"), QStringLiteral("alice"));
    a.params.insert(QStringLiteral("PT_LOGIN"), QStringLiteral("alice2"));
    zelmora::ObjectInfo b(a);
    zelmora::ObjectInfo c;
    c = b;
    QCOMPARE(c.type, QStringLiteral("OT_USER"));
    QCOMPARE(c.params.size(), 1);
    QCOMPARE(c.params.value(QStringLiteral("PT_LOGIN")), QStringLiteral("alice2"));
}

void TestVocabulary::objectInfoDebugDumpShowsTypeAndParameters()
{
    zelmora::ObjectInfo a;
    a.type = QStringLiteral("OT_USER");
    a.params.insert(QStringLiteral("PT_HOST"), QStringLiteral("dc1"));
    QString text;
    QDebug(&text) << a;
    QVERIFY2(text.contains(QStringLiteral("OT_USER")) && text.contains(QStringLiteral("PT_HOST"))
                 && text.contains(QStringLiteral("dc1")),
             qPrintable(text));
}

QTEST_GUILESS_MAIN(TestVocabulary)
#include "tst_vocabulary.moc"
