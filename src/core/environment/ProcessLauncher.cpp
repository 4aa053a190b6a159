#include "core/environment/ProcessLauncher.h"

#include <QProcess>

std::optional<QString> SystemProcessLauncher::run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForStarted(-1)) return process.errorString();
    process.waitForFinished(-1);
    return std::nullopt;
}
