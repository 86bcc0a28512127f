// Faults a real server does not produce, on real searches of the realm:
// ldap_count_entries reporting -1 or a count that does not match, a search
// code of 10 with entries, value lists that are missing or empty, and memory
// exhaustion while the base or filter buffer is made (a replaced operator
// new[] that fails on demand).
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

#include <cstdlib>
#include <new>

namespace {
// The next operator new[] of exactly this many bytes throws.
long g_failArraySize = -1;
int g_failedArrays = 0;
} // namespace

void *operator new[](std::size_t size)
{
    if (long(size) == g_failArraySize) {
        g_failArraySize = -1;
        ++g_failedArrays;
        throw std::bad_alloc();
    }
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}

void operator delete[](void *p) noexcept
{
    std::free(p);
}

void operator delete[](void *p, std::size_t) noexcept
{
    std::free(p);
}

namespace {

const QHash<QString, QString> kNames{{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
                                     {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")},
                                     {QStringLiteral("mail"), QStringLiteral("PT_EMAIL")}};

void failNextArrayOf(const QString &text)
{
    g_failedArrays = 0;
    g_failArraySize = long(text.size()) + 1;
}

} // namespace

class TestSearchFaults : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    void init()
    {
        ldapspy::reset();
        g_failArraySize = -1;
        g_failedArrays = 0;
    }

    // -1 is not tested for: the iterator keeps the result and walks it.
    void countMinusOneIterator()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceCountEntries(-1);
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), -1);
        QCOMPARE(lines(log), QStringList{ldbg(fn::iteratorCtor, QStringLiteral("Entries -1"))});
        QCOMPARE(ldapspy::messagesFreed(), 0);
        int taken = 0;
        for (zelmora::ObjectInfo r = it.first(); !r.params.isEmpty(); r = it.next())
            ++taken;
        QCOMPARE(taken, realmValue("FIXED_USER_COUNT").toInt());
        QCOMPARE(it.size(), -1);
        QCOMPARE(lines(log).last(), lcrit(fn::next, QStringLiteral("ldap_next_entry error")));
    }

    void countMinusOneCheckUser()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceCountEntries(-1);
        LogCapture log;
        QVERIFY(ldap.checkADUser(QStringLiteral("nobody")));
        QCOMPARE(lines(log).value(1), ldbg(fn::checkADUser, QStringLiteral("entries  -1")));
        QCOMPARE(lines(log).size(), 2);
    }

    // The listing walks every entry, never reaches -1, and fails at the end
    // with the records it made still in the list.
    void countMinusOneUserList()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceCountEntries(-1);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), realmValue("FIXED_USER_COUNT").toInt());
        QCOMPARE(lines(log).mid(1), (QStringList{ldbg(fn::userList, QStringLiteral("Entries -1")),
                                                 lcrit(fn::userList, QStringLiteral("ldap_*_entry error"))}));
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    void countBeyondEntries()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceCountEntries(100);
        LogCapture log;
        QList<zelmora::ObjectInfo> list{zelmora::ObjectInfo()};
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 1 + realmValue("FIXED_USER_COUNT").toInt());
        QCOMPARE(lines(log).last(), lcrit(fn::userList, QStringLiteral("ldap_*_entry error")));
    }

    // The listing stops, successfully, once it has taken the counted entries.
    void countBelowEntries()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceCountEntries(2);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 2);
        QCOMPARE(lines(log).last(), ldbg(fn::userList, QStringLiteral("Entries 2")));
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    // A referral code with entries counts and iterates like a success.
    void referralWithEntries()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceSearchRc(LDAP_REFERRAL);
        const int n = realmValue("FIXED_USER_COUNT").toInt();
        {
            LogCapture log;
            ZMLDAPObjectIterator it(&ldap, kNames);
            QCOMPARE(it.size(), n);
            QCOMPARE(lines(log), QStringList{ldbg(fn::iteratorCtor, QStringLiteral("Entries ") + QString::number(n))});
            QVERIFY(!it.first().params.isEmpty());
        }
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), n);
        QVERIFY(ldap.checkADUser(QStringLiteral("alice")));
    }

    // A failing code with a result: the result is released all the same.
    void failureWithResult()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::forceSearchRc(LDAP_SIZELIMIT_EXCEEDED);
        LogCapture log;
        {
            ZMLDAPObjectIterator it(&ldap, kNames);
            QCOMPARE(it.size(), 0);
        }
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list, kNames));
        QVERIFY(!ldap.checkADUser(QStringLiteral("alice")));
        QCOMPARE(ldapspy::messagesFreed(), 3);
        const QStringList out = lines(log);
        QVERIFY(out.contains(lcrit(fn::iteratorCtor, QStringLiteral("ldap_search_ext_s error 4"))));
        QVERIFY(out.contains(lcrit(fn::userList, QStringLiteral("ldap_search_ext_s error 4 Size limit exceeded"))));
        QVERIFY(out.contains(lcrit(fn::checkADUser, QStringLiteral("ldap_search_ext_s 4 Size limit exceeded"))));
    }

    // No list, or a list of zero values: no key for that attribute.
    void missingValues()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ldapspy::noValuesFor("mail");
        ldapspy::emptyValuesFor("cn");
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        const zelmora::ObjectInfo r = it.first();
        QCOMPARE(r.params.keys(), QStringList{QStringLiteral("PT_LOGIN")});
        // Only attributes with values are logged.
        for (const LogRecord &rec : log.records())
            QVERIFY(!rec.text.contains(QStringLiteral("\"cn\"")) && !rec.text.contains(QStringLiteral("\"mail\"")));
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list, kNames));
        for (const zelmora::ObjectInfo &rec : list)
            QCOMPARE(rec.params.keys(), QStringList{QStringLiteral("PT_LOGIN")});
        // An entry whose only requested attribute has no values: a record with no pairs.
        list.clear();
        ldapspy::emptyValuesFor("sAMAccountName");
        QVERIFY(ldap.getUserList(list, {{QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")}}));
        for (const zelmora::ObjectInfo &rec : list)
            QVERIFY(rec.params.isEmpty());
        QVERIFY(ldap.checkADUser(QStringLiteral("alice")));
    }

private:
    // Which of the two buffers (search base, filter) fails to be made.
    static void addBufferRows()
    {
        QTest::addColumn<bool>("filter");
        QTest::newRow("base") << false;
        QTest::newRow("filter") << true;
    }

    // A base and a filter whose buffer lengths no other array of the call has.
    static zelmora::ObjectInfo bufferFaultSettings()
    {
        return searchSettings(QStringLiteral("ou=users,") + realmValue("BASE_DN"),
                              QStringLiteral("(&(objectClass=user)(sAMAccountName=*)(sn=*)(mail=*))"));
    }

private slots:
    void allocationFailsCheckUser_data() { addBufferRows(); }

    void allocationFailsCheckUser()
    {
        QFETCH(bool, filter);
        // Lengths no other array of the call has.
        const QString base = QStringLiteral("ou=users,") + realmValue("BASE_DN");
        ZMLDAP ldap(searchSettings(base));
        QCOMPARE(ldap.connect(), 0);
        const QString user = QStringLiteral("a-rather-long-login-name");
        failNextArrayOf(filter ? QStringLiteral("(sAMAccountName=") + user + QLatin1Char(')') : base);
        LogCapture log;
        QVERIFY(!ldap.checkADUser(user));
        QCOMPARE(g_failedArrays, 1);
        QVERIFY(ldapspy::searches().isEmpty());
        const QString critical = lcrit(fn::checkADUser, QStringLiteral("ZMLDAPPrivate::checkLogin std::bad_alloc"));
        if (filter)
            QCOMPARE(lines(log).mid(1), QStringList{critical});
        else
            QCOMPARE(lines(log), QStringList{critical});
        // Nothing is left behind: the next check works.
        QVERIFY(ldap.checkADUser(QStringLiteral("alice")));
    }

    void allocationFailsIterator_data() { addBufferRows(); }

    void allocationFailsIterator()
    {
        QFETCH(bool, filter);
        const zelmora::ObjectInfo s = bufferFaultSettings();
        const QString base = s.params.value(QStringLiteral("PT_BASE_DN"));
        const QString userFilter = s.params.value(QStringLiteral("PT_USER_FILTER"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        failNextArrayOf(filter ? userFilter : base);
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(g_failedArrays, 1);
        QCOMPARE(it.size(), 0);
        QVERIFY(ldapspy::searches().isEmpty());
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, QStringLiteral("ZMLDAPPrivate::checkLogin std::bad_alloc"))});
        log.clear();
        QVERIFY(it.first().params.isEmpty());
        QVERIFY(it.next().params.isEmpty());
        QVERIFY(log.records().isEmpty());
    }

    void allocationFailsUserList_data() { addBufferRows(); }

    void allocationFailsUserList()
    {
        QFETCH(bool, filter);
        const zelmora::ObjectInfo s = bufferFaultSettings();
        const QString base = s.params.value(QStringLiteral("PT_BASE_DN"));
        const QString userFilter = s.params.value(QStringLiteral("PT_USER_FILTER"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        failNextArrayOf(filter ? userFilter : base);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list));
        QCOMPARE(g_failedArrays, 1);
        QVERIFY(list.isEmpty());
        QVERIFY(ldapspy::searches().isEmpty());
        // Before the "get user list" record: both buffers are made first.
        QCOMPARE(lines(log), QStringList{lcrit(fn::userList, QStringLiteral("ZMLDAPPrivate::getUserList std::bad_alloc"))});
        QVERIFY(ldap.getUserList(list, kNames));
    }
};

QTEST_GUILESS_MAIN(TestSearchFaults)
#include "tst_ldap_search_faults.moc"
