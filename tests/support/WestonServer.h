#pragma once

// A private headless weston for tests: a Wayland compositor that offers no layer surfaces, as
// GNOME's does not. Its own runtime folder; the destructor stops it.

#include "TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <sys/stat.h>

class WestonServer {
public:
    ~WestonServer()
    {
        if (server.state() == QProcess::NotRunning) return;
        server.terminate();
        if (!server.waitForFinished(5000)) server.kill();
        server.waitForFinished(5000);
    }

    bool start(QString &why)
    {
        if (QStandardPaths::findExecutable(QStringLiteral("weston")).isEmpty()) {
            why = QStringLiteral("weston is not installed");
            return false;
        }
        const QString runtime = dir.filePath(QStringLiteral("run"));
        QDir().mkpath(runtime);
        ::chmod(QFile::encodeName(runtime).constData(), 0700);
        QProcessEnvironment env;
        env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
        env.insert(QStringLiteral("HOME"), dir.path());
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        server.setProcessEnvironment(env);
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.start(QStringLiteral("weston"),
                     {QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--socket=wayland-test"),
                      QStringLiteral("--idle-time=0")});
        socket = QDir(runtime).filePath(QStringLiteral("wayland-test"));
        if (!testsupport::waitUntil([&] { return QFile::exists(socket) || server.state() == QProcess::NotRunning; },
                                    std::chrono::seconds(20)) ||
            server.state() == QProcess::NotRunning) {
            why = QStringLiteral("weston did not start: ") + QString::fromUtf8(server.readAll());
            return false;
        }
        return true;
    }
    // A client's environment: this compositor, private folders, no X11 display.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("WAYLAND_DISPLAY"), socket);
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir.filePath(QStringLiteral("run")));
        for (const char *sub : {"config", "cache", "data", "state"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(sub).toUpper()),
                       dir.filePath(QString::fromLatin1(sub)));
        for (const char *gone : {"DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(gone));
        return env;
    }
    QString stateHome() const { return dir.filePath(QStringLiteral("state")); }

private:
    QTemporaryDir dir;
    QProcess server;
    QString socket;
};
