#include "platform/linux/MprisPlayerBackend.h"
#include "platform/linux/DBusValues.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <algorithm>

namespace {

using DBusValues::mapOf;
using DBusValues::plain;

const QString kRootInterface = QStringLiteral("org.mpris.MediaPlayer2");
const QString kPlayerInterface = QStringLiteral("org.mpris.MediaPlayer2.Player");
const QString kObjectPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kBusService = QStringLiteral("org.freedesktop.DBus");
const QString kBusPath = QStringLiteral("/org/freedesktop/DBus");

QStringList stringsOf(const QVariant &value)
{
    const QVariant v = plain(value);
    if (v.userType() == qMetaTypeId<QDBusArgument>()) return qdbus_cast<QStringList>(v.value<QDBusArgument>());
    if (v.typeId() == QMetaType::QString) return {v.toString()};
    return v.toStringList();
}

QDBusMessage blockingCall(const QDBusConnection &bus, QDBusMessage message)
{
    message.setAutoStartService(false);
    return bus.call(message, QDBus::Block, MprisPlayerBackend::callTimeoutMs);
}

}  // namespace

MprisPlayerBackend::MprisPlayerBackend(const QDBusConnection &bus, QObject *parent)
    : PlayerSourceBackend(parent)
    , bus(bus)
{
}

QStringList MprisPlayerBackend::ordered(const QStringList &busNames)
{
    QStringList names;
    for (const QString &n : busNames)
        if (n.startsWith(busNamePrefix()) && n.size() > busNamePrefix().size()) names.append(n);
    std::sort(names.begin(), names.end(), [](const QString &a, const QString &b) {
        const bool sa = a == spotifyBusName();
        const bool sb = b == spotifyBusName();
        if (sa != sb) return sa;
        return a < b;
    });
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

QList<PlayerSource> MprisPlayerBackend::sources() const
{
    const QDBusMessage reply = blockingCall(
        bus, QDBusMessage::createMethodCall(kBusService, kBusPath, kBusService, QStringLiteral("ListNames")));
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return {};
    QList<PlayerSource> list;
    for (const QString &name : ordered(reply.arguments().constFirst().toStringList())) list.append(sourceFor(name));
    return list;
}

bool MprisPlayerBackend::isRunning(const PlayerSource &source) const
{
    if (!source.id.startsWith(busNamePrefix())) return false;
    QDBusMessage call =
        QDBusMessage::createMethodCall(kBusService, kBusPath, kBusService, QStringLiteral("NameHasOwner"));
    call << source.id;
    const QDBusMessage reply = blockingCall(bus, call);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().constFirst().toBool();
}

PlayerSource MprisPlayerBackend::sourceFor(const QString &busName) const
{
    auto known = identities.constFind(busName);
    QString identity;
    if (known != identities.constEnd()) {
        identity = *known;
    } else {
        QDBusMessage call =
            QDBusMessage::createMethodCall(busName, kObjectPath, kPropertiesInterface, QStringLiteral("Get"));
        call << kRootInterface << QStringLiteral("Identity");
        const QDBusMessage reply = blockingCall(bus, call);
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty())
            identity = plain(reply.arguments().constFirst()).toString();
        if (!identity.isEmpty()) identities.insert(busName, identity);
    }
    if (identity.isEmpty()) identity = busName.mid(busNamePrefix().size());
    return {busName, identity, identity};
}

std::optional<PlayerSourceBackend::Snapshot> MprisPlayerBackend::query(const PlayerSource &source)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(source.id, kObjectPath, kPropertiesInterface, QStringLiteral("GetAll"));
    call << kPlayerInterface;
    const QDBusMessage reply = blockingCall(bus, call);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return std::nullopt;
    return snapshotFrom(source, mapOf(reply.arguments().constFirst()));
}

