// The optional page size ("PT_PAGE_SIZE") against a realm with 1,500 bulk
// users and a domain controller's limits (tests/realm: realm_capped): an
// unpaged search stops at 1000 entries, pages of up to 1000 run to the end.
// The reference is what ldapsearch -E pr=500/noprompt returns.
#include "ldapspy.h"
#include "ldaptest.h"
#include "zmldap.h"

#include <QProcess>
#include <QtTest>

#include <cstdio>

#include <lber.h>
#include <ldif.h>

using Mapping = QHash<QString, QString>;

namespace {

const Mapping kNames{{QStringLiteral("cn"), QStringLiteral("PT_SURNAME PT_NAME PT_PATRONYMIC")},
                     {QStringLiteral("sAMAccountName"), QStringLiteral("PT_LOGIN")},
                     {QStringLiteral("mail"), QStringLiteral("PT_EMAIL")},
                     {QStringLiteral("description"), QStringLiteral("PT_FIRST_WORD PT_REST")},
                     {QStringLiteral("objectGUID"), QStringLiteral("PT_GUID")}};

const char kMappingJson[] = R"([{"cn": "PT_SURNAME PT_NAME PT_PATRONYMIC"}, {"sAMAccountName": "PT_LOGIN"},)"
                            R"( {"mail": "PT_EMAIL"}, {"description": "PT_FIRST_WORD PT_REST"}, {"objectGUID": "PT_GUID"}])";

const int kServerPageLimit = 1000;

QString sizeLimitText()
{
    return QStringLiteral("ldap_search_ext_s error 4 ") + QString::fromUtf8(ldap_err2string(LDAP_SIZELIMIT_EXCEEDED));
}

QString listLine(const QString &filter, const Mapping &mapping)
{
    QString text;
    QDebug(&text) << "get user list" << realmValue("BASE_DN") << filter << mapping;
    return ldbg(fn::userList, text.trimmed());
}

zelmora::ObjectInfo pagedSettings(const QString &pageSize, const QString &filter = QString())
{
    zelmora::ObjectInfo s = searchSettings(QString(), filter);
    if (!pageSize.isNull())
        s.params.insert(zmldap::key::PAGE_SIZE, pageSize);
    return s;
}

// The entries ldapsearch returns with pages of 500, in its order: what any
// client that pages gets from this server. LDIF read with libldap's parser.
QList<DirEntry> ldapsearchEntries(const QString &base, const QString &filter, const QList<QByteArray> &attributes,
                                  QString *error)
{
    QStringList args{QStringLiteral("-x"), QStringLiteral("-LLL"), QStringLiteral("-o"), QStringLiteral("ldif-wrap=no"),
                     QStringLiteral("-E"), QStringLiteral("pr=500/noprompt"), QStringLiteral("-H"), realmValue("LDAP_URI"),
                     QStringLiteral("-b"), base, filter};
    for (const QByteArray &a : attributes)
        args.append(QString::fromUtf8(a));
    QProcess ldapsearch;
    ldapsearch.start(QStringLiteral("ldapsearch"), args);
    if (!ldapsearch.waitForFinished(60000) || ldapsearch.exitCode() != 0) {
        *error = QString::fromLocal8Bit(ldapsearch.readAllStandardError());
        return {};
    }
    QList<DirEntry> entries;
    const QList<QByteArray> records = ldapsearch.readAllStandardOutput().split('\n');
    QByteArray record;
    // Records are separated by empty lines; ldapsearch adds comments ("#")
    // for references and cookies even with -LLL.
    auto flush = [&]() {
        if (record.isEmpty())
            return;
        DirEntry entry;
        char *next = record.data();
        while (char *line = ldif_getline(&next)) {
            berval type;
            berval value;
            int freeValue = 0;
            if (ldif_parse_line2(line, &type, &value, &freeValue) != 0)
                continue;
            const QByteArray name(type.bv_val, int(type.bv_len));
            const QByteArray bytes(value.bv_val, int(value.bv_len));
            if (freeValue)
                ber_memfree(value.bv_val);
            if (name == "dn") {
                entry.dn = bytes;
                continue;
            }
            if (entry.attributes.isEmpty() || entry.attributes.last().name != name)
                entry.attributes.append(DirAttribute{name, {}});
            entry.attributes.last().values.append(bytes);
        }
        if (!entry.dn.isEmpty())
            entries.append(entry);
        record.clear();
    };
    for (const QByteArray &line : records) {
        if (line.isEmpty())
            flush();
        else if (!line.startsWith('#'))
            record += line + '\n';
    }
    flush();
    return entries;
}

QList<QByteArray> attributesOf(const Mapping &mapping)
{
    QList<QByteArray> names;
    for (auto it = mapping.constBegin(); it != mapping.constEnd(); ++it)
        names.append(it.key().toUtf8());
    return names;
}

// The page size and cookie a paged results control carries, read with liblber.
bool pageControlValue(const QByteArray &value, int *size, QByteArray *cookie)
{
    berval bv;
    bv.bv_len = ber_len_t(value.size());
    bv.bv_val = const_cast<char *>(value.constData());
    BerElement *ber = ber_init(&bv);
    if (!ber)
        return false;
    ber_int_t pageSize = -1;
    berval c = {0, nullptr};
    const bool ok = ber_scanf(ber, "{im}", &pageSize, &c) != LBER_ERROR;
    *size = int(pageSize);
    *cookie = QByteArray(c.bv_val, int(c.bv_len));
    ber_free(ber, 1);
    return ok;
}

} // namespace

