#include "app/SingleInstance.h"

#include "core/app/AppIdentity.h"

#include <QLocalSocket>
#include <unistd.h>

SingleInstance::SingleInstance(const QString &n, QObject *parent)
    : QObject(parent)
    , name(n)
{
    connect(&server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *peer = server.nextPendingConnection()) {
            connect(peer, &QLocalSocket::readyRead, this, [this, peer] {
                if (peer->readAll().startsWith("show") && onActivated) onActivated();
                peer->disconnectFromServer();
            });
            connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
        }
    });
}

QString SingleInstance::defaultName()
{
    // One room per user, build and display: another X display is another desktop.
    QString name =
        QStringLiteral("%1-%2-%3").arg(AppIdentity::appName()).arg(getuid()).arg(qEnvironmentVariable("DISPLAY"));
    for (QChar &c : name)
        if (!c.isLetterOrNumber()) c = '-';
    return name.toLower();
}

bool SingleInstance::alreadyRunning()
{
    QLocalSocket probe;
    probe.connectToServer(name);
    if (probe.waitForConnected(500)) {
        probe.write("show\n");
        probe.waitForBytesWritten(500);
        probe.waitForDisconnected(500);
        return true;
    }
    // Nobody answers: a socket left by a crashed run is stale, take it over.
    QLocalServer::removeServer(name);
    server.setSocketOptions(QLocalServer::UserAccessOption);
    // Failing to listen only costs the knock of a later start; this room runs all the same.
    server.listen(name);
    return false;
}
