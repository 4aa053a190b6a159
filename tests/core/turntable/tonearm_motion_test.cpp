#include "core/turntable/TonearmMotion.h"

#include <gtest/gtest.h>

namespace {

const TonearmMotion::Geometry geo{-30, 10, 30, 146, 60};

TEST(TonearmMotion, GoalFollowsTheBandOfTheTrack)
{
    EXPECT_EQ(TonearmMotion::goal(geo, false, 0.5, true, std::pair{120.0, 100.0}), -30);
    // Halfway through a band from 120 to 100 mm: r = 110, travel 36 of 86.
    EXPECT_NEAR(TonearmMotion::goal(geo, true, 0.5, true, std::pair{120.0, 100.0}), 10 + 20 * 36.0 / 86.0, 1e-12);
    EXPECT_NEAR(TonearmMotion::goal(geo, true, 0.0, true, std::pair{146.0, 130.0}), 10, 1e-12);
    EXPECT_NEAR(TonearmMotion::goal(geo, true, 0.25, false, std::nullopt), 15, 1e-12);
    EXPECT_NEAR(TonearmMotion::goal(geo, true, 3, false, std::nullopt), 30, 1e-12);
}

TEST(TonearmMotion, StoppingLiftsBeforeSwingingThenLowers)
{
    TonearmMotion arm;
    arm.yaw = 20;
    double maxLiftBeforeSwing = 0;
    bool swung = false, lowered = false;
    for (int i = 0; i <= 30 * 6; ++i) {
        const double prevYaw = arm.yaw;
        arm.advance(i / 30.0, -30);
        if (!swung && std::abs(arm.yaw - prevYaw) > 0.01) {
            swung = true;
            maxLiftBeforeSwing = arm.lift;
        }
        if (swung && std::abs(arm.yaw + 30) <= 0.25 && arm.lift < 0.5) lowered = true;
    }
    EXPECT_TRUE(swung);
    EXPECT_GT(maxLiftBeforeSwing, 0.97);
    EXPECT_TRUE(lowered);
    EXPECT_DOUBLE_EQ(arm.yaw, -30);  // settled and snapped
    EXPECT_EQ(arm.lift, 0);
}

TEST(TonearmMotion, SubStepsMakeTheMotionIndependentOfFrameRateAndALongSleepSnaps)
{
    TonearmMotion a, b;
    for (int i = 0; i <= 15; ++i) a.advance(i / 15.0, 25);
    for (int i = 0; i <= 60; ++i) b.advance(i / 60.0, 25);
    EXPECT_NEAR(a.yaw, b.yaw, 1e-6);
    EXPECT_NEAR(a.lift, b.lift, 1e-6);
    EXPECT_NE(a.yaw, 25);
    a.advance(9.0, 25);
    EXPECT_EQ(a.yaw, 25);
    EXPECT_EQ(a.lift, 0);
}

TEST(TonearmMotion, NeighboursClampAtBothEnds)
{
    const std::vector<double> s{-30, 0, 10, 30};
    EXPECT_EQ(TonearmMotion::neighbors(s, -40), (std::pair<int, double>{0, 0.0}));
    EXPECT_EQ(TonearmMotion::neighbors(s, 50), (std::pair<int, double>{2, 1.0}));
    EXPECT_EQ(TonearmMotion::neighbors(s, 5), (std::pair<int, double>{1, 0.5}));
    EXPECT_EQ(TonearmMotion::neighbors({7}, 9), (std::pair<int, double>{0, 0.0}));
}

}  // namespace
