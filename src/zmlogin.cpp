#include "zmlogin.h"

QString PassHash::encrypt(const QString &password, QCryptographicHash::Algorithm algorithm)
{
    QString tag;
    switch (algorithm) {
    case QCryptographicHash::Md4: tag = QStringLiteral("MD4"); break;
    case QCryptographicHash::Md5: tag = QStringLiteral("MD5"); break;
    case QCryptographicHash::Sha1: tag = QStringLiteral("SHA1"); break;
    case QCryptographicHash::Sha3_256: tag = QStringLiteral("SHA3_256"); break;
    default:
        // Stored hashes of every other algorithm begin with a bare colon.
        break;
    }
    QCryptographicHash hash(algorithm);
    hash.addData(password.toUtf8());
    return tag + QLatin1Char(':') + QString::fromLatin1(hash.result().toHex());
}

// The third member travels seventh, after the session bytes: the system's
// programs have always exchanged it in this order.
QDataStream &operator<<(QDataStream &out, const zelmora::LoginResult &r)
{
    out << r.result << r.userId << r.message << r.roleTemplateId << r.flags << r.sessionId << r.login
        << r.serverVersion << r.reserved;
    return out;
}

QDataStream &operator>>(QDataStream &in, zelmora::LoginResult &r)
{
    in >> r.result >> r.userId >> r.message >> r.roleTemplateId >> r.flags >> r.sessionId >> r.login
        >> r.serverVersion >> r.reserved;
    return in;
}

QDataStream &operator<<(QDataStream &out, const zelmora::KrbLoginResult &r)
{
    out << r.token << r.user;
    return out;
}

QDataStream &operator>>(QDataStream &in, zelmora::KrbLoginResult &r)
{
    in >> r.token >> r.user;
    return in;
}
