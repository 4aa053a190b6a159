#pragma once

// A temporary HOME with its XDG folders for a test's private display server and the programs on
// it, so that no user setting leaks in or out: what the X, sway and weston servers share.

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <sys/stat.h>

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

    // This process's environment with the private folders, and without its display, session
    // bus and Qt platform.
    QProcessEnvironment clientEnvironment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *gone :
             {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(gone));
        env.insert("HOME", home());
        env.insert("XDG_RUNTIME_DIR", path("client-run"));
        for (const char *sub : {"config", "cache", "data", "state"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(sub).toUpper()), path(sub));
        return env;
    }
    // What a server itself gets: PATH, the private HOME and the server's runtime folder.
    QProcessEnvironment serverEnvironment() const
    {
        QProcessEnvironment env;
        env.insert("PATH", qEnvironmentVariable("PATH"));
        env.insert("HOME", home());
        env.insert("XDG_RUNTIME_DIR", path("run"));
        return env;
    }

    static bool installed(const QString &program) { return !QStandardPaths::findExecutable(program).isEmpty(); }

    // Asks a process to end, then kills it.
    static void stop(QProcess &process)
    {
        if (process.state() == QProcess::NotRunning) return;
        process.terminate();
        if (!process.waitForFinished(5000)) process.kill();
        process.waitForFinished(5000);
    }

protected:
    QTemporaryDir dir;
};
