// Tagged password hashes as the system stores them. The expected digests were
// computed with another implementation (openssl dgst), not with Qt.
#include "zmlogin.h"

#include <QRegularExpression>
#include <QtTest>

using Algo = QCryptographicHash::Algorithm;

class TestPassHash : public QObject {
    Q_OBJECT
private slots:
    void knownAnswers_data();
    void knownAnswers();
    void emptyMd5PasswordIsTheDigestOfNothing();
    void cyrillicIoIsHashedAsItsTwoUtf8Bytes();
    void sha256HasNoTagButKeepsTheColon();
    void untaggedAlgorithmsStartWithAColon_data();
    void untaggedAlgorithmsStartWithAColon();
    void sameInputGivesSameString();
    void hexDigitsAreLowercase();
    void anyAlgorithmValueIsAccepted();
};

void TestPassHash::knownAnswers_data()
{
    QTest::addColumn<int>("algorithm");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("expected");

    const QString empty;
    const QString io = QString::fromUtf8("Ё");
    const QString word = QString::fromUtf8("Пароль");
    QTest::newRow("md4 empty") << int(Algo::Md4) << empty << "MD4:31d6cfe0d16ae931b73c59d7e0c089c0";
    QTest::newRow("md4 io") << int(Algo::Md4) << io << "MD4:3d9e41c985a8e7d70b1a2a35c42542cb";
    QTest::newRow("md4 cyrillic") << int(Algo::Md4) << word << "MD4:bfa0393171dde27b2456da003e46f0e5";
    QTest::newRow("md4 ascii") << int(Algo::Md4) << "password" << "MD4:8a9d093f14f8701df17732b2bb182c74";
    QTest::newRow("md5 empty") << int(Algo::Md5) << empty << "MD5:d41d8cd98f00b204e9800998ecf8427e";
    QTest::newRow("md5 io") << int(Algo::Md5) << io << "MD5:3bfc168ec290429f69b09718c697c0c2";
    QTest::newRow("md5 cyrillic") << int(Algo::Md5) << word << "MD5:5ebe553e01799a927b1d045924bbd4fd";
    QTest::newRow("md5 ascii") << int(Algo::Md5) << "password" << "MD5:5f4dcc3b5aa765d61d8327deb882cf99";
    QTest::newRow("sha1 empty") << int(Algo::Sha1) << empty << "SHA1:da39a3ee5e6b4b0d3255bfef95601890afd80709";
    QTest::newRow("sha1 io") << int(Algo::Sha1) << io << "SHA1:6802cc1c3022655a053fbb169efae027a218ff8f";
    QTest::newRow("sha1 cyrillic") << int(Algo::Sha1) << word << "SHA1:14f7c63cc1280f8f002ed45494ef2a6afe165805";
    QTest::newRow("sha1 ascii") << int(Algo::Sha1) << "password" << "SHA1:5baa61e4c9b93f3f0682250b6cf8331b7ee68fd8";
    QTest::newRow("sha3-256 empty") << int(Algo::Sha3_256) << empty
                                    << "SHA3_256:a7ffc6f8bf1ed76651c14756a061d662f580ff4de43b49fa82d80a4b80f8434a";
    QTest::newRow("sha3-256 io") << int(Algo::Sha3_256) << io
                                 << "SHA3_256:aa84ebca151c194793798512acd25418efb515fc48f4fe8e1f064de2cb9d506f";
    QTest::newRow("sha3-256 cyrillic") << int(Algo::Sha3_256) << word
                                       << "SHA3_256:1a3f38310c4ee4087fbec69d7afe678cd7fd11f66585049bbaf31d707dd01aea";
    QTest::newRow("sha3-256 ascii") << int(Algo::Sha3_256) << "password"
                                    << "SHA3_256:c0067d4af4e87f00dbac63b6156828237059172d1bbeac67427345d6a9fda484";
    QTest::newRow("sha256 empty") << int(Algo::Sha256) << empty
                                  << ":e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    QTest::newRow("sha256 io") << int(Algo::Sha256) << io
                               << ":220de4b87e4b46caebb8bdcc12f65f024debeead4e900eeda904b51b28ef5e88";
    QTest::newRow("sha256 cyrillic") << int(Algo::Sha256) << word
                                     << ":cb1a2074b3a027ffa7d7d9c54682c3835fffc7f6d620d8a38532f075cc2f17a0";
    QTest::newRow("sha256 ascii") << int(Algo::Sha256) << "password"
                                  << ":5e884898da28047151d0e56f8dc6292773603d0d6aabbdd62a11ef721d1542d8";
    QTest::newRow("sha512 empty")
        << int(Algo::Sha512) << empty
        << ":cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e";
    QTest::newRow("sha512 io")
        << int(Algo::Sha512) << io
        << ":4db2ab0ee70738e4cf5493b5ed6a13f05f58739854b98dcffbe0e64d06423cbd10e468d4f2255fc45e642222a3cd73ce7ffc306fa790c4590b765310ef6d12f4";
    QTest::newRow("sha512 cyrillic")
        << int(Algo::Sha512) << word
        << ":3ee66fe1f52eb226c608231fc4156b74e902f878ec3b0527ccc96ca6a4a746cffc35471f18a18383f62284355a90c2daf6491ab44183605b8992c6c4cddd12dd";
    QTest::newRow("sha512 ascii")
        << int(Algo::Sha512) << "password"
        << ":b109f3bbbc244eb82441917ed06d618b9008dd09b3befd1b5e07394c706a8bb980b1d7785e5976ec049b46df5f1326af5a2ea6d103fd07c95385ffab0cacbc86";
}

