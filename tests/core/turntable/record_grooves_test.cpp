#include "core/music/PlayerState.h"
#include "core/turntable/RecordGrooves.h"

#include <gtest/gtest.h>
#include <cmath>

namespace {

TEST(RecordGrooves, SidesSplitTheAlbumInHalves)
{
    EXPECT_EQ(RecordGrooves::side(7, 10, "x"), std::pair(QChar('B'), 2));
    EXPECT_EQ(RecordGrooves::side(5, 9, "x"), std::pair(QChar('A'), 5));
    EXPECT_EQ(RecordGrooves::side(6, 9, "x"), std::pair(QChar('B'), 1));
    EXPECT_FALSE(RecordGrooves::side(0, 9, "x"));
    // Number above the count: total 12, half 6.
    EXPECT_EQ(RecordGrooves::side(12, 10, "x"), std::pair(QChar('B'), 6));
}

TEST(RecordGrooves, BandsFillTheGrooveAreaInProportionToLength)
{
    const RecordGrooves g = RecordGrooves::make("Album", 7, 10, 200, 146, 60);
    ASSERT_EQ(g.bands.size(), 5u);  // side B: 6–10
    EXPECT_EQ(g.current, 1);
    EXPECT_DOUBLE_EQ(g.bands.front().outer, 146);
    EXPECT_NEAR(g.bands.back().inner, 60, 1e-9);
    for (size_t i = 1; i < g.bands.size(); ++i) EXPECT_NEAR(g.bands[i - 1].inner - g.bands[i].outer, 1.2, 1e-9);
    // The playing track's width follows its real duration; the others a stable made-up one.
    const RecordGrooves twice = RecordGrooves::make("Album", 7, 10, 400, 146, 60);
    const auto ratio = [](const RecordGrooves &r) {
        return (r.bands[1].outer - r.bands[1].inner) / (r.bands[2].outer - r.bands[2].inner);
    };
    EXPECT_NEAR(ratio(twice), 2 * ratio(g), 1e-9);
    // Same title, same grooves.
    EXPECT_DOUBLE_EQ(RecordGrooves::make("Album", 7, 10, 200, 146, 60).bands[3].inner, g.bands[3].inner);
}

TEST(RecordGrooves, OneTrackSideIsOneBandAndNoTrackIsTheMadeUpAlbum)
{
    EXPECT_EQ(RecordGrooves::make("S", 2, 2, 100, 140, 70).bands.size(), 1u);
    const RecordGrooves none = RecordGrooves::forTrack(std::nullopt, 140, 70);
    EXPECT_EQ(none.bands.size(), 4u);
    EXPECT_EQ(none.current, 0);
    Track t;  // number 0 counts as 1, duration 0 takes a made-up length
    t.album = "Q";
    const RecordGrooves first = RecordGrooves::forTrack(t, 140, 70);
    EXPECT_EQ(first.current, 0);
    EXPECT_EQ(int(first.bands.size()), int(std::ceil(RecordGrooves::assumedCount("Q", 0) * 0.5)));
    // A player's absurd number or count is no album's: the made-up count stands.
    t.trackNumber = 5000;
    t.trackCount = 1'000'000;
    EXPECT_EQ(RecordGrooves::forTrack(t, 140, 70).bands.size(), first.bands.size());
}

// Seen on screen: the record is at 33⅓ rpm within a second of playing, all but still a second
// after a pause, and neither its angle nor its speed jumps when it is retargeted, however soon.
TEST(RecordSpin, EasesUpAndDownWithoutAJump)
{
    const double w = 2 * M_PI * 100 / 3 / 60;  // 33⅓ rpm
    const auto retarget = [](RecordSpin &s, bool playing, double t) {
        const double angle = s.angle(t), speed = s.speed(t);
        s.set(playing, t);
        EXPECT_NEAR(s.angle(t), angle, 1e-9) << t;
        EXPECT_NEAR(s.speed(t), speed, 1e-9) << t;
    };
    RecordSpin s;
    retarget(s, true, 10);
    EXPECT_EQ(s.angle(9.5), 0) << "a time before the change counts as the change";
    EXPECT_GT(s.speed(10.1), 0.3 * w);
    EXPECT_LT(s.speed(10.1), 0.7 * w);
    EXPECT_NEAR(s.speed(11), w, 1e-2 * w);
    EXPECT_NEAR(std::remainder(s.angle(13.45) - s.angle(13), 2 * M_PI), M_PI / 2, 1e-7) << "a turn every 1.8 s";
    retarget(s, false, 20);
    EXPECT_GT(std::remainder(s.angle(20.1) - s.angle(20), 2 * M_PI), 0) << "no sudden stop";
    EXPECT_LT(s.speed(21), 0.02 * w);
    EXPECT_NEAR(s.angle(40), s.angle(30), 1e-9);
    // Stopped while still easing up, and started again while coasting.
    retarget(s, true, 50);
    retarget(s, false, 50.1);
    retarget(s, true, 50.2);
    EXPECT_NEAR(s.speed(52), w, 1e-2 * w);
}

}  // namespace
