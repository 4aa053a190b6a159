#include "core/music/PlayerState.h"
#include "core/turntable/RecordGrooves.h"

#include <gtest/gtest.h>
#include <cmath>

namespace {

TEST(RecordGrooves, SidesSplitTheAlbumInHalves) {
    auto s = RecordGrooves::side(7, 10, "x");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->first, 'B');
    EXPECT_EQ(s->second, 2);
    EXPECT_EQ(RecordGrooves::side(5, 9, "x")->first, 'A');
    EXPECT_EQ(RecordGrooves::side(6, 9, "x")->first, 'B');
    EXPECT_FALSE(RecordGrooves::side(0, 9, "x"));
    // Number above the count: total 12, half 6.
    EXPECT_EQ(RecordGrooves::side(12, 10, "x")->second, 6);
}

TEST(RecordGrooves, BandsFillTheGrooveAreaInProportionToLength) {
    const RecordGrooves g = RecordGrooves::make("Album", 7, 10, 200, 146, 60);
    ASSERT_EQ(g.bands.size(), 5u);  // side B: 6–10
    EXPECT_EQ(g.current, 1);
    EXPECT_DOUBLE_EQ(g.bands.front().outer, 146);
    EXPECT_NEAR(g.bands.back().inner, 60, 1e-9);
    for (size_t i = 1; i < g.bands.size(); ++i) EXPECT_NEAR(g.bands[i - 1].inner - g.bands[i].outer, 1.2, 1e-9);
    // The playing track's width follows its real duration; the others a stable made-up one.
    double sum = 200;
    for (int k : {6, 8, 9, 10}) sum += double(RecordGrooves::hash("Album#" + QString::number(k)) % 180 + 150);
    EXPECT_NEAR(g.bands[1].outer - g.bands[1].inner, (146 - 60 - 1.2 * 4) * 200 / sum, 1e-9);
    // Same title, same grooves.
    const RecordGrooves again = RecordGrooves::make("Album", 7, 10, 200, 146, 60);
    EXPECT_DOUBLE_EQ(again.bands[3].inner, g.bands[3].inner);
}

TEST(RecordGrooves, OneTrackSideIsOneBandAndNoTrackIsTheMadeUpAlbum) {
    const RecordGrooves one = RecordGrooves::make("S", 2, 2, 100, 140, 70);
    ASSERT_EQ(one.bands.size(), 1u);
    EXPECT_DOUBLE_EQ(one.bands[0].outer, 140);
    EXPECT_NEAR(one.bands[0].inner, 70, 1e-9);
    const RecordGrooves none = RecordGrooves::forTrack(std::nullopt, 140, 70);
    EXPECT_EQ(none.bands.size(), 4u);
    EXPECT_EQ(none.current, 0);
    Track t;
    t.album = "Q";
    t.trackNumber = 0;  // counts as 1
    t.duration = 0;     // made-up length
    const RecordGrooves first = RecordGrooves::forTrack(t, 140, 70);
    EXPECT_EQ(first.current, 0);
    EXPECT_EQ(int(first.bands.size()), int(std::ceil(RecordGrooves::assumedCount("Q", 0) * 0.5)));
}

TEST(RecordSpin, EasesUpAndDownContinuously) {
    RecordSpin s;
    s.set(true, 10);
    EXPECT_DOUBLE_EQ(s.angle(10), 0);
    EXPECT_NEAR(s.speed(12), RecordSpin::playSpeed, 1e-4);
    const double before = s.angle(13);
    s.set(false, 13);
    EXPECT_NEAR(s.angle(13), before, 1e-12);
    EXPECT_NEAR(s.speed(13), RecordSpin::playSpeed, 1e-4);
    EXPECT_LT(s.speed(15), 0.01);
    // Stopped target and a negligible speed: the next start begins from rest.
    s.set(true, 20);
    s.set(false, 20.0001);
    EXPECT_GT(s.omega0, 0);
    RecordSpin r;
    r.set(true, 0);
    r.set(false, 0.5);
    r.set(true, 5);  // speed ≈ 0 by now
    EXPECT_EQ(r.omega0, 0);
    EXPECT_GE(r.angle(7), 0);
    EXPECT_LT(r.angle(7), 2 * M_PI);
}

}  // namespace
