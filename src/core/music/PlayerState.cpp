#include "core/music/PlayerState.h"

#include "core/scheduling/MediaClock.h"

PlayerState::PlayerState(QObject *parent)
    : PlayerState(MediaClock::steady(), parent)
{
}

PlayerState::PlayerState(double creationTime, QObject *parent)
    : QObject(parent)
    , positionDate_(creationTime)
{
}

double PlayerState::currentPosition(double time) const
{
    return isPlaying_ ? position_ + (time - positionDate_) : position_;
}

void PlayerState::setTrack(const std::optional<Track> &track)
{
    if (track == track_) return;
    track_ = track;
    emit trackChanged();
}

void PlayerState::setArtwork(const QImage &image)
{
    // Both null, or the very same pixels, is no change.
    if (image.isNull() && artwork_.isNull()) return;
    if (!image.isNull() && !artwork_.isNull() && image.cacheKey() == artwork_.cacheKey()) return;
    artwork_ = image;
    emit artworkChanged();
}

void PlayerState::setPlaying(bool playing)
{
    if (playing == isPlaying_) return;
    isPlaying_ = playing;
    emit playingChanged();
}

void PlayerState::setPosition(double seconds)
{
    if (seconds == position_) return;
    position_ = seconds;
    emit positionChanged();
}

void PlayerState::setPositionDate(double time) { positionDate_ = time; }
