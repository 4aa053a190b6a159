#pragma once

// A temporary HOME and XDG folders for a private display server and its programs: no user setting leaks in or out.

#include "ServerProcess.h"

#include <QDir>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <sys/stat.h>
#include <utility>

class PrivateHome {
public:
    PrivateHome()
    {
        for (const char *sub : {"home", "config", "cache", "data", "state", "run", "client-run"})
            QDir(dir.path()).mkpath(QString::fromLatin1(sub));
        // The runtime folders of the server ("run") and of its clients, private as their users want.
        for (const char *sub : {"run", "client-run"}) ::chmod(QFile::encodeName(path(sub)).constData(), 0700);
    }

    QString path(const char *sub) const { return dir.filePath(QString::fromLatin1(sub)); }
    QString home() const { return path("home"); }
    QString stateHome() const { return path("state"); }

    // This environment with the private folders and `extra`, without its display, session bus and Qt platform.
    using Vars = QList<std::pair<QString, QString>>;
    QProcessEnvironment clientEnvironment(const Vars &extra = {}) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *gone :
             {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(gone));
        env.insert("HOME", home());
        env.insert("XDG_RUNTIME_DIR", path("client-run"));
        for (const char *sub : {"config", "cache", "data", "state"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(sub).toUpper()), path(sub));
        for (const auto &[key, value] : extra) env.insert(key, value);
        return env;
    }
    // What a server itself gets: PATH, the private HOME, the server's runtime folder and `extra`.
    QProcessEnvironment serverEnvironment(const Vars &extra = {}) const
    {
        QProcessEnvironment env;
        env.insert("PATH", qEnvironmentVariable("PATH"));
        env.insert("HOME", home());
        env.insert("XDG_RUNTIME_DIR", path("run"));
        for (const auto &[key, value] : extra) env.insert(key, value);
        return env;
    }

    static bool installed(const QString &program) { return !QStandardPaths::findExecutable(program).isEmpty(); }
    // The same, with `why` saying what is missing.
    static bool installed(const QString &program, QString &why)
    {
        if (installed(program)) return true;
        why = program + " is not installed";
        return false;
    }
    static void stop(QProcess &process) { ServerProcess::stop(process); }

    // A client's standard output once it ends; empty when it failed.
    static QByteArray outputOf(const QProcessEnvironment &env, const QString &program, const QStringList &arguments,
                               int timeoutMs = 60000)
    {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(program, arguments);
        const bool done = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
        return done && process.exitCode() == 0 ? process.readAllStandardOutput() : QByteArray();
    }

protected:
    QTemporaryDir dir;
};
