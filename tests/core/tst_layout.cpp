// Records that cross into the companion library and into other programs keep
// their binary layout: sizes, member order and offsets are fixed at compile time.
#include "authdata.h"
#include "zelmora.h"
#include "zmldap.h"

#include <QtTest>

#include <cstddef>
#include <type_traits>

using zelmora::_INHERIT_DATA;
using zelmora::_ROLE_DATE_RESTRICTIONS;
using zelmora::KrbLoginResult;
using zelmora::LoginResult;
using zelmora::ObjectInfo;

static_assert(sizeof(QString) == 8 && sizeof(QDateTime) == 8 && sizeof(QHash<QString, QString>) == 8
                  && sizeof(QMap<unsigned int, _INHERIT_DATA>) == 8 && sizeof(QByteArray) == 8,
              "Qt value types are one pointer each on 64-bit Linux");

static_assert(sizeof(_INHERIT_DATA) == 32, "16 bytes of plain data, then two date-times");
static_assert(offsetof(_INHERIT_DATA, begin) == 16 && offsetof(_INHERIT_DATA, end) == 24, "");
static_assert(std::is_trivially_destructible<decltype(_INHERIT_DATA::objectId)>::value
                  && std::is_trivially_destructible<decltype(_INHERIT_DATA::objectType)>::value
                  && std::is_trivially_destructible<decltype(_INHERIT_DATA::flags)>::value,
              "the leading members need no clean-up");

static_assert(sizeof(ObjectInfo) == 56, "seven 8-byte members");
static_assert(offsetof(ObjectInfo, id) == 0, "member 1");
static_assert(offsetof(ObjectInfo, type) == 8, "member 2: type name");
static_assert(offsetof(ObjectInfo, parentId) == 16, "member 3");
static_assert(offsetof(ObjectInfo, params) == 24, "member 4: parameter map");
static_assert(offsetof(ObjectInfo, modified) == 32, "member 5");
static_assert(offsetof(ObjectInfo, inheritedFrom) == 40, "member 6");
static_assert(offsetof(ObjectInfo, inheritedBy) == 48, "member 7");
static_assert(sizeof(ObjectInfo::id) == 8 && std::is_trivially_destructible<decltype(ObjectInfo::id)>::value, "");
static_assert(sizeof(ObjectInfo::parentId) == 8
                  && std::is_trivially_destructible<decltype(ObjectInfo::parentId)>::value, "");
static_assert(std::is_same<decltype(ObjectInfo::type), QString>::value, "");
static_assert(std::is_same<decltype(ObjectInfo::params), QHash<QString, QString>>::value, "");
static_assert(std::is_same<decltype(ObjectInfo::modified), QDateTime>::value, "");
static_assert(std::is_same<decltype(ObjectInfo::inheritedFrom), QMap<unsigned int, _INHERIT_DATA>>::value, "");
static_assert(std::is_same<decltype(ObjectInfo::inheritedBy), QMap<unsigned int, _INHERIT_DATA>>::value, "");
static_assert(!std::is_polymorphic<ObjectInfo>::value, "no virtual table in the record");

static_assert(sizeof(_ROLE_DATE_RESTRICTIONS) == 16, "four 32-bit integers");
static_assert(offsetof(_ROLE_DATE_RESTRICTIONS, value1) == 0 && offsetof(_ROLE_DATE_RESTRICTIONS, value2) == 4
                  && offsetof(_ROLE_DATE_RESTRICTIONS, value3) == 8 && offsetof(_ROLE_DATE_RESTRICTIONS, value4) == 12,
              "");
static_assert(std::is_trivially_copyable<_ROLE_DATE_RESTRICTIONS>::value, "copied as a whole");
static_assert(sizeof(zelmora::RoleDateRestrictionsType) == 4, "32-bit area values");
static_assert(zelmora::AbsenceReasons == 0 && zelmora::EventLog == 1 && zelmora::WorkTimePlanning == 2, "");

static_assert(offsetof(LoginResult, result) == 0 && offsetof(LoginResult, userId) == 4, "members 1, 2");
static_assert(offsetof(LoginResult, login) == 8 && offsetof(LoginResult, message) == 16
                  && offsetof(LoginResult, roleTemplateId) == 24,
              "members 3, 4, 5");
static_assert(offsetof(LoginResult, flags) == 32 && offsetof(LoginResult, sessionId) == 40
                  && offsetof(LoginResult, serverVersion) == 48 && offsetof(LoginResult, reserved) == 56,
              "members 6 to 9");
static_assert(sizeof(LoginResult) == 64, "");
static_assert(std::is_same<decltype(LoginResult::result), qint32>::value
                  && std::is_same<decltype(LoginResult::flags), qint32>::value
                  && std::is_same<decltype(LoginResult::reserved), qint32>::value
                  && std::is_same<decltype(LoginResult::sessionId), QByteArray>::value,
              "");
static_assert(std::is_aggregate<LoginResult>::value && std::is_aggregate<KrbLoginResult>::value,
              "plain records with public members");

static_assert(offsetof(KrbLoginResult, token) == 0 && offsetof(KrbLoginResult, user) == 8
                  && sizeof(KrbLoginResult) == 16,
              "byte array, then text");

static_assert(offsetof(LDAPDefaults, authzid) == 0 && offsetof(LDAPDefaults, realm) == 8
                  && offsetof(LDAPDefaults, authcid) == 16 && offsetof(LDAPDefaults, passwd) == 24
                  && sizeof(LDAPDefaults) == 32,
              "the four SASL answers in their order");
static_assert(sizeof(zmldap::Scope) == 4 && zmldap::Base == 0 && zmldap::OneLevel == 1 && zmldap::Subtree == 2, "");
static_assert(std::has_virtual_destructor<ZMLDAP>::value && std::has_virtual_destructor<ZMLDAPObjectIterator>::value,
              "the directory facades are polymorphic only through their destructors");
static_assert(sizeof(ZMLDAP) == 16 && sizeof(ZMLDAPObjectIterator) == 16, "a virtual table pointer and the d-pointer");

class TestLayout : public QObject {
    Q_OBJECT
private slots:
    void objectInfoDefaultsAreEmpty();
    void aggregateRecordsInitialiseInDeclarationOrder();
};

void TestLayout::objectInfoDefaultsAreEmpty()
{
    ObjectInfo o;
    QVERIFY(o.type.isNull());
    QVERIFY(o.params.isEmpty());
    QVERIFY(o.inheritedFrom.isEmpty() && o.inheritedBy.isEmpty());
    QVERIFY(!o.modified.isValid());
}

void TestLayout::aggregateRecordsInitialiseInDeclarationOrder()
{
    LoginResult r{1, 2, QStringLiteral("3"), QStringLiteral("4"), QStringLiteral("5"), 6, QByteArray("7"),
                  QStringLiteral("8"), 9};
    QCOMPARE(r.login, QStringLiteral("3"));
    QCOMPARE(r.flags, 6);
    QCOMPARE(r.reserved, 9);
    _ROLE_DATE_RESTRICTIONS x{1, 2, 3, 4};
    QCOMPARE(x.value4, 4);
}

QTEST_GUILESS_MAIN(TestLayout)
#include "tst_layout.moc"
