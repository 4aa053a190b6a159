#pragma once

// A private headless weston: a compositor without layer surfaces, as GNOME's. Stopped with the object.

#include "PrivateHome.h"
#include "TestSupport.h"

class WestonServer : public PrivateHome {
public:
    bool start(QString &why)
    {
        if (!installed("weston", why)) return false;
        server.setProcessEnvironment(serverEnvironment());
        server.launch("weston", {"--backend=headless-backend.so", "--socket=wayland-test", "--idle-time=0"},
                      dir.filePath("weston.log"));
        socket = QDir(path("run")).filePath("wayland-test");
        return server.waitReady("weston", std::chrono::seconds(20), why, [&] { return QFile::exists(socket); });
    }
    // A client's environment: this compositor and the private folders.
    QProcessEnvironment environment() const { return clientEnvironment({{"WAYLAND_DISPLAY", socket}}); }

private:
    QString socket;
    ServerProcess server;
};
