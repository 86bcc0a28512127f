// The listing's value pool, built in from its source: repeated values share
// one copy, a field that does not repeat stops being pooled, and the pool's
// size cap counts the values of both its tables.
#include "records_p.h"

#include <QtTest>

using zmldap::detail::ValuePool;

namespace {

QByteArray valueBytes(int i)
{
    return "value-" + QByteArray::number(i);
}

} // namespace

class TestValuePool : public QObject {
    Q_OBJECT

private slots:
    void repeatedValuesShareOneCopy()
    {
        ValuePool pool;
        const QString a = pool.share(QStringLiteral("Production"));
        const QString b = pool.share(QString::fromUtf8("Production"));
        QCOMPARE(b, QStringLiteral("Production"));
        QCOMPARE(b.constData(), a.constData());

        const QByteArray bytes = QStringLiteral("Иван").toUtf8();
        const QString c = pool.shareBytes(bytes.constData(), bytes.size());
        const QString d = pool.shareBytes(bytes.constData(), bytes.size());
        QCOMPARE(d, QStringLiteral("Иван"));
        QCOMPARE(d.constData(), c.constData());
        QCOMPARE(pool.size(), size_t(2));
    }

    void emptyValuesAreNotPooled()
    {
        ValuePool pool;
        QCOMPARE(pool.share(QString::fromLatin1("")), QString::fromLatin1(""));
        QVERIFY(!pool.shareBytes("", 0).isNull());
        QCOMPARE(pool.size(), size_t(0));
    }

    // Logins: no value comes twice, so the pool gives up after one sample.
    void fieldThatDoesNotRepeatStopsAfterASample()
    {
        ValuePool pool;
        for (int i = 0; i < ValuePool::kSample - 1; ++i) {
            const QByteArray v = valueBytes(i);
            QCOMPARE(pool.shareBytes(v.constData(), v.size()), QString::fromLatin1(v));
        }
        QVERIFY(pool.isPooling());
        const QByteArray last = valueBytes(ValuePool::kSample);
        QCOMPARE(pool.shareBytes(last.constData(), last.size()), QString::fromLatin1(last));
        QVERIFY(!pool.isPooling());
        QCOMPARE(pool.size(), size_t(0));
    }

    // Every value comes twice, so the sample rule never stops the pool; the
    // cap does, whether the values came as bytes, as text or both.
    void capCountsBothTables_data()
    {
        QTest::addColumn<int>("everyNthAsText");
        QTest::newRow("all as bytes") << 0;
        QTest::newRow("all as text") << 1;
        QTest::newRow("every other as text") << 2;
    }

    void capCountsBothTables()
    {
        QFETCH(int, everyNthAsText);
        ValuePool pool;
        const int n = int(ValuePool::kMaxValues) + 100;
        size_t largest = 0;
        for (int i = 0; i < n; ++i) {
            const QByteArray v = valueBytes(i);
            const bool asText = everyNthAsText > 0 && i % everyNthAsText == 0;
            for (int twice = 0; twice < 2; ++twice) {
                const QString text = asText ? pool.share(QString::fromLatin1(v)) : pool.shareBytes(v.constData(), v.size());
                QCOMPARE(text, QString::fromLatin1(v));
            }
            largest = qMax(largest, pool.size());
        }
        QCOMPARE(largest, ValuePool::kMaxValues);
        QVERIFY(!pool.isPooling());
        QCOMPARE(pool.size(), size_t(0));
    }
};

QTEST_GUILESS_MAIN(TestValuePool)
#include "tst_ldap_value_pool.moc"
