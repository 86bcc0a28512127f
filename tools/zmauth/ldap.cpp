// "ldap users" and "ldap check": what the system would see of a directory.
#include "cli.h"
#include "commands.h"
#include "inputfiles.h"
#include "logsink.h"

#include "zmldap.h"
#include "zmlogging.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <cstdio>

namespace {

QString ldapCategory()
{
    return QString::fromLatin1(ldapc().categoryName());
}

// The tool pages by default: it is for diagnosing real domains, whose
// controllers stop an unpaged search at 1000 entries.
const char *const kDefaultPageSize = "500";

// The options shared by both subcommands: the settings file, the page size
// and timeout that override the file's keys, and --verbose.
struct DirectoryOptions {
    QCommandLineOption settings{QStringList{QStringLiteral("s"), QStringLiteral("settings")},
                                QStringLiteral("Directory settings: a JSON object of the system's setting keys "
                                               "(PT_HOST, PT_PORT, PT_METHOD, PT_USER, PT_USER_PASSWORD, PT_BASE_DN, "
                                               "PT_USER_FILTER, PT_USER_ID_PARAMETER, PT_USER_CUSTOM_FIELDS_PARAMETER, "
                                               "PT_PAGE_SIZE, PT_TIMEOUT, PT_DOMAIN, PT_SITE, PT_FAILOVER_HOSTS, PT_TLS, "
                                               "PT_TLS_CA_FILE) with text values."),
                                QStringLiteral("FILE")};
    QCommandLineOption pageSize{QStringList{QStringLiteral("page-size")},
                                QStringLiteral("Entries per page of the user listing (PT_PAGE_SIZE). Default: the "
                                               "settings' PT_PAGE_SIZE, else %1. 0 asks for one unpaged search, which "
                                               "a domain controller stops at 1000 entries.")
                                    .arg(QLatin1String(kDefaultPageSize)),
                                QStringLiteral("N")};
    QCommandLineOption timeout{QStringList{QStringLiteral("timeout")},
                               QStringLiteral("Seconds to wait for the directory (PT_TIMEOUT): the connection, the "
                                              "bind and each search give up after that long. Default: the settings' "
                                              "PT_TIMEOUT, else no timeout (searches: 30 seconds). 0: no timeout."),
                               QStringLiteral("S")};
    QCommandLineOption domain{QStringList{QStringLiteral("domain")},
                              QStringLiteral("DNS domain whose SRV records name its directory servers (PT_DOMAIN), "
                                             "tried after --failover's."),
                              QStringLiteral("DOMAIN")};
    QCommandLineOption site{QStringList{QStringLiteral("site")},
                            QStringLiteral("Site whose domain controllers are tried first (PT_SITE)."),
                            QStringLiteral("SITE")};
    QCommandLineOption failover{QStringList{QStringLiteral("failover")},
                                QStringLiteral("Blank-separated servers tried in turn after PT_HOST "
                                               "(PT_FAILOVER_HOSTS), e.g. \"dc2.example.com dc3.example.com:3268\"."),
                                QStringLiteral("HOST[:PORT] ...")};
    QCommandLineOption tls{QStringList{QStringLiteral("tls")},
                           QStringLiteral("Transport (PT_TLS): starttls, ldaps (port 636 unless given) or none. The "
                                          "certificate and host name are always verified."),
                           QStringLiteral("starttls|ldaps|none")};
    QCommandLineOption caFile{QStringList{QStringLiteral("ca-file")},
                              QStringLiteral("PEM bundle of the CAs the server certificate must chain to "
                                             "(PT_TLS_CA_FILE). Default: the system's trust store."),
                              QStringLiteral("FILE")};
    QCommandLineOption verbose{QStringList{QStringLiteral("v"), QStringLiteral("verbose")},
                               QStringLiteral("Show the library's debug records on standard error. "
                                              "They include the bind password.")};

    void addTo(QCommandLineParser &parser) const
    {
        parser.addOption(settings);
        parser.addOption(pageSize);
        parser.addOption(timeout);
        for (const QCommandLineOption *option : {&domain, &site, &failover, &tls, &caFile})
            parser.addOption(*option);
        parser.addOption(verbose);
    }

