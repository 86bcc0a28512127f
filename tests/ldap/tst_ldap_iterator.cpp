// The object iterator against the realm: the search at construction (base,
// filter, scope, attribute list), entry unpacking with the attribute-to-field
// rule, the type read at unpacking time, and the end of iteration.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QtTest>

namespace {

const QHash<QString, QString> kNames{{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
                                     {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")},
                                     {QStringLiteral("mail"), QStringLiteral("PT_EMAIL")},
                                     {QStringLiteral("description"), QStringLiteral("PT_FIRST_WORD PT_REST")}};

} // namespace

class TestIterator : public QObject {
    Q_OBJECT

private:
    static QList<DirEntry> expectedEntries(const QByteArray &base, int scope, const QByteArray &filter,
                                           const QHash<QString, QString> &mapping = {})
    {
        QList<QByteArray> attributes;
        for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it)
            attributes.append(it.key().toUtf8());
        return ldapspy::readEntries(realmUri(), base, scope, filter, attributes);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the realm is not running (ZMAUTH_REALM_DIR)");
    }

    void init() { ldapspy::reset(); }

    void notConnected()
    {
        ZMLDAP ldap(searchSettings());
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), 0);
        QVERIFY(it.first().params.isEmpty());
        QVERIFY(it.next().params.isEmpty());
        QVERIFY(it.first().type.isEmpty());
        QVERIFY(ldapspy::searches().isEmpty());
        QVERIFY(log.records().isEmpty());
    }

    // Empty mapping: all attributes, each under its own name; the search as
    // made; every log record of a full walk, and the end.
    void emptyMappingFullWalk()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        const QList<DirEntry> entries = expectedEntries(realmBytes("BASE_DN"), LDAP_SCOPE_SUBTREE, kDefaultFilter.toUtf8());
        QCOMPARE(entries.size(), realmValue("FIXED_USER_COUNT").toInt());

        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, {});
        QCOMPARE(it.size(), entries.size());
        const SearchCall s = ldapspy::searches().value(0);
        QCOMPARE(s.base, realmBytes("BASE_DN"));
        QCOMPARE(s.filter, kDefaultFilter.toUtf8());
        QCOMPARE(s.scope, LDAP_SCOPE_SUBTREE);
        QVERIFY(s.allAttributes);
        QCOMPARE(s.attrsonly, 0);
        QVERIFY(!s.hasServerControls && !s.hasClientControls);
        QCOMPARE(s.timeoutSec, 30L);
        QCOMPARE(s.timeoutUsec, 0L);
        QCOMPARE(s.sizelimit, 0);

        QStringList expectedLog{ldbg(fn::iteratorCtor, QStringLiteral("Entries ") + QString::number(entries.size()))};
        const QList<zelmora::ObjectInfo> records = takeAll(it);
        QCOMPARE(records.size(), entries.size());
        for (int i = 0; i < entries.size(); ++i) {
            QCOMPARE(records[i].type, QStringLiteral("OT_USER"));
            QCOMPARE(records[i].params, expectedParams(entries[i], {}, true));
            expectedLog.append(entryLine());
            for (const DirAttribute &a : entries[i].attributes)
                expectedLog.append(attributeLine(a));
        }
        QCOMPARE(it.size(), entries.size());

        // The normal end is reported as an error, and frees the result.
        const int freedBefore = ldapspy::messagesFreed();
        const zelmora::ObjectInfo end = it.next();
        QVERIFY(end.params.isEmpty());
        QVERIFY(end.type.isEmpty());
        QCOMPARE(ldapspy::messagesFreed(), freedBefore + 1);
        expectedLog.append(lcrit(fn::next, QStringLiteral("ldap_next_entry error")));
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary), expectedLog);
        QVERIFY(fromLibrary);

        // Exhausted: silent empty records, no rewind, size unchanged.
        log.clear();
        QVERIFY(it.first().params.isEmpty());
        QVERIFY(it.next().params.isEmpty());
        QVERIFY(log.records().isEmpty());
        QCOMPARE(it.size(), entries.size());
        QCOMPARE(ldapspy::messagesFreed(), freedBefore + 1);
        QCOMPARE(ldapspy::nullEntryCalls(), 0);
    }

    // The fixed users, field by field.
    void mappedFields()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, kNames);
        const SearchCall s = ldapspy::searches().value(0);
        QVERIFY(!s.allAttributes);
        QList<QByteArray> requested = s.attributes;
        std::sort(requested.begin(), requested.end());
        QCOMPARE(requested, (QList<QByteArray>{"cn", "description", "mail", "sAMAccountName"}));
        // In the hash's own order.
        QList<QByteArray> hashOrder;
        for (auto i = kNames.constBegin(); i != kNames.constEnd(); ++i)
            hashOrder.append(i.key().toUtf8());
        QCOMPARE(s.attributes, hashOrder);

        QHash<QString, zelmora::ObjectInfo> byLogin;
        for (const zelmora::ObjectInfo &r : takeAll(it))
            byLogin.insert(r.params.value(QStringLiteral("PT_LOGIN")) + (byLogin.contains(r.params.value(QStringLiteral("PT_LOGIN"))) ? QStringLiteral("#2") : QString()), r);
        QCOMPARE(byLogin.size(), realmValue("FIXED_USER_COUNT").toInt());

        const QHash<QString, QString> alice = byLogin.value(QStringLiteral("alice")).params;
        QCOMPARE(alice.value(QStringLiteral("PT_SURNAME")), QStringLiteral("Smith"));
        QCOMPARE(alice.value(QStringLiteral("PT_NAME")), QStringLiteral("Alice"));
        QCOMPARE(alice.value(QStringLiteral("PT_PATRONYMIC")), QStringLiteral("Marie"));
        // Several values for one field: joined with ";".
        QCOMPARE(alice.value(QStringLiteral("PT_EMAIL")), QStringLiteral("alice@zmauth.test;alice.smith@zmauth.test"));
        QCOMPARE(alice.size(), 5);

        // One word over three fields: the others are stored empty.
        const QHash<QString, QString> bob = byLogin.value(QStringLiteral("bob")).params;
        QCOMPARE(bob.value(QStringLiteral("PT_SURNAME")), QStringLiteral("Jones"));
        QVERIFY(bob.contains(QStringLiteral("PT_NAME")));
        QCOMPARE(bob.value(QStringLiteral("PT_NAME")), QString());
        QVERIFY(bob.contains(QStringLiteral("PT_PATRONYMIC")));
        QCOMPARE(bob.value(QStringLiteral("PT_PATRONYMIC")), QString());
        // Joined with ";" first, split on blanks after: "x y" and "z".
        QCOMPARE(bob.value(QStringLiteral("PT_FIRST_WORD")), QStringLiteral("x"));
        QCOMPARE(bob.value(QStringLiteral("PT_REST")), QStringLiteral("y;z"));

        // Four words over three fields: the last takes the rest.
        const QHash<QString, QString> carol = byLogin.value(QStringLiteral("carol")).params;
        QCOMPARE(carol.value(QStringLiteral("PT_SURNAME")), QStringLiteral("Brown"));
        QCOMPARE(carol.value(QStringLiteral("PT_NAME")), QStringLiteral("Carol"));
        QCOMPARE(carol.value(QStringLiteral("PT_PATRONYMIC")), QStringLiteral("Ann Jr"));

        const QHash<QString, QString> ivan = byLogin.value(QStringLiteral("ivan")).params;
        QCOMPARE(ivan.value(QStringLiteral("PT_SURNAME")), QStringLiteral("Иванов"));
        QCOMPARE(ivan.value(QStringLiteral("PT_NAME")), QStringLiteral("Иван"));
        QCOMPARE(ivan.value(QStringLiteral("PT_PATRONYMIC")), QStringLiteral("Иванович"));

        const QHash<QString, QString> dave = byLogin.value(QStringLiteral("dave")).params;
        QCOMPARE(dave.value(QStringLiteral("PT_SURNAME")), QStringLiteral("Doe"));
        QCOMPARE(dave.value(QStringLiteral("PT_NAME")), QStringLiteral("Dave"));
        QCOMPARE(dave.value(QStringLiteral("PT_PATRONYMIC")), QString());
        QVERIFY(dave.contains(QStringLiteral("PT_PATRONYMIC")));
    }

    void unpackingRule_data()
    {
        QTest::addColumn<QStringList>("pairs");   // attribute, target, ...
        QTest::newRow("three fields") << QStringList{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")};
        QTest::newRow("repeated blanks") << QStringList{QStringLiteral("cn"), QStringLiteral("  A   B  ")};
        QTest::newRow("blank-padded single") << QStringList{QStringLiteral("sn"), QStringLiteral(" PT_SURNAME ")};
        QTest::newRow("empty target") << QStringList{QStringLiteral("sn"), QString::fromLatin1("")};
        QTest::newRow("blank target") << QStringList{QStringLiteral("sn"), QStringLiteral("   ")};
        QTest::newRow("two attributes one field, later wins")
            << QStringList{QStringLiteral("sn"), QStringLiteral("X"), QStringLiteral("givenName"), QStringLiteral("X")};
        QTest::newRow("case differs: under the empty key")
            << QStringList{QStringLiteral("samaccountname"), QStringLiteral("PT_LOGIN"), QStringLiteral("SN"), QStringLiteral("PT_SURNAME")};
        QTest::newRow("guid with zero byte") << QStringList{QStringLiteral("objectGUID"), QStringLiteral("PT_GUID")};
        QTest::newRow("five fields") << QStringList{QStringLiteral("description"), QStringLiteral("A B C D E")};
        QTest::newRow("unknown attribute") << QStringList{QStringLiteral("noSuchAttribute"), QStringLiteral("X")};
    }

    // Each mapping against the plain rule, entry by entry.
    void unpackingRule()
    {
        QFETCH(QStringList, pairs);
        QHash<QString, QString> mapping;
        for (int i = 0; i + 1 < pairs.size(); i += 2)
            mapping.insert(pairs[i], pairs[i + 1]);
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, mapping);
        const QList<DirEntry> entries = expectedEntries(realmBytes("BASE_DN"), LDAP_SCOPE_SUBTREE, kDefaultFilter.toUtf8(), mapping);
        const QList<zelmora::ObjectInfo> records = takeAll(it);
        QCOMPARE(records.size(), entries.size());
        for (int i = 0; i < entries.size(); ++i)
            QCOMPARE(records[i].params, expectedParams(entries[i], mapping, true));
    }

    void caseDiffersGoesUnderEmptyKey()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, {{QStringLiteral("samaccountname"), QStringLiteral("PT_LOGIN")}});
        const zelmora::ObjectInfo r = it.first();
        QCOMPARE(r.params.size(), 1);
        QVERIFY(r.params.contains(QString()));
        QVERIFY(!r.params.contains(QStringLiteral("PT_LOGIN")));
    }

    void zeroByteCut()
    {
        ZMLDAP ldap(searchSettings(QString(), QStringLiteral("(sAMAccountName=dave)")));
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, {});
        QCOMPARE(it.size(), 1);
        QCOMPARE(it.first().params.value(QStringLiteral("objectGUID")), QStringLiteral("ab"));
    }

    void typeReadAtUnpacking()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, kNames);
        QVERIFY(it.size() > 2);
        QCOMPARE(it.first().type, QStringLiteral("OT_USER"));
        ldap.setResultObjectType(QStringLiteral("OT_EMPLOYEE"));
        QCOMPARE(it.next().type, QStringLiteral("OT_EMPLOYEE"));
        ldap.setResultObjectType(QStringLiteral("OT_THIRD"));
        QCOMPARE(it.next().type, QStringLiteral("OT_THIRD"));
        // While the result is held, first() starts over.
        const zelmora::ObjectInfo again = it.first();
        QCOMPARE(again.type, QStringLiteral("OT_THIRD"));
    }

    void firstRestartsWhileHeld()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, kNames);
        const zelmora::ObjectInfo a = it.first();
        it.next();
        QCOMPARE(it.first().params, a.params);
        QCOMPARE(it.next().params.isEmpty(), false);
    }

    // next() before first(): the error path, without a null entry reaching libldap.
    void nextBeforeFirst()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, kNames);
        const int n = it.size();
        QVERIFY(n > 0);
        LogCapture log;
        const zelmora::ObjectInfo r = it.next();
        QVERIFY(r.params.isEmpty());
        QCOMPARE(lines(log), QStringList{lcrit(fn::next, QStringLiteral("ldap_next_entry error"))});
        QCOMPARE(ldapspy::nullEntryCalls(), 0);
        QCOMPARE(ldapspy::messagesFreed(), 1);
        log.clear();
        QVERIFY(it.first().params.isEmpty());
        QVERIFY(log.records().isEmpty());
        QCOMPARE(it.size(), n);
    }

    void scopes_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<int>("scope");
        QTest::addColumn<QString>("filter");
        QTest::addColumn<int>("ldapScope");
        QTest::newRow("base on an entry") << QStringLiteral("cn=Smith Alice Marie,") + realmValue("USERS_DN") << int(zmldap::Base) << kDefaultFilter << LDAP_SCOPE_BASE;
        QTest::newRow("one level under users") << realmValue("USERS_DN") << int(zmldap::OneLevel) << kDefaultFilter << LDAP_SCOPE_ONELEVEL;
        QTest::newRow("one level under base dn") << realmValue("BASE_DN") << int(zmldap::OneLevel) << QStringLiteral("(objectClass=*)") << LDAP_SCOPE_ONELEVEL;
        QTest::newRow("subtree") << realmValue("BASE_DN") << int(zmldap::Subtree) << kDefaultFilter << LDAP_SCOPE_SUBTREE;
        QTest::newRow("other value: subtree") << realmValue("BASE_DN") << 7 << kDefaultFilter << LDAP_SCOPE_SUBTREE;
        QTest::newRow("negative value: subtree") << realmValue("BASE_DN") << -1 << kDefaultFilter << LDAP_SCOPE_SUBTREE;
    }

    void scopes()
    {
        QFETCH(QString, base);
        QFETCH(int, scope);
        QFETCH(QString, filter);
        QFETCH(int, ldapScope);
        ZMLDAP ldap(searchSettings(base, filter));
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, static_cast<zmldap::Scope>(scope), kNames);
        QCOMPARE(ldapspy::searches().value(0).scope, ldapScope);
        const QList<DirEntry> entries = expectedEntries(base.toUtf8(), ldapScope, filter.toUtf8(), kNames);
        QVERIFY(!entries.isEmpty());
        QCOMPARE(it.size(), entries.size());
        const QList<zelmora::ObjectInfo> records = takeAll(it);
        for (int i = 0; i < entries.size(); ++i)
            QCOMPARE(records[i].params, expectedParams(entries[i], kNames, true));
    }

    // The two-argument constructor searches the subtree.
    void defaultScopeIsSubtree()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, {});
        QCOMPARE(ldapspy::searches().value(0).scope, LDAP_SCOPE_SUBTREE);
    }

    void noMatch()
    {
        ZMLDAP ldap(searchSettings(QString(), QStringLiteral("(sAMAccountName=nobody)")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), 0);
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, QStringLiteral("ldap_count_entries error"))});
        QCOMPARE(ldapspy::messagesFreed(), 1);
        log.clear();
        QVERIFY(it.first().params.isEmpty());
        QVERIFY(it.next().params.isEmpty());
        QVERIFY(log.records().isEmpty());
    }

    // A referral answer is not an error: it is counted (here: no entries).
    void referralBase()
    {
        ZMLDAP ldap(searchSettings(realmValue("REFERRAL_DN")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(ldapspy::searches().value(0).rc, LDAP_REFERRAL);
        QCOMPARE(it.size(), 0);
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, QStringLiteral("ldap_count_entries error"))});
    }

    void searchErrors_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("filter");
        QTest::addColumn<QString>("text");
        QTest::newRow("base outside the naming context") << QStringLiteral("dc=other,dc=test") << kDefaultFilter << QStringLiteral("ldap_search_ext_s error 20");
        QTest::newRow("filter refused") << realmValue("BASE_DN") << QStringLiteral("(objectClass=user") << QStringLiteral("ldap_search_ext_s error -7");
        QTest::newRow("empty attribute in filter") << realmValue("BASE_DN") << QStringLiteral("(=x)") << QStringLiteral("ldap_search_ext_s error -7");
        QTest::newRow("invalid base dn") << QStringLiteral("not a dn") << kDefaultFilter << QStringLiteral("ldap_search_ext_s error 22");
    }

    void searchErrors()
    {
        QFETCH(QString, base);
        QFETCH(QString, filter);
        QFETCH(QString, text);
        ZMLDAP ldap(searchSettings(base, filter));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), 0);
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, text)});
        QVERIFY(it.first().params.isEmpty());
        QCOMPARE(lines(log).size(), 1);
    }

    // Present-but-empty base and filter are sent as they are.
    void emptyBaseAndFilter()
    {
        ZMLDAP ldap(searchSettings(QString::fromLatin1(""), QString::fromLatin1("")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        ServerDisconnectScope libldapLoses;
        ZMLDAPObjectIterator it(&ldap, {});
        const SearchCall call = ldapspy::searches().value(0);
        QCOMPARE(call.base, QByteArray(""));
        QCOMPARE(call.filter, QByteArray(""));
        if (call.rc == LDAP_SUCCESS || call.rc == LDAP_REFERRAL) {
            takeAll(it);
        } else {
            QCOMPARE(it.size(), 0);
            QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, QStringLiteral("ldap_search_ext_s error ") + hexText(call.rc))});
        }
    }

    // Absent filter: the default; absent base: empty.
    void absentBaseAndFilter()
    {
        zelmora::ObjectInfo s = searchSettings();
        s.params.remove(QStringLiteral("PT_BASE_DN"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, {});
        QCOMPARE(ldapspy::searches().value(0).base, QByteArray(""));
        QCOMPARE(ldapspy::searches().value(0).filter, kDefaultFilter.toUtf8());
    }

    // Non-ASCII text is cut to as many bytes as it has UTF-16 units: base,
    // filter and requested attribute names alike.
    void nonAsciiCut()
    {
        zelmora::ObjectInfo s = searchSettings();
        const QString base = QStringLiteral("ou=отдел,") + realmValue("BASE_DN");
        const QString filter = QStringLiteral("(cn=Иванов Иван Иванович)");
        s.params.insert(QStringLiteral("PT_BASE_DN"), base);
        s.params.insert(QStringLiteral("PT_USER_FILTER"), filter);
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        const QString attribute = QStringLiteral("имя");
        ZMLDAPObjectIterator it(&ldap, {{attribute, QStringLiteral("PT_NAME")}});
        const SearchCall call = ldapspy::searches().value(0);
        QCOMPARE(call.base, base.toUtf8().left(base.size()));
        QCOMPARE(call.filter, filter.toUtf8().left(filter.size()));
        QCOMPARE(call.attributes, QList<QByteArray>{attribute.toUtf8().left(attribute.size())});
        QCOMPARE(it.size(), 0);
    }

    // Attribute names of any text in the mapping: requested as cut, harmless.
    void oddMappingKeys()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        const QHash<QString, QString> mapping{{QString::fromLatin1(""), QStringLiteral("A")},
                                              {QStringLiteral("a b"), QStringLiteral("B")},
                                              {QStringLiteral("x") + QChar(0) + QStringLiteral("y"), QStringLiteral("C")},
                                              {QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME")}};
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, mapping);
        const SearchCall call = ldapspy::searches().value(0);
        QCOMPARE(call.attributes.size(), mapping.size());
        takeAll(it);
    }

    // Destroying an iterator that holds a result releases it.
    void destroyWhileHeld()
    {
        ZMLDAP ldap(searchSettings());
        QCOMPARE(ldap.connect(), 0);
        {
            ZMLDAPObjectIterator it(&ldap, kNames);
            it.first();
            QCOMPARE(ldapspy::messagesFreed(), 0);
        }
        QCOMPARE(ldapspy::messagesFreed(), 1);
    }

    // The iterator borrows the session; a later failed connect() disconnects
    // the directory object, and the iterator then ends without touching libldap.
    void directoryDisconnectedUnderneath()
    {
        zelmora::ObjectInfo s = searchSettings();
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LDAP *first = ldapspy::initializedHandles().value(0);
        ZMLDAPObjectIterator it(&ldap, kNames);
        QVERIFY(it.size() > 1);
        s.params.insert(QStringLiteral("PT_METHOD"), QStringLiteral("2"));
        ldap.setSettings(s);
        QCOMPARE(ldap.connect(), -1);
        LogCapture log;
        QVERIFY(it.first().params.isEmpty());
        QCOMPARE(lines(log), QStringList{lcrit(fn::first, QStringLiteral("ldap_first_entry error"))});
        ldap_unbind_ext(first, nullptr, nullptr);
    }
};

QTEST_GUILESS_MAIN(TestIterator)
#include "tst_ldap_iterator.moc"
