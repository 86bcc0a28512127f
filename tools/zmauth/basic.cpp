// "version" and "hash": no server involved.
#include "cli.h"
#include "commands.h"
#include "password.h"

#include "authdata.h"
#include "zmlogin.h"

#include <QCryptographicHash>

#include <cstdio>

namespace {

struct AlgorithmName {
    const char *name;
    QCryptographicHash::Algorithm algorithm;
};

// The first four carry a tag in the stored form; the others are stored with
// a bare ":" in front of the digest.
const AlgorithmName kAlgorithms[] = {
    {"md4", QCryptographicHash::Md4},
    {"md5", QCryptographicHash::Md5},
    {"sha1", QCryptographicHash::Sha1},
    {"sha3-256", QCryptographicHash::RealSha3_256},
    {"sha224", QCryptographicHash::Sha224},
    {"sha256", QCryptographicHash::Sha256},
    {"sha384", QCryptographicHash::Sha384},
    {"sha512", QCryptographicHash::Sha512},
    {"sha3-224", QCryptographicHash::RealSha3_224},
    {"sha3-384", QCryptographicHash::RealSha3_384},
    {"sha3-512", QCryptographicHash::RealSha3_512},
    {"keccak-224", QCryptographicHash::Keccak_224},
    {"keccak-256", QCryptographicHash::Keccak_256},
    {"keccak-384", QCryptographicHash::Keccak_384},
    {"keccak-512", QCryptographicHash::Keccak_512},
};

QString algorithmList()
{
    QStringList names;
    for (const AlgorithmName &a : kAlgorithms)
        names << QString::fromLatin1(a.name);
    return names.join(QLatin1Char('|'));
}

} // namespace

int runVersion(const QStringList &args)
{
    const QString command = QStringLiteral("version");
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Prints the library's version mark: its version and when it was built."));
    const int parsed = parseCommandLine(parser, command, args);
    if (parsed >= 0)
        return parsed;
    std::printf("%s\n", getLibraryVersion_zmauth().toLocal8Bit().constData());
    return ExitOk;
}

int runHash(const QStringList &args)
{
    const QString command = QStringLiteral("hash");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Reads a password from standard input (one line; no echo on a terminal) and prints\n"
                       "the stored form of it: tag, \":\", lowercase hex digest of its UTF-8 bytes.\n"
                       "md4, md5, sha1 and sha3-256 carry a tag (MD4, MD5, SHA1, SHA3_256); the other\n"
                       "algorithms are stored with nothing before the colon. No salt: equal passwords\n"
                       "give equal strings.\n"
                       "Algorithms: md4, md5, sha1, sha3-256 (tagged); sha224, sha256, sha384, sha512,\n"
                       "sha3-224, sha3-384, sha3-512, keccak-224, keccak-256, keccak-384, keccak-512."));
    const QCommandLineOption algorithm(QStringList{QStringLiteral("a"), QStringLiteral("algorithm")},
                                       QStringLiteral("Digest algorithm (see above). Default: sha3-256."),
                                       QStringLiteral("NAME"), QStringLiteral("sha3-256"));
    parser.addOption(algorithm);
    const int parsed = parseCommandLine(parser, command, args, Positional::Allowed);
    if (parsed >= 0)
        return parsed;
    if (!parser.positionalArguments().isEmpty()) {
        printError(command, QStringLiteral("the password is read from standard input, not from the command line"));
        return ExitUsage;
    }

    QString name = parser.value(algorithm).toLower();
    name.replace(QLatin1Char('_'), QLatin1Char('-'));
    const AlgorithmName *chosen = nullptr;
    for (const AlgorithmName &a : kAlgorithms) {
        if (name == QLatin1String(a.name))
            chosen = &a;
    }
    if (!chosen) {
        printError(command, QStringLiteral("unknown algorithm '%1' (known: %2)").arg(parser.value(algorithm), algorithmList()));
        return ExitUsage;
    }

    const QByteArray password = readPassword("Password: ");
    std::printf("%s\n", qPrintable(PassHash::encrypt(QString::fromUtf8(password), chosen->algorithm)));
    return ExitOk;
}
