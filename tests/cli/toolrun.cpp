#include "toolrun.h"

#include <QProcess>

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
