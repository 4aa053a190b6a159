#include "RenderTestSupport.h"

#include <gtest/gtest.h>

using namespace rendertest;

namespace {

class Steam : public RendererTest {
protected:
    // A 128×128 plate, steam region (32, 16, 64, 96): the cup at (64, 112).
    SteamUniforms uniforms(float t, float hourShown = 0)
    {
        SteamUniforms s;
        s.plateSize = {128, 128, 1 / 128.0f, 1 / 128.0f};
        s.origin = {0, 0, 1, 0};
        s.rect = {32, 16, 64, 96};
        s.params = {t, 0.3f, 3600, hourShown};
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
    static double alphaSum(const QImage &img, const QRect &area)
    {
        return sumOver(area, [&](int x, int y) { return qAlpha(img.pixel(x, y)); });
    }
};

TEST_F(Steam, RisesAtNightDaylightHidesItAndTheHourWrapsSeamlessly)
{
    // That none of it falls below the cup is checked through a whole scene's render, where the cup is placed.
    const QImage night = render(uniforms(42.0f), 0.04f);
    EXPECT_GT(alphaSum(night, QRect(0, 16, 128, 96)), 50.0);
    // Premultiplied with alpha 0.35 of the largest channel: red (the largest, grey light) is never below alpha.
    EXPECT_EQ(sumOver(QRect(32, 16, 64, 96),
                      [&](int x, int y) { return qAlpha(night.pixel(x, y)) > qRed(night.pixel(x, y)); }),
              0);
    // Visibility 0.03 / (L + 0.008) times tint √(L / (1 + L)): day (0.3) over night (0.04) is
    // (0.0974 · 0.480) / (0.625 · 0.196) = 0.38 of the light the steam adds.
    const auto red = [](const QImage &img) {
        return sumOver(img.rect(), [&](int x, int y) { return qRed(img.pixel(x, y)); });
    };
    EXPECT_NEAR(red(render(uniforms(42.0f), 0.3f)) / red(night), 0.38, 0.08);
    // The hourly wrap is seamless, up to the float rounding of a large time; a start needs none.
    const QImage hourEnd = render(uniforms(3600.0f), 0.04f);
    EXPECT_LT(differingPixels(render(uniforms(0.0f, 1), 0.04f), hourEnd, 2), 20);
    EXPECT_GT(differingPixels(render(uniforms(0.0f), 0.04f), hourEnd, 2), 20);
}

TEST_F(Steam, UnderTheSteamACopyOfTheBaseOrOfTheSharedStillStandsForTheShadedRoom)
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
    renderer->waitIdle();
    renderer->gpuClock().take();

    // The steam region's layer, shaded whole and over the copied base.
    SceneUniforms at = u;
    at.origin = {32, 16, 0, 0};
    SteamUniforms s = uniforms(42.0f);
    s.origin = {32, 16, 1, 0};
    OffscreenTarget shaded(renderer->vulkan(), 64, 96), copied(renderer->vulkan(), 64, 96);
    SceneRenderer::Pass whole{&shaded, at, s}, over{&copied, at, s, base.texture().get()};
    renderer->draw(std::nullopt, {whole, over}, std::nullopt, t);
    renderer->waitIdle();
    // The frame's time per command buffer sets the frame rate: the layers of a frame share one.
    EXPECT_EQ(renderer->gpuClock().take().second, 1);
    const QImage a = shaded.readback();
    EXPECT_EQ(differingPixels(a, copied.readback(), 1), 0);
    // Drawn at half resolution and scaled up, the steam is much the same.
    OffscreenTarget halfSteam(renderer->vulkan(), 32, 48, VK_FORMAT_B8G8R8A8_UNORM,
                              VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL),
        upscaled(renderer->vulkan(), 64, 96);
    SceneTextures withHalf = t;
    withHalf.steam = halfSteam.texture();
    SceneRenderer::Pass up{&upscaled, at, s};
    up.steamHalf = &halfSteam;
    renderer->draw(std::nullopt, {up}, std::nullopt, withHalf);
    renderer->waitIdle();
    const QImage fromHalf = upscaled.readback();
    EXPECT_LT(differingPixels(a, fromHalf, 1), 30) << "the steam drawn at half resolution is misplaced";
    EXPECT_GT(differingPixels(a, base.readback().copy(32, 16, 64, 96)), 100) << "the steam shows over the room";
    // Where no base image is kept, the layer's part of it, copied out when the base was drawn, stands for it as well.
    OffscreenTarget kept(renderer->vulkan(), 64, 96), overKept(renderer->vulkan(), 64, 96);
    renderer->draw(std::nullopt, {SceneRenderer::Pass{&kept, at, std::nullopt, base.texture().get()}}, std::nullopt, t);
    SceneRenderer::Pass fromKept{&overKept, at, s, kept.texture().get()};
    fromKept.underX = 32;
    fromKept.underY = 16;
    renderer->draw(std::nullopt, {fromKept}, std::nullopt, t);
    renderer->waitIdle();
    EXPECT_EQ(differingPixels(a, overKept.readback(), 1), 0);

    // Over a record's layer, both layers take their room from one still at their own offsets, drawn once by the first.
    LayerStill still(renderer->vulkan(), 8, 8, 88, 104);
    SceneTextures onStill = t;
    onStill.still = still.linear().texture();
    SceneUniforms record = u;
    record.origin = {8, 8, 0, 0};
    OffscreenTarget recordLayer(renderer->vulkan(), 40, 40), steamLayer(renderer->vulkan(), 64, 96);
    SceneRenderer::Pass first{&recordLayer, record}, second{&steamLayer, at, s};
    first.still = second.still = &still;
    first.redrawStill = LayerStill::Redraw::all;
    renderer->draw(std::nullopt, {first, second}, std::nullopt, onStill);
    renderer->waitIdle();
    EXPECT_EQ(differingPixels(a, steamLayer.readback(), 1), 0);
    EXPECT_EQ(differingPixels(recordLayer.readback(), base.readback().copy(8, 8, 40, 40), 1), 0);
}

}  // namespace
