#include "app/SingleInstance.h"

#include "core/app/AppIdentity.h"
#include "core/app/Log.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>
#include <QLockFile>
#include <QStandardPaths>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The user at the other end of a connected local socket, as the kernel recorded it when that end
// connected or started listening.
std::optional<uid_t> peerUser(qintptr socket)
{
#ifdef __linux__
    ucred cred{};
    socklen_t size = sizeof cred;
    if (getsockopt(int(socket), SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return std::nullopt;
    return cred.uid;
#else
    uid_t uid = 0;
    gid_t gid = 0;
    if (getpeereid(int(socket), &uid, &gid) != 0) return std::nullopt;
    return uid;
#endif
}

bool isOwnUser(qintptr socket) { return peerUser(socket) == geteuid(); }

// A start that dies holding the lock leaves it behind; its dead process makes it stale at once,
// and an empty file (killed while writing it) after this long. A live holder keeps its lock
// however slow it is: the file stays locked while its process lives.
constexpr int staleLockMs = 2000;
constexpr int lockWaitMs = 10000;

}  // namespace

SingleInstance::SingleInstance(const QString &n, QObject *parent)
    : QObject(parent)
    , name(n)
{
    connect(&server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *peer = server.nextPendingConnection()) {
            connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
            if (!isOwnUser(peer->socketDescriptor())) {
                Log::write(QStringLiteral("Instância: batida de outro usuário ignorada"));
                peer->abort();
                peer->deleteLater();
                continue;
            }
            connect(peer, &QLocalSocket::readyRead, this, [this, peer] {
                if (peer->readAll().startsWith("show") && onActivated) onActivated();
                peer->disconnectFromServer();
            });
        }
    });
}

QString SingleInstance::defaultName()
{
    // Another X display is another desktop, with a room of its own.
    QString display = qEnvironmentVariable("DISPLAY");
    for (QChar &c : display)
        if (!c.isLetterOrNumber()) c = '-';
    QString app = AppIdentity::settingsName(AppIdentity::isRelease());
    while (display.startsWith(QLatin1Char('-'))) display.remove(0, 1);
    return display.isEmpty() ? app : app + QLatin1Char('-') + display;
}

QString SingleInstance::runtimeFolder()
{
    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (!runtime.isEmpty()) return runtime;
    const QString own = AppIdentity::xdgFolder("XDG_CACHE_HOME", QStringLiteral(".cache")) + QLatin1Char('/') +
                        AppIdentity::settingsName(AppIdentity::isRelease()) + QStringLiteral("-run");
    QDir().mkpath(own);
    const QFileInfo info(own);
    if (info.isSymLink() || !info.isDir() || info.ownerId() != geteuid()) return {};
    if (!QFile::setPermissions(own, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) return {};
    return own;
}

bool SingleInstance::alreadyRunning()
{
    const QString folder = runtimeFolder();
    if (folder.isEmpty()) {
        Log::write(QStringLiteral("Instância: nenhuma pasta privada para o soquete; a sala roda sem procurar outra"));
        return false;
    }
    path = folder + QLatin1Char('/') + name + QStringLiteral(".socket");
    QLockFile starting(folder + QLatin1Char('/') + name + QStringLiteral(".lock"));
    starting.setStaleLockTime(staleLockMs);
    if (!starting.tryLock(lockWaitMs))
        Log::write(
            QStringLiteral("Instância: trava de início ocupada por %1 s; seguindo sem ela").arg(lockWaitMs / 1000));
    if (knock()) return true;
    // Nobody of ours answers: what is left there is a crashed run's socket, or a stranger's.
    QLocalServer::removeServer(path);
    server.setSocketOptions(QLocalServer::UserAccessOption);
    // Failing to listen only costs the knock of a later start; this room runs all the same.
    if (!server.listen(path))
        Log::write(QStringLiteral("Instância: não foi possível escutar em ") + path + QStringLiteral(" (") +
                   server.errorString() + QStringLiteral(")"));
    return false;
}

bool SingleInstance::knock() const
{
    QLocalSocket probe;
    probe.connectToServer(path);
    if (!probe.waitForConnected(500)) return false;
    if (!isOwnUser(probe.socketDescriptor())) {
        Log::write(QStringLiteral("Instância: o soquete ") + path + QStringLiteral(" é de outro usuário; ignorado"));
        return false;
    }
    probe.write("show\n");
    probe.waitForBytesWritten(500);
    probe.waitForDisconnected(500);
    return true;
}
