#pragma once

// A private KWin on its virtual backend, one output of a chosen logical size and scale, serving its
// screenshots on the test's bus. Stopped with the object.

#include "PrivateHome.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QImage>
#include <QVariantMap>
#include <memory>
#include <poll.h>
#include <unistd.h>

class KWinServer : public PrivateHome {
public:
    // Lets `program` bind the restricted Wayland `interfaces` (comma-separated); before start().
    void trust(const QString &program, const QString &interfaces)
    {
        const QString entry = "[Desktop Entry]\nType=Application\nName=Trusted\nExec=%1\nX-KDE-Wayland-Interfaces=%2\n";
        testsupport::writeFile(home() + "/.local/share/applications/trusted.desktop",
                               entry.arg(program, interfaces).toUtf8());
    }

    // `busAddress`: the session bus KWin and its clients share.
    bool start(const QSize &logical, const QString &scale, const QString &busAddress, QString &why)
    {
        if (!installed("kwin_wayland", why)) return false;
        // A copy runs, as a container may refuse the file capabilities; a failed copy fails to start, saying why.
        const QString program = dir.filePath("kwin_wayland");
        QFile::copy(QStandardPaths::findExecutable("kwin_wayland"), program);
        // The test reads the screen back without the consent KWin would otherwise ask for.
        server.setProcessEnvironment(serverEnvironment({{"DBUS_SESSION_BUS_ADDRESS", busAddress},
                                                        {"QT_QPA_PLATFORM", "offscreen"},
                                                        {"KWIN_SCREENSHOT_NO_PERMISSION_CHECKS", "1"}}));
        server.setWorkingDirectory(dir.path());
        server.launch(program,
                      {"--virtual", "--socket", "wayland-kwin", "--width", QString::number(logical.width()), "--height",
                       QString::number(logical.height()), "--scale", scale, "--no-lockscreen"},
                      dir.filePath("kwin.log"));
        socket = QDir(path("run")).filePath("wayland-kwin");
        bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(busAddress, "kwin-test"));
        // Ready once its screenshot service is on the bus.
        return server.waitReady("kwin_wayland", std::chrono::seconds(30), why, [&] {
            return QFile::exists(socket) && bus->interface()->isServiceRegistered("org.kde.KWin");
        });
    }

    // A client's environment: this compositor and the private folders.
    QProcessEnvironment environment() const { return clientEnvironment({{"WAYLAND_DISPLAY", socket}}); }

    // The whole first output in device pixels, as KWin composites it; null when it failed.
    QImage screenshot() const
    {
        int fds[2];
        if (::pipe(fds) != 0) return {};
        QVariantMap info;
        {
            // The message holds a copy of the pipe's write end: it has to go before the pipe can end.
            QDBusMessage call = QDBusMessage::createMethodCall("org.kde.KWin", "/org/kde/KWin/ScreenShot2",
                                                               "org.kde.KWin.ScreenShot2", "CaptureActiveScreen");
            call << QVariantMap{{"native-resolution", true}} << QVariant::fromValue(QDBusUnixFileDescriptor(fds[1]));
            ::close(fds[1]);
            const QDBusMessage reply = bus->call(call, QDBus::Block, 20000);
            if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
                info = qdbus_cast<QVariantMap>(reply.arguments().at(0));
        }
        QByteArray pixels;
        char chunk[65536];
        for (pollfd p{fds[0], POLLIN, 0}; ::poll(&p, 1, 20000) > 0;) {
            const ssize_t n = ::read(fds[0], chunk, sizeof chunk);
            if (n <= 0) break;
            pixels.append(chunk, n);
        }
        ::close(fds[0]);
        const auto field = [&](const char *key) { return info.value(key).toInt(); };
        if (info.isEmpty() || pixels.size() < qsizetype(field("stride")) * field("height")) return {};
        return QImage(reinterpret_cast<const uchar *>(pixels.constData()), field("width"), field("height"),
                      field("stride"), QImage::Format(field("format")))
            .copy();
    }

private:
    std::unique_ptr<QDBusConnection> bus;
    QString socket;
    ServerProcess server;  // last: stopped first
};
