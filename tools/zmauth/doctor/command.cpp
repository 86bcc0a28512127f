// "doctor": the command line, the fixed list of checks with what each needs,
// the bounded run of every check, and the table or JSON report.
#include "doctor.h"

#include "cli.h"
#include "commands.h"
#include "inputfiles.h"
#include "logsink.h"
#include "session.h"
#include "zmldap.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace doctor {

namespace {

// ---------------------------------------------------------------- the list

// What a check needs before it can run. Returns the reason to skip, or empty.
using Needs = QString (*)(const Run &);
using Body = Outcome (*)(const Run &);

struct Check {
    const char *id;
    Needs needs;
    Body body;
    // Who did not answer when the check runs out of time.
    const char *waitsFor;
};

// The reason a check that needs `id` is skipped: the first failure upstream.
QString upstream(const Run &run, const QStringList &ids, const QHash<QString, QString> &reasons)
{
    for (const QString &id : ids) {
        const Status status = run.status(id);
        if (status == Status::Fail)
            return id + QStringLiteral(" failed");
        if (status == Status::Skip)
            return reasons.value(id, id + QStringLiteral(" skipped"));
    }
    return QString();
}

// Filled while the checks run: the reason each skipped check gave, so that a
// skip further down names the failure it comes from.
QHash<QString, QString> g_reasons;

QString needsUpstream(const Run &run, const QStringList &ids)
{
    return upstream(run, ids, g_reasons);
}

QString methodOtherThan(const Run &run, int wanted)
{
    return QStringLiteral("PT_METHOD is %1, not %2").arg(methodName(run.method()), methodName(wanted));
}

QString noNeeds(const Run &)
{
    return QString();
}

QString needsSettings(const Run &run)
{
    return needsUpstream(run, {QStringLiteral("settings")});
}

QString needsReverseDns(const Run &run)
{
    QString why = needsUpstream(run, {QStringLiteral("settings"), QStringLiteral("dns")});
    if (why.isEmpty() && run.method() != 8)
        why = methodOtherThan(run, 8);
    return why;
}

QString needsDns(const Run &run)
{
    return needsUpstream(run, {QStringLiteral("settings"), QStringLiteral("dns")});
}

QString needsTcp(const Run &run)
{
    return needsUpstream(run, {QStringLiteral("settings"), QStringLiteral("dns"), QStringLiteral("tcp")});
}

// The server took the connection and answers LDAP (a root DSE it refused
// still counts: it answered).
QString needsLdapAnswer(const Run &run)
{
    QString why = needsTcp(run);
    if (why.isEmpty() && !run.facts.value(QStringLiteral("ldapAnswers")).toBool())
        why = QStringLiteral("root-dse failed");
    return why;
}

QString needsMechanismList(const Run &run)
{
    QString why = needsLdapAnswer(run);
    if (why.isEmpty() && run.status(QStringLiteral("root-dse")) == Status::Fail)
        why = QStringLiteral("root-dse failed");
    if (why.isEmpty() && run.method() == 0)
        why = QStringLiteral("PT_METHOD 0 binds anonymously, with no mechanism");
    return why;
}

QString needsAnonymousMethod(const Run &run)
{
    QString why = needsLdapAnswer(run);
    if (why.isEmpty() && run.method() != 0)
        why = methodOtherThan(run, 0);
    return why;
}

QString needsKerberos(const Run &run)
{
    if (!run.usesKerberos())
        return QStringLiteral("PT_METHOD is not 8 (GSSAPI) and no --keytab was given");
    return QString();
}

QString needsClockSource(const Run &run)
{
    if (run.facts.contains(QStringLiteral("currentTime")) || run.usesKerberos())
        return QString();
    return QStringLiteral("no server clock to compare with: the directory offers no currentTime and Kerberos is "
                          "not in use (PT_METHOD is not 8, no --keytab)");
}

QString needsBind(const Run &run)
{
    QString why = needsLdapAnswer(run);
    if (why.isEmpty() && run.method() == 8)
        why = needsUpstream(run, {QStringLiteral("ticket")});
    return why;
}

// A session that can read the directory: bound, and for method 0 allowed to
// search anonymously.
QString needsReadableSession(const Run &run)
{
    QString why = needsUpstream(run, {QStringLiteral("bind")});
    if (why.isEmpty() && run.method() == 0)
        why = needsUpstream(run, {QStringLiteral("anonymous")});
    return why;
}

QString needsBase(const Run &run)
{
    QString why = needsReadableSession(run);
    if (why.isEmpty())
        why = needsUpstream(run, {QStringLiteral("base-dn")});
    return why;
}

QString needsDomain(const Run &run)
{
    QString why = needsSettings(run);
    if (why.isEmpty() && run.setting(zmldap::key::DNS_DOMAIN).trimmed().isEmpty())
        why = QStringLiteral("no PT_DOMAIN");
    return why;
}

QString needsTls(const Run &run)
{
    QString why = needsSettings(run);
    const QString transport = run.setting(zmldap::key::TLS).trimmed().toLower();
    if (why.isEmpty() && transport != QLatin1String("starttls") && transport != QLatin1String("ldaps"))
        why = QStringLiteral("PT_TLS is off");
    return why;
}

QString needsKeytab(const Run &run)
{
    return run.input.keytab.isEmpty() ? QStringLiteral("no --keytab") : QString();
}

QString needsKeytabAndTicket(const Run &run)
{
    if (run.input.keytab.isEmpty())
        return QStringLiteral("no --keytab");
    return needsUpstream(run, {QStringLiteral("keytab"), QStringLiteral("ticket")});
}

// The account behind the keytab: a keytab that opens, a session that reads
// the directory, and a domain.
QString needsServiceAccount(const Run &run)
{
    if (run.input.keytab.isEmpty())
        return QStringLiteral("no --keytab");
    QString why = needsUpstream(run, {QStringLiteral("keytab")});
    if (why.isEmpty())
        why = needsReadableSession(run);
    if (why.isEmpty() && !isActiveDirectory(run))
        why = QStringLiteral("the server is not Active Directory (root-dse)");
    return why;
}

const Check kChecks[] = {
    {"settings", noNeeds, checkSettings, "the settings file"},
    {"dns", needsSettings, checkDns, "the resolver"},
    {"reverse-dns", needsReverseDns, checkReverseDns, "the resolver"},
    {"tcp", needsDns, checkTcp, "PT_HOST:PT_PORT"},
    {"discovery", needsDomain, checkDiscovery, "the resolver and the domain controllers"},
    {"tls", needsTls, checkTls, "the directory server"},
    {"root-dse", needsTcp, checkRootDse, "the directory server"},
    {"sasl-mechanism", needsMechanismList, checkSaslMechanism, "the directory server"},
    {"anonymous", needsAnonymousMethod, checkAnonymous, "the directory server"},
    {"ticket", needsKerberos, checkTicket, "the credential cache"},
    {"clock-skew", needsClockSource, checkClockSkew, "the KDC"},
    {"bind", needsBind, checkBind, "the directory server or the KDC"},
    {"base-dn", needsReadableSession, checkBaseDn, "the directory server"},
    {"size-limit", needsBase, checkSizeLimit, "the directory server"},
    {"mapping", needsBase, checkMapping, "the directory server"},
    {"non-ascii-logins", needsBase, checkNonAsciiLogins, "the directory server"},
    {"keytab", needsKeytab, checkKeytab, "the keytab"},
    {"service-account", needsServiceAccount, checkServiceAccount, "the directory server"},
    {"sso", needsKeytabAndTicket, checkSso, "the KDC"},
};

// ---------------------------------------------------------------- bounded run

QJsonObject toJson(const Outcome &outcome, const QString &id = QString())
{
    QJsonObject object;
    if (!id.isEmpty())
        object.insert(QStringLiteral("id"), id);
    object.insert(QStringLiteral("status"), statusName(outcome.status));
    if (outcome.status == Status::Skip) {
        object.insert(QStringLiteral("reason"), outcome.reason);
    } else {
        object.insert(QStringLiteral("finding"), outcome.finding);
        if (outcome.status != Status::Pass)
            object.insert(QStringLiteral("fix"), outcome.fix);
    }
    return object;
}

Outcome fromJson(const QJsonObject &object)
{
    Outcome outcome;
    const QString status = object.value(QStringLiteral("status")).toString();
    for (Status s : {Status::Pass, Status::Warn, Status::Fail, Status::Skip}) {
        if (statusName(s) == status)
            outcome.status = s;
    }
    outcome.finding = object.value(QStringLiteral("finding")).toString();
    outcome.fix = object.value(QStringLiteral("fix")).toString();
    outcome.reason = object.value(QStringLiteral("reason")).toString();
    outcome.facts = object.value(QStringLiteral("facts")).toObject();
    return outcome;
}

bool writeAll(int fd, const QByteArray &data)
{
    qint64 done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + done, size_t(data.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

// A check runs in a child process that is ended when the run's timeout (and
// a second for the check's own bookkeeping) has passed: name lookups and
// Kerberos exchanges have no timeout of their own, and a process can always
// be ended. Directory calls also carry the timeout themselves, so that they
// usually give up first, with their own result code.
Outcome runBounded(const Run &run, const Check &check)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return fail(QStringLiteral("cannot run the check: pipe: %1").arg(QString::fromLocal8Bit(std::strerror(errno))),
                    QStringLiteral("free some file descriptors and run the doctor again"));
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        const int error = errno;
        ::close(fds[0]);
        ::close(fds[1]);
        return fail(QStringLiteral("cannot run the check: fork: %1").arg(QString::fromLocal8Bit(std::strerror(error))),
                    QStringLiteral("free some memory or processes and run the doctor again"));
    }
    if (pid == 0) {
        ::close(fds[0]);
        const Outcome outcome = check.body(run);
        QJsonObject object = toJson(outcome);
        object.insert(QStringLiteral("facts"), outcome.facts);
        const bool written = writeAll(fds[1], QJsonDocument(object).toJson(QJsonDocument::Compact));
        ::close(fds[1]);
#if defined(__SANITIZE_ADDRESS__)
        // _exit skips the leak check that exit would run.
        __lsan_do_leak_check();
#endif
        ::_exit(written ? 0 : 1);
    }
    ::close(fds[1]);

    QByteArray data;
    bool timedOut = false;
    QElapsedTimer timer;
    timer.start();
    const qint64 deadline = qint64(run.input.timeout + 1) * 1000;
    for (;;) {
        const qint64 left = deadline - timer.elapsed();
        if (left <= 0) {
            timedOut = true;
            break;
        }
        pollfd p{fds[0], POLLIN, 0};
        const int ready = ::poll(&p, 1, int(left));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            continue;
        char buffer[4096];
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        data.append(buffer, int(n));
    }
    ::close(fds[0]);
    if (timedOut)
        ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }

