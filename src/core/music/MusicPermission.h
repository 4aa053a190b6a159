#pragma once

#include "core/music/PlayerState.h"

#include <QList>
#include <QObject>
#include <QString>
#include <functional>

class Settings;

// Whether Turnelo may read each music player, and the "musicSetupDone" flag. Where the system
// asks the user first (macOS Automation), the platform edge answers through `Probe` and the
// onboarding shows the prompt's replica with the texts below; where reading needs no consent
// (MPRIS), the status is only whether the player is there now.
//
// Main thread. `Probe` calls are made on it; `request`'s answer may come later, also on it.
class MusicPermission : public QObject {
    Q_OBJECT
public:
    enum class Status {
        notDetermined,  // the system has not asked yet
        granted,
        denied,
        notRunning,  // the player is not open, so the system cannot be asked
        available,   // no consent needed; the player is open
    };
    struct Player {
        PlayerSource source;
        Status status = Status::notDetermined;
        bool operator==(const Player &) const = default;
    };
    struct Probe {
        std::function<QList<PlayerSource>()> players;
        std::function<Status(const PlayerSource &)> status;
        // Asks the system for consent; calls back with the answer. Absent: status() is re-read.
        std::function<void(const PlayerSource &, std::function<void(Status)>)> request;
    };

    // `settings` must outlive the object.
    MusicPermission(Settings &settings, Probe probe, QObject *parent = nullptr);

    const QList<Player> &players() const { return table; }
    // Reads every player's status again (each time the settings window opens).
    void refresh();
    // Asks for one player; `done` gets its new status.
    void request(const PlayerSource &source, std::function<void(Status)> done = {});

    bool setupDone() const;
    // Stores "musicSetupDone" = true; `setupFinished` follows on the first time.
    void markSetupDone();

    // The status as the Music tab shows it.
    static QString statusText(Status status);
    // The replica of the system's consent prompt for one player.
    static QString promptTitle(const QString &playerName);
    static QString promptBody(const QString &playerName);
    static QString promptAllow();
    static QString promptDeny();

signals:
    void changed();
    void setupFinished();

private:
    Settings &settings;
    Probe probe;
    QList<Player> table;
};
