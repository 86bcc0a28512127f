// Login records on a data stream: the exact bytes other programs of the
// system read and write, including the third member travelling seventh.
#include "zmlogin.h"

#include <QBuffer>
#include <QtTest>

namespace {
QByteArray write(const zelmora::LoginResult &r)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out << r;
    return bytes;
}

QByteArray write(const zelmora::KrbLoginResult &r)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out << r;
    return bytes;
}

void compareMembers(const zelmora::LoginResult &a, const zelmora::LoginResult &b)
{
    QCOMPARE(a.result, b.result);
    QCOMPARE(a.userId, b.userId);
    QCOMPARE(a.login, b.login);
    QCOMPARE(a.login.isNull(), b.login.isNull());
    QCOMPARE(a.message, b.message);
    QCOMPARE(a.message.isNull(), b.message.isNull());
    QCOMPARE(a.roleTemplateId, b.roleTemplateId);
    QCOMPARE(a.roleTemplateId.isNull(), b.roleTemplateId.isNull());
    QCOMPARE(a.flags, b.flags);
    QCOMPARE(a.sessionId, b.sessionId);
    QCOMPARE(a.sessionId.isNull(), b.sessionId.isNull());
    QCOMPARE(a.serverVersion, b.serverVersion);
    QCOMPARE(a.serverVersion.isNull(), b.serverVersion.isNull());
    QCOMPARE(a.reserved, b.reserved);
}

// Members 1 to 9 with every kind of value: null and empty strings, a byte
// array with a zero byte, negative and extreme integers.
zelmora::LoginResult sample()
{
    zelmora::LoginResult r;
    r.result = 1;
    r.userId = 2;
    r.login = QStringLiteral("L");
    r.message = QStringLiteral("M");
    r.roleTemplateId = QStringLiteral("");
    r.flags = -1;
    r.sessionId = QByteArray("\x01\x00", 2);
    r.serverVersion = QString::fromUtf8("Ё");
    r.reserved = -2147483647 - 1;
    return r;
}

// The encoding of sample(), value by value in stream order.
const QList<QByteArray> &sampleValues()
{
    static const QList<QByteArray> values = {
        QByteArray::fromHex("00000001"),         // member 1
        QByteArray::fromHex("00000002"),         // member 2
        QByteArray::fromHex("00000002004d"),     // member 4 "M"
        QByteArray::fromHex("00000000"),         // member 5, empty string
        QByteArray::fromHex("ffffffff"),         // member 6, -1
        QByteArray::fromHex("000000020100"),     // member 7, two bytes
        QByteArray::fromHex("00000002004c"),     // member 3 "L", seventh
        QByteArray::fromHex("000000020401"),     // member 8, U+0401
        QByteArray::fromHex("80000000"),         // member 9, INT_MIN
    };
    return values;
}
}

class TestLoginRecords : public QObject {
    Q_OBJECT
private slots:
    void nullMembersEncodeAsQtNullMarkers();
    void thirdMemberTravelsSeventh();
    void littleEndianStreamIsTheCallersChoice();
    void roundTripKeepsNullAndEmptyApart();
    void roundTripKeepsEveryValue();
    void streamCutAfterEachValueEndsPastEnd_data();
    void streamCutAfterEachValueEndsPastEnd();
    void streamEndingAfterFourthValueIsPastEnd();
    void garbageStreamDoesNotCrash();
    void operatorsChain();
    void krbRecordIsByteArrayThenString();
    void krbRecordNullAndEmpty();
    void krbRecordRoundTripAndTruncation();
};

void TestLoginRecords::nullMembersEncodeAsQtNullMarkers()
{
    zelmora::LoginResult r;
    r.result = 1;
    r.userId = 2;
    r.flags = 6;
    r.reserved = 9;
    QCOMPARE(write(r).toHex(),
             QByteArray("00000001"
                        "00000002"
                        "ffffffff"
                        "ffffffff"
                        "00000006"
                        "ffffffff"
                        "ffffffff"
                        "ffffffff"
                        "00000009"));
}

