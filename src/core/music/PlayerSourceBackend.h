#pragma once

#include "core/music/PlayerState.h"

#include <QList>
#include <QObject>
#include <QUrl>
#include <functional>
#include <optional>

// The platform's way of reading music players: which ones exist, whether one runs, what it
// plays, and a signal each time one of them says something changed. The now-playing monitor
// decides what the room shows; a backend only reads.
//
// Contract: query() is only called for a source that isRunning() reported running, and must
// never start a player. A player is another program that may answer late or never: nothing here
// waits for one. sources() and isRunning() ask only the platform (the bus), never a player.
// Main thread only.
class PlayerSourceBackend : public QObject {
    Q_OBJECT
public:
    // One player's answer.
    struct Snapshot {
        Track track;
        bool isPlaying = false;
        double position = 0;             // seconds
        std::optional<QUrl> artworkURL;  // http(s) or file; absent when the player gives none
    };

    using QObject::QObject;
    ~PlayerSourceBackend() override = default;

    // The sources known now, in tie-break order (Spotify first).
    virtual QList<PlayerSource> sources() const = 0;
    virtual bool isRunning(const PlayerSource &source) const = 0;
    enum class Outcome { answered, nothing, timedOut };
    // `snapshot` is set when answered; nothing is what a stopped, empty or failed player gives.
    using Answer = std::function<void(Outcome outcome, const std::optional<Snapshot> &snapshot)>;
    // Asks the player; `then` is called once, later, on the main thread (never from inside
    // query()), unless the backend is destroyed first.
    virtual void query(const PlayerSource &source, Answer then) = 0;
    // Starts delivering notified(); a second call does nothing.
    virtual void startWatching() = 0;

signals:
    // The player changed its state, started or quit. Its contents are not trusted: the monitor
    // asks again.
    void notified(const PlayerSource &source);
};
