#pragma once

// A private KWin on its virtual backend, for tests of what KWin's Wayland session does with the
// room: one output of a chosen logical size and scale, on the test's private bus (KWin serves its
// screenshots there). kwin_wayland is installed with file capabilities, which a container may
// refuse to exec: a copy without them runs instead. The destructor stops it.

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
    ~KWinServer() { stop(server); }

    // Lets `program` bind the restricted Wayland `interfaces` (comma-separated), as its installed
    // desktop entry would; before start().
    void trust(const QString &program, const QString &interfaces)
    {
        testsupport::writeFile(home() + "/.local/share/applications/trusted.desktop",
                               QStringLiteral("[Desktop Entry]\nType=Application\nName=Trusted\nExec=%1\n"
                                              "X-KDE-Wayland-Interfaces=%2\n")
                                   .arg(program, interfaces)
                                   .toUtf8());
    }

    // `busAddress`: the session bus KWin and its clients share.
    bool start(const QSize &logical, const QString &scale, const QString &busAddress, QString &why)
    {
        const QString installed = QStandardPaths::findExecutable("kwin_wayland");
        const QString program = dir.filePath("kwin_wayland");
        if (installed.isEmpty() || !QFile::copy(installed, program)) {
            why = "kwin_wayland is not installed";
            return false;
        }
        QProcessEnvironment env = serverEnvironment();
        env.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
        env.insert("QT_QPA_PLATFORM", "offscreen");
        // The test reads the screen back without the consent KWin would otherwise ask for.
        env.insert("KWIN_SCREENSHOT_NO_PERMISSION_CHECKS", "1");
        server.setProcessEnvironment(env);
        server.setWorkingDirectory(dir.path());
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.setStandardOutputFile(dir.filePath("kwin.log"));
        server.start(program, {"--virtual", "--socket", "wayland-kwin", "--width", QString::number(logical.width()),
                               "--height", QString::number(logical.height()), "--scale", scale, "--no-lockscreen"});
        socket = QDir(path("run")).filePath("wayland-kwin");
        bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(busAddress, "kwin-test"));
        // Ready once its screenshot service is on the bus.
        if (!testsupport::waitUntil(
                [&] {
                    return (QFile::exists(socket) && bus->interface()->isServiceRegistered("org.kde.KWin")) ||
                           server.state() == QProcess::NotRunning;
                },
                std::chrono::seconds(30)) ||
            server.state() == QProcess::NotRunning) {
            why = "kwin_wayland did not start: " + QString::fromUtf8(testsupport::readFile(dir.filePath("kwin.log")));
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

    // The whole first output in device pixels, as KWin composites it; null when it failed.
    QImage screenshot() const
    {
        int fds[2];
        if (::pipe(fds) != 0) return {};
        QVariantMap info;
        {
            // The message holds a copy of the pipe's write end: it has to go before the pipe
            // can end.
            QDBusMessage call = QDBusMessage::createMethodCall(
                QStringLiteral("org.kde.KWin"), QStringLiteral("/org/kde/KWin/ScreenShot2"),
                QStringLiteral("org.kde.KWin.ScreenShot2"), QStringLiteral("CaptureActiveScreen"));
            call << QVariantMap{{QStringLiteral("native-resolution"), true}}
                 << QVariant::fromValue(QDBusUnixFileDescriptor(fds[1]));
            ::close(fds[1]);
            const QDBusMessage reply = bus->call(call, QDBus::Block, 20000);
            if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
                info = qdbus_cast<QVariantMap>(reply.arguments().at(0));
        }
        QByteArray pixels;
        char chunk[65536];
        for (;;) {
            pollfd p{fds[0], POLLIN, 0};
            if (::poll(&p, 1, 20000) <= 0) break;
            const ssize_t n = ::read(fds[0], chunk, sizeof chunk);
            if (n <= 0) break;
            pixels.append(chunk, n);
        }
        ::close(fds[0]);
        const int width = info.value("width").toInt(), height = info.value("height").toInt();
        const int stride = info.value("stride").toInt();
        if (info.isEmpty() || pixels.size() < qsizetype(stride) * height) return {};
        return QImage(reinterpret_cast<const uchar *>(pixels.constData()), width, height, stride,
                      QImage::Format(info.value("format").toInt()))
            .copy();
    }

private:
    QProcess server;
    QString socket;
    std::unique_ptr<QDBusConnection> bus;
};
