#pragma once

#include "core/scene/SceneStatus.h"
#include "ui/UiServices.h"

#include <QDateTime>
#include <QImage>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <optional>

class SceneInstaller;

// What the tray popover shows and does, read from the delegate's objects and written back
// through them; no widget involved, so its rules are tested without a screen. `changed` is
// emitted whenever anything it reads may have changed. Main thread.
class PopoverModel : public QObject {
    Q_OBJECT
public:
    struct NowPlaying {
        bool hasTrack = false;
        bool playing = false;
        QString title, artist, album;
        QString side;    // "Side A · track 3"; empty when the number is unknown
        QString player;  // the player's own name
        QImage cover;
        QString emptyText;  // what shows when nothing plays
    };
    struct Tile {
        // installed: all its files are on disk; downloadable, downloading, failed: the catalog
        // offers it; unavailable: neither (nothing to do until the catalog offers it).
        enum class Kind { installed, downloadable, downloading, failed, unavailable };
        QString name;
        QString title;
        Kind kind = Kind::installed;
        bool current = false;
        QString sizeText;     // downloadable, downloading and failed: the packages' size
        double progress = 0;  // downloading: 0…1
        QString text;         // the line under the title
    };
    struct Effect {
        QString key;
        QString label;
        bool on = true;
    };

    explicit PopoverModel(const UiServices &services, QObject *parent = nullptr);

    // "Hidden", "On the desk · All displays" or "On the desk · Main display".
    QString header() const;
    // Scene, installer, weather and battery saver, in that order, each when it says something.
    QStringList statusLines() const;
    // What the room's state means to the user: loading, being downloaded, or why it is
    // unavailable; empty while the room is there. Never the log's detail.
    static QString sceneLine(const SceneStatus *status, const SceneInstaller *installer);
    // The installer's phase, progress and passing notice; empty when it has nothing to say.
    static QString installerLine(const SceneInstaller *installer);
    // Installer progress 0…1 while the room downloads.
    std::optional<double> installProgress() const;
    NowPlaying nowPlaying() const;
    bool musicConnected() const;

    // "auto" or a preset name.
    QString lightMode() const;
    // The presets the dial offers: the canonical ones the scene has (all four without a scene).
    QStringList lightPresets() const;
    // The preset the light shows now (in "auto", the clock's).
    QString activePreset(const QDateTime &now) const;
    std::optional<double> clockPosition(const QDateTime &now) const;
    void chooseLight(const QString &mode);

    // One per framing of the room's manifest, in the scene status's order.
    QList<Tile> tiles() const;
    // Installed: switch the room to it. Downloadable or failed: download it, and switch to it
    // once it is on disk. Unavailable or downloading: nothing.
    void activateTile(const QString &name);

    QList<Effect> effects() const;
    void setEffect(const QString &key, bool on);

    bool roomShown() const;
    void setRoomShown(bool on);

    const UiServices &services() const { return s; }

signals:
    void changed();

private:
    // `downloading`: the installer is fetching a room.
    static QString problemText(SceneStatus::Reason reason, bool downloading);
    QString weatherLine() const;
    QString saverLine() const;
    bool onDisk(const QString &framing) const;
    void framingDownloadEnded();

    UiServices s;
    QString awaitedFraming;  // downloading at the user's request; shown once on disk
};