class TestPaging : public QObject {
    Q_OBJECT

private:
    int m_users = 0;
    QList<DirEntry> m_reference;   // every user, in the server's order

    // The "Entries" records of a paged search of all users: pages of n, the
    // last one with the rest.
    static QStringList pageLines(const QString &function, int users, int n)
    {
        QStringList out;
        for (int left = users; left > 0; left -= n)
            out.append(ldbg(function, QStringLiteral("Entries ") + QString::number(qMin(n, left))));
        return out;
    }

    // Every page request: the same search with one non-critical paged
    // results control of size n, the first without a cookie, each later one
    // with the cookie the server gave.
    void checkPageRequests(int n, int pages, const QList<QByteArray> &attributes, int scope = LDAP_SCOPE_SUBTREE)
    {
        const QList<SearchCall> calls = ldapspy::pagedSearches();
        QCOMPARE(calls.size(), pages);
        QVERIFY(ldapspy::searches().isEmpty());
        for (int i = 0; i < calls.size(); ++i) {
            const SearchCall &c = calls[i];
            QCOMPARE(c.base, realmBytes("BASE_DN"));
            QCOMPARE(c.scope, scope);
            QCOMPARE(c.filter, kDefaultFilter.toUtf8());
            QCOMPARE(c.attributes, attributes);
            QCOMPARE(c.attrsonly, 0);
            QCOMPARE(c.controlOids, QList<QByteArray>{QByteArrayLiteral(LDAP_CONTROL_PAGEDRESULTS)});
            QCOMPARE(c.controlCritical, QList<bool>{false});
            QVERIFY(!c.hasClientControls);
            QCOMPARE(c.timeoutSec, 30L);
            QCOMPARE(c.timeoutUsec, 0L);
            QCOMPARE(c.sizelimit, 0);
            int size = -1;
            QByteArray cookie;
            QVERIFY(pageControlValue(c.controlValues.value(0), &size, &cookie));
            QCOMPARE(size, n);
            QCOMPARE(cookie.isEmpty(), i == 0);
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(RealmEnv::get().isValid(), "the capped realm is not running (ZMAUTH_REALM_DIR)");
        m_users = realmValue("FIXED_USER_COUNT").toInt() + realmValue("BULK_USERS").toInt();
        QVERIFY2(m_users > kServerPageLimit, "the realm needs more users than the server's page limit");
        QString error;
        m_reference = ldapsearchEntries(realmValue("BASE_DN"), kDefaultFilter, attributesOf(kNames), &error);
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(m_reference.size(), m_users);
    }

    void init() { ldapspy::reset(); }

    // Without a page size the search is the unpaged one, which this server
    // cuts at 1000 entries: the listing fails as for any failed search.
    void unpagedStopsAtServerLimit_data()
    {
        QTest::addColumn<QString>("pageSize");
        QTest::newRow("absent") << QString();
        QTest::newRow("empty") << QString::fromLatin1("");
        QTest::newRow("zero") << QStringLiteral("0");
        QTest::newRow("negative") << QStringLiteral("-500");
        QTest::newRow("not a number") << QStringLiteral("many");
        QTest::newRow("fraction") << QStringLiteral("500.5");
    }

    void unpagedStopsAtServerLimit()
    {
        QFETCH(QString, pageSize);
        ZMLDAP ldap(pagedSettings(pageSize));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list{zelmora::ObjectInfo()};
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 1);
        QCOMPARE(lines(log), (QStringList{listLine(kDefaultFilter, kNames), lcrit(fn::userList, sizeLimitText())}));
        QCOMPARE(ldapspy::searches().size(), 1);
        const SearchCall s = ldapspy::searches().first();
        QCOMPARE(s.rc, LDAP_SIZELIMIT_EXCEEDED);
        QVERIFY(!s.hasServerControls && !s.hasClientControls);
        QCOMPARE(s.timeoutSec, 30L);
        QVERIFY(ldapspy::pagedSearches().isEmpty());

        log.clear();
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), 0);
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, QStringLiteral("ldap_search_ext_s error 4"))});
        QVERIFY(ldapspy::pagedSearches().isEmpty());
    }

    // Every user, in the server's order, whatever the page size; the
    // caller's records stay in front.
    void pagedListingMatchesLdapsearch_data()
    {
        QTest::addColumn<int>("pageSize");
        QTest::newRow("500") << 500;
        QTest::newRow("1000, the server's limit") << 1000;
        QTest::newRow("7") << 7;
    }

    void pagedListingMatchesLdapsearch()
    {
        QFETCH(int, pageSize);
        ZMLDAP ldap(pagedSettings(QString::number(pageSize)));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        zelmora::ObjectInfo mine;
        mine.type = QStringLiteral("OT_MINE");
        QList<zelmora::ObjectInfo> list{mine};
        QVERIFY(ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 1 + m_users);
        QCOMPARE(list.first().type, QStringLiteral("OT_MINE"));
        for (int i = 0; i < m_users; ++i) {
            QCOMPARE(list[1 + i].type, QStringLiteral("OT_USER"));
            QCOMPARE(list[1 + i].params, expectedParams(m_reference[i], kNames, false));
        }
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary),
                 QStringList{listLine(kDefaultFilter, kNames)} + pageLines(fn::userList, m_users, pageSize));
        QVERIFY(fromLibrary);
        const int pages = (m_users + pageSize - 1) / pageSize;
        checkPageRequests(pageSize, pages, attributesOf(kNames));
        // Every message is released: each entry once it is a record, each
        // page's result, and the reference the server sends for the realm's
        // referral object.
        QCOMPARE(ldapspy::messagesFreed(), m_users + pages + 1);
    }

    void pagedListingFromTheJsonSetting()
    {
        zelmora::ObjectInfo s = pagedSettings(QStringLiteral("500"));
        s.params.insert(QStringLiteral("PT_USER_CUSTOM_FIELDS_PARAMETER"), QString::fromUtf8(kMappingJson));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        ldap.setResultObjectType(QStringLiteral("OT_EMPLOYEE"));
        QList<zelmora::ObjectInfo> list;
        QVERIFY(ldap.getUserList(list));
        QCOMPARE(list.size(), m_users);
        for (int i = 0; i < m_users; ++i) {
            QCOMPARE(list[i].type, QStringLiteral("OT_EMPLOYEE"));
            QCOMPARE(list[i].params, expectedParams(m_reference[i], kNames, false));
        }
        QCOMPARE(ldapspy::pagedSearches().size(), (m_users + 499) / 500);
    }

    // size() counts every page; first() and next() walk them in order with
    // the records of an unpaged walk, and the end is reported as ever.
    void pagedIteratorWalksEveryPage()
    {
        ZMLDAP ldap(pagedSettings(QStringLiteral("500")));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), m_users);
        QStringList expectedLog = pageLines(fn::iteratorCtor, m_users, 500);
        checkPageRequests(500, (m_users + 499) / 500, attributesOf(kNames));

        const QList<zelmora::ObjectInfo> records = takeAll(it);
        QCOMPARE(records.size(), m_users);
        for (int i = 0; i < m_users; ++i) {
            QCOMPARE(records[i].type, QStringLiteral("OT_USER"));
            QCOMPARE(records[i].params, expectedParams(m_reference[i], kNames, true));
            expectedLog.append(entryLine());
            for (const DirAttribute &a : m_reference[i].attributes)
                expectedLog.append(attributeLine(a));
        }
        QVERIFY(it.next().params.isEmpty());
        expectedLog.append(lcrit(fn::next, QStringLiteral("ldap_next_entry error")));
        bool fromLibrary = false;
        QCOMPARE(lines(log, &fromLibrary), expectedLog);
        QVERIFY(fromLibrary);
        QCOMPARE(it.size(), m_users);

        // Exhausted: silent empty records, no rewind.
        log.clear();
        QVERIFY(it.first().params.isEmpty());
        QVERIFY(it.next().params.isEmpty());
        QVERIFY(log.records().isEmpty());
    }

    void pagedIteratorRestartsAndKeepsScope()
    {
        zelmora::ObjectInfo s = pagedSettings(QStringLiteral("300"));
        s.params.insert(QStringLiteral("PT_BASE_DN"), realmValue("BULK_DN"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, zmldap::OneLevel, kNames);
        QCOMPARE(it.size(), realmValue("BULK_USERS").toInt());
        QCOMPARE(ldapspy::pagedSearches().value(0).scope, LDAP_SCOPE_ONELEVEL);
        const zelmora::ObjectInfo first = it.first();
        const zelmora::ObjectInfo second = it.next();
        QVERIFY(first.params != second.params);
        // first() again starts over, as while an unpaged result is held.
        QCOMPARE(it.first().params, first.params);
        QCOMPARE(it.next().params, second.params);
    }

    // next() before first() has no successor: the end, as unpaged.
    void pagedIteratorNextBeforeFirst()
    {
        ZMLDAP ldap(pagedSettings(QStringLiteral("500")));
        QCOMPARE(ldap.connect(), 0);
        ZMLDAPObjectIterator it(&ldap, kNames);
        LogCapture log;
        QVERIFY(it.next().params.isEmpty());
        QCOMPARE(lines(log), QStringList{lcrit(fn::next, QStringLiteral("ldap_next_entry error"))});
        QVERIFY(it.first().params.isEmpty());
        QCOMPARE(it.size(), m_users);
    }

    // A page larger than the server allows is refused: nothing is appended,
    // the iterator is empty.
    void pageAboveServerLimitFailsCleanly_data()
    {
        QTest::addColumn<int>("pageSize");
        QTest::newRow("1001") << kServerPageLimit + 1;
        QTest::newRow("5000") << 5000;
    }

    void pageAboveServerLimitFailsCleanly()
    {
        QFETCH(int, pageSize);
        ZMLDAP ldap(pagedSettings(QString::number(pageSize)));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list{zelmora::ObjectInfo()};
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(list.size(), 1);
        const QString code = QStringLiteral("ldap_search_ext_s error ") + hexText(LDAP_ADMINLIMIT_EXCEEDED);
        QCOMPARE(lines(log), (QStringList{listLine(kDefaultFilter, kNames),
                                          lcrit(fn::userList, code + QLatin1Char(' ') + QString::fromUtf8(ldap_err2string(LDAP_ADMINLIMIT_EXCEEDED)))}));
        log.clear();
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), 0);
        QCOMPARE(lines(log), QStringList{lcrit(fn::iteratorCtor, code)});
        QVERIFY(it.first().params.isEmpty());
    }

    // Nothing found is a failure, as unpaged, after the one empty page.
    void pagedNoMatch()
    {
        const QString filter = QStringLiteral("(sAMAccountName=nobody)");
        ZMLDAP ldap(pagedSettings(QStringLiteral("500"), filter));
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list, kNames));
        QVERIFY(list.isEmpty());
        QCOMPARE(lines(log), (QStringList{listLine(filter, kNames), ldbg(fn::userList, QStringLiteral("Entries 0")),
                                          lcrit(fn::userList, QStringLiteral("ldap_count_entries error"))}));
    }

    // A referral answer is an answer: no entries, so nothing found.
    void pagedReferralBase()
    {
        zelmora::ObjectInfo s = pagedSettings(QStringLiteral("500"));
        s.params.insert(QStringLiteral("PT_BASE_DN"), realmValue("REFERRAL_DN"));
        ZMLDAP ldap(s);
        QCOMPARE(ldap.connect(), 0);
        LogCapture log;
        QList<zelmora::ObjectInfo> list;
        QVERIFY(!ldap.getUserList(list, kNames));
        QCOMPARE(lines(log).mid(1), (QStringList{ldbg(fn::userList, QStringLiteral("Entries 0")),
                                                 lcrit(fn::userList, QStringLiteral("ldap_count_entries error"))}));
        ZMLDAPObjectIterator it(&ldap, kNames);
        QCOMPARE(it.size(), 0);
    }

    // The unpaged and the paged listing of the same users agree (below the
    // server's limit, where both work).
    void pagedEqualsUnpaged()
    {
        const QString filter = QStringLiteral("(&(objectClass=user)(objectCategory=person)(sAMAccountName=a*))");
        ZMLDAP unpaged(pagedSettings(QString(), filter));
        ZMLDAP paged(pagedSettings(QStringLiteral("10"), filter));
        QCOMPARE(unpaged.connect(), 0);
        QCOMPARE(paged.connect(), 0);
        QList<zelmora::ObjectInfo> a;
        QList<zelmora::ObjectInfo> b;
        QVERIFY(unpaged.getUserList(a, {}));
        QVERIFY(paged.getUserList(b, {}));
        QVERIFY(a.size() > 10);
        QCOMPARE(b.size(), a.size());
        for (int i = 0; i < a.size(); ++i)
            QCOMPARE(b[i].params, a[i].params);
    }
};

QTEST_GUILESS_MAIN(TestPaging)
#include "tst_ldap_paging.moc"