    // Loads the settings file and applies --page-size and --timeout, which
    // win over the file's keys. False after printing a usage error.
    bool load(const QCommandLineParser &parser, const QString &command, zelmora::ObjectInfo &out) const
    {
        const QRegularExpression number(QStringLiteral("^[0-9]+$"));
        for (const QCommandLineOption *option : {&pageSize, &timeout}) {
            const QString name = option->names().constFirst();
            if (parser.isSet(*option) && !number.match(parser.value(*option)).hasMatch()) {
                printError(command, QStringLiteral("--%1 takes a whole number, not '%2'").arg(name, parser.value(*option)));
                std::fprintf(stderr, "Try 'zmauth %s --help'.\n", qPrintable(command));
                return false;
            }
        }
        if (parser.isSet(tls)
            && !QStringList{QStringLiteral("starttls"), QStringLiteral("ldaps"), QStringLiteral("none")}.contains(
                parser.value(tls))) {
            printError(command, QStringLiteral("--tls takes starttls, ldaps or none, not '%1'").arg(parser.value(tls)));
            std::fprintf(stderr, "Try 'zmauth %s --help'.\n", qPrintable(command));
            return false;
        }
        QString error;
        if (!loadSettings(parser.value(settings), out, &error)) {
            printError(command, error);
            return false;
        }
        if (parser.isSet(pageSize))
            out.params.insert(zmldap::key::PAGE_SIZE, parser.value(pageSize));
        else if (!out.params.contains(zmldap::key::PAGE_SIZE))
            out.params.insert(zmldap::key::PAGE_SIZE, QLatin1String(kDefaultPageSize));
        if (parser.isSet(timeout))
            out.params.insert(zmldap::key::TIMEOUT, parser.value(timeout));
        const QList<QPair<const QCommandLineOption *, QString>> keys{
            {&domain, zmldap::key::DNS_DOMAIN}, {&site, zmldap::key::SITE},
            {&failover, zmldap::key::FAILOVER_HOSTS}, {&tls, zmldap::key::TLS}, {&caFile, zmldap::key::TLS_CA_FILE}};
        for (const auto &key : keys)
            if (parser.isSet(*key.first))
                out.params.insert(key.second, parser.value(*key.first));
        return true;
    }
};

// Whether the settings ask for several servers or TLS: then the tool says
// which server served and how the session is protected.
bool serverChoiceAsked(const QHash<QString, QString> &params)
{
    for (const QString &key : {zmldap::key::FAILOVER_HOSTS, zmldap::key::DNS_DOMAIN})
        if (!params.value(key).trimmed().isEmpty())
            return true;
    const QString transport = params.value(zmldap::key::TLS).trimmed().toLower();
    return transport == QLatin1String("starttls") || transport == QLatin1String("ldaps");
}

// "served by ldaps://dc1.example.com:636 (TLS1.3 AES-256-GCM, SASL SSF 0)"
QString servedBy(const zmldap::Connection &c)
{
    const QString tlsText = c.tlsProtocol.isEmpty() ? QStringLiteral("no TLS")
                                                    : (c.tlsProtocol + QLatin1Char(' ') + c.tlsCipher).trimmed();
    return QStringLiteral("served by %1 (%2, SASL SSF %3)").arg(c.uri, tlsText).arg(c.saslSsf);
}

// Builds the directory object and connects. On failure prints the library's
// own critical record and returns the exit code; otherwise -1.
// Starts the library's log sink (debug records only when verbose, after the
// warning that they hold the bind password) and connects as the settings say.
int connectDirectory(ZMLDAP &directory, const QString &command, bool verbose)
{
    if (verbose)
        warnVerbose(VerboseRecords::Directory);
    LogSink::install(verbose);
    LogSink::clear();
    const int rc = directory.connect();
    if (rc == 0) {
        if (serverChoiceAsked(directory.info().params))
            std::fprintf(stderr, "zmauth %s: %s\n", qPrintable(command), qPrintable(servedBy(directory.connection())));
        return -1;
    }
    QString reason = LogSink::lastCritical(ldapCategory());
    if (reason.isEmpty()) // ldap_initialize refused the address: the library logs that at debug only
        reason = QStringLiteral("the LDAP library refused to open a session to the configured host and port (result %1)").arg(rc);
    printError(command, QStringLiteral("connect failed: ") + reason);
    return ExitConnectFailed;
}

QString cellText(const QString &value)
{
    QString text = value;
    text.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    text.replace(QLatin1Char('\r'), QLatin1String("\\r"));
    text.replace(QLatin1Char('\t'), QLatin1String("\\t"));
    return text;
}

int displayWidth(const QString &text)
{
    // Combining marks take no column of their own.
    int width = 0;
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isLowSurrogate())
            continue;
        const QChar::Category category = c.category();
        if (category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing)
            continue;
        ++width;
    }
    return width;
}