std::optional<PlayerSourceBackend::Snapshot> MprisPlayerBackend::snapshotFrom(const PlayerSource &source,
                                                                              const QVariantMap &properties)
{
    const QString status = plain(properties.value(QStringLiteral("PlaybackStatus"))).toString();
    if (status == QLatin1String("Stopped")) return std::nullopt;
    const QVariantMap metadata = mapOf(properties.value(QStringLiteral("Metadata")));
    Snapshot s;
    s.track.title = plain(metadata.value(QStringLiteral("xesam:title"))).toString();
    s.track.artist = stringsOf(metadata.value(QStringLiteral("xesam:artist"))).join(QStringLiteral(", "));
    s.track.album = plain(metadata.value(QStringLiteral("xesam:album"))).toString();
    // A player with nothing loaded still answers; that is nothing playing.
    if (s.track.title.isEmpty() && s.track.album.isEmpty()) return std::nullopt;
    s.track.duration = plain(metadata.value(QStringLiteral("mpris:length"))).toDouble() / 1e6;
    s.track.trackNumber = plain(metadata.value(QStringLiteral("xesam:trackNumber"))).toInt();
    s.track.trackCount = 0;
    s.track.source = source;
    s.isPlaying = status == QLatin1String("Playing");
    s.position = plain(properties.value(QStringLiteral("Position"))).toDouble() / 1e6;
    const QString art = plain(metadata.value(QStringLiteral("mpris:artUrl"))).toString();
    const QUrl url(art, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (url.isValid() &&
        (scheme == QLatin1String("file") || scheme == QLatin1String("http") || scheme == QLatin1String("https")))
        s.artworkURL = url;
    return s;
}

void MprisPlayerBackend::startWatching()
{
    if (watching) return;
    watching = true;
    bus.connect(kBusService, kBusPath, kBusService, QStringLiteral("NameOwnerChanged"), this,
                SLOT(nameOwnerChanged(QString, QString, QString)));
    // Any sender: the signal comes from the player's unique name, mapped back below.
    bus.connect(QString(), kObjectPath, kPropertiesInterface, QStringLiteral("PropertiesChanged"), this,
                SLOT(propertiesChanged(QString, QVariantMap, QStringList)));
    bus.connect(QString(), kObjectPath, kPlayerInterface, QStringLiteral("Seeked"), this, SLOT(seeked(qlonglong)));

    const QDBusMessage reply = blockingCall(
        bus, QDBusMessage::createMethodCall(kBusService, kBusPath, kBusService, QStringLiteral("ListNames")));
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return;
    for (const QString &name : ordered(reply.arguments().constFirst().toStringList())) {
        QDBusMessage call =
            QDBusMessage::createMethodCall(kBusService, kBusPath, kBusService, QStringLiteral("GetNameOwner"));
        call << name;
        const QDBusMessage owner = blockingCall(bus, call);
        if (owner.type() == QDBusMessage::ReplyMessage && !owner.arguments().isEmpty())
            namesOfOwner.insert(owner.arguments().constFirst().toString(), name);
    }
}

void MprisPlayerBackend::nameOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner)
{
    if (!name.startsWith(busNamePrefix()) || name.size() == busNamePrefix().size()) return;
    // Keep the identity a vanished player had, so its quit is logged and matched by name.
    const PlayerSource gone{name, identities.value(name, name.mid(busNamePrefix().size())),
                            identities.value(name, name.mid(busNamePrefix().size()))};
    if (!oldOwner.isEmpty()) namesOfOwner.remove(oldOwner, name);
    identities.remove(name);
    if (!newOwner.isEmpty()) {
        namesOfOwner.insert(newOwner, name);
        emit notified(sourceFor(name));
    } else {
        emit notified(gone);
    }
}

void MprisPlayerBackend::propertiesChanged(const QString &interface, const QVariantMap &, const QStringList &)
{
    if (interface != kPlayerInterface) return;
    notifyFromSender();
}

void MprisPlayerBackend::seeked(qlonglong) { notifyFromSender(); }

void MprisPlayerBackend::notifyFromSender()
{
    if (!calledFromDBus()) return;
    const QStringList names = namesOfOwner.values(message().service());
    for (const QString &name : ordered(names)) emit notified(sourceFor(name));
}
