#pragma once

// A private headless sway (wlroots' headless backend, software renderer), with swaymsg and grim against it.

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
            if (!installed(program, why)) return false;
        const QString configFile = dir.filePath("sway.conf");
        testsupport::writeFile(configFile, config.toUtf8());
        const QString runtime = path("run");
        QStringList command{"sway", "-c", configFile};
        if (::getuid() == 0) {
            // sway refuses root: a test user runs it, owning the private runtime folder sway wants.
            if (!::getpwnam(kUser)) testsupport::runTool("useradd", {"--system", "--no-create-home", kUser}, {}, 20000);
            const passwd *user = ::getpwnam(kUser);
            ::chmod(QFile::encodeName(dir.path()).constData(), 0755);
            ::chmod(QFile::encodeName(configFile).constData(), 0644);
            if (!user || ::chown(QFile::encodeName(runtime).constData(), user->pw_uid, user->pw_gid) != 0) {
                why = QString(user ? "cannot hand the runtime folder to " : "cannot make ") + "the test user " + kUser;
                return false;
            }
            command = QStringList{"runuser", "-u", kUser, "--"} + command;
        }
        server.setProcessEnvironment(serverEnvironment(
            {{"WLR_BACKENDS", "headless"}, {"WLR_RENDERER", "pixman"}, {"WLR_LIBINPUT_NO_DEVICES", "1"}}));
        server.launch(command.takeFirst(), command, dir.filePath("sway.log"));
        // Ready once both sockets are there and the IPC answers.
        return server.waitReady("sway", std::chrono::seconds(20), why, [&] {
            for (const QString &name : QDir(runtime).entryList(QDir::System)) {
                if (name.startsWith("wayland-") && !name.endsWith(".lock")) wayland = QDir(runtime).filePath(name);
                if (name.startsWith("sway-ipc.")) ipc = QDir(runtime).filePath(name);
            }
            return !wayland.isEmpty() && !ipc.isEmpty() && !msg({"-t", "get_outputs"}).isEmpty();
        });
    }

    // A client's environment: the compositor's sockets and the private folders.
    QProcessEnvironment environment() const
    {
        return clientEnvironment({{"WAYLAND_DISPLAY", wayland}, {"SWAYSOCK", ipc}});
    }

    // swaymsg's answer; empty when it failed.
    QByteArray msg(const QStringList &arguments) const { return outputOf(environment(), "swaymsg", arguments, 10000); }

    // A screenshot of one output, or of all of them.
    QImage screenshot(const QString &output = {}) const
    {
        const QStringList only = output.isEmpty() ? QStringList() : QStringList{"-o", output};
        return QImage::fromData(outputOf(environment(), "grim", only + QStringList{"-t", "png", "-"}, 20000), "PNG");
    }

    void stop()
    {
        if (server.state() == QProcess::NotRunning) return;
        msg({"exit"});
        if (!server.waitForFinished(5000)) server.stop();
    }

private:
    static constexpr const char *kUser = "turnelo-test";
    ServerProcess server;
    QString wayland, ipc;
};