QString padded(const QString &text, int width)
{
    return text + QString(std::max(0, width - displayWidth(text)), QLatin1Char(' '));
}

const char *const kEmptyCodeHeader = "(empty code)";
const char *const kAbsent = "-";

void printTable(const QList<zelmora::ObjectInfo> &records, const QStringList &fieldOrder)
{
    // Columns: the fields in the order the mapping names them, then whatever
    // else the records hold, sorted.
    QStringList columns;
    QSet<QString> present;
    for (const zelmora::ObjectInfo &record : records) {
        for (auto it = record.params.begin(); it != record.params.end(); ++it)
            present.insert(it.key());
    }
    for (const QString &field : fieldOrder) {
        if (present.contains(field))
            columns << field;
    }
    QStringList rest;
    for (const QString &field : present) {
        if (!columns.contains(field))
            rest << field;
    }
    std::sort(rest.begin(), rest.end());
    columns << rest;

    QStringList header;
    for (const QString &column : columns)
        header << (column.isEmpty() ? QString::fromLatin1(kEmptyCodeHeader) : column);

    QList<QStringList> rows;
    for (const zelmora::ObjectInfo &record : records) {
        QStringList row;
        for (const QString &column : columns)
            row << (record.params.contains(column) ? cellText(record.params.value(column)) : QString::fromLatin1(kAbsent));
        rows << row;
    }

    QVector<int> widths(columns.size(), 0);
    for (int c = 0; c < columns.size(); ++c) {
        widths[c] = displayWidth(header.at(c));
        for (const QStringList &row : rows)
            widths[c] = std::max(widths[c], displayWidth(row.at(c)));
    }

    auto printRow = [&](const QStringList &cells) {
        QString line;
        for (int c = 0; c < cells.size(); ++c) {
            if (c > 0)
                line += QLatin1String("  ");
            line += c + 1 < cells.size() ? padded(cells.at(c), widths[c]) : cells.at(c);
        }
        std::printf("%s\n", line.toLocal8Bit().constData());
    };
    printRow(header);
    QStringList rule;
    for (int c = 0; c < columns.size(); ++c)
        rule << QString(widths[c], QLatin1Char('-'));
    printRow(rule);
    for (const QStringList &row : rows)
        printRow(row);

    QStringList types;
    for (const zelmora::ObjectInfo &record : records) {
        if (!types.contains(record.type))
            types << record.type;
    }
    std::printf("\n%d record%s of type %s\n", int(records.size()), records.size() == 1 ? "" : "s",
                qPrintable(types.join(QLatin1String(", "))));
}

void printJson(const QList<zelmora::ObjectInfo> &records)
{
    QJsonArray array;
    for (const zelmora::ObjectInfo &record : records) {
        QJsonObject params;
        for (auto it = record.params.begin(); it != record.params.end(); ++it)
            params.insert(it.key(), it.value());
        array.append(QJsonObject{{QStringLiteral("type"), record.type}, {QStringLiteral("params"), params}});
    }
    std::fputs(QJsonDocument(array).toJson(QJsonDocument::Indented).constData(), stdout);
}