void TestPassHash::knownAnswers()
{
    QFETCH(int, algorithm);
    QFETCH(QString, password);
    QFETCH(QString, expected);
    QCOMPARE(PassHash::encrypt(password, Algo(algorithm)), expected);
}

void TestPassHash::emptyMd5PasswordIsTheDigestOfNothing()
{
    QCOMPARE(PassHash::encrypt(QString(), Algo::Md5), QStringLiteral("MD5:d41d8cd98f00b204e9800998ecf8427e"));
    QCOMPARE(PassHash::encrypt(QStringLiteral(""), Algo::Md5), QStringLiteral("MD5:d41d8cd98f00b204e9800998ecf8427e"));
}

void TestPassHash::cyrillicIoIsHashedAsItsTwoUtf8Bytes()
{
    const QString io(QChar(0x0401));
    QCOMPARE(io.toUtf8(), QByteArray("\xD0\x81"));
    const QByteArray digest = QCryptographicHash::hash(QByteArray("\xD0\x81"), Algo::Sha1).toHex();
    QCOMPARE(PassHash::encrypt(io, Algo::Sha1), QStringLiteral("SHA1:") + QString::fromLatin1(digest));
}

void TestPassHash::sha256HasNoTagButKeepsTheColon()
{
    const QString h = PassHash::encrypt(QStringLiteral("secret"), Algo::Sha256);
    QVERIFY2(QRegularExpression(QStringLiteral("^:[0-9a-f]{64}$")).match(h).hasMatch(), qPrintable(h));
}

void TestPassHash::untaggedAlgorithmsStartWithAColon_data()
{
    QTest::addColumn<int>("algorithm");
    QTest::addColumn<int>("hexDigits");
    QTest::newRow("Sha224") << int(Algo::Sha224) << 56;
    QTest::newRow("Sha384") << int(Algo::Sha384) << 96;
    QTest::newRow("Sha512") << int(Algo::Sha512) << 128;
    QTest::newRow("Keccak_256") << int(Algo::Keccak_256) << 64;
    QTest::newRow("Sha3_512") << int(Algo::Sha3_512) << 128;
    QTest::newRow("Sha3_224") << int(Algo::Sha3_224) << 56;
}

void TestPassHash::untaggedAlgorithmsStartWithAColon()
{
    QFETCH(int, algorithm);
    QFETCH(int, hexDigits);
    const QString h = PassHash::encrypt(QStringLiteral("x"), Algo(algorithm));
    QVERIFY2(QRegularExpression(QStringLiteral("^:[0-9a-f]{%1}$").arg(hexDigits)).match(h).hasMatch(), qPrintable(h));
}

void TestPassHash::sameInputGivesSameString()
{
    for (Algo a : {Algo::Md4, Algo::Md5, Algo::Sha1, Algo::Sha3_256, Algo::Sha256})
        QCOMPARE(PassHash::encrypt(QStringLiteral("same"), a), PassHash::encrypt(QStringLiteral("same"), a));
}

void TestPassHash::hexDigitsAreLowercase()
{
    // Over many inputs every hex letter a-f shows up; none may be uppercase.
    QString all;
    for (int i = 0; i < 64; ++i)
        all += PassHash::encrypt(QString::number(i), Algo::Md5).mid(4);
    QVERIFY(all.contains(QRegularExpression(QStringLiteral("[a-f]"))));
    QVERIFY(!all.contains(QRegularExpression(QStringLiteral("[A-F]"))));
}

void TestPassHash::anyAlgorithmValueIsAccepted()
{
    // 15 lies within the enumeration's range but names no algorithm Qt
    // knows: still the untagged form, whatever digest Qt gives, and no failure.
    const QString h = PassHash::encrypt(QStringLiteral("x"), Algo(15));
    QVERIFY2(QRegularExpression(QStringLiteral("^:[0-9a-f]*$")).match(h).hasMatch(), qPrintable(h));
}

QTEST_GUILESS_MAIN(TestPassHash)
#include "tst_passhash.moc"
