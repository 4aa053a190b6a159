// A start of the room reduced to its single-instance check, for single_instance_test. One line per event:
//   [--as UID] start        "ready"; after a line "go", "won <socket>" then "shown" per knock, or "running"
//   [--as UID] listen PATH  a bare socket: "listening", then per connection "shown" (said show) or "silent"
//   [--as UID] knock PATH   says show at PATH: "knocked" or "refused"
// start and listen stay until standard input closes; --as (root only) plays a stranger on the machine.

#include "app/SingleInstance.h"

#include <QCoreApplication>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSocketNotifier>
#include <cstdio>
#include <grp.h>
#include <unistd.h>

namespace {

void say(const QByteArray &line)
{
    std::fputs((line + '\n').constData(), stdout);
    std::fflush(stdout);
}

void quitWhenInputCloses(QCoreApplication &app)
{
    auto *input = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, &app);
    QObject::connect(input, &QSocketNotifier::activated, &app, [&app, input] {
        char buffer[64];
        if (::read(STDIN_FILENO, buffer, sizeof buffer) <= 0) {
            input->setEnabled(false);
            app.quit();
        }
    });
}

}  // namespace

int main(int argc, char **argv)
{
    int first = 1;
    if (argc > 2 && QByteArray(argv[1]) == "--as") {
        const int uid = QByteArray(argv[2]).toInt();
        if (setgroups(0, nullptr) != 0 || setgid(gid_t(uid)) != 0 || setuid(uid_t(uid)) != 0) return 3;
        first = 3;
    }
    QCoreApplication app(argc, argv);
    const QByteArray mode = argc > first ? argv[first] : "";
    const QString path = argc > first + 1 ? QString::fromLocal8Bit(argv[first + 1]) : QString();

    if (mode == "start") {
        say("ready");  // a pair loaded and waiting before either looks: a start at the same moment
        for (char c = 0; c != '\n';)
            if (::read(STDIN_FILENO, &c, 1) != 1) return 1;
        SingleInstance instance(SingleInstance::defaultName());
        if (instance.alreadyRunning()) {
            say("running");
            return 0;
        }
        say("won " + instance.socketPath().toLocal8Bit());
        instance.onActivated = [] { say("shown"); };
        quitWhenInputCloses(app);
        return app.exec();
    }
    if (mode == "listen") {
        QLocalServer server;
        QLocalServer::removeServer(path);
        if (!server.listen(path)) return 1;
        QObject::connect(&server, &QLocalServer::newConnection, [&server] {
            while (QLocalSocket *peer = server.nextPendingConnection()) {
                QObject::connect(peer, &QLocalSocket::disconnected, peer, [peer] {
                    say(peer->readAll().startsWith("show") ? "shown" : "silent");
                    peer->deleteLater();
                });
            }
        });
        say("listening");
        quitWhenInputCloses(app);
        return app.exec();
    }
    if (mode == "knock") {
        QLocalSocket socket;
        socket.connectToServer(path);
        if (!socket.waitForConnected(2000)) {
            say("refused");
            return 0;
        }
        socket.write("show\n");
        socket.waitForBytesWritten(2000);
        socket.disconnectFromServer();
        say("knocked");
        return 0;
    }
    return 2;
}
