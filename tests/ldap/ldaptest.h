#ifndef ZMAUTH_TEST_LDAPTEST_H
#define ZMAUTH_TEST_LDAPTEST_H

// Shared helpers of the directory tests: settings records for the realm, the
// function names the library's records carry, and a one-line form of a log
// record so that whole sequences can be compared.

#include "ldapspy.h"
#include "logcapture.h"
#include "realmenv.h"
#include "zelmora.h"
#include "zmldap.h"

#include <QDebug>
#include <QStringList>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using ldapspy::DirAttribute;
using ldapspy::DirEntry;

namespace fn {
const QString connect = QStringLiteral("int ZMLDAPPrivate::connect()");
const QString unbind = QStringLiteral("void ZMLDAPPrivate::unbind()");
const QString digest = QStringLiteral("int ZMLDAPPrivate::bindDigestMD5Linux(const QString&, const QString&, const QString&)");
const QString gssapi = QStringLiteral("int ZMLDAPPrivate::bindGSSAPILinux()");
const QString simple = QStringLiteral("int ZMLDAPPrivate::bindSimpleLinux(const QString&, const QString&)");
const QString interact = QStringLiteral("int zm_sasl_interact(LDAP*, unsigned int, void*, void*)");
const QString checkADUser = QStringLiteral("bool ZMLDAPPrivate::checkADUser(const QString&)");
const QString userList = QStringLiteral("bool ZMLDAPPrivate::getUserList(QList<zelmora::ObjectInfo>&, const QHash<QString, QString>&)");
const QString iteratorCtor = QStringLiteral("ZMLDAPObjectIteratorPrivate::ZMLDAPObjectIteratorPrivate(ZMLDAP*, zmldap::Scope, const QHash<QString, QString>&)");
const QString first = QStringLiteral("zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::first()");
const QString next = QStringLiteral("zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::next()");
const QString unpack = QStringLiteral("zelmora::ObjectInfo ZMLDAPObjectIteratorPrivate::unpackEntry()");
} // namespace fn

const QString kLdapCategory = QStringLiteral("platform.lib.zmauth.ldap");
// The directory code's sources: every record of the library names one of them.
const QString kSourceDir = QStringLiteral("src/zmldap/");

inline bool isDirectorySource(const QString &file)
{
    return file.startsWith(kSourceDir) && file.endsWith(QLatin1String(".cpp"));
}

inline QString levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return QStringLiteral("debug");
    case QtInfoMsg: return QStringLiteral("info");
    case QtWarningMsg: return QStringLiteral("warning");
    case QtCriticalMsg: return QStringLiteral("critical");
    case QtFatalMsg: return QStringLiteral("fatal");
    }
    return QStringLiteral("?");
}

// "level | category | function | text"
inline QString line(QtMsgType type, const QString &category, const QString &function, const QString &text)
{
    return levelName(type) + QStringLiteral(" | ") + category + QStringLiteral(" | ") + function
        + QStringLiteral(" | ") + text;
}

inline QString line(const LogRecord &r)
{
    return line(r.type, r.category, r.function, r.text);
}

inline QString dbg(const QString &function, const QString &text)
{
    return line(QtDebugMsg, defaultCategory(), function, text);
}
inline QString ldbg(const QString &function, const QString &text)
{
    return line(QtDebugMsg, kLdapCategory, function, text);
}
inline QString lcrit(const QString &function, const QString &text)
{
    return line(QtCriticalMsg, kLdapCategory, function, text);
}

// Every record of the capture in one-line form; records of the library must
// all name its source file.
inline QStringList lines(const LogCapture &log, bool *allFromLibrary = nullptr)
{
    QStringList out;
    bool ok = true;
    for (const LogRecord &r : log.records()) {
        out.append(line(r));
        if (!isDirectorySource(r.file))
            ok = false;
    }
    if (allFromLibrary)
        *allFromLibrary = ok;
    return out;
}

// The records without the settings dump of connect() and without the
// SASL callback's lines (their number depends on the mechanism's rounds).
inline QStringList linesWithout(const LogCapture &log, const QStringList &functions)
{
    QStringList out;
    for (const LogRecord &r : log.records())
        if (!functions.contains(r.function))
            out.append(line(r));
    return out;
}

// The text that connect()'s settings dump carries for a record.
inline QString settingsDump(const zelmora::ObjectInfo &settings)
{
    QString text;
    QDebug(&text) << settings << settings.params;
    return text.trimmed();
}

// Settings for the realm described by env (a realm.env), with a bind method.
inline zelmora::ObjectInfo realmSettings(const RealmEnv &env, const QString &method, const QString &user = QString(),
                                         const QString &password = QString())
{
    zelmora::ObjectInfo s;
    s.params.insert(QStringLiteral("PT_HOST"), env.value(QStringLiteral("LDAP_HOST")));
    s.params.insert(QStringLiteral("PT_PORT"), env.value(QStringLiteral("LDAP_PORT")));
    s.params.insert(QStringLiteral("PT_BASE_DN"), env.value(QStringLiteral("BASE_DN")));
    s.params.insert(QStringLiteral("PT_USER"), user.isNull() ? env.value(QStringLiteral("USER_NAME")) : user);
    s.params.insert(QStringLiteral("PT_USER_PASSWORD"),
                    password.isNull() ? env.value(QStringLiteral("USER_PASSWORD")) : password);
    if (!method.isNull())
        s.params.insert(QStringLiteral("PT_METHOD"), method);
    return s;
}

