#include "scene/SurfaceScale.h"

#include <gtest/gtest.h>

// A layer's rectangle widened to whole logical pixels, and the same rectangle in logical pixels,
// at whole and fractional scales; a surface's buffer size.
TEST(SurfaceScale, LayersAreWidenedToWholeLogicalPixelsAndBuffersRoundAsTheCompositorDoes)
{
    const QSize screen(1920, 1080);
    struct Case {
        SurfaceScale scale;
        QRect asked, snapped, logical;
    };
    const Case cases[] = {
        {SurfaceScale::whole(1), {101, 51, 11, 11}, {101, 51, 11, 11}, {101, 51, 11, 11}},
        {SurfaceScale::whole(2), {101, 51, 11, 11}, {100, 50, 12, 12}, {50, 25, 6, 6}},
        // 1.5: every 2 logical pixels are 3 of the buffer's.
        {SurfaceScale::fractional(180), {100, 50, 10, 10}, {99, 48, 12, 12}, {66, 32, 8, 8}},
        // 1.25: every 4 logical pixels are 5.
        {SurfaceScale::fractional(150), {7, 3, 1, 9}, {5, 0, 5, 15}, {4, 0, 4, 12}},
        // Clamped to the surface: its own edge stays where it is.
        {SurfaceScale::fractional(180), {1915, 1075, 10, 10}, {1914, 1074, 6, 6}, {1276, 716, 4, 4}},
        {SurfaceScale::fractional(180), {-5, -1, 10, 10}, {0, 0, 6, 9}, {0, 0, 4, 6}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.scale.factor());
        const QRect snapped = c.scale.snap(c.asked, screen);
        EXPECT_EQ(snapped, c.snapped) << c.asked.x() << "," << c.asked.y();
        EXPECT_EQ(c.scale.toLogical(snapped), c.logical);
    }
    // A surface's buffer, rounded as the compositor rounds: 1366 × 1.25 = 1707.5.
    EXPECT_EQ(SurfaceScale::fractional(150).pixels({1366, 768}), QSize(1708, 960));
}