    if (timedOut)
        return fail(QStringLiteral("no answer within %1 s (--timeout): the check was ended").arg(run.input.timeout),
                    QStringLiteral("find out why %1 does not answer (a stopped service, a firewall that drops packets); "
                                   "--timeout gives slower answers more time")
                        .arg(QString::fromLatin1(check.waitsFor)));
    const QJsonDocument doc = QJsonDocument::fromJson(data);
    if (!doc.isObject()) {
        const QString how = WIFSIGNALED(status) ? QStringLiteral("signal %1").arg(WTERMSIG(status))
                                                : QStringLiteral("exit status %1").arg(WEXITSTATUS(status));
        return fail(QStringLiteral("the check ended without a result (%1)").arg(how),
                    QStringLiteral("run the doctor again; if it repeats, report it with the output of --format json"));
    }
    return fromJson(doc.object());
}

// ---------------------------------------------------------------- report

// How many checks ended with each status.
struct Counts {
    int byStatus[4] = {0, 0, 0, 0};
    int value(Status status) const { return byStatus[int(status)]; }
    int &operator[](Status status) { return byStatus[int(status)]; }
};

void printTable(const QList<QPair<QString, Outcome>> &results, const QString &summary, int exitCode)
{
    int idWidth = 5;
    for (const auto &result : results)
        idWidth = std::max(idWidth, int(result.first.size()));
    const QString indent(2 + 2 + idWidth + 2 + 6 + 2, QLatin1Char(' '));
    auto line = [](const QString &text) { std::printf("%s\n", text.toLocal8Bit().constData()); };
    line(QStringLiteral("%1  %2  %3  %4").arg(QStringLiteral(" #"), QStringLiteral("check").leftJustified(idWidth),
                                               QStringLiteral("status"), QStringLiteral("finding")));
    int number = 0;
    for (const auto &result : results) {
        const Outcome &outcome = result.second;
        const QString text = outcome.status == Status::Skip ? outcome.reason : outcome.finding;
        line(QStringLiteral("%1  %2  %3  %4")
                 .arg(++number, 2)
                 .arg(result.first.leftJustified(idWidth), statusName(outcome.status).leftJustified(6), text));
        if (outcome.status == Status::Warn || outcome.status == Status::Fail)
            line(indent + QStringLiteral("fix: ") + outcome.fix);
    }
    line(QString());
    line(summary);
    line(exitCode == 0 ? QStringLiteral("Exit status 0: no check failed.")
                       : QStringLiteral("Exit status %1: at least one check failed.").arg(exitCode));
}

