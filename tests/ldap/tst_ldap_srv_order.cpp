// The order in which SRV records are tried (RFC 2782): by ascending
// priority; within a priority a draw weighted by the records' weights, in
// which a weight of 0 still has its small chance (and records that all weigh
// 0 are drawn evenly); a target of "." is no
// service at all. The look-up itself is tested on the test domain's DNS.
#include "servers_p.h"

#include <QtTest>

using zmldap::detail::SrvRecord;

namespace {

SrvRecord record(int priority, int weight, const char *target, int port = 389)
{
    SrvRecord r;
    r.priority = priority;
    r.weight = weight;
    r.port = port;
    r.target = target;
    return r;
}

std::vector<std::string> targets(const std::vector<SrvRecord> &records)
{
    std::vector<std::string> out;
    for (const SrvRecord &r : records)
        out.push_back(r.target);
    return out;
}

} // namespace

class TestSrvOrder : public QObject {
    Q_OBJECT

private slots:
    void lowerPriorityComesFirstWhateverTheWeight()
    {
        const std::vector<SrvRecord> in{record(20, 100, "c"), record(0, 0, "a"), record(10, 65535, "b")};
        for (int i = 0; i < 50; ++i)
            QCOMPARE(targets(zmldap::detail::orderSrv(in)), (std::vector<std::string>{"a", "b", "c"}));
    }

    void noServiceTargetIsDropped()
    {
        const std::vector<SrvRecord> in{record(0, 0, "."), record(1, 0, "dc1.example.test")};
        QCOMPARE(targets(zmldap::detail::orderSrv(in)), (std::vector<std::string>{"dc1.example.test"}));
    }

    void everyRecordOfAPriorityAppearsOnce()
    {
        const std::vector<SrvRecord> in{record(0, 10, "a"), record(0, 0, "b"), record(0, 30, "c"), record(0, 60, "d")};
        for (int i = 0; i < 50; ++i) {
            std::vector<std::string> got = targets(zmldap::detail::orderSrv(in));
            std::sort(got.begin(), got.end());
            QCOMPARE(got, (std::vector<std::string>{"a", "b", "c", "d"}));
        }
    }

    // Weights 90 and 10: the heavy record comes first in about 91 of 101
    // draws (RFC 2782 draws from 0 to the sum). 4000 draws; the band is more
    // than ten standard deviations wide on each side.
    void heavierRecordComesFirstMoreOften()
    {
        const std::vector<SrvRecord> in{record(0, 10, "light"), record(0, 90, "heavy")};
        int heavyFirst = 0;
        const int draws = 4000;
        for (int i = 0; i < draws; ++i)
            if (zmldap::detail::orderSrv(in).front().target == "heavy")
                ++heavyFirst;
        QVERIFY2(heavyFirst > draws * 80 / 100 && heavyFirst < draws * 97 / 100, qPrintable(QString::number(heavyFirst)));
    }

    // Only weight-0 records: each still comes first sometimes.
    void zeroWeightsAllGetTheirTurn()
    {
        const std::vector<SrvRecord> in{record(0, 0, "a"), record(0, 0, "b")};
        QSet<QString> firsts;
        for (int i = 0; i < 400 && firsts.size() < 2; ++i)
            firsts.insert(QString::fromStdString(zmldap::detail::orderSrv(in).front().target));
        QCOMPARE(firsts.size(), 2);
    }
};

QTEST_GUILESS_MAIN(TestSrvOrder)
#include "tst_ldap_srv_order.moc"
