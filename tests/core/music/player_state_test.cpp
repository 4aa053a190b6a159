#include "core/music/PlayerState.h"
#include "core/scheduling/MediaClock.h"
#include "TestSupport.h"

#include <QSignalSpy>
#include <gtest/gtest.h>

TEST(PlayerState, PublishesOnlyChanges)
{
    PlayerState state(5.0);
    QSignalSpy tracks(&state, &PlayerState::trackChanged);
    QSignalSpy playing(&state, &PlayerState::playingChanged);
    QSignalSpy positions(&state, &PlayerState::positionChanged);
    QSignalSpy artworks(&state, &PlayerState::artworkChanged);
    const auto counts = [&] {
        return std::tuple(tracks.count(), playing.count(), positions.count(), artworks.count());
    };

    Track track{"One", "Band", "Album", 200, {"org.mpris.MediaPlayer2.x", "X", "X"}, 1, 0};
    const QImage cover = testsupport::solidImage(Qt::red, 4, 4);
    for (int twice = 0; twice < 2; ++twice) {
        state.setTrack(track);
        state.setPlaying(true);
        state.setPosition(12.5);
        state.setArtwork(cover);
    }
    EXPECT_EQ(counts(), std::tuple(1, 1, 1, 1));
    track.source.logName = "Y";
    state.setTrack(track);
    state.setArtwork(QImage());
    EXPECT_EQ(counts(), std::tuple(2, 1, 1, 2)) << "every field of a track counts, the source too";
}

TEST(PlayerState, CurrentPositionExtrapolatesOnlyWhilePlaying)
{
    const double before = MediaClock::steady();
    EXPECT_GE(PlayerState().positionDate(), before) << "created at the media clock's now";
    PlayerState state(100.0);
    state.setPosition(30);
    EXPECT_DOUBLE_EQ(state.currentPosition(110), 30);
    state.setPlaying(true);
    EXPECT_DOUBLE_EQ(state.currentPosition(110), 40) << "from the creation time";
    state.setPositionDate(200);
    EXPECT_DOUBLE_EQ(state.currentPosition(1100), 930) << "not clamped to the duration";
}
