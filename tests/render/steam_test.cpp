#include "RenderTestSupport.h"

#include <gtest/gtest.h>

using namespace rendertest;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

class Steam : public RendererTest {
protected:
    // A 128×128 plate, steam region (32, 16, 64, 96): the cup at (64, 112).
    SteamUniforms uniforms(float t)
    {
        SteamUniforms s;
        s.plateSize = {128, 128, 1 / 128.0f, 1 / 128.0f};
        s.origin = {0, 0, 1, 0};
        s.rect = {32, 16, 64, 96};
        s.params = {t, 0.3f, 3600, 0};
        s.mixWeights = {1, 0, 0, 0};
        s.mixCount = 1;
        return s;
    }
    QImage render(const SteamUniforms &s, float light)
    {
        SceneTextures t;
        t.mixes[0] = constant({light, light, light, 1});
        OffscreenTarget target(renderer->vulkan(), 128, 128);
        renderer->draw(std::nullopt, {}, SceneRenderer::SteamPass{&target, s}, t);
        renderer->waitIdle();
        return target.readback();
    }
    static double alphaSum(const QImage &img, int y0, int y1)
    {
        double sum = 0;
        for (int y = y0; y < y1; ++y)
            for (int x = 0; x < img.width(); ++x) sum += qAlpha(img.pixel(x, y));
        return sum;
    }
};

TEST_F(Steam, RisesAboveTheCupAtNightDaylightHidesItAndTheHourWrapsSeamlessly)
{
    const QImage night = render(uniforms(42.0f), 0.04f);
    int belowTheCup = 0;
    for (int y = 113; y < 128; ++y)
        for (int x = 0; x < 128; ++x) belowTheCup += night.pixel(x, y) != 0u;
    EXPECT_EQ(belowTheCup, 0);
    EXPECT_GT(alphaSum(night, 16, 112), 50.0);
    // Premultiplied with alpha 0.35 of the largest channel: red (the largest, grey light)
    // is never below alpha.
    int alphaAboveRed = 0;
    for (int y = 16; y < 112; ++y)
        for (int x = 32; x < 96; ++x) alphaAboveRed += qAlpha(night.pixel(x, y)) > qRed(night.pixel(x, y));
    EXPECT_EQ(alphaAboveRed, 0);
    // Visibility 0.03 / (L + 0.008) times tint √(L / (1 + L)): day (0.3) over night (0.04)
    // is (0.0974 · 0.480) / (0.625 · 0.196) = 0.38 of the light the steam adds.
    const QImage day = render(uniforms(42.0f), 0.3f);
    double redNight = 0, redDay = 0;
    for (int y = 0; y < 128; ++y)
        for (int x = 0; x < 128; ++x) redNight += qRed(night.pixel(x, y)), redDay += qRed(day.pixel(x, y));
    EXPECT_GT(redNight, 0.0);
    EXPECT_NEAR(redDay / redNight, 0.38, 0.08);

    // The hourly wrap is seamless, up to the float rounding of a large time.
    const QImage atZero = render(uniforms(0.0f), 0.04f), atPeriod = render(uniforms(3600.0f), 0.04f);
    int differing = 0;
    for (int y = 0; y < 128; ++y)
        for (int x = 0; x < 128; ++x) {
            const QRgb a = atZero.pixel(x, y), b = atPeriod.pixel(x, y);
            differing += std::abs(qAlpha(a) - qAlpha(b)) > 2 || std::abs(qRed(a) - qRed(b)) > 2;
        }
    EXPECT_LT(differing, 20);
}

TEST_F(Steam, LayersAndSteamShareOneCommandBuffer)
{
    renderer->waitIdle();
    renderer->gpuClock().take();
    SceneTextures t;
    t.mixes[0] = constant({0.04f, 0.04f, 0.04f, 1});
    OffscreenTarget dyn(renderer->vulkan(), 32, 32), rain(renderer->vulkan(), 16, 16),
        steam(renderer->vulkan(), 128, 128);
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

TEST_F(Steam, UnderTheSteamTheBasesPixelsStandForTheShadedRoom)
{
    // A room whose light changes across the plate, so that a misplaced copy shows.
    SceneTextures t;
    t.mixes[0] = half(halfImage(128, 128, [](int x, int y) {
        return std::array<float, 4>{0.01f + 0.004f * x, 0.02f + 0.003f * y, 0.05f, 1};
    }));
    SceneUniforms u = plainUniforms(128, 128);
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    OffscreenTarget base(renderer->vulkan(), 128, 128);
    renderer->draw(SceneRenderer::Pass{&base, u, std::nullopt}, {}, std::nullopt, t);

    // The steam region's layer, shaded whole and over the copied base.
    SceneUniforms at = u;
    at.origin = {32, 16, 0, 0};
    SteamUniforms s = uniforms(42.0f);
    s.origin = {32, 16, 1, 0};
    OffscreenTarget shaded(renderer->vulkan(), 64, 96), copied(renderer->vulkan(), 64, 96);
    SceneRenderer::Pass whole{&shaded, at, s}, over{&copied, at, s, base.texture().get()};
    renderer->draw(std::nullopt, {whole, over}, std::nullopt, t);
    renderer->waitIdle();
    const QImage a = shaded.readback(), b = copied.readback(), room = base.readback();
    int differing = 0, steamed = 0;
    for (int y = 0; y < 96; ++y)
        for (int x = 0; x < 64; ++x) {
            const auto p = rgbAt(a, x, y), q = rgbAt(b, x, y), r = rgbAt(room, 32 + x, 16 + y);
            for (int c = 0; c < 3; ++c) differing += std::abs(p[c] - q[c]) > 1;
            steamed += p != r;
        }
    EXPECT_EQ(differing, 0);
    EXPECT_GT(steamed, 100) << "the steam shows over the room";

    // Under a darker base, a shaded strip (where the record's layer reaches in) is the live room
    // and the rest is the base's.
    SceneUniforms dim = u;
    dim.mixWeights = {0.5f, 0, 0, 0};
    renderer->draw(SceneRenderer::Pass{&base, dim, std::nullopt}, {}, std::nullopt, t);
    SceneRenderer::Pass strip{&copied, at, s, base.texture().get(), {{0, 0}, {16, 96}}};
    renderer->draw(std::nullopt, {strip}, std::nullopt, t);
    renderer->waitIdle();
    const QImage c = copied.readback();
    int liveOutside = 0, stale = 0;
    for (int y = 0; y < 96; ++y)
        for (int x = 0; x < 64; ++x) {
            const bool same = rgbAt(a, x, y) == rgbAt(c, x, y);
            (x < 16 ? stale : liveOutside) += x < 16 ? !same : same;
        }
    EXPECT_EQ(stale, 0);
    EXPECT_LT(liveOutside, 48 * 96 / 20);
}

}  // namespace
