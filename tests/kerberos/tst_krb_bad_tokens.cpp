// 10,000 tokens that are no valid login, into one Service: real initiator
// tokens truncated at every length, real tokens with bits flipped, and random
// bytes (some behind a valid GSSAPI krb5 header, so that the mechanism's own
// reader gets them). Every one is rejected: status 0, no user, no token, and
// one "Accept sec context" warning; nothing crashes or leaks, and the same
// Service accepts a real login afterwards.
#include "krbtest.h"
#include "realmenv.h"

#include <zmkerberos.h>

#include <QRandomGenerator>
#include <QtTest>

namespace {

const int kTokens = 10000;

// The GSSAPI initial-token header of the krb5 mechanism up to its inner token
// id (AP-REQ), as every real first token starts: application tag, a short
// length, the mechanism's OID, then 01 00.
const zmkrb::token_t kKrb5Header{0x60, 0x82, 0x02, 0x00, 0x06, 0x09, 0x2a, 0x86, 0x48,
                                 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02, 0x01, 0x00};

// The first 15 bytes of a real token (header and mechanism) unchanged, but
// not the AP-REQ token id 01 00 after them.
bool wrongTokenId(const zmkrb::token_t &token, const std::vector<zmkrb::token_t> &seeds)
{
    if (token.size() < 17 || (token[15] == 0x01 && token[16] == 0x00))
        return false;
    for (const zmkrb::token_t &seed : seeds)
        if (seed.size() == token.size() && std::equal(seed.begin(), seed.begin() + 15, token.begin()))
            return true;
    return false;
}

zmkrb::token_t randomBytes(QRandomGenerator &random, int length)
{
    zmkrb::token_t out(size_t(length), 0);
    for (unsigned char &b : out)
        b = static_cast<unsigned char>(random.bounded(256));
    return out;
}

} // namespace

class KrbBadTokens : public QObject {
    Q_OBJECT

    const RealmEnv &env = RealmEnv::get();

private slots:
    void initTestCase() { QVERIFY2(env.isValid(), "the realm (ZMAUTH_REALM_DIR) is needed"); }
    void init() { krbtest::startRealmTest(); }
    void cleanup() { krbtest::endRealmTest(); }
    void cleanupTestCase()
    {
        const std::string problems = krbtest::finishProgram();
        QVERIFY2(problems.empty(), problems.c_str());
    }

    void everyBadTokenRejected()
    {
        // Real first tokens of three users.
        std::vector<zmkrb::token_t> seeds;
        for (const QString &user : {QStringLiteral("USER"), QStringLiteral("USER2"), QStringLiteral("CYR_USER")}) {
            seeds.push_back(krbtest::freshToken(env, user));
            QVERIFY(seeds.back().size() > 100);
        }

        // The Service as a server runs it: a ticket in the process's cache
        // and the keytab registered, so it holds a credential of its own.
        QVERIFY(krbtest::kinitUser(env));
        QVERIFY(zmkrb::Client(env.str("SERVICE_NAME")).setKTFile(env.str("SERVICE_KEYTAB")));
        zmkrb::Service service;
        QCOMPARE(krbtest::heldCredentials(), 1);

        std::vector<zmkrb::token_t> tokens;
        // Every truncation of every seed, the empty token included.
        for (const zmkrb::token_t &seed : seeds)
            for (size_t length = 0; length < seed.size(); ++length)
                tokens.emplace_back(seed.begin(), seed.begin() + long(length));
        const size_t truncated = tokens.size();

        QRandomGenerator random(20240615);
        // Half of the rest: one to eight bits flipped in a seed.
        const size_t flippedEnd = truncated + (kTokens - truncated) / 2;
        while (tokens.size() < flippedEnd) {
            zmkrb::token_t token = seeds[random.bounded(int(seeds.size()))];
            const int flips = 1 + int(random.bounded(8));
            for (int i = 0; i < flips; ++i)
                token[random.bounded(int(token.size()))] ^= static_cast<unsigned char>(1u << random.bounded(8));
            tokens.push_back(token);
        }
        // The rest: random bytes, every other one behind the krb5 header.
        while (tokens.size() < size_t(kTokens)) {
            zmkrb::token_t token = tokens.size() % 2 ? kKrb5Header : zmkrb::token_t();
            const zmkrb::token_t tail = randomBytes(random, 1 + int(random.bounded(1200)));
            token.insert(token.end(), tail.begin(), tail.end());
            tokens.push_back(token);
        }
        QCOMPARE(tokens.size(), size_t(kTokens));

        // The real tokens are used first, as their client did: a changed copy
        // of one is then a replay (the replay cache keys on the encrypted
        // authenticator, which a change outside it leaves as it was).
        for (const zmkrb::token_t &seed : seeds)
            QCOMPARE(service.acceptNew("peer", seed).status, 1);

        int failed = 0;
        int continued = 0;
        QString firstWrong;
        {
            LogCapture log;
            for (const zmkrb::token_t &token : tokens) {
                log.clear();
                const zmkrb::Result r = service.acceptNew("peer", token);
                const QList<LogRecord> records = log.records();
                bool clean = r.user.empty() && r.token.empty();
                if (r.status == 0) {
                    ++failed;
                    clean = clean && records.size() == 1 && records[0].type == QtWarningMsg
                        && records[0].category == QStringLiteral("platform.lib.zmauth.kerberos")
                        && records[0].text.startsWith(QStringLiteral("Accept sec context failed:\n\t"))
                        && records[0].text.count(QLatin1Char('\n')) == 2 && !wrongTokenId(token, seeds);
                } else {
                    // A whole krb5 header whose inner token id is not an
                    // AP-REQ's: MIT asks for another token instead of failing.
                    // No user, no reply, nothing logged, and the login cannot
                    // go on, since acceptContinue never finds a context.
                    ++continued;
                    clean = clean && r.status == 2 && records.isEmpty() && wrongTokenId(token, seeds)
                        && service.acceptContinue("peer", token).status == 0;
                }
                if (!clean && firstWrong.isEmpty())
                    firstWrong = QStringLiteral("token %1: status %2, user \"%3\", %4 reply bytes, log: %5")
                                     .arg(&token - tokens.data())
                                     .arg(r.status)
                                     .arg(QString::fromStdString(r.user))
                                     .arg(r.token.size())
                                     .arg(krbtest::visible(log.texts().join(QStringLiteral(" | "))));
            }
        }
        qInfo("%d tokens: %d truncated, %d with flipped bits, %d random; %d failed, %d answered continue-needed",
              kTokens, int(truncated), int(flippedEnd - truncated), int(kTokens - flippedEnd), failed, continued);
        QVERIFY2(firstWrong.isEmpty(), qPrintable(firstWrong));
        QCOMPARE(failed + continued, kTokens);

        // The Service is unharmed: a real login is accepted.
        const zmkrb::Result r = service.acceptNew("peer", krbtest::freshToken(env));
        QCOMPARE(r.status, 1);
        QCOMPARE(QString::fromStdString(r.user),
                 env.value(QStringLiteral("USER_NAME")) + QLatin1Char('@') + env.value(QStringLiteral("KRB5_REALM")));
    }
};

QTEST_GUILESS_MAIN(KrbBadTokens)
#include "tst_krb_bad_tokens.moc"
