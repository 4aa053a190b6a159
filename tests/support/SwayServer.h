#pragma once

// A private headless sway for tests (wlroots' headless backend and software renderer): its own
// runtime folder and IPC socket, temporary HOME and XDG folders, swaymsg and grim against it.
// sway refuses to run as root, so under root it runs as an unprivileged test user (made once
// with useradd) through runuser; the test's own programs stay root and reach the sockets anyway.
// The destructor asks sway to exit, then kills what is left.

#include "PrivateHome.h"
#include "TestSupport.h"

#include <QImage>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

class SwayServer : public PrivateHome {
public:
    ~SwayServer() { stop(); }

    // `config`: sway's configuration text.
    bool start(const QString &config, QString &why)
    {
        for (const char *program : {"sway", "swaymsg", "grim"})
            if (!installed(QString::fromLatin1(program))) {
                why = QString::fromLatin1(program) + " is not installed";
                return false;
            }
        const QString configFile = dir.filePath("sway.conf");
        QFile f(configFile);
        if (!f.open(QIODevice::WriteOnly) || f.write(config.toUtf8()) < 0) return false;
        f.close();
        const QString runtime = path("run");
        QStringList command{"sway", "-c", configFile};
        if (::getuid() == 0) {
            if (!testUser(why)) return false;
            // The user reads the configuration and owns the runtime folder, which sway wants private.
            ::chmod(QFile::encodeName(dir.path()).constData(), 0755);
            ::chmod(QFile::encodeName(configFile).constData(), 0644);
            if (::chown(QFile::encodeName(runtime).constData(), uid, gid) != 0) {
                why = "cannot hand the runtime folder to the test user";
                return false;
            }
            command = QStringList{"-u", QString::fromLatin1(kUser), "--"} + command;
            command.prepend("runuser");
        }
        QProcessEnvironment env = serverEnvironment();
        env.insert("WLR_BACKENDS", "headless");
        env.insert("WLR_RENDERER", "pixman");
        env.insert("WLR_LIBINPUT_NO_DEVICES", "1");
        server.setProcessEnvironment(env);
        server.setStandardOutputFile(dir.filePath("sway.log"));
        server.setStandardErrorFile(dir.filePath("sway.log"));
        server.start(command.takeFirst(), command);
        // Ready once both sockets are there and the IPC answers.
        const bool up = testsupport::waitUntil(
            [&] {
                const QStringList sockets = QDir(runtime).entryList(QDir::System);
                for (const QString &name : sockets) {
                    if (name.startsWith("wayland-") && !name.endsWith(".lock")) wayland = QDir(runtime).filePath(name);
                    if (name.startsWith("sway-ipc.")) ipc = QDir(runtime).filePath(name);
                }
                return (!wayland.isEmpty() && !ipc.isEmpty() && !msg({"-t", "get_outputs"}).isEmpty()) ||
                       server.state() == QProcess::NotRunning;
            },
            std::chrono::seconds(20));
        if (!up || server.state() == QProcess::NotRunning) {
            why = "sway did not start: " + QString::fromUtf8(testsupport::readFile(dir.filePath("sway.log")));
            return false;
        }
        return true;
    }

    // A client's environment: the compositor's sockets and the private folders.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = clientEnvironment();
        env.insert("WAYLAND_DISPLAY", wayland);
        env.insert("SWAYSOCK", ipc);
        return env;
    }

    // swaymsg's answer; empty when it failed.
    QByteArray msg(const QStringList &arguments) const
    {
        QProcess p;
        p.setProcessEnvironment(environment());
        p.start("swaymsg", arguments);
        if (!p.waitForFinished(10000) || p.exitCode() != 0) return {};
        return p.readAllStandardOutput();
    }

    // A screenshot of one output, or of all of them.
    QImage screenshot(const QString &output = {}) const
    {
        QProcess p;
        p.setProcessEnvironment(environment());
        QStringList args;
        if (!output.isEmpty()) args << "-o" << output;
        p.start("grim", args << "-t"
                             << "png"
                             << "-");
        if (!p.waitForFinished(20000) || p.exitCode() != 0) return {};
        return QImage::fromData(p.readAllStandardOutput(), "PNG");
    }

    void stop()
    {
        if (server.state() == QProcess::NotRunning) return;
        msg({"exit"});
        if (!server.waitForFinished(5000)) PrivateHome::stop(server);
    }

private:
    static constexpr const char *kUser = "turnelo-test";

    bool testUser(QString &why)
    {
        if (!::getpwnam(kUser)) {
            QProcess add;
            add.start("useradd", {"--system", "--no-create-home", QString::fromLatin1(kUser)});
            add.waitForFinished(20000);
        }
        const passwd *user = ::getpwnam(kUser);
        if (!user) {
            why = "cannot make the test user " + QString::fromLatin1(kUser);
            return false;
        }
        uid = user->pw_uid;
        gid = user->pw_gid;
        return true;
    }

    QProcess server;
    QString wayland, ipc;
    uid_t uid = 0;
    gid_t gid = 0;
};
