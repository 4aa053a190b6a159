#include "RenderTestSupport.h"

#include <gtest/gtest.h>

using namespace rendertest;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

class Steam : public ::testing::Test {
protected:
    static void SetUpTestSuite() { renderer = SceneRenderer::create().release(); }
    static void TearDownTestSuite() {
        delete renderer;
        renderer = nullptr;
    }
    void SetUp() override { ASSERT_NE(renderer, nullptr); }

    // A 128×128 plate, steam region (32, 16, 64, 96): the cup at (64, 112).
    SteamUniforms uniforms(float t) {
        SteamUniforms s;
        s.plateSize = {128, 128, 1 / 128.0f, 1 / 128.0f};
        s.origin = {0, 0, 1, 0};
        s.rect = {32, 16, 64, 96};
        s.params = {t, 0.3f, 3600, 0};
        s.mixWeights = {1, 0, 0, 0};
        s.mixCount = 1;
        return s;
    }
    QImage render(const SteamUniforms &s, float light) {
        SceneTextures t;
        t.mixes[0] = TextureUpload::half(*renderer->vulkan(), constantHalf(4, 4, {light, light, light, 1}));
        OffscreenTarget target(renderer->vulkan(), 128, 128);
        renderer->draw(std::nullopt, {}, SceneRenderer::SteamPass{&target, s}, t);
        renderer->waitIdle();
        return target.readback();
    }
    static double alphaSum(const QImage &img, int y0, int y1) {
        double sum = 0;
        for (int y = y0; y < y1; ++y)
            for (int x = 0; x < img.width(); ++x) sum += qAlpha(img.pixel(x, y));
        return sum;
    }
    static SceneRenderer *renderer;
};
SceneRenderer *Steam::renderer = nullptr;

TEST_F(Steam, BelowTheCupIsTransparentAndAboveItRisesAtNight) {
    const QImage night = render(uniforms(42.0f), 0.04f);
    for (int y = 113; y < 128; y += 3)
        for (int x = 0; x < 128; x += 7) EXPECT_EQ(night.pixel(x, y), 0u) << x << "," << y;
    EXPECT_GT(alphaSum(night, 16, 112), 50.0);
    // Premultiplied: no colour channel exceeds the 0.35-scaled alpha's source.
    QRgb p = 0;
    for (int y = 16; y < 112 && !p; ++y)
        for (int x = 32; x < 96; ++x)
            if (qAlpha(night.pixel(x, y)) > 0) {
                p = night.pixel(x, y);
                break;
            }
    ASSERT_NE(p, 0u);
    EXPECT_GE(qRed(p), qAlpha(p));
}

TEST_F(Steam, DaylightAlmostHidesIt) {
    const double night = alphaSum(render(uniforms(42.0f), 0.04f), 0, 128);
    const double day = alphaSum(render(uniforms(42.0f), 0.3f), 0, 128);
    EXPECT_GT(night, 0.0);
    EXPECT_LT(day, night * 0.6);
}

TEST_F(Steam, TheHourlyWrapIsSeamless) {
    const QImage atZero = render(uniforms(0.0f), 0.04f);
    const QImage atPeriod = render(uniforms(3600.0f), 0.04f);
    int differing = 0;
    for (int y = 0; y < 128; ++y)
        for (int x = 0; x < 128; ++x) {
            const QRgb a = atZero.pixel(x, y), b = atPeriod.pixel(x, y);
            if (std::abs(qAlpha(a) - qAlpha(b)) > 2 || std::abs(qRed(a) - qRed(b)) > 2) ++differing;
        }
    EXPECT_LT(differing, 20);  // float rounding of a large time only
}

TEST_F(Steam, LayersAndSteamShareOneCommandBuffer) {
    renderer->waitIdle();
    renderer->gpuClock().take();
    SceneTextures t;
    t.mixes[0] = TextureUpload::half(*renderer->vulkan(), constantHalf(4, 4, {0.04f, 0.04f, 0.04f, 1}));
    OffscreenTarget dyn(renderer->vulkan(), 32, 32), rain(renderer->vulkan(), 16, 16), steam(renderer->vulkan(), 128, 128);
    SceneUniforms u = plainUniforms(128, 128);
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    SceneUniforms shifted = u;
    shifted.origin = {40, 40, 0, 0};
    renderer->draw(std::nullopt, {{&dyn, u}, {&rain, shifted}}, SceneRenderer::SteamPass{&steam, uniforms(42.0f)}, t);
    renderer->waitIdle();
    const auto [seconds, count] = renderer->gpuClock().take();
    EXPECT_EQ(count, 1);
    EXPECT_GE(seconds, 0.0);
    // Same light everywhere: the two layers differ only by the dither.
    const auto a = rgbAt(dyn.readback(), 5, 5), b = rgbAt(rain.readback(), 5, 5);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(a[c], b[c], 2);
    EXPECT_GT(alphaSum(steam.readback(), 0, 128), 0.0);
}

}  // namespace
