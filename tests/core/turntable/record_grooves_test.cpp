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
    double sum = 200;
    for (int k : {6, 8, 9, 10}) sum += double(RecordGrooves::hash("Album#" + QString::number(k)) % 180 + 150);
    EXPECT_NEAR(g.bands[1].outer - g.bands[1].inner, (146 - 60 - 1.2 * 4) * 200 / sum, 1e-9);
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

// Angles worked out by hand: from rest towards speed w with time constant tau, the angle after
// dt is w·dt − w·tau·(1 − e^(−dt/tau)); slowing from w to rest it adds w·tau·(1 − e^(−dt/tau)).
TEST(RecordSpin, AngleFollowsTheEasedSpeed)
{
    const double w = 2 * M_PI * 100 / 3 / 60;  // 33⅓ rpm: one turn every 1.8 s
    auto wrap = [](double a) { return a - 2 * M_PI * std::floor(a / (2 * M_PI)); };
    RecordSpin s;
    s.set(true, 10);
    EXPECT_EQ(s.angle(10), 0);
    EXPECT_EQ(s.angle(9.5), 0);                          // a time before the change counts as the change
    EXPECT_NEAR(s.angle(10.16), w * 0.16 / M_E, 1e-12);  // spin-up, tau 0.16
    EXPECT_NEAR(s.speed(10.16), w * (1 - 1 / M_E), 1e-12);
    EXPECT_NEAR(s.angle(13), wrap(w * (3 - 0.16)), 1e-7);  // steady (e^(−18.75) left), w·0.16 behind
    s.set(true, 12);                                       // same target: nothing changes
    EXPECT_EQ(s.t0, 10);
    s.set(false, 20);  // spin-down, tau 0.22: coasts w·0.22 further
    const double stopAt = wrap(w * (10 - 0.16));
    EXPECT_NEAR(s.angle(20), stopAt, 1e-9);
    EXPECT_NEAR(s.angle(20.22), wrap(stopAt + w * 0.22 * (1 - 1 / M_E)), 1e-9);
    EXPECT_NEAR(s.angle(30), wrap(stopAt + w * 0.22), 1e-9);
    EXPECT_NEAR(s.speed(30), 0, 1e-12);

    // Stopped 0.1 s after starting: it coasts from the speed it had reached; once that is below
    // 0.01 rad/s the next start begins from rest.
    RecordSpin r;
    r.set(true, 0);
    r.set(false, 0.1);
    const double v = w * (1 - std::exp(-0.1 / 0.16)), a = w * 0.1 - w * 0.16 * (1 - std::exp(-0.1 / 0.16));
    EXPECT_NEAR(r.angle(0.1), a, 1e-12);
    EXPECT_NEAR(r.angle(5), a + v * 0.22, 1e-9);
    r.set(true, 5);
    EXPECT_EQ(r.omega0, 0);
    EXPECT_NEAR(r.angle(5.16), a + v * 0.22 + w * 0.16 / M_E, 1e-9);
    RecordSpin quick;
    quick.set(true, 20);
    quick.set(false, 20.0001);  // below 0.01 rad/s, but the old target was not rest: kept
    EXPECT_NEAR(quick.omega0, w * (1 - std::exp(-0.0001 / 0.16)), 1e-12);
    quick.set(true, 30);  // from rest again
    quick.set(false, 31);
    quick.set(true, 31.1);  // still turning: carried over
    EXPECT_NEAR(quick.omega0, w * (1 - std::exp(-1 / 0.16)) * std::exp(-0.1 / 0.22), 1e-12);
}

}  // namespace
