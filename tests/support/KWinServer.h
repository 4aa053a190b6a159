#pragma once

// A private KWin on its virtual backend, for tests of what KWin's Wayland session does with the
// room: its own runtime folder and socket, one output of a chosen logical size and scale, on the
// test's private bus (KWin serves its screenshots there). kwin_wayland is installed with file
// capabilities, which a container may refuse to exec: a copy without them runs instead.

#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QVariantMap>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

class KWinServer {
public:
    ~KWinServer()
    {
        if (server.state() == QProcess::NotRunning) return;
        server.terminate();
        if (!server.waitForFinished(5000)) server.kill();
        server.waitForFinished(5000);
    }

    // Lets `program` bind the restricted Wayland `interfaces` (comma-separated), as its installed
    // desktop entry would; before start().
    void trust(const QString &program, const QString &interfaces)
    {
        testsupport::writeFile(dir.filePath(QStringLiteral(".local/share/applications/trusted.desktop")),
                               QStringLiteral("[Desktop Entry]\nType=Application\nName=Trusted\nExec=%1\n"
                                              "X-KDE-Wayland-Interfaces=%2\n")
                                   .arg(program, interfaces)
                                   .toUtf8());
    }

    // `busAddress`: the session bus KWin and its clients share.
    bool start(const QSize &logical, const QString &scale, const QString &busAddress, QString &why)
    {
        const QString installed = QStandardPaths::findExecutable(QStringLiteral("kwin_wayland"));
        if (installed.isEmpty()) {
            why = QStringLiteral("kwin_wayland is not installed");
            return false;
        }
        const QString program = dir.filePath(QStringLiteral("kwin_wayland"));
        if (!QFile::copy(installed, program)) {
            why = QStringLiteral("cannot copy kwin_wayland");
            return false;
        }
        const QString runtime = dir.filePath(QStringLiteral("run"));
        QDir().mkpath(runtime);
        ::chmod(QFile::encodeName(runtime).constData(), 0700);
        QProcessEnvironment env;
        env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
        env.insert(QStringLiteral("HOME"), dir.path());
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        // The test reads the screen back without the user's consent KWin would otherwise ask for.
        env.insert(QStringLiteral("KWIN_SCREENSHOT_NO_PERMISSION_CHECKS"), QStringLiteral("1"));
        server.setProcessEnvironment(env);
        server.setWorkingDirectory(dir.path());
        server.setStandardOutputFile(dir.filePath(QStringLiteral("kwin.log")));
        server.setStandardErrorFile(dir.filePath(QStringLiteral("kwin.log")));
        server.start(program, {QStringLiteral("--virtual"), QStringLiteral("--socket"), QStringLiteral("wayland-kwin"),
                               QStringLiteral("--width"), QString::number(logical.width()), QStringLiteral("--height"),
                               QString::number(logical.height()), QStringLiteral("--scale"), scale,
                               QStringLiteral("--no-lockscreen")});
        socket = QDir(runtime).filePath(QStringLiteral("wayland-kwin"));
        bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(busAddress, QStringLiteral("kwin-test")));
        // Ready once its screenshot service is on the bus.
        if (!testsupport::waitUntil(
                [&] {
                    return (QFile::exists(socket) && bus->interface()->isServiceRegistered("org.kde.KWin")) ||
                           server.state() == QProcess::NotRunning;
                },
                std::chrono::seconds(30)) ||
            server.state() == QProcess::NotRunning) {
            why = QStringLiteral("kwin_wayland did not start: ") +
                  QString::fromUtf8(testsupport::readFile(dir.filePath(QStringLiteral("kwin.log"))));
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
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   server.processEnvironment().value(QStringLiteral("DBUS_SESSION_BUS_ADDRESS")));
        for (const char *sub : {"config", "cache", "data", "state"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(sub).toUpper()),
                       dir.filePath(QString::fromLatin1(sub)));
        for (const char *gone : {"DISPLAY", "XAUTHORITY", "QT_QPA_PLATFORM"}) env.remove(QString::fromLatin1(gone));
        return env;
    }
    QString stateHome() const { return dir.filePath(QStringLiteral("state")); }

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
    QTemporaryDir dir;
    QProcess server;
    QString socket;
    std::unique_ptr<QDBusConnection> bus;
};