void printJson(const QList<QPair<QString, Outcome>> &results, const Counts &counts, int exitCode)
{
    QJsonArray checks;
    for (const auto &result : results)
        checks.append(toJson(result.second, result.first));
    const QJsonObject report{
        {QStringLiteral("checks"), checks},
        {QStringLiteral("passed"), counts.value(Status::Pass)},
        {QStringLiteral("warnings"), counts.value(Status::Warn)},
        {QStringLiteral("failed"), counts.value(Status::Fail)},
        {QStringLiteral("skipped"), counts.value(Status::Skip)},
        {QStringLiteral("exit"), exitCode},
    };
    std::fputs(QJsonDocument(report).toJson(QJsonDocument::Indented).constData(), stdout);
}

const char *const kDescription =
    "Runs a fixed list of checks over a deployment's directory and single sign-on settings,\n"
    "in this order, and says for each PASS, WARN, FAIL or SKIP (with the reason: a check\n"
    "whose precondition failed is skipped), one line of what it found and, for WARN and\n"
    "FAIL, one line of what to change, in the terms of the settings record:\n"
    "   1 settings          the file parses; PT_HOST, PT_PORT, PT_BASE_DN (and for PT_METHOD 1\n"
    "                       PT_USER, PT_USER_PASSWORD) are set; PT_METHOD is 0, 1 or 8; unknown\n"
    "                       keys, with the nearest known key\n"
    "   2 dns               PT_HOST resolves\n"
    "   3 reverse-dns       (PT_METHOD 8) the address resolves back to a name that resolves to\n"
    "                       it: GSSAPI asks the KDC for ldap/<that name>\n"
    "   4 tcp               a TCP connection to PT_HOST:PT_PORT\n"
    "   5 discovery         (PT_DOMAIN) the SRV records of the site, the domain and the\n"
    "                       fallback; each server's TCP connect time and root DSE (dnsHostName,\n"
    "                       isSynchronized, currentTime); the server connect() would use; WARN\n"
    "                       for each that does not answer, FAIL when none does\n"
    "   6 tls               (PT_TLS) handshake, chain against PT_TLS_CA_FILE, host name,\n"
    "                       protocol, days until the certificate expires (WARN under 30)\n"
    "   7 root-dse          an anonymous read of the root DSE: naming contexts, SASL mechanisms,\n"
    "                       paged results, and whether the server is Active Directory\n"
    "   8 sasl-mechanism    the server offers the mechanism of PT_METHOD\n"
    "   9 anonymous         (PT_METHOD 0) an anonymous client may search PT_BASE_DN\n"
    "  10 ticket            (PT_METHOD 8 or --keytab) a ticket-granting ticket in the default\n"
    "                       credential cache (KRB5CCNAME): client, realm, expiry\n"
    "  11 clock-skew        the local clock against the server's: the root DSE's currentTime,\n"
    "                       else the KDC's; WARN above 60 s, FAIL above 300 s\n"
    "  12 bind              the library's connect() with the settings, its result explained;\n"
    "                       the protection reached (TLS, SASL SSF), WARN when a bind leaves\n"
    "                       the data in clear; with --user, the library's account check for LOGIN\n"
    "  13 base-dn           PT_BASE_DN exists, is readable and lies under a naming context\n"
    "  14 size-limit        an unpaged count of the user entries against a paged one; FAIL when\n"
    "                       the server caps unpaged searches and PT_PAGE_SIZE is not set\n"
    "  15 mapping           every attribute of the field mapping (--mapping, else\n"
    "                       PT_USER_CUSTOM_FIELDS_PARAMETER) occurs on a sample of 100 user\n"
    "                       entries, with the same case; every field code is in the catalogues\n"
    "  16 non-ascii-logins  every user entry's login (PT_USER_ID_PARAMETER, else sAMAccountName),\n"
    "                       read in pages: those outside ASCII, which the library's account\n"
    "                       check cannot find\n"
    "  17 keytab            (--keytab) readable, holds keys for --service, their enctypes\n"
    "  18 service-account   (--keytab, Active Directory) the accounts that hold --service's\n"
    "                       principal name (or its sPNMappings alias, HOST/ for http), their\n"
    "                       msDS-KeyVersionNumber and msDS-SupportedEncryptionTypes against\n"
    "                       the keytab's kvno and enctypes\n"
    "  19 sso               (--keytab and a ticket) a whole single sign-on exchange through the\n"
    "                       library in this process, and the login it maps to\n"
    "\n"
    "Each check runs in a process of its own that is ended after --timeout seconds, and the\n"
    "directory calls carry the same timeout, so the doctor never hangs on a silent server,\n"
    "resolver or KDC. Kerberos reads its configuration (KRB5_CONFIG) and the ticket\n"
    "(KRB5CCNAME) from the environment, as the system's programs do. The library's records\n"
    "are not printed: each check shows the one that matters in its finding.";

