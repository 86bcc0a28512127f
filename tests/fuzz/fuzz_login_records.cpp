// The stream readers of both login records, on any bytes, with the stream
// version and byte order that the input's first two bytes choose:
//   byte 0: the stream version (any value, known to Qt or not)
//   byte 1: bit 0 little-endian, bit 1 the Kerberos record
//   rest:   the stream
// A record read without error is written back with the same settings, and
// those bytes read back completely. From version 7 (Qt 4.0) on, where the
// stream tells null from empty for strings and byte arrays alike, they are
// exactly the bytes the record was read from and give the same record; older
// versions write a null string (before 4) or byte array (before 7) as an
// empty one, and version 1 also ends strings at a zero byte.
#include "fuzzcheck.h"

#include <zmlogin.h>

#include <QBuffer>
#include <QDataStream>

#include <cstddef>
#include <cstdint>

namespace {

// Equal values; with nulls, also null where the other is.
template <typename T>
bool equal(const T &a, const T &b, bool nulls)
{
    return a == b && (!nulls || a.isNull() == b.isNull());
}

bool same(const zelmora::LoginResult &a, const zelmora::LoginResult &b, bool nulls)
{
    return a.result == b.result && a.userId == b.userId && equal(a.login, b.login, nulls)
           && equal(a.message, b.message, nulls) && equal(a.roleTemplateId, b.roleTemplateId, nulls)
           && a.flags == b.flags && equal(a.sessionId, b.sessionId, nulls)
           && equal(a.serverVersion, b.serverVersion, nulls) && a.reserved == b.reserved;
}

bool same(const zelmora::KrbLoginResult &a, const zelmora::KrbLoginResult &b, bool nulls)
{
    return equal(a.token, b.token, nulls) && equal(a.user, b.user, nulls);
}

template <typename Record>
void check(const QByteArray &stream, int version, QDataStream::ByteOrder order)
{
    QDataStream in(stream);
    in.setVersion(version);
    in.setByteOrder(order);
    Record record;
    in >> record;
    if (in.status() != QDataStream::Ok)
        return;
    const qint64 consumed = in.device()->pos();
    FUZZ_CHECK(consumed >= 0 && consumed <= stream.size(), QString::number(consumed));

    QByteArray written;
    {
        QDataStream out(&written, QIODevice::WriteOnly);
        out.setVersion(version);
        out.setByteOrder(order);
        out << record;
        FUZZ_CHECK(out.status() == QDataStream::Ok, QString::number(out.status()));
    }
    const bool exact = version >= QDataStream::Qt_4_0;
    if (exact)
        FUZZ_CHECK(written == stream.left(int(consumed)),
                   fuzzcheck::visible(written) + QStringLiteral(" / ") + fuzzcheck::visible(stream.left(int(consumed))));

    QDataStream again(written);
    again.setVersion(version);
    again.setByteOrder(order);
    Record reread;
    again >> reread;
    FUZZ_CHECK(again.status() == QDataStream::Ok, QString::number(again.status()));
    FUZZ_CHECK(again.atEnd(), fuzzcheck::visible(written));
    if (version != 1)
        FUZZ_CHECK(same(record, reread, exact), fuzzcheck::visible(written));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const int version = data[0];
    const QDataStream::ByteOrder order = (data[1] & 1) ? QDataStream::LittleEndian : QDataStream::BigEndian;
    const QByteArray stream = QByteArray::fromRawData(reinterpret_cast<const char *>(data) + 2, int(size - 2));
    if (data[1] & 2)
        check<zelmora::KrbLoginResult>(stream, version, order);
    else
        check<zelmora::LoginResult>(stream, version, order);
    return 0;
}
