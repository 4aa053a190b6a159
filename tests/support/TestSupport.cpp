#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>

namespace testsupport {

bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeout.count())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return true;
}

void spin(std::chrono::milliseconds span)
{
    waitUntil([] { return false; }, span);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll();
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        f.write(bytes);
}

QString builtTool(const QString &name)
{
    return QStringLiteral(TURNELO_BINARY_DIR) + QStringLiteral("/tools/") + name;
}

ToolResult runTool(const QString &program, const QStringList &args, const QStringList &extraEnv,
                   int timeoutMs)
{
    QProcess process;
    if (!extraEnv.isEmpty()) {
        QStringList env = QProcess::systemEnvironment();
        env += extraEnv;
        process.setEnvironment(env);
    }
    process.start(program, args);
    ToolResult result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        result.err = "timed out";
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

ScopedEnv::ScopedEnv(const char *name, const QByteArray &value)
    : name(name), old(qgetenv(name)), had(qEnvironmentVariableIsSet(name))
{
    qputenv(name, value);
}

ScopedEnv::~ScopedEnv()
{
    if (had)
        qputenv(name, old);
    else
        qunsetenv(name);
}

}  // namespace testsupport
