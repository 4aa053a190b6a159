#pragma once

#include "core/music/PlayerSourceBackend.h"
#include "core/music/PlayerState.h"

#include <QObject>
#include <QPointer>
#include <functional>
#include <optional>

class QNetworkAccessManager;

// Keeps the shared PlayerState in step with the music players. It never controls playback and
// never polls: each player notification triggers a fresh query of that player, and between
// notifications consumers extrapolate with PlayerState::currentPosition().
//
// Choice among players: a playing one wins over a paused one, then the backend's source order
// (Spotify first). A player that pauses in the background does not take the room from the one
// that plays. Cover art is fetched once per album: over HTTP for http(s) URLs, from disk for
// file URLs; a download that returns after the album changed is dropped.
//
// The state and backend must outlive the monitor. Main thread only.
class NowPlayingMonitor : public QObject {
    Q_OBJECT
public:
    using Snapshot = PlayerSourceBackend::Snapshot;

    // `network` is the shared access manager for artwork downloads; one of its own when null.
    NowPlayingMonitor(PlayerState &state, PlayerSourceBackend &backend, QNetworkAccessManager *network = nullptr,
                      QObject *parent = nullptr);

    // Media-clock source for positionDate (tests drive it).
    void setClock(std::function<double()> clock);

    // Starts listening, then reads every player once. A second call does nothing. There is no
    // stop: the monitor listens for the life of the process.
    void start();
    bool isStarted() const { return started; }

    // Reads every running player and shows the chosen one, or nothing.
    void refreshAll();
    // Reads one player after it said something changed.
    void refresh(const PlayerSource &from);

    const std::optional<QString> &lastArtworkKey() const { return artworkKey; }

private:
    void apply(const PlayerSource &source, const Snapshot &snapshot);
    void clear();
    void loadArtwork(const Snapshot &snapshot);
    void finishArtwork(const QString &playerName, const QString &what, const QImage &image);

    PlayerState &state;
    PlayerSourceBackend &backend;
    QPointer<QNetworkAccessManager> network;
    std::function<double()> clock;
    std::optional<QString> artworkKey;
    bool started = false;
};
