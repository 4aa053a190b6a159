#include "platform/linux/PreferenceTool.h"

#include "core/app/Log.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>

PreferenceTool::PreferenceTool(QString program)
{
    const QString resolved = QStandardPaths::findExecutable(program);
    path = resolved.isEmpty() ? program : resolved;
}

bool PreferenceTool::found() const { return !QStandardPaths::findExecutable(path).isEmpty(); }

PreferenceTool::Result PreferenceTool::run(const QStringList &arguments) const
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    process.setProcessEnvironment(env);
    process.start(path, arguments);
    Result result;
    if (!process.waitForStarted(-1)) {
        Log::write(QStringLiteral("Mesa limpa: ") + path + QStringLiteral(" falhou: ") + process.errorString());
        return result;
    }
    process.waitForFinished(-1);
    result.started = true;
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}