int runUsers(const QStringList &args)
{
    const QString command = QStringLiteral("ldap users");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Connects to the directory as the settings say, runs the user listing that a user\n"
                       "import runs, and prints every record it yields: a preview of the import.\n"
                       "The attribute-to-field mapping comes from --mapping, or else from the settings'\n"
                       "PT_USER_CUSTOM_FIELDS_PARAMETER, as the system would take it.\n"
                       "In the table, '-' marks a field the record does not have."));
    DirectoryOptions common;
    common.addTo(parser);
    const QCommandLineOption mappingOption(
        QStringList{QStringLiteral("m"), QStringLiteral("mapping")},
        QStringLiteral("Attribute-to-field mapping in the custom field form: a JSON array of one-member "
                       "objects, e.g. [{\"cn\": \"PT_SURNAME PT_NAME PT_PATRONYMIC\"}, {\"sAMAccountName\": \"PT_LOGIN\"}]."),
        QStringLiteral("FILE"));
    const QCommandLineOption format(QStringList{QStringLiteral("f"), QStringLiteral("format")},
                                    QStringLiteral("Output: table (aligned, for reading) or json (an array of "
                                                   "{\"type\", \"params\"} objects). Default: table."),
                                    QStringLiteral("table|json"), QStringLiteral("table"));
    parser.addOption(mappingOption);
    parser.addOption(format);
    const int parsed = parseCommandLine(parser, command, args);
    if (parsed >= 0)
        return parsed;
    if (!requireOption(parser, command, QStringLiteral("settings")))
        return ExitUsage;
    const QString formatName = parser.value(format);
    if (!validFormat(command, formatName))
        return ExitUsage;

    zelmora::ObjectInfo settings;
    if (!common.load(parser, command, settings))
        return ExitUsage;

    QString error;
    const bool ownMapping = parser.isSet(mappingOption);
    FieldMapping mapping;
    if (ownMapping) {
        if (!loadMapping(parser.value(mappingOption), mapping, &error)) {
            printError(command, error);
            return ExitUsage;
        }
        for (const QString &warning : qAsConst(mapping.warnings))
            printWarning(command, QStringLiteral("mapping: ") + warning);
    } else {
        // The library reads this setting itself and says nothing about a bad
        // one; reading it here as well lets the preview say what went wrong.
        const QString key = db::system::ldap::USER_CUSTOM_FIELDS_PARAMETER;
        const QString text = settings.params.value(key);
        if (!text.isEmpty() && !parseMapping(text.toUtf8(), mapping, &error))
            printWarning(command, QStringLiteral("%1 is %2; the system reads it as no mapping").arg(key, error));
        for (const QString &warning : qAsConst(mapping.warnings))
            printWarning(command, key + QStringLiteral(": ") + warning);
    }
    if (mapping.pairs.isEmpty())
        printWarning(command, QStringLiteral("no attribute mapping: each record keeps only its last attribute, "
                                             "under an empty field code"));

    ZMLDAP directory(settings);
    const int connected = connectDirectory(directory, command, parser.isSet(common.verbose));
    if (connected >= 0)
        return connected;

    LogSink::clear();
    QList<zelmora::ObjectInfo> records;
    const bool ok = ownMapping ? directory.getUserList(records, mapping.pairs) : directory.getUserList(records);
    if (!ok) {
        QString reason = LogSink::lastCritical(ldapCategory());
        if (reason.isEmpty())
            reason = QStringLiteral("the library reported no reason");
        if (reason.startsWith(QLatin1String("ldap_count_entries error")))
            reason += QStringLiteral(" (no entry matched the base DN and user filter)");
        printError(command, QStringLiteral("user listing failed: ") + reason);
        return ExitDirectoryFailed;
    }

    if (formatName == QLatin1String("json"))
        printJson(records);
    else
        printTable(records, mapping.fieldOrder);
    return ExitOk;
}