void TestLoginRecords::thirdMemberTravelsSeventh()
{
    QCOMPARE(write(sample()).toHex(), sampleValues().join().toHex());
}

void TestLoginRecords::littleEndianStreamIsTheCallersChoice()
{
    zelmora::LoginResult r;
    r.result = 1;
    r.userId = -2;
    r.login = QStringLiteral("A");
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out << r;
    QCOMPARE(bytes.toHex(), QByteArray("01000000"
                                       "feffffff"
                                       "ffffffff"
                                       "ffffffff"
                                       "00000000"
                                       "ffffffff"
                                       "020000004100"
                                       "ffffffff"
                                       "00000000"));
}

void TestLoginRecords::roundTripKeepsNullAndEmptyApart()
{
    zelmora::LoginResult r;
    r.login = QStringLiteral("");
    r.sessionId = QByteArray("");
    QByteArray bytes = write(r);
    zelmora::LoginResult back;
    back.message = QStringLiteral("stale");
    QDataStream in(bytes);
    in >> back;
    QCOMPARE(in.status(), QDataStream::Ok);
    QVERIFY(in.atEnd());
    compareMembers(back, r);
    QVERIFY(back.message.isNull());
    QVERIFY(!back.login.isNull());
    QVERIFY(!back.sessionId.isNull());
}

void TestLoginRecords::roundTripKeepsEveryValue()
{
    const zelmora::LoginResult r = sample();
    const QByteArray bytes = write(r);
    zelmora::LoginResult back;
    QDataStream in(bytes);
    in >> back;
    QCOMPARE(in.status(), QDataStream::Ok);
    QVERIFY(in.atEnd());
    compareMembers(back, r);
}

void TestLoginRecords::streamCutAfterEachValueEndsPastEnd_data()
{
    QTest::addColumn<int>("values");
    QTest::addColumn<int>("extraBytes");
    for (int n = 0; n < 9; ++n) {
        QTest::addRow("after %d values", n) << n << 0;
        // A cut inside the next value too: a length prefix or payload half read.
        QTest::addRow("after %d values and 2 bytes", n) << n << 2;
    }
}

void TestLoginRecords::streamCutAfterEachValueEndsPastEnd()
{
    QFETCH(int, values);
    QFETCH(int, extraBytes);
    QByteArray bytes;
    for (int i = 0; i < values; ++i)
        bytes += sampleValues().at(i);
    bytes += sampleValues().at(values).left(extraBytes);
    zelmora::LoginResult back;
    QDataStream in(bytes);
    in >> back;
    QCOMPARE(in.status(), QDataStream::ReadPastEnd);
    // What was read before the cut is filled, in stream order.
    const zelmora::LoginResult r = sample();
    if (values > 0) QCOMPARE(back.result, r.result);
    if (values > 1) QCOMPARE(back.userId, r.userId);
    if (values > 2) QCOMPARE(back.message, r.message);
    if (values > 3) QCOMPARE(back.roleTemplateId, r.roleTemplateId);
    if (values > 4) QCOMPARE(back.flags, r.flags);
    if (values > 5) QCOMPARE(back.sessionId, r.sessionId);
    if (values > 6) QCOMPARE(back.login, r.login);
    if (values > 7) QCOMPARE(back.serverVersion, r.serverVersion);
}

void TestLoginRecords::streamEndingAfterFourthValueIsPastEnd()
{
    QByteArray bytes;
    for (int i = 0; i < 4; ++i)
        bytes += sampleValues().at(i);
    QBuffer buffer(&bytes);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    QDataStream in(&buffer);
    zelmora::LoginResult back;
    in >> back;
    QCOMPARE(in.status(), QDataStream::ReadPastEnd);
    QCOMPARE(back.result, 1);
    QCOMPARE(back.userId, 2);
    QCOMPARE(back.message, QStringLiteral("M"));
    QCOMPARE(back.roleTemplateId, QStringLiteral(""));
}