// The same for this ctest run's realm.
inline zelmora::ObjectInfo realmSettings(const QString &method, const QString &user = QString(),
                                         const QString &password = QString())
{
    return realmSettings(RealmEnv::get(), method, user, password);
}

// Settings of an anonymous session (method 0) that searches under base with
// filter. A null base keeps the realm's base DN and a null filter leaves the
// key unset (the library's default filter); empty texts are set as they are.
inline zelmora::ObjectInfo searchSettings(const QString &base = QString(), const QString &filter = QString())
{
    zelmora::ObjectInfo s = realmSettings(QStringLiteral("0"));
    if (!base.isNull())
        s.params.insert(QStringLiteral("PT_BASE_DN"), base);
    if (!filter.isNull())
        s.params.insert(QStringLiteral("PT_USER_FILTER"), filter);
    return s;
}

// OpenLDAP 2.5's libldap loses the message it was reading (80 + 57 bytes) and
// an error text (21 bytes) when the server answers a request with a notice of
// disconnection, as slapd does for an empty search filter; a program written
// straight on libldap loses the same. Its frames are libldap's ordinary read
// path, which a suppression cannot tell apart from a leaked search result, so
// only the allocations made during such a call are left out of the leak check.
struct ServerDisconnectScope {
#if defined(__SANITIZE_ADDRESS__)
    ServerDisconnectScope() { __lsan_disable(); }
    ~ServerDisconnectScope() { __lsan_enable(); }
#else
    ServerDisconnectScope() {}
#endif
    ServerDisconnectScope(const ServerDisconnectScope &) = delete;
    ServerDisconnectScope &operator=(const ServerDisconnectScope &) = delete;
};

// A result code as the library writes it: hexadecimal, no prefix, "-" for negatives.
inline QString hexText(int code)
{
    return code < 0 ? QStringLiteral("-") + QString::number(-qint64(code), 16) : QString::number(code, 16);
}

// A TCP port on 127.0.0.1 that nothing listens on (bound, then closed).
inline int closedPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// A directory value as text: its bytes up to the first zero, as UTF-8.
inline QString textOf(const QByteArray &value)
{
    const int zero = value.indexOf('\0');
    return QString::fromUtf8(zero < 0 ? value : value.left(zero));
}

// The attribute-to-field rule written out plainly, as the tests read it.
// nameWhenUnmapped: with an empty mapping, the iterator keys by attribute
// name; the listing keys by the empty string.
inline QHash<QString, QString> expectedParams(const DirEntry &entry, const QHash<QString, QString> &mapping,
                                              bool nameWhenUnmapped)
{
    QHash<QString, QString> params;
    for (const DirAttribute &attribute : entry.attributes) {
        if (attribute.values.isEmpty())
            continue;
        QStringList values;
        for (const QByteArray &v : attribute.values)
            values.append(textOf(v));
        const QString name = QString::fromUtf8(attribute.name);
        const QString key = mapping.isEmpty() ? (nameWhenUnmapped ? name : QString()) : mapping.value(name);
        const QStringList fields = key.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const QString joined = values.join(QLatin1Char(';'));
        if (fields.size() < 2) {
            params.insert(key, joined);
            continue;
        }
        const QStringList words = joined.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (int i = 0; i < fields.size(); ++i) {
            if (i < fields.size() - 1)
                params.insert(fields[i], i < words.size() ? words[i] : QString::fromLatin1(""));
            else
                params.insert(fields[i], i < words.size() ? words.mid(i).join(QLatin1Char(' ')) : QString::fromLatin1(""));
        }
    }
    return params;
}

// The iterator's debug records for one entry: the entry line, then one line
// per attribute with values.
inline QString entryLine()
{
    return ldbg(fn::unpack, QStringLiteral("\"----------------------- NEW ENTRY -----------------------\""));
}

inline QString attributeLine(const DirAttribute &a)
{
    QStringList values;
    for (const QByteArray &v : a.values)
        values.append(textOf(v));
    QString text;
    QDebug(&text) << "\tATTRIBUTE" << QString::fromUtf8(a.name) << "---" << values;
    text.chop(1);   // the blank QDebug leaves after the last item
    return ldbg(fn::unpack, text);
}

// The records of an iterator, taken with first() and next() until size()
// are taken.
inline QList<zelmora::ObjectInfo> takeAll(ZMLDAPObjectIterator &it)
{
    QList<zelmora::ObjectInfo> out;
    if (it.size() <= 0)
        return out;
    out.append(it.first());
    while (out.size() < it.size())
        out.append(it.next());
    return out;
}

inline QByteArray realmUri() { return RealmEnv::get().bytes(QStringLiteral("LDAP_URI")); }
inline QString realmValue(const char *key) { return RealmEnv::get().value(QString::fromLatin1(key)); }
inline QByteArray realmBytes(const char *key) { return RealmEnv::get().bytes(QString::fromLatin1(key)); }

const QString kDefaultFilter = QStringLiteral("(&(objectClass=user)(objectCategory=person))");

#endif // ZMAUTH_TEST_LDAPTEST_H
