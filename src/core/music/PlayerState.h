#pragma once

#include <QImage>
#include <QObject>
#include <QString>
#include <optional>

// One music player the room can follow. On macOS the two scripted players; on Linux each MPRIS
// player on the session bus.
struct PlayerSource {
    QString id;       // what the running check and the query address: bundle identifier or bus name
    QString name;     // the player's own name: AppleScript application name or MPRIS Identity
    QString logName;  // how log lines call it

    bool operator==(const PlayerSource &) const = default;
};

// What plays. Equality compares every field.
struct Track {
    QString title;
    QString artist;
    QString album;
    double duration = 0;  // seconds
    PlayerSource source;
    int trackNumber = 0;  // 0 when unknown
    int trackCount = 0;   // 0 when unknown

    bool operator==(const Track &) const = default;
};

// The one shared answer to "what is playing", read by every view and written only by the
// now-playing monitor. Each setter publishes its signal only when the value changes.
//
// Times are seconds on the media clock (MediaClock), the monotonic clock the frame loop uses.
// Main thread only.
class PlayerState : public QObject {
    Q_OBJECT
public:
    explicit PlayerState(QObject *parent = nullptr);
    PlayerState(double creationTime, QObject *parent = nullptr);

    const std::optional<Track> &track() const { return track_; }
    // A null image when absent.
    const QImage &artwork() const { return artwork_; }
    bool isPlaying() const { return isPlaying_; }
    double position() const { return position_; }
    double positionDate() const { return positionDate_; }

    // While playing, the position extrapolated to `time`; while not, the last reading. Not
    // clamped to the track's duration.
    double currentPosition(double time) const;

    void setTrack(const std::optional<Track> &track);
    void setArtwork(const QImage &image);
    void setPlaying(bool playing);
    void setPosition(double seconds);
    void setPositionDate(double time);

signals:
    void trackChanged();
    void artworkChanged();
    void playingChanged();
    void positionChanged();

private:
    std::optional<Track> track_;
    QImage artwork_;
    bool isPlaying_ = false;
    double position_ = 0;
    double positionDate_ = 0;
};
