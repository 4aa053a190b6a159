#pragma once

// A private headless weston for tests: a Wayland compositor that offers no layer surfaces, as
// GNOME's does not. The destructor stops it.

#include "PrivateHome.h"
#include "TestSupport.h"

class WestonServer : public PrivateHome {
public:
    ~WestonServer() { stop(server); }

    bool start(QString &why)
    {
        if (!installed("weston")) {
            why = "weston is not installed";
            return false;
        }
        server.setProcessEnvironment(serverEnvironment());
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.start("weston", {"--backend=headless-backend.so", "--socket=wayland-test", "--idle-time=0"});
        socket = QDir(path("run")).filePath("wayland-test");
        if (!testsupport::waitUntil([&] { return QFile::exists(socket) || server.state() == QProcess::NotRunning; },
                                    std::chrono::seconds(20)) ||
            server.state() == QProcess::NotRunning) {
            why = "weston did not start: " + QString::fromUtf8(server.readAll());
            return false;
        }
        return true;
    }
    // A client's environment: this compositor and the private folders.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = clientEnvironment();
        env.insert("WAYLAND_DISPLAY", socket);
        return env;
    }

private:
    QProcess server;
    QString socket;
};
