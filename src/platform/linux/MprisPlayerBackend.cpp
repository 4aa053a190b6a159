#include "platform/linux/MprisPlayerBackend.h"
#include "platform/linux/DBusValues.h"

#include "core/app/SafeText.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusReply>
#include <QDBusVariant>
#include <algorithm>
#include <memory>

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

// For the bus daemon only, which answers at once; players are always asked asynchronously.
QDBusMessage busCall(const QDBusConnection &bus, const QString &method, const QVariantList &args = {})
{
    QDBusMessage message = QDBusMessage::createMethodCall(kBusService, kBusPath, kBusService, method);
    message.setArguments(args);
    message.setAutoStartService(false);
    return bus.call(message, QDBus::Block, MprisPlayerBackend::defaultCallTimeoutMs);
}

}  // namespace

MprisPlayerBackend::MprisPlayerBackend(const QDBusConnection &bus, int callTimeoutMs, QObject *parent)
    : PlayerSourceBackend(parent)
    , bus(bus)
    , callTimeoutMs(callTimeoutMs)
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
    const QDBusMessage reply = busCall(bus, QStringLiteral("ListNames"));
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return {};
    const QStringList names = ordered(reply.arguments().constFirst().toStringList());
    // The players' own names, asked of all at once: one that does not answer costs a short wait
    // once, and is then called by its bus name.
    QList<std::pair<QString, QDBusPendingCall>> asked;
    for (const QString &name : names) {
        if (identities.contains(name)) continue;
        QDBusMessage call =
            QDBusMessage::createMethodCall(name, kObjectPath, kPropertiesInterface, QStringLiteral("Get"));
        call << kRootInterface << QStringLiteral("Identity");
        call.setAutoStartService(false);
        asked.append({name, bus.asyncCall(call, identityTimeoutMs)});
    }
    for (auto &[name, call] : asked) {
        call.waitForFinished();
        const QDBusMessage answer = call.reply();
        const QString identity = answer.type() == QDBusMessage::ReplyMessage && !answer.arguments().isEmpty()
                                     ? SafeText::field(plain(answer.arguments().constFirst()).toString())
                                     : QString();
        identities.insert(name, identity.isEmpty() ? name.mid(busNamePrefix().size()) : identity);
    }
    QList<PlayerSource> list;
    for (const QString &name : names) list.append(sourceFor(name));
    return list;
}

bool MprisPlayerBackend::isRunning(const PlayerSource &source) const
{
    if (!source.id.startsWith(busNamePrefix())) return false;
    // While watching, the owners are known from the bus's own signals: no call per notification.
    if (watching) {
        for (auto it = namesOfOwner.cbegin(); it != namesOfOwner.cend(); ++it)
            if (it.value() == source.id) return true;
        return false;
    }
    const QDBusMessage reply = busCall(bus, QStringLiteral("NameHasOwner"), {source.id});
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().constFirst().toBool();
}

PlayerSource MprisPlayerBackend::sourceFor(const QString &busName) const
{
    const QString identity = identities.value(busName, busName.mid(busNamePrefix().size()));
    return {busName, identity, identity};
}

void MprisPlayerBackend::query(const PlayerSource &source, Answer then)
{
    const auto ask = [this, &source](const QString &interface, const QString &method, const QVariantList &args) {
        QDBusMessage call = QDBusMessage::createMethodCall(source.id, kObjectPath, interface, method);
        call.setArguments(args);
        call.setAutoStartService(false);
        return new QDBusPendingCallWatcher(bus.asyncCall(call, callTimeoutMs), this);
    };
    // The Identity is asked beside the state, once per player, so that the first log line
    // already names it.
    struct Pending {
        QDBusMessage state, identity;
        int left = 0;
    };
    auto pending = std::make_shared<Pending>();
    const QString name = source.id;
    const bool needsIdentity = !identities.contains(name);
    const auto done = [this, pending, name, then] {
        if (--pending->left > 0) return;
        if (pending->identity.type() == QDBusMessage::ReplyMessage && !pending->identity.arguments().isEmpty()) {
            const QString identity = SafeText::field(plain(pending->identity.arguments().constFirst()).toString());
            if (!identity.isEmpty()) identities.insert(name, identity);
        }
        const QDBusMessage &reply = pending->state;
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            const auto snapshot = snapshotFrom(sourceFor(name), mapOf(reply.arguments().constFirst()));
            then(snapshot ? Outcome::answered : Outcome::nothing, snapshot);
        } else {
            const bool silent = reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NoReply") ||
                                reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.Timeout");
            then(silent ? Outcome::timedOut : Outcome::nothing, std::nullopt);
        }
    };
    pending->left = needsIdentity ? 2 : 1;
    auto *state = ask(kPropertiesInterface, QStringLiteral("GetAll"), {kPlayerInterface});
    connect(state, &QDBusPendingCallWatcher::finished, this, [pending, done](QDBusPendingCallWatcher *w) {
        w->deleteLater();
        pending->state = w->reply();
        done();
    });
    if (needsIdentity) {
        auto *identity = ask(kPropertiesInterface, QStringLiteral("Get"), {kRootInterface, QStringLiteral("Identity")});
        connect(identity, &QDBusPendingCallWatcher::finished, this, [pending, done](QDBusPendingCallWatcher *w) {
            w->deleteLater();
            pending->identity = w->reply();
            done();
        });
    }
}

std::optional<PlayerSourceBackend::Snapshot> MprisPlayerBackend::snapshotFrom(const PlayerSource &source,
                                                                              const QVariantMap &properties)
{
    const QString status = plain(properties.value(QStringLiteral("PlaybackStatus"))).toString();
    if (status == QLatin1String("Stopped")) return std::nullopt;
    const QVariantMap metadata = mapOf(properties.value(QStringLiteral("Metadata")));
    Snapshot s;
    // A player may say anything: fields are cut to what a sleeve or a log line can show.
    s.track.title = SafeText::field(plain(metadata.value(QStringLiteral("xesam:title"))).toString());
    s.track.artist = SafeText::field(
        stringsOf(metadata.value(QStringLiteral("xesam:artist"))).mid(0, 16).join(QStringLiteral(", ")));
    s.track.album = SafeText::field(plain(metadata.value(QStringLiteral("xesam:album"))).toString());
    // A player with nothing loaded still answers; that is nothing playing.
    if (s.track.title.isEmpty() && s.track.album.isEmpty()) return std::nullopt;
    s.track.duration = plain(metadata.value(QStringLiteral("mpris:length"))).toDouble() / 1e6;
    s.track.trackNumber = plain(metadata.value(QStringLiteral("xesam:trackNumber"))).toInt();
    s.track.trackCount = 0;
    s.track.source = source;
    s.isPlaying = status == QLatin1String("Playing");
    s.position = plain(properties.value(QStringLiteral("Position"))).toDouble() / 1e6;
    const QString art = plain(metadata.value(QStringLiteral("mpris:artUrl"))).toString();
    const QUrl url(art.size() <= maxUrlLength ? art : QString(), QUrl::StrictMode);
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

    const QDBusMessage reply = busCall(bus, QStringLiteral("ListNames"));
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return;
    for (const QString &name : ordered(reply.arguments().constFirst().toStringList())) {
        const QDBusMessage owner = busCall(bus, QStringLiteral("GetNameOwner"), {name});
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
