#pragma once

#include "core/music/PlayerState.h"

#include <QList>
#include <QObject>
#include <QUrl>
#include <optional>

// The platform's way of reading music players: which ones exist, whether one runs, what it
// plays, and a signal each time one of them says something changed. The now-playing monitor
// decides what the room shows; a backend only reads.
//
// Contract: query() is only called for a source that isRunning() reported running, and must
// never start a player. Calls are synchronous and on the main thread.
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
    // Nothing when the player answers nothing usable (stopped, malformed, failed).
    virtual std::optional<Snapshot> query(const PlayerSource &source) = 0;
    // Starts delivering notified(); a second call does nothing.
    virtual void startWatching() = 0;

signals:
    // The player changed its state, started or quit. Its contents are not trusted: the monitor
    // asks again.
    void notified(const PlayerSource &source);
};
