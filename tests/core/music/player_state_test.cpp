#include "core/music/PlayerState.h"
#include "core/scheduling/MediaClock.h"
#include "TestSupport.h"

#include <QSignalSpy>
#include <gtest/gtest.h>

namespace {

Track track(const QString &title)
{
    return {title, "Band", "Album", 200, {"org.mpris.MediaPlayer2.x", "X", "X"}, 1, 0};
}

}  // namespace

TEST(PlayerState, PublishesOnlyChanges)
{
    PlayerState state(5.0);
    EXPECT_DOUBLE_EQ(state.positionDate(), 5.0) << "the creation time";
    QSignalSpy tracks(&state, &PlayerState::trackChanged);
    QSignalSpy playing(&state, &PlayerState::playingChanged);
    QSignalSpy positions(&state, &PlayerState::positionChanged);
    QSignalSpy artworks(&state, &PlayerState::artworkChanged);

    state.setTrack(std::nullopt);
    state.setPlaying(false);
    state.setPosition(0);
    state.setArtwork(QImage());
    EXPECT_EQ(tracks.count() + playing.count() + positions.count() + artworks.count(), 0);

    state.setTrack(track("One"));
    state.setTrack(track("One"));
    EXPECT_EQ(tracks.count(), 1);
    Track other = track("One");
    other.source.logName = "Y";
    state.setTrack(other);
    EXPECT_EQ(tracks.count(), 2) << "every field counts, the source too";

    const QImage cover = testsupport::solidImage(Qt::red, 4, 4);
    state.setArtwork(cover);
    state.setArtwork(cover);
    EXPECT_EQ(artworks.count(), 1);
    state.setArtwork(QImage());
    EXPECT_EQ(artworks.count(), 2);

    state.setPlaying(true);
    state.setPlaying(true);
    state.setPosition(12.5);
    state.setPosition(12.5);
    EXPECT_EQ(playing.count(), 1);
    EXPECT_EQ(positions.count(), 1);
}

TEST(PlayerState, CurrentPositionExtrapolatesOnlyWhilePlaying)
{
    PlayerState state(0.0);
    state.setPosition(30);
    state.setPositionDate(100);
    EXPECT_DOUBLE_EQ(state.currentPosition(110), 30);
    state.setPlaying(true);
    EXPECT_DOUBLE_EQ(state.currentPosition(110), 40);
    EXPECT_DOUBLE_EQ(state.currentPosition(1000), 930) << "not clamped to the duration";
    const double a = MediaClock::steady();
    const double b = MediaClock::steady();
    EXPECT_LE(a, b) << "the media clock never goes back";
}
