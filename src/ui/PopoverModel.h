#pragma once

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
        enum class Kind { installed, downloadable, downloading, failed };
        QString name;
        QString title;
        Kind kind = Kind::installed;
        bool current = false;
        QString sizeText;       // downloadable and failed: the packages' size
        double progress = 0;    // downloading: 0…1
        QString text;           // the line under the title
    };
    struct Effect {
        QString key;
        QString label;
        bool on = true;
    };

    explicit PopoverModel(const UiServices &services, QObject *parent = nullptr);

    // "Hidden", "On the desk · All displays" or "On the desk · Main display".
    QString header() const;
    // Scene, installer, weather, battery saver and problem, in that order, each when it says
    // something.
    QStringList statusLines() const;
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

    QList<Tile> tiles() const;
    // Installed: switch the room to it. Downloadable or failed: download it.
    void activateTile(const QString &name);

    QList<Effect> effects() const;
    void setEffect(const QString &key, bool on);

    bool roomShown() const;
    void setRoomShown(bool on);

    const UiServices &services() const { return s; }

signals:
    void changed();

private:
    QString weatherLine() const;
    QString saverLine() const;

    UiServices s;
};
