#pragma once

// A private X server for tests: Xvfb on a display number it picks itself (-displayfd), window
// managers and desktop programs on it, each with a temporary HOME and XDG folders so no user
// setting leaks in, and an optional session bus of its own. The destructor kills everything,
// the server last.

#include "PrivateHome.h"
#include "TestSupport.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QImage>
#include <QThread>
#include <functional>
#include <memory>
#include <vector>

class XServer : public PrivateHome {
public:
    explicit XServer(QString screen = "1280x800x24")
        : screenGeometry(std::move(screen))
    {
    }
    ~XServer() { stop(); }

    bool start(QString &why)
    {
        if (!installed("Xvfb")) {
            why = "Xvfb is not installed (package xvfb)";
            return false;
        }
        // Only the display number comes on standard output: an unread pipe full of xkbcomp's
        // warnings would stall the server and all its clients.
        server.setStandardErrorFile(dir.filePath("Xvfb.log"));
        server.start("Xvfb", {"-displayfd", "1", "-screen", "0", screenGeometry, "-nolisten", "tcp"});
        QByteArray number;
        poll([&] {
            server.waitForReadyRead(200);
            number += server.readAllStandardOutput();
            return number.contains('\n') || server.state() != QProcess::Running;
        });
        if (!number.contains('\n')) {
            const QByteArray log = testsupport::readFile(dir.filePath("Xvfb.log"));
            why = "Xvfb gave no display number: " + QString::fromUtf8(log);
            return false;
        }
        name = ':' + number.trimmed();
        return true;
    }

    QByteArray display() const { return name; }

    // DISPLAY, Qt on it, the private folders, and the private session bus once there is one.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = clientEnvironment();
        env.insert("DISPLAY", QString::fromUtf8(name));
        env.insert("QT_QPA_PLATFORM", "xcb");
        if (!busAddress.isEmpty()) env.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
        return env;
    }

    // A standard session bus, so services such as xfconfd start on demand from the system's
    // service folders.
    bool startSessionBus(QString &why)
    {
        QProcess &bus = launch("dbus-daemon", {"--session", "--nofork", "--print-address=1"});
        QByteArray address;
        poll([&] {
            address = output(bus);
            return address.contains('\n') || bus.state() == QProcess::NotRunning;
        });
        busAddress = QString::fromUtf8(address.left(address.indexOf('\n')).trimmed());
        why = "dbus-daemon gave no address";
        return !busAddress.isEmpty();
    }

    // Starts a window manager and waits until it takes windows.
    bool startManager(const QString &program, const QStringList &arguments, QString &why)
    {
        if (!installed(program)) {
            why = program + " is not installed";
            return false;
        }
        QProcess *manager = &launch(program, arguments);
        const auto started = [&] {
            return poll([&] { return !managerName().isEmpty() || manager->state() == QProcess::NotRunning; }) &&
                   manager->state() != QProcess::NotRunning;
        };
        bool running = started();
        // On a loaded machine a manager has now and then failed to open a display that Xvfb had
        // already announced; a second try has always found it.
        if (!running && output(*manager).contains("Failed to open the display")) {
            QThread::msleep(500);
            manager = &launch(program, arguments);
            running = started();
        }
        if (!running) {
            why = program + " did not start: " + QString::fromUtf8(output(*manager));
            return false;
        }
        // A manager announces itself before it takes windows (openbox drops a window mapped in
        // between): it is ready once a probe window shows up in its client list.
        const bool managed = poll([&] {
            QProcess probe;
            probe.setProcessEnvironment(environment());
            probe.setStandardOutputFile(QProcess::nullDevice());
            probe.setStandardErrorFile(QProcess::nullDevice());
            probe.start("xmessage", {"-name", "xserver-probe", "probe"});
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
        why = program + " did not start managing windows";
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
    // A screenshot of the root window or of one window, by its id; null when it failed.
    QImage screenshot(const QString &window = "root") const
    {
        return QImage::fromData(run("import", {"-window", window, "png:-"}), "PNG");
    }

    // The running manager's _NET_WM_NAME, empty while none has announced itself.
    QByteArray managerName() const
    {
        const QByteArray id = rootItems("_NET_SUPPORTING_WM_CHECK").trimmed();
        if (id.isEmpty()) return {};
        const QByteArray named = run("xprop", {"-id", QString::fromLatin1(id), "-notype", "_NET_WM_NAME"});
        const qsizetype quote = named.indexOf('"');
        return quote < 0 ? QByteArray() : named.mid(quote + 1, named.lastIndexOf('"') - quote - 1);
    }

    void stop()
    {
        for (auto it = processes.rbegin(); it != processes.rend(); ++it) PrivateHome::stop(**it);
        processes.clear();
        PrivateHome::stop(server);
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
        const QByteArray line = run("xprop", {"-root", "-notype", QString::fromLatin1(property)});
        const qsizetype hash = line.indexOf('#');
        return hash < 0 ? QByteArray() : line.mid(hash + 1).trimmed();
    }

    QString screenGeometry;
    QProcess server;
    QByteArray name;
    QString busAddress;
    std::vector<std::unique_ptr<QProcess>> processes;
};
