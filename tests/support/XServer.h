#pragma once

// A private X server for tests: Xvfb on a free display number (the server picks it and tells
// it back through -displayfd), with window managers and desktop programs started on it, each
// with its own temporary HOME and XDG folders so no user setting leaks in, and an optional
// private session bus for the programs that need one (xfconf). Everything started is killed by
// the destructor, the server last.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QElapsedTimer>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>
#include <memory>
#include <vector>

class XServer {
public:
    explicit XServer(QString screen = QStringLiteral("1280x800x24")) : screenSpec(std::move(screen))
    {
        QDir(dir.path()).mkpath(QStringLiteral("home"));
        QDir(dir.path()).mkpath(QStringLiteral("config"));
        QDir(dir.path()).mkpath(QStringLiteral("cache"));
        QDir(dir.path()).mkpath(QStringLiteral("data"));
        QDir(dir.path()).mkpath(QStringLiteral("state"));
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
        server.setProgram(QStringLiteral("Xvfb"));
        server.setArguments({QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                             QStringLiteral("0"), screenSpec, QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        // Only the display number comes on standard output. The rest goes to a file: an unread
        // pipe fills up with xkbcomp's warnings and then stalls the server and all its clients.
        server.setStandardErrorFile(dir.filePath(QStringLiteral("Xvfb.log")));
        server.start();
        if (!server.waitForStarted(10000)) {
            why = QStringLiteral("Xvfb did not start");
            return false;
        }
        QByteArray number;
        QElapsedTimer timer;
        timer.start();
        while (!number.contains('\n') && timer.elapsed() < 30000 && server.state() == QProcess::Running) {
            server.waitForReadyRead(200);
            number += server.readAllStandardOutput();
        }
        if (!number.contains('\n')) {
            why = QStringLiteral("Xvfb gave no display number: ") + QString::fromUtf8(server.readAllStandardError());
            return false;
        }
        name = ':' + number.trimmed();
        return true;
    }

    QByteArray display() const { return name; }
    QString home() const { return dir.filePath(QStringLiteral("home")); }
    QString stateHome() const { return dir.filePath(QStringLiteral("state")); }

    // The environment for programs on this server: DISPLAY, the private folders, and the
    // private session bus once there is one.
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DISPLAY"), QString::fromUtf8(name));
        env.insert(QStringLiteral("HOME"), home());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_CACHE_HOME"), dir.filePath(QStringLiteral("cache")));
        env.insert(QStringLiteral("XDG_DATA_HOME"), dir.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_STATE_HOME"), stateHome());
        env.remove(QStringLiteral("WAYLAND_DISPLAY"));
        env.remove(QStringLiteral("XAUTHORITY"));
        if (busAddress.isEmpty())
            env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        else
            env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        return env;
    }

    // A session bus of its own (services such as xfconfd start on demand from the system's
    // service folders).
    bool startSessionBus(QString &why)
    {
        QProcess &bus = launch(QStringLiteral("dbus-daemon"),
                               {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
        if (!bus.waitForStarted(10000)) {
            why = QStringLiteral("dbus-daemon did not start");
            return false;
        }
        QByteArray address;
        QElapsedTimer timer;
        timer.start();
        while (!address.contains('\n') && timer.elapsed() < 30000 && bus.state() == QProcess::Running) {
            QThread::msleep(50);
            address = output(bus);
        }
        busAddress = QString::fromUtf8(address.left(address.indexOf('\n')).trimmed());
        if (busAddress.isEmpty())
            why = QStringLiteral("dbus-daemon gave no address");
        return !busAddress.isEmpty();
    }

    // Starts a window manager and waits until it announces itself (_NET_SUPPORTING_WM_CHECK
    // with a name).
    bool startManager(const QString &program, const QStringList &arguments, QString &why)
    {
        if (!installed(program)) {
            why = program + QStringLiteral(" is not installed");
            return false;
        }
        QProcess &manager = launch(program, arguments);
        if (!manager.waitForStarted(10000)) {
            why = program + QStringLiteral(" did not start");
            return false;
        }
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 60000 && managerName().isEmpty()) {
            if (manager.state() != QProcess::Running) {
                why = program + QStringLiteral(" quit: ") + QString::fromUtf8(output(manager));
                return false;
            }
            QThread::msleep(50);
        }
        // A manager announces itself before it takes windows: openbox drops a window mapped in
        // between. It is ready once a probe window shows up in its client list.
        while (timer.elapsed() < 60000) {
            QProcess probe;
            probe.setProcessEnvironment(environment());
            probe.setStandardOutputFile(QProcess::nullDevice());
            probe.setStandardErrorFile(QProcess::nullDevice());
            probe.start(QStringLiteral("xmessage"), {QStringLiteral("-name"), QStringLiteral("xserver-probe"),
                                                     QStringLiteral("probe")});
            bool managed = false;
            for (int i = 0; i < 40 && !managed && probe.state() != QProcess::NotRunning; ++i) {
                QThread::msleep(50);
                managed = clientCount() > 0;
            }
            probe.kill();
            probe.waitForFinished(5000);
            if (managed) {
                while (timer.elapsed() < 60000 && clientCount() > 0)
                    QThread::msleep(50);
                return true;
            }
        }
        why = program + QStringLiteral(" did not start managing windows");
        return false;
    }

    // How many clients the manager lists (_NET_CLIENT_LIST).
    int clientCount() const
    {
        const QByteArray list = run(QStringLiteral("xprop"), {QStringLiteral("-root"), QStringLiteral("-notype"),
                                                              QStringLiteral("_NET_CLIENT_LIST")});
        const qsizetype hash = list.indexOf('#');
        return hash < 0 ? 0 : int(list.mid(hash + 1).count(',')) + (list.mid(hash + 1).trimmed().isEmpty() ? 0 : 1);
    }

    // Starts another program on the server; the caller waits for whatever it needs from it.
    // Its standard output and error go to a file (output()), never to a pipe that may fill.
    QProcess &launch(const QString &program, const QStringList &arguments)
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment());
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->setStandardOutputFile(dir.filePath(QStringLiteral("output-%1.log").arg(processes.size())));
        process->setObjectName(dir.filePath(QStringLiteral("output-%1.log").arg(processes.size())));
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

    // Runs an X client to its end (xprop, xdotool, import); its standard output.
    QByteArray run(const QString &program, const QStringList &arguments, int *exitCode = nullptr) const
    {
        QProcess process;
        process.setProcessEnvironment(environment());
        process.start(program, arguments);
        process.waitForFinished(60000);
        if (exitCode)
            *exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        return process.readAllStandardOutput();
    }

    // The running manager's _NET_WM_NAME, empty while none has announced itself.
    QByteArray managerName() const
    {
        const QByteArray check = run(QStringLiteral("xprop"), {QStringLiteral("-root"), QStringLiteral("-notype"),
                                                               QStringLiteral("_NET_SUPPORTING_WM_CHECK")});
        const qsizetype hash = check.indexOf('#');
        if (hash < 0)
            return {};
        const QByteArray id = check.mid(hash + 1).trimmed();
        const QByteArray named = run(QStringLiteral("xprop"), {QStringLiteral("-id"), QString::fromLatin1(id),
                                                               QStringLiteral("-notype"), QStringLiteral("_NET_WM_NAME")});
        const qsizetype quote = named.indexOf('"');
        return quote < 0 ? QByteArray() : named.mid(quote + 1, named.lastIndexOf('"') - quote - 1);
    }

    void stop()
    {
        for (auto it = processes.rbegin(); it != processes.rend(); ++it)
            end(**it);
        processes.clear();
        end(server);
    }

private:
    static void end(QProcess &process)
    {
        if (process.state() == QProcess::NotRunning)
            return;
        process.terminate();
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    QString screenSpec;
    QTemporaryDir dir;
    QProcess server;
    QByteArray name;
    QString busAddress;
    std::vector<std::unique_ptr<QProcess>> processes;
};