void TestLoginRecords::garbageStreamDoesNotCrash()
{
    // Length prefixes that promise far more than the stream holds, odd
    // string lengths, and random bytes: the readers stop, never overrun.
    const QList<QByteArray> inputs = {
        QByteArray::fromHex("0000000100000002" "7ffffffe"),
        QByteArray::fromHex("0000000100000002" "00000003" "0041"),
        QByteArray::fromHex("0000000100000002" "ffffffff" "ffffffff" "00000000" "7fffffff" "00"),
        QByteArray(3, '\xff'),
        QByteArray(),
    };
    for (const QByteArray &bytes : inputs) {
        zelmora::LoginResult back;
        QDataStream in(bytes);
        in >> back;
        QVERIFY(in.status() != QDataStream::Ok);
    }
    QByteArray noise(4096, 0);
    quint32 seed = 12345;
    for (int round = 0; round < 200; ++round) {
        for (char &c : noise) {
            seed = seed * 1103515245u + 12345u;
            c = char(seed >> 24);
        }
        zelmora::LoginResult back;
        zelmora::KrbLoginResult krb;
        QDataStream in(noise.left(int(seed % 4096)));
        in >> back >> krb;
    }
}

void TestLoginRecords::operatorsChain()
{
    zelmora::LoginResult a = sample();
    zelmora::KrbLoginResult k{QByteArray("tok"), QStringLiteral("alice@ZMAUTH.TEST")};
    QByteArray bytes;
    {
        QDataStream out(&bytes, QIODevice::WriteOnly);
        out << a << k << qint32(77);
    }
    zelmora::LoginResult a2;
    zelmora::KrbLoginResult k2;
    qint32 tail = 0;
    QDataStream in(bytes);
    in >> a2 >> k2 >> tail;
    QCOMPARE(in.status(), QDataStream::Ok);
    compareMembers(a2, a);
    QCOMPARE(k2.token, k.token);
    QCOMPARE(k2.user, k.user);
    QCOMPARE(tail, 77);
}

void TestLoginRecords::krbRecordIsByteArrayThenString()
{
    zelmora::KrbLoginResult k{QByteArray("\x60\x00\x05", 3), QStringLiteral("u@R")};
    QCOMPARE(write(k).toHex(), QByteArray("00000003" "600005"
                                          "00000006" "007500400052"));
}

void TestLoginRecords::krbRecordNullAndEmpty()
{
    QCOMPARE(write(zelmora::KrbLoginResult{}).toHex(), QByteArray("ffffffff" "ffffffff"));
    QCOMPARE(write(zelmora::KrbLoginResult{QByteArray(""), QStringLiteral("")}).toHex(),
             QByteArray("00000000" "00000000"));
}

void TestLoginRecords::krbRecordRoundTripAndTruncation()
{
    const zelmora::KrbLoginResult k{QByteArray("\x00\xff\x10", 3), QString::fromUtf8("Иван@ZMAUTH.TEST")};
    const QByteArray bytes = write(k);
    zelmora::KrbLoginResult back;
    {
        QDataStream in(bytes);
        in >> back;
        QCOMPARE(in.status(), QDataStream::Ok);
        QCOMPARE(back.token, k.token);
        QCOMPARE(back.user, k.user);
    }
    for (int cut = 0; cut < bytes.size(); ++cut) {
        zelmora::KrbLoginResult partial;
        QDataStream in(bytes.left(cut));
        in >> partial;
        QCOMPARE(in.status(), QDataStream::ReadPastEnd);
        if (cut >= 7)
            QCOMPARE(partial.token, k.token);
    }
}

QTEST_GUILESS_MAIN(TestLoginRecords)
#include "tst_loginrecords.moc"
