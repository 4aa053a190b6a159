#pragma once

#include "core/music/PlayerSourceBackend.h"
#include "core/music/PlayerState.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>
#include <optional>

class CoverLoader;
class QNetworkAccessManager;

// Keeps the shared PlayerState in step with the music players. It never controls playback and
// never polls: each player notification triggers a fresh query of that player, and between
// notifications consumers extrapolate with PlayerState::currentPosition().
//
// Choice among players: a playing one wins over a paused one, then the backend's source order
// (Spotify first). A player that pauses in the background does not take the room from the one
// that plays. Cover art is fetched once per album (CoverLoader); a cover that arrives after the
// album changed is dropped.
//
// Players are other programs and may flood or stall: each has at most one query in flight, its
// notifications in between are merged into one more query, queries to one player are at least
// minQueryInterval apart, and a player that lets a query time out is not asked again for
// quietAfterTimeout seconds.
//
// The state and backend must outlive the monitor. Main thread only.
class NowPlayingMonitor : public QObject {
    Q_OBJECT
public:
    using Snapshot = PlayerSourceBackend::Snapshot;
    static constexpr int minQueryIntervalMs = 100;
    static constexpr double quietAfterTimeout = 30;

    // `network` is the shared access manager for artwork downloads; one of its own when null.
    NowPlayingMonitor(PlayerState &state, PlayerSourceBackend &backend, QNetworkAccessManager *network = nullptr,
                      QObject *parent = nullptr);
    ~NowPlayingMonitor() override;

    // Media-clock source for positionDate and for the quiet period after a time-out (tests drive it).
    void setClock(std::function<double()> clock);

    // Starts listening, then reads every player once. A second call does nothing. There is no
    // stop: the monitor listens for the life of the process.
    void start();
    bool isStarted() const { return started; }

    // Reads every running player and shows the chosen one, or nothing, once all have answered.
    void refreshAll();
    // Reads one player after it said something changed.
    void refresh(const PlayerSource &from);

    const std::optional<QString> &lastArtworkKey() const { return artworkKey; }
    CoverLoader &covers() { return *coverLoader; }

signals:
    // A refreshAll() has had every answer (or time-out) and shows its choice.
    void refreshed();

private:
    struct Player {
        bool asking = false;         // a query is in flight
        bool askAgain = false;       // notified while it was
        bool deferred = false;       // a query waits for minQueryIntervalMs to pass
        QElapsedTimer lastAsked;     // steady, for the spacing
        double quietUntil = -1e300;  // media clock
    };
    struct Round;

    void ask(const PlayerSource &source);
    void answered(const PlayerSource &source, PlayerSourceBackend::Outcome outcome,
                  const std::optional<Snapshot> &snapshot);
    void settleRound(const Round &round);
    void apply(const Snapshot &snapshot);
    void clear();
    void loadArtwork(const Snapshot &snapshot);
    void finishArtwork(const QString &playerName, const QString &what, const QImage &image, const QString &failure);

    PlayerState &state;
    PlayerSourceBackend &backend;
    QPointer<QNetworkAccessManager> network;
    std::unique_ptr<CoverLoader> coverLoader;
    std::function<double()> clock;
    std::optional<QString> artworkKey;
    QHash<QString, Player> players;  // by source id
    bool started = false;
};
