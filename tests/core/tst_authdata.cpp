// The process-wide session store. The first slot runs before any setter in
// this process, so it sees the store as the library was loaded.
#include "authdata.h"

#include <QtTest>

#include <dlfcn.h>

namespace {
zelmora::_ROLE_DATE_RESTRICTIONS restriction(qint32 a, qint32 b, qint32 c, qint32 d)
{
    return zelmora::_ROLE_DATE_RESTRICTIONS{a, b, c, d};
}

bool same(const zelmora::_ROLE_DATE_RESTRICTIONS &x, const zelmora::_ROLE_DATE_RESTRICTIONS &y)
{
    return x.value1 == y.value1 && x.value2 == y.value2 && x.value3 == y.value3 && x.value4 == y.value4;
}

bool allZero(const zelmora::_ROLE_DATE_RESTRICTIONS &x) { return same(x, restriction(0, 0, 0, 0)); }

// The store's table itself, reached through the library's exported static
// member, to see that lookups do not insert.
using RestrictionTable = QHash<zelmora::RoleDateRestrictionsType, zelmora::_ROLE_DATE_RESTRICTIONS>;
const RestrictionTable *restrictionTable()
{
    return static_cast<const RestrictionTable *>(dlsym(RTLD_DEFAULT, "_ZN8AuthData19m_date_restrictionsE"));
}
}

class TestAuthData : public QObject {
    Q_OBJECT
private slots:
    void storeStartsEmptyWithNullValues();
    void setUserSetsIdAndNameTogether();
    void groupsAccumulateAsParallelLists();
    void emptyRestrictionLookupReturnsZerosWithoutInserting();
    void restrictionIsStoredPerArea();
    void secondRestrictionForTheSameAreaReplacesTheFirst();
    void changingACopiedRoleListLeavesTheStore();
    void setRolesWithTheStoresOwnListKeepsIt();
    void singleValueSettersOverwrite();
};

void TestAuthData::storeStartsEmptyWithNullValues()
{
    QCOMPARE(AuthData::userId(), 0u);
    QVERIFY(AuthData::user().isNull());
    QVERIFY(AuthData::passwdHash().isNull());
    QVERIFY(AuthData::roletemplateId().isNull());
    QVERIFY(AuthData::serverVersion().isNull());
    QVERIFY(AuthData::sessionId().isNull());
    QVERIFY(AuthData::groupIds().isEmpty());
    QVERIFY(AuthData::groups().isEmpty());
    QVERIFY(AuthData::roles().isEmpty());
    QVERIFY(allZero(AuthData::absenceReasonsRestrictions()));
    QVERIFY(allZero(AuthData::eventLogRestrictions()));
    QVERIFY(allZero(AuthData::workTimePlanningRestrictions()));
}

void TestAuthData::setUserSetsIdAndNameTogether()
{
    AuthData::setUser(42, QStringLiteral("alice"));
    QCOMPARE(AuthData::userId(), 42u);
    QCOMPARE(AuthData::user(), QStringLiteral("alice"));
    AuthData::setUser(7, QString());
    QCOMPARE(AuthData::userId(), 7u);
    QVERIFY(AuthData::user().isNull());
}

void TestAuthData::groupsAccumulateAsParallelLists()
{
    AuthData::addGroup(7, QStringLiteral("A"));
    AuthData::addGroup(9, QStringLiteral("B"));
    QCOMPARE(AuthData::groupIds(), (QList<unsigned int>{7, 9}));
    QCOMPARE(AuthData::groups(), (QStringList{QStringLiteral("A"), QStringLiteral("B")}));
    // A second login in the same process appends; nothing clears the store.
    AuthData::addGroup(7, QStringLiteral("A"));
    QCOMPARE(AuthData::groupIds(), (QList<unsigned int>{7, 9, 7}));
    QCOMPARE(AuthData::groups(), (QStringList{QStringLiteral("A"), QStringLiteral("B"), QStringLiteral("A")}));
}

