#pragma once

// A private headless sway for tests (wlroots' headless backend and software renderer): its own
// runtime folder and IPC socket, temporary HOME and XDG folders, swaymsg and grim against it.
// sway refuses to run as root, so under root it runs as an unprivileged test user (made once
// with useradd) through runuser; the test's own programs stay root and reach the sockets anyway.
// The destructor asks sway to exit, then kills what is left.

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <grp.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

class SwayServer {
public:
    SwayServer()
    {
        for (const char *sub : {"home", "config", "cache", "data", "state", "run", "client-run"})
            QDir(dir.path()).mkpath(QString::fromLatin1(sub));
    }
    ~SwayServer() { stop(); }
    SwayServer(const SwayServer &) = delete;
    SwayServer &operator=(const SwayServer &) = delete;

    static bool installed(const QString &program) { return !QStandardPaths::findExecutable(program).isEmpty(); }

    // `config`: sway's configuration text.
    bool start(const QString &config, QString &why)
    {
        for (const char *program : {"sway", "swaymsg", "grim"})
            if (!installed(QString::fromLatin1(program))) {
                why = QString::fromLatin1(program) + QStringLiteral(" is not installed");
                return false;
            }
        const QString configFile = dir.filePath(QStringLiteral("sway.conf"));
        QFile f(configFile);
        if (!f.open(QIODevice::WriteOnly) || f.write(config.toUtf8()) < 0) return false;
        f.close();
        const QString runtime = dir.filePath(QStringLiteral("run"));
        QStringList command{QStringLiteral("sway"), QStringLiteral("-c"), configFile};
        if (::getuid() == 0) {
            if (!testUser(why)) return false;
            // The user reads the configuration and owns the runtime folder, which sway wants private.
            ::chmod(QFile::encodeName(dir.path()).constData(), 0755);
            ::chmod(QFile::encodeName(configFile).constData(), 0644);
            if (::chown(QFile::encodeName(runtime).constData(), uid, gid) != 0) {
                why = QStringLiteral("cannot hand the runtime folder to the test user");
                return false;
            }
            command = QStringList{QStringLiteral("-u"), QString::fromLatin1(kUser), QStringLiteral("--")} + command;
            command.prepend(QStringLiteral("runuser"));
        }
        ::chmod(QFile::encodeName(runtime).constData(), 0700);
        QProcessEnvironment env;
        env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
        env.insert(QStringLiteral("HOME"), dir.filePath(QStringLiteral("home")));
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        env.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
        env.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
        env.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
        server.setProcessEnvironment(env);
        server.setStandardOutputFile(dir.filePath(QStringLiteral("sway.log")));
        server.setStandardErrorFile(dir.filePath(QStringLiteral("sway.log")));
        server.start(command.takeFirst(), command);
        // Ready once both sockets are there and the IPC answers.
        const bool up = testsupport::waitUntil(
            [&] {
                const QStringList sockets = QDir(runtime).entryList(QDir::System);
                for (const QString &name : sockets) {
                    if (name.startsWith(QStringLiteral("wayland-")) && !name.endsWith(QStringLiteral(".lock")))
                        wayland = QDir(runtime).filePath(name);
                    if (name.startsWith(QStringLiteral("sway-ipc."))) ipc = QDir(runtime).filePath(name);
                }
                return (!wayland.isEmpty() && !ipc.isEmpty() &&
                        !msg({QStringLiteral("-t"), QStringLiteral("get_outputs")}).isEmpty()) ||
                       server.state() == QProcess::NotRunning;
            },
            std::chrono::seconds(20));
        if (!up || server.state() == QProcess::NotRunning) {
            why = QStringLiteral("sway did not start: ") +
                  QString::fromUtf8(testsupport::readFile(dir.filePath(QStringLiteral("sway.log"))));
            return false;
        }
        return true;
    }

    // The compositor's sockets, private folders, and no X11 display.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("WAYLAND_DISPLAY"), wayland);
        env.insert(QStringLiteral("SWAYSOCK"), ipc);
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir.filePath(QStringLiteral("client-run")));
        env.insert(QStringLiteral("HOME"), dir.filePath(QStringLiteral("home")));
        for (const char *sub : {"config", "cache", "data", "state"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(sub).toUpper()),
                       dir.filePath(QString::fromLatin1(sub)));
        for (const char *gone : {"DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(gone));
        return env;
    }
    QString stateHome() const { return dir.filePath(QStringLiteral("state")); }

    // swaymsg's answer; empty when it failed.
    QByteArray msg(const QStringList &arguments) const
    {
        QProcess p;
        p.setProcessEnvironment(environment());
        p.start(QStringLiteral("swaymsg"), arguments);
        if (!p.waitForFinished(10000) || p.exitCode() != 0) return {};
        return p.readAllStandardOutput();
    }

    // A screenshot of one output, or of all of them.
    QImage screenshot(const QString &output = {}) const
    {
        QProcess p;
        p.setProcessEnvironment(environment());
        QStringList args;
        if (!output.isEmpty()) args << QStringLiteral("-o") << output;
        p.start(QStringLiteral("grim"), args << QStringLiteral("-t") << QStringLiteral("png") << QStringLiteral("-"));
        if (!p.waitForFinished(20000) || p.exitCode() != 0) return {};
        return QImage::fromData(p.readAllStandardOutput(), "PNG");
    }

    void stop()
    {
        if (server.state() == QProcess::NotRunning) return;
        msg({QStringLiteral("exit")});
        if (!server.waitForFinished(5000)) {
            server.terminate();
            if (!server.waitForFinished(5000)) server.kill();
            server.waitForFinished(5000);
        }
    }

private:
    static constexpr const char *kUser = "turnelo-test";

    bool testUser(QString &why)
    {
        if (!::getpwnam(kUser)) {
            QProcess add;
            add.start(QStringLiteral("useradd"),
                      {QStringLiteral("--system"), QStringLiteral("--no-create-home"), QString::fromLatin1(kUser)});
            add.waitForFinished(20000);
        }
        const passwd *user = ::getpwnam(kUser);
        if (!user) {
            why = QStringLiteral("cannot make the test user ") + QString::fromLatin1(kUser);
            return false;
        }
        uid = user->pw_uid;
        gid = user->pw_gid;
        return true;
    }

    QTemporaryDir dir;
    QProcess server;
    QString wayland, ipc;
    uid_t uid = 0;
    gid_t gid = 0;
};
