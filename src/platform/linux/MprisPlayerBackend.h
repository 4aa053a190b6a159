#pragma once

#include "core/music/PlayerSourceBackend.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QHash>
#include <QStringList>
#include <QVariantMap>

// Music players on Linux: every org.mpris.MediaPlayer2.* name on the session bus is a source,
// Spotify's first, then the others by bus name. A player's PropertiesChanged on its Player
// interface and its Seeked signal are its notifications; its name appearing or vanishing on the
// bus counts as the player starting or quitting. The log name of a source is the player's
// Identity.
//
// Reading never starts a player: the running check asks the bus whether the name has an owner,
// and every call to a player is sent without auto-start. Calls to a player never block: its
// answer, or its silence after callTimeoutMs, comes back through the event loop. Only the bus
// itself is asked in a blocking call, and listing the sources waits at most identityTimeoutMs
// for the names of players not seen before.
class MprisPlayerBackend : public PlayerSourceBackend, protected QDBusContext {
    Q_OBJECT
public:
    static constexpr int defaultCallTimeoutMs = 2000;
    static constexpr int identityTimeoutMs = 250;
    static constexpr int maxUrlLength = 4096;
    static QString busNamePrefix() { return QStringLiteral("org.mpris.MediaPlayer2."); }
    static QString spotifyBusName() { return QStringLiteral("org.mpris.MediaPlayer2.spotify"); }

    explicit MprisPlayerBackend(const QDBusConnection &bus = QDBusConnection::sessionBus(),
                                int callTimeoutMs = defaultCallTimeoutMs, QObject *parent = nullptr);

    QList<PlayerSource> sources() const override;
    bool isRunning(const PlayerSource &source) const override;
    void query(const PlayerSource &source, Answer then) override;
    void startWatching() override;

    // MPRIS metadata and status to a snapshot; nothing when stopped or without a track.
    static std::optional<Snapshot> snapshotFrom(const PlayerSource &source, const QVariantMap &playerProperties);
    // Spotify first, then by name; names outside MPRIS are dropped.
    static QStringList ordered(const QStringList &busNames);

private slots:
    void nameOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);
    void propertiesChanged(const QString &interface, const QVariantMap &changed, const QStringList &invalidated);
    void seeked(qlonglong position);

private:
    PlayerSource sourceFor(const QString &busName) const;
    void notifyFromSender();

    QDBusConnection bus;
    int callTimeoutMs;
    bool watching = false;
    QMultiHash<QString, QString> namesOfOwner;   // unique name → its MPRIS bus names
    mutable QHash<QString, QString> identities;  // MPRIS bus name → Identity, once a player said it
};