void TestAuthData::emptyRestrictionLookupReturnsZerosWithoutInserting()
{
    const RestrictionTable *table = restrictionTable();
    QVERIFY(table);
    QCOMPARE(table->size(), 0);
    QVERIFY(allZero(AuthData::eventLogRestrictions()));
    QVERIFY(allZero(AuthData::absenceReasonsRestrictions()));
    QVERIFY(allZero(AuthData::workTimePlanningRestrictions()));
    QCOMPARE(table->size(), 0);
    const auto r = restriction(1, 2, 3, 4);
    AuthData::setRestrictions(zelmora::EventLog, r);
    QVERIFY(same(AuthData::eventLogRestrictions(), r));
    QVERIFY(allZero(AuthData::absenceReasonsRestrictions()));
    QVERIFY(allZero(AuthData::workTimePlanningRestrictions()));
    QCOMPARE(table->size(), 1);
    QVERIFY(table->contains(zelmora::EventLog));
}

void TestAuthData::restrictionIsStoredPerArea()
{
    AuthData::setRestrictions(zelmora::AbsenceReasons, restriction(-1, 0, 5, 6));
    AuthData::setRestrictions(zelmora::WorkTimePlanning, restriction(10, 20, 30, 40));
    QVERIFY(same(AuthData::absenceReasonsRestrictions(), restriction(-1, 0, 5, 6)));
    QVERIFY(same(AuthData::workTimePlanningRestrictions(), restriction(10, 20, 30, 40)));
    QVERIFY(same(AuthData::eventLogRestrictions(), restriction(1, 2, 3, 4)));
}

void TestAuthData::secondRestrictionForTheSameAreaReplacesTheFirst()
{
    AuthData::setRestrictions(zelmora::EventLog, restriction(9, 9, 9, 9));
    AuthData::setRestrictions(zelmora::EventLog, restriction(8, 7, 6, 5));
    QVERIFY(same(AuthData::eventLogRestrictions(), restriction(8, 7, 6, 5)));
}

void TestAuthData::changingACopiedRoleListLeavesTheStore()
{
    AuthData::setRoles({QStringLiteral("admin"), QStringLiteral("viewer")});
    QStringList copy = AuthData::roles();
    copy.append(QStringLiteral("intruder"));
    copy[0] = QStringLiteral("changed");
    QCOMPARE(AuthData::roles(), (QStringList{QStringLiteral("admin"), QStringLiteral("viewer")}));
}

void TestAuthData::setRolesWithTheStoresOwnListKeepsIt()
{
    const QStringList same = AuthData::roles();
    AuthData::setRoles(same);
    QCOMPARE(AuthData::roles(), (QStringList{QStringLiteral("admin"), QStringLiteral("viewer")}));
    AuthData::setRoles({});
    QVERIFY(AuthData::roles().isEmpty());
}

void TestAuthData::singleValueSettersOverwrite()
{
    AuthData::setPasswdHash(QStringLiteral("MD5:d41d8cd98f00b204e9800998ecf8427e"));
    AuthData::setPasswdHash(QStringLiteral("SHA1:da39a3ee5e6b4b0d3255bfef95601890afd80709"));
    QCOMPARE(AuthData::passwdHash(), QStringLiteral("SHA1:da39a3ee5e6b4b0d3255bfef95601890afd80709"));
    AuthData::setSessionId(QByteArray("\x00\x01\xff", 3));
    QCOMPARE(AuthData::sessionId(), QByteArray("\x00\x01\xff", 3));
    AuthData::setSessionId(QByteArray(""));
    QVERIFY(!AuthData::sessionId().isNull());
    QVERIFY(AuthData::sessionId().isEmpty());
    AuthData::setRoletemplateId(QStringLiteral("12"));
    QCOMPARE(AuthData::roletemplateId(), QStringLiteral("12"));
    AuthData::setServerVersion(QStringLiteral("6.0.1"));
    AuthData::setServerVersion(QStringLiteral("6.0.2"));
    QCOMPARE(AuthData::serverVersion(), QStringLiteral("6.0.2"));
}

QTEST_GUILESS_MAIN(TestAuthData)
#include "tst_authdata.moc"
