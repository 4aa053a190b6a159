#pragma once

// A private Xvfb with window managers, programs and optionally a session bus on it. Stopped with the object.

#include "PrivateHome.h"
#include "TestSupport.h"

#include <QImage>
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
        if (!installed("Xvfb", why)) return false;
        // Only the display number on standard output: a full pipe of xkbcomp's warnings would stall it.
        server.launch("Xvfb", {"-displayfd", "1", "-screen", "0", screenGeometry, "-nolisten", "tcp"},
                      dir.filePath("Xvfb.log"), true);
        if (!server.waitReady("Xvfb", kWait, why, [&] {
                return server.canReadLine() || (server.waitForReadyRead(200) && server.canReadLine());
            }))
            return false;
        name = ':' + server.readLine().trimmed();
        return true;
    }

    QByteArray display() const { return name; }

    // DISPLAY, Qt on it, the private folders, and the private session bus once there is one.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = clientEnvironment({{"DISPLAY", QString::fromUtf8(name)}, {"QT_QPA_PLATFORM", "xcb"}});
        if (!busAddress.isEmpty()) env.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
        return env;
    }

    // A standard session bus, so services such as xfconfd start on demand from the system's folders.
    bool startSessionBus(QString &why)
    {
        ServerProcess &bus = launch("dbus-daemon", {"--session", "--nofork", "--print-address=1"});
        const bool up = bus.waitReady("dbus-daemon", kWait, why, [&] { return bus.log().contains('\n'); });
        busAddress = up ? QString::fromUtf8(bus.log().split('\n').first().trimmed()) : QString();
        return up;
    }

    // Starts a window manager and waits until it takes windows.
    bool startManager(const QString &program, const QStringList &arguments, QString &why)
    {
        if (!installed(program, why)) return false;
        // Under load a manager has failed to open a display Xvfb had announced; a second try finds it.
        for (int attempt = 0;; ++attempt) {
            ServerProcess &manager = launch(program, arguments);
            if (manager.waitReady(program, kWait, why, [&] { return !managerName().isEmpty(); })) break;
            if (attempt > 0 || !manager.log().contains("Failed to open the display")) return false;
            QThread::msleep(500);
        }
        // Announced is not ready (openbox drops windows in between): wait for a probe in its client list.
        const bool managed = ServerProcess::poll(
            [&] {
                ServerProcess probe;
                probe.setProcessEnvironment(environment());
                probe.launch("xmessage", {"-name", "xserver-probe", "probe"}, QProcess::nullDevice());
                bool seen = false;
                for (int i = 0; i < 40 && !seen && probe.state() != QProcess::NotRunning; ++i) {
                    QThread::msleep(50);
                    seen = !rootItems("_NET_CLIENT_LIST").isEmpty();
                }
                return seen;
            },
            kWait);
        ServerProcess::poll([&] { return rootItems("_NET_CLIENT_LIST").isEmpty(); }, kWait);
        why = program + " did not start managing windows";
        return managed;
    }

    // Starts another program on the server; its output goes to a file (output()), not a pipe that may fill.
    ServerProcess &launch(const QString &program, const QStringList &arguments)
    {
        ServerProcess &process = *processes.emplace_back(std::make_unique<ServerProcess>());
        process.setProcessEnvironment(environment());
        process.launch(program, arguments, dir.filePath(QStringLiteral("output-%1.log").arg(processes.size())));
        return process;
    }

    // What a launched program wrote so far.
    static QByteArray output(const QProcess &process) { return ServerProcess::log(process); }

    // Runs an X client (xprop, xdotool, import) to its end; its standard output.
    QByteArray run(const QString &program, const QStringList &arguments) const
    {
        return outputOf(environment(), program, arguments);
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
        for (auto it = processes.rbegin(); it != processes.rend(); ++it) (*it)->stop();
        processes.clear();
        server.stop();
    }

private:
    static constexpr std::chrono::seconds kWait{60};  // for each step: the machines are shared and slow

    // A root window property as xprop prints its items, empty when unset.
    QByteArray rootItems(const char *property) const
    {
        const QByteArray line = run("xprop", {"-root", "-notype", QString::fromLatin1(property)});
        const qsizetype hash = line.indexOf('#');
        return hash < 0 ? QByteArray() : line.mid(hash + 1).trimmed();
    }

    QString screenGeometry;
    ServerProcess server;
    QByteArray name;
    QString busAddress;
    std::vector<std::unique_ptr<ServerProcess>> processes;
};