bool parseNumber(const QCommandLineParser &parser, const QCommandLineOption &option, int *value)
{
    if (!parser.isSet(option))
        return true;
    static const QRegularExpression number(QStringLiteral("^[0-9]{1,6}$"));
    const QString text = parser.value(option);
    if (!number.match(text).hasMatch()) {
        printError(QStringLiteral("doctor"), QStringLiteral("--%1 takes a whole number, not '%2'")
                                                 .arg(option.names().constFirst(), text));
        return false;
    }
    *value = text.toInt();
    return true;
}

} // namespace

} // namespace doctor

int runDoctor(const QStringList &args)
{
    using namespace doctor;
    const QString command = QStringLiteral("doctor");
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(kDescription));
    const QCommandLineOption settings(QStringList{QStringLiteral("s"), QStringLiteral("settings")},
                                      QStringLiteral("Directory settings: a JSON object of the system's setting keys with "
                                                     "text values, as for 'zmauth ldap'."),
                                      QStringLiteral("FILE"));
    const QCommandLineOption mapping(QStringList{QStringLiteral("m"), QStringLiteral("mapping")},
                                     QStringLiteral("Attribute-to-field mapping to check instead of the settings' "
                                                    "PT_USER_CUSTOM_FIELDS_PARAMETER: a JSON array of one-member objects."),
                                     QStringLiteral("FILE"));
    const QCommandLineOption keytab(QStringList{QStringLiteral("k"), QStringLiteral("keytab")},
                                    QStringLiteral("Keytab of the single sign-on service (checks keytab and sso)."),
                                    QStringLiteral("FILE"));
    const QCommandLineOption service(QStringList{QStringLiteral("service")},
                                     QStringLiteral("The service the keytab is for, as SERVICE@HOST (e.g. HTTP@app.example.org); "
                                                    "required with --keytab."),
                                     QStringLiteral("NAME@HOST"));
    const QCommandLineOption user(QStringList{QStringLiteral("u"), QStringLiteral("user")},
                                  QStringLiteral("A login to look up with the library's account check after the bind."),
                                  QStringLiteral("LOGIN"));
    const QCommandLineOption pageSize(QStringList{QStringLiteral("page-size")},
                                      QStringLiteral("Page size of the paged reads (size-limit, non-ascii-logins). Default: "
                                                     "the settings' PT_PAGE_SIZE, else 500."),
                                      QStringLiteral("N"));
    const QCommandLineOption timeout(QStringList{QStringLiteral("timeout")},
                                     QStringLiteral("Seconds each check may wait for the network (name lookups, "
                                                    "connections, directory calls, the KDC). Default: 10."),
                                     QStringLiteral("S"));
    const QCommandLineOption format(QStringList{QStringLiteral("f"), QStringLiteral("format")},
                                    QStringLiteral("Output: table (for reading) or json (one document: \"checks\", each "
                                                   "with id, status, finding, fix or reason; \"passed\", \"warnings\", "
                                                   "\"failed\", \"skipped\", \"exit\"). Default: table."),
                                    QStringLiteral("table|json"), QStringLiteral("table"));
    for (const QCommandLineOption *option : {&settings, &mapping, &keytab, &service, &user, &pageSize, &timeout, &format})
        parser.addOption(*option);
    const int parsed = parseCommandLine(parser, command, args);
    if (parsed >= 0)
        return parsed;
    if (!requireOption(parser, command, QStringLiteral("settings")))
        return ExitUsage;
    const QString formatName = parser.value(format);
    if (!validFormat(command, formatName))
        return ExitUsage;
    Run run;
    if (!parseNumber(parser, pageSize, &run.input.pageSize) || !parseNumber(parser, timeout, &run.input.timeout))
        return ExitUsage;
    if (run.input.timeout < 1) {
        printError(command, QStringLiteral("--timeout must be at least 1 second"));
        return ExitUsage;
    }
    run.input.keytab = parser.value(keytab);
    run.input.service = parser.value(service);
    if (parser.isSet(keytab) != parser.isSet(service)) {
        printError(command, QStringLiteral("--keytab and --service go together"));
        return ExitUsage;
    }
    static const QRegularExpression serviceForm(QStringLiteral("^[^@/\\s]+@[^@/\\s]+$"));
    if (parser.isSet(service) && !serviceForm.match(run.input.service).hasMatch()) {
        printError(command, QStringLiteral("--service takes SERVICE@HOST, e.g. HTTP@app.example.org, not '%1'")
                                .arg(run.input.service));
        return ExitUsage;
    }
    if (!run.input.keytab.isEmpty())
        run.input.keytab = QFileInfo(run.input.keytab).absoluteFilePath();
    run.input.mappingPath = parser.value(mapping);
    run.input.user = parser.value(user);
    run.input.settingsPath = parser.value(settings);
    run.input.settingsRead = loadSettings(run.input.settingsPath, run.input.settings, &run.input.settingsError);

    // The library's records are kept for the findings, never printed: its
    // debug records hold the bind password.
    LogSink::install(false);

    QList<QPair<QString, Outcome>> results;
    Counts counts;
    for (const Check &check : kChecks) {
        const QString id = QString::fromLatin1(check.id);
        const QString why = check.needs(run);
        const Outcome outcome = why.isEmpty() ? runBounded(run, check) : skip(why);
        run.statuses.insert(id, outcome.status);
        if (outcome.status == Status::Skip)
            g_reasons.insert(id, outcome.reason);
        for (auto it = outcome.facts.begin(); it != outcome.facts.end(); ++it)
            run.facts.insert(it.key(), it.value());
        results << qMakePair(id, outcome);
        counts[outcome.status] += 1;
    }

    const int exitCode = counts.value(Status::Fail) > 0 ? ExitDoctorFailed : ExitOk;
    if (formatName == QLatin1String("json")) {
        printJson(results, counts, exitCode);
    } else {
        const QString summary = QStringLiteral("%1 checks: %2 passed, %3 warned, %4 failed, %5 skipped.")
                                    .arg(results.size())
                                    .arg(counts.value(Status::Pass))
                                    .arg(counts.value(Status::Warn))
                                    .arg(counts.value(Status::Fail))
                                    .arg(counts.value(Status::Skip));
        printTable(results, summary, exitCode);
    }
    return exitCode;
}
