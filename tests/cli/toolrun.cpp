#include "toolrun.h"

#include <QFile>
#include <QJsonDocument>
#include <QProcess>

QString writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(data) != data.size())
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

QString writeSettingsFile(const QString &path, const RealmEnv &realm, const QJsonObject &changes)
{
    QJsonObject object{
        {QStringLiteral("PT_HOST"), realm.value(QStringLiteral("LDAP_HOST"))},
        {QStringLiteral("PT_PORT"), realm.value(QStringLiteral("LDAP_PORT"))},
        {QStringLiteral("PT_METHOD"), QStringLiteral("1")},
        {QStringLiteral("PT_USER"), realm.value(QStringLiteral("USER_NAME"))},
        {QStringLiteral("PT_USER_PASSWORD"), realm.value(QStringLiteral("USER_PASSWORD"))},
        {QStringLiteral("PT_BASE_DN"), realm.value(QStringLiteral("BASE_DN"))},
    };
    for (auto it = changes.begin(); it != changes.end(); ++it) {
        if (it.value().isNull())
            object.remove(it.key());
        else
            object.insert(it.key(), it.value());
    }
    return writeFile(path, QJsonDocument(object).toJson());
}

QString toolPath()
{
    return QStringLiteral(ZMAUTH_TOOL_PATH);
}

ToolRun runCommand(const QString &program, const QStringList &args, const QByteArray &input, const QProcessEnvironment &env)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, args);
    ToolRun run;
    if (!process.waitForStarted(10000))
        return run;
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(180000)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

ToolRun runTool(const QStringList &args, const QByteArray &input, const QProcessEnvironment &env)
{
    return runCommand(toolPath(), args, input, env);
}

QByteArray describe(const ToolRun &run)
{
    return "exit " + QByteArray::number(run.exitCode) + "\n--- stdout\n" + run.out + "--- stderr\n" + run.err;
}
