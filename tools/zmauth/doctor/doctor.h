// "doctor": a fixed list of checks over a deployment's directory and single
// sign-on settings. Each check says PASS, WARN, FAIL or SKIP, one line of what
// it found and, for WARN and FAIL, one line of what to change, in the terms of
// the settings record.
#ifndef ZMAUTH_TOOL_DOCTOR_H
#define ZMAUTH_TOOL_DOCTOR_H

#include "zelmora.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

namespace doctor {

enum class Status { Pass, Warn, Fail, Skip };

QString statusName(Status status);

// What one check reports, and what it learnt for the checks after it.
struct Outcome {
    Status status = Status::Skip;
    QString finding; // PASS, WARN, FAIL: what was found
    QString fix;     // WARN, FAIL: what to change
    QString reason;  // SKIP: why the check did not run
    QJsonObject facts;
};

Outcome pass(const QString &finding, const QJsonObject &facts = QJsonObject());
Outcome warn(const QString &finding, const QString &fix, const QJsonObject &facts = QJsonObject());
Outcome fail(const QString &finding, const QString &fix, const QJsonObject &facts = QJsonObject());
Outcome skip(const QString &reason);

// Several findings of one check in one line: the worst status, the findings
// and the fixes each joined with "; ".
class Findings {
public:
    void pass(const QString &finding);
    void warn(const QString &finding, const QString &fix);
    void fail(const QString &finding, const QString &fix);
    bool isEmpty() const { return m_findings.isEmpty(); }
    Status status() const { return m_status; }
    Outcome outcome(const QString &whenClean, const QJsonObject &facts = QJsonObject()) const;

private:
    void add(Status status, const QString &finding, const QString &fix);
    Status m_status = Status::Pass;
    QStringList m_findings;
    QStringList m_fixes;
};

// The command line.
struct Input {
    QString settingsPath;
    bool settingsRead = false;
    QString settingsError; // why the file could not be read, when it could not
    zelmora::ObjectInfo settings;
    QString mappingPath;   // --mapping; empty: the settings' own mapping
    QString keytab;        // --keytab, as given
    QString service;       // --service NAME@HOST
    QString user;          // --user LOGIN
    int pageSize = 0;      // --page-size; 0: not given
    int timeout = 10;      // --timeout: seconds each check may wait
};

// What a check sees: the command line, the status of every check before it
// and the facts they learnt.
class Run {
public:
    Input input;
    QHash<QString, Status> statuses;
    QJsonObject facts;

    Status status(const QString &id) const { return statuses.value(id, Status::Skip); }
    // PASS or WARN: what the check looked at works.
    bool ok(const QString &id) const;
    // The settings' value (null when absent).
    QString setting(const QString &key) const { return input.settings.params.value(key); }
    bool hasSetting(const QString &key) const { return input.settings.params.contains(key); }
    // The auth method as the library reads it: absent 1, not a number 0;
    // -1 when the settings file could not be read.
    int method() const;
    // The settings as the doctor's own calls of the library use them: the
    // timeout of the run replaces the file's.
    zelmora::ObjectInfo librarySettings() const;
    // Kerberos is in play: method 8, or a keytab to check.
    bool usesKerberos() const { return method() == 8 || !input.keytab.isEmpty(); }
    QString host() const;
    QString hostPort() const;
};

// Every known setting key of the directory settings record.
QStringList knownSettingKeys();
// The entry of candidates closest to text (edit distance, ignoring case), or
// empty when none is close enough to be a slip of the keyboard.
QString nearest(const QString &text, const QStringList &candidates);
// "PT_METHOD 8 (GSSAPI)" and the like.
QString methodName(int method);
// The settings' page size for user listings: 0 when off.
int settingsPageSize(const Run &run);

// The checks, by group. Each runs in a process of its own, ended after the
// run's timeout.
Outcome checkSettings(const Run &run);

Outcome checkDns(const Run &run);
Outcome checkReverseDns(const Run &run);
Outcome checkTcp(const Run &run);
Outcome checkDiscovery(const Run &run);
Outcome checkTls(const Run &run);

Outcome checkRootDse(const Run &run);
Outcome checkSaslMechanism(const Run &run);
Outcome checkAnonymous(const Run &run);
Outcome checkBind(const Run &run);
Outcome checkBaseDn(const Run &run);
Outcome checkSizeLimit(const Run &run);
Outcome checkMapping(const Run &run);
Outcome checkNonAsciiLogins(const Run &run);

Outcome checkTicket(const Run &run);
Outcome checkClockSkew(const Run &run);
Outcome checkKeytab(const Run &run);
Outcome checkServiceAccount(const Run &run);
Outcome checkSso(const Run &run);

// Shared between the groups.

// What the KDC answers when asked for a ticket for the principal with the
// ticket in the default cache: empty when it issues one, otherwise its error
// text ("Server not found in Kerberos database").
QString kdcRefusal(const QString &principal);
// A short fix for a Kerberos error text, or empty when there is none.
QString kerberosFix(const QString &text);
// "aes256-cts-hmac-sha1-96" and the like.
QString enctypeName(int enctype);
// One key of a keytab.
struct ServiceKey {
    int kvno;
    int enctype;
};
// The keys the keytab at path holds for SERVICE/host in any realm (the
// host without case). False with the reason when it cannot be read.
bool serviceKeys(const QString &path, const QString &service, const QString &host, QList<ServiceKey> *keys,
                 QString *error);
// The clock fix, shared by every check that meets a clock skew.
QString clockFix();
// "in 9 h 59 min", "2 min ago": how far a moment is from now.
QString distanceFromNow(qint64 seconds);
// A moment as operators read it: "2026-11-23 11:20:09 UTC".
QString utcText(qint64 secondsSinceEpoch);

} // namespace doctor

#endif // ZMAUTH_TOOL_DOCTOR_H
