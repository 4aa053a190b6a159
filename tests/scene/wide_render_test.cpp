#include "../render/RenderTestSupport.h"

#include "TestSupport.h"

#include <QImage>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace rendertest;
using namespace testsupport;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

double meanLuma(const QImage &image)
{
    double sum = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) sum += qGray(image.pixel(x, y));
    return sum / (double(image.width()) * image.height());
}

// The wide framing at half the plate size: the sleeve and label are seen small and
// steep, so their art is sampled far down its mip chain. The software device once spun
// forever on exactly this frame; the render runs in its own process so a stall fails the
// test instead of hanging the suite.
TEST(WideFraming, ASmallTargetRendersByNightAndDayWithoutStalling)
{
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    const QString scene = root.filePath("scene");
    const ToolResult made = runTool(builtTool("turnelo-gen-scene"),
                                    {"--out", scene, "--width", "960", "--height", "540", "--framings", "wide"});
    ASSERT_EQ(made.exitCode, 0) << made.err.toStdString();

    const QString app = QStringLiteral(TURNELO_BINARY_DIR) + "/turnelo";
    const QStringList env{"XDG_STATE_HOME=" + root.filePath("state"), "XDG_DATA_HOME=" + root.filePath("data"),
                          "XDG_CONFIG_HOME=" + root.filePath("config")};
    double luma[2] = {0, 0};
    const char *times[2] = {"22:30", "12:00"};
    for (int i = 0; i < 2; ++i) {
        const QString out = root.filePath(QStringLiteral("wide-%1.png").arg(i));
        const ToolResult r = runTool(
            app, {"render", scene, out, "--framing", "wide", "--size", "480x270", "--time", times[i]}, env, 90000);
        ASSERT_EQ(r.exitCode, 0) << times[i] << ": " << r.err.toStdString();
        const QImage image(out);
        ASSERT_EQ(image.size(), QSize(480, 270)) << times[i];
        luma[i] = meanLuma(image);
    }
    EXPECT_GT(luma[0], 1.0) << "the night frame is black";
    EXPECT_GT(luma[1], luma[0] * 1.2) << "day is not brighter than night";
}

}  // namespace
