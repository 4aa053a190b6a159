#pragma once

// A private X server for tests: Xvfb on a display number it picks itself (-displayfd), window
// managers and desktop programs on it, each with a temporary HOME and XDG folders so no user
// setting leaks in, and an optional session bus of its own. The destructor kills everything,
// the server last.

#include "TestSupport.h"

#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <functional>
#include <memory>
#include <vector>

class XServer {
public:
    explicit XServer(QString screen = QStringLiteral("1280x800x24"))
        : screenGeometry(std::move(screen))
    {
        for (const char *sub : {"home", "config", "cache", "data", "state"})
            QDir(dir.path()).mkpath(QString::fromLatin1(sub));
    }
    ~XServer() { stop(); }
    XServer(const XServer &) = delete;
    XServer &operator=(const XServer &) = delete;

    static bool installed(const QString &program) { return !QStandardPaths::findExecutable(program).isEmpty(); }

    bool start(QString &why)
    {
        if (!installed(QStringLiteral("Xvfb"))) {
            why = QStringLiteral("Xvfb is not installed (package xvfb)");
            return false;
        }
        // Only the display number comes on standard output: an unread pipe full of xkbcomp's
        // warnings would stall the server and all its clients.
        server.setStandardErrorFile(dir.filePath(QStringLiteral("Xvfb.log")));
        server.start(QStringLiteral("Xvfb"),
                     {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"), QStringLiteral("0"),
                      screenGeometry, QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        QByteArray number;
        poll([&] {
            server.waitForReadyRead(200);
            number += server.readAllStandardOutput();
            return number.contains('\n') || server.state() != QProcess::Running;
        });
        if (!number.contains('\n')) {
            const QByteArray log = testsupport::readFile(dir.filePath(QStringLiteral("Xvfb.log")));
            why = QStringLiteral("Xvfb gave no display number: ") + QString::fromUtf8(log);
            return false;
        }
        name = ':' + number.trimmed();
        return true;
    }

    QByteArray display() const { return name; }
    QString home() const { return dir.filePath(QStringLiteral("home")); }
    QString stateHome() const { return dir.filePath(QStringLiteral("state")); }

    // DISPLAY, the private folders, and the private session bus once there is one.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), QString::fromUtf8(name));
        env.insert(QStringLiteral("HOME"), home());
        for (const char *sub : {"config", "cache", "data", "state"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(sub).toUpper()),
                       dir.filePath(QString::fromLatin1(sub)));
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        env.remove(QStringLiteral("XAUTHORITY"));
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        if (!busAddress.isEmpty()) env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        return env;
    }

    // A standard session bus, so services such as xfconfd start on demand from the system's
    // service folders.
    bool startSessionBus(QString &why)
    {
        QProcess &bus = launch(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                                               QStringLiteral("--print-address=1")});
        QByteArray address;
        poll([&] {
            address = output(bus);
            return address.contains('\n') || bus.state() == QProcess::NotRunning;
        });
        busAddress = QString::fromUtf8(address.left(address.indexOf('\n')).trimmed());
        why = QStringLiteral("dbus-daemon gave no address");
        return !busAddress.isEmpty();
    }

    // Starts a window manager and waits until it takes windows.
    bool startManager(const QString &program, const QStringList &arguments, QString &why)
    {
        if (!installed(program)) {
            why = program + QStringLiteral(" is not installed");
            return false;
        }
        QProcess &manager = launch(program, arguments);
        if (!poll([&] { return !managerName().isEmpty() || manager.state() == QProcess::NotRunning; }) ||
            manager.state() == QProcess::NotRunning) {
            why = program + QStringLiteral(" did not start: ") + QString::fromUtf8(output(manager));
            return false;
        }
        // A manager announces itself before it takes windows (openbox drops a window mapped in
        // between): it is ready once a probe window shows up in its client list.
        const bool managed = poll([&] {
            QProcess probe;
            probe.setProcessEnvironment(environment());
            probe.setStandardOutputFile(QProcess::nullDevice());
            probe.setStandardErrorFile(QProcess::nullDevice());
            probe.start(QStringLiteral("xmessage"),
                        {QStringLiteral("-name"), QStringLiteral("xserver-probe"), QStringLiteral("probe")});
            bool seen = false;
            for (int i = 0; i < 40 && !seen && probe.state() != QProcess::NotRunning; ++i) {
                QThread::msleep(50);
                seen = !rootItems("_NET_CLIENT_LIST").isEmpty();
            }
            probe.kill();
            probe.waitForFinished(5000);
            return seen;
        });
        poll([&] { return rootItems("_NET_CLIENT_LIST").isEmpty(); });
        why = program + QStringLiteral(" did not start managing windows");
        return managed;
    }

    // Starts another program on the server; its output goes to a file (output()), never to a
    // pipe that may fill.
    QProcess &launch(const QString &program, const QStringList &arguments)
    {
        auto process = std::make_unique<QProcess>();
        const QString log = dir.filePath(QStringLiteral("output-%1.log").arg(processes.size()));
        process->setProcessEnvironment(environment());
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->setStandardOutputFile(log);
        process->setObjectName(log);
        process->start(program, arguments);
        processes.push_back(std::move(process));
        return *processes.back();
    }

    // What a launched program wrote so far.
    static QByteArray output(const QProcess &process)
    {
        QFile file(process.objectName());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // Runs an X client (xprop, xdotool, import) to its end; its standard output.
    QByteArray run(const QString &program, const QStringList &arguments) const
    {
        QProcess process;
        process.setProcessEnvironment(environment());
        process.start(program, arguments);
        process.waitForFinished(60000);
        return process.readAllStandardOutput();
    }

    // The running manager's _NET_WM_NAME, empty while none has announced itself.
    QByteArray managerName() const
    {
        const QByteArray id = rootItems("_NET_SUPPORTING_WM_CHECK").trimmed();
        if (id.isEmpty()) return {};
        const QByteArray named =
            run(QStringLiteral("xprop"), {QStringLiteral("-id"), QString::fromLatin1(id), QStringLiteral("-notype"),
                                          QStringLiteral("_NET_WM_NAME")});
        const qsizetype quote = named.indexOf('"');
        return quote < 0 ? QByteArray() : named.mid(quote + 1, named.lastIndexOf('"') - quote - 1);
    }

    void stop()
    {
        for (auto it = processes.rbegin(); it != processes.rend(); ++it) end(**it);
        processes.clear();
        end(server);
    }

private:
    // Polls for up to a minute (the machines are shared and slow); whether `done` came true.
    static bool poll(const std::function<bool()> &done)
    {
        QElapsedTimer timer;
        timer.start();
        while (!done()) {
            if (timer.elapsed() > 60000) return false;
            QThread::msleep(50);
        }
        return true;
    }

    // A root window property as xprop prints its items, empty when unset.
    QByteArray rootItems(const char *property) const
    {
        const QByteArray line = run(QStringLiteral("xprop"), {QStringLiteral("-root"), QStringLiteral("-notype"),
                                                              QString::fromLatin1(property)});
        const qsizetype hash = line.indexOf('#');
        return hash < 0 ? QByteArray() : line.mid(hash + 1).trimmed();
    }

    static void end(QProcess &process)
    {
        if (process.state() == QProcess::NotRunning) return;
        process.terminate();
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    QString screenGeometry;
    QTemporaryDir dir;
    QProcess server;
    QByteArray name;
    QString busAddress;
    std::vector<std::unique_ptr<QProcess>> processes;
};