int runCheck(const QStringList &args)
{
    const QString command = QStringLiteral("ldap check");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Connects to the directory as the settings say and asks whether it holds an account\n"
                       "whose login attribute (PT_USER_ID_PARAMETER, by default sAMAccountName) equals NAME.\n"
                       "Prints \"found\" or \"not found\". NAME is escaped for the search filter, as a\n"
                       "program should escape what a user types: '*' and parentheses are looked up as they\n"
                       "are. With --raw it goes into the filter as typed: '*' then matches any account."));
    DirectoryOptions common;
    common.addTo(parser);
    const QCommandLineOption raw(QStringList{QStringLiteral("raw")},
                                 QStringLiteral("Put NAME into the search filter as typed, as the library's account "
                                                "check does with what it is given."));
    parser.addOption(raw);
    parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The account name to look for."));
    const int parsed = parseCommandLine(parser, command, args, Positional::Allowed);
    if (parsed >= 0)
        return parsed;
    const QStringList names = parser.positionalArguments();
    if (names.size() != 1) {
        printError(command, names.isEmpty() ? QStringLiteral("NAME is required") : QStringLiteral("takes exactly one NAME"));
        std::fprintf(stderr, "Try 'zmauth %s --help'.\n", qPrintable(command));
        return ExitUsage;
    }
    if (!requireOption(parser, command, QStringLiteral("settings")))
        return ExitUsage;

    zelmora::ObjectInfo settings;
    if (!common.load(parser, command, settings))
        return ExitUsage;
    const bool asTyped = parser.isSet(raw);
    const QString name = asTyped ? names.constFirst() : zmldap::escapeFilterValue(names.constFirst());
    if (asTyped && name.contains(QRegularExpression(QStringLiteral("[*()\\\\\\x00]"))))
        printWarning(command, QStringLiteral("the name holds search filter characters; with --raw they are used "
                                             "as they are ('*' matches any account)"));

    ZMLDAP directory(settings);
    const int connected = connectDirectory(directory, command, parser.isSet(common.verbose));
    if (connected >= 0)
        return connected;

    // The library answers false both for "no such account" and for a failed
    // search; only the latter leaves a critical record.
    LogSink::clear();
    const bool found = directory.checkADUser(name);
    if (found) {
        std::printf("found\n");
        return ExitOk;
    }
    const QString reason = LogSink::lastCritical(ldapCategory());
    if (!reason.isEmpty()) {
        printError(command, QStringLiteral("account check failed: ") + reason);
        return ExitDirectoryFailed;
    }
    std::printf("not found\n");
    return ExitNotFound;
}

const char *const kLdapUsage =
    "Usage: zmauth ldap users --settings FILE [--mapping FILE] [--format table|json] [--page-size N]\n"
    "                         [--timeout S] [SERVERS] [--verbose]\n"
    "       zmauth ldap check NAME --settings FILE [--raw] [--page-size N] [--timeout S] [SERVERS] [--verbose]\n"
    "\n"
    "  SERVERS: [--domain DOMAIN [--site SITE]] [--failover \"HOST[:PORT] ...\"]\n"
    "           [--tls starttls|ldaps|none] [--ca-file FILE]\n"
    "\n"
    "  users  the user records a directory import would read, with the field mapping applied\n"
    "  check  whether the directory holds the account NAME\n"
    "\n"
    "Run 'zmauth ldap users --help' or 'zmauth ldap check --help' for the options.\n"
    "\n";

} // namespace

int runLdap(const QStringList &args)
{
    // args: program, subcommand, options...
    const QString sub = args.value(1);
    QStringList rest = args;
    if (rest.size() > 1)
        rest.removeAt(1);
    if (sub == QLatin1String("users"))
        return runUsers(rest);
    if (sub == QLatin1String("check"))
        return runCheck(rest);
    if (sub == QLatin1String("--help") || sub == QLatin1String("-h") || sub == QLatin1String("help")) {
        std::printf("%s%s\n", kLdapUsage, qPrintable(exitStatusHelp()));
        return ExitOk;
    }
    if (sub.isEmpty())
        std::fprintf(stderr, "zmauth ldap: a subcommand is required (users or check)\n");
    else
        std::fprintf(stderr, "zmauth ldap: unknown subcommand '%s'\n", sub.toLocal8Bit().constData());
    std::fprintf(stderr, "Try 'zmauth ldap --help'.\n");
    return ExitUsage;
}
