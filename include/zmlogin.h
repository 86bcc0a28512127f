#ifndef ZMLOGIN_H
#define ZMLOGIN_H

#include "zmauth_export.h"
#include "zelmora.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QString>

// Turns a password into the tagged hash string that the system stores:
// "MD4:", "MD5:", "SHA1:", "SHA3_256:" or a bare ":" for any other algorithm,
// then the lowercase hex digest of the password's UTF-8 bytes (no salt).
class ZMAUTH_EXPORT PassHash {
public:
    PassHash() = delete;
    static QString encrypt(const QString &password, QCryptographicHash::Algorithm algorithm);
};

// Login records on a data stream. The order on the wire is part of the login
// protocol; the caller sets the stream's version and byte order.
ZMAUTH_EXPORT QDataStream &operator<<(QDataStream &out, const zelmora::LoginResult &r);
ZMAUTH_EXPORT QDataStream &operator>>(QDataStream &in, zelmora::LoginResult &r);
ZMAUTH_EXPORT QDataStream &operator<<(QDataStream &out, const zelmora::KrbLoginResult &r);
ZMAUTH_EXPORT QDataStream &operator>>(QDataStream &in, zelmora::KrbLoginResult &r);

#endif // ZMLOGIN_H
