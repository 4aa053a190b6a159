#include "RenderTestSupport.h"

#include "core/app/Log.h"
#include "render/SceneRenderer.h"
#include "render/TextureUpload.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace rendertest;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

class Composite : public ::testing::Test {
protected:
    static void SetUpTestSuite() { renderer = SceneRenderer::create().release(); }
    static void TearDownTestSuite() {
        delete renderer;
        renderer = nullptr;
    }
    void SetUp() override { ASSERT_NE(renderer, nullptr) << "no Vulkan renderer on this machine"; }

    QImage render(const SceneUniforms &u, const SceneTextures &t, int w, int h) {
        OffscreenTarget target(renderer->vulkan(), uint32_t(w), uint32_t(h));
        renderer->draw(SceneRenderer::Pass{&target, u}, {}, std::nullopt, t);
        renderer->waitIdle();
        return target.readback();
    }
    TextureRef light(std::array<float, 4> rgba, int w = 8, int h = 8) {
        return TextureUpload::half(*renderer->vulkan(), constantHalf(w, h, rgba));
    }
    static void expectNear(std::array<int, 3> got, std::array<double, 3> want, int tolerance, const char *what) {
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(got[c], want[c] * 255.0, tolerance) << what << " channel " << c;
    }
    static SceneRenderer *renderer;
};
SceneRenderer *Composite::renderer = nullptr;

TEST_F(Composite, ConstantLightGivesTheToneCurveOfTheLight) {
    const std::array<std::array<float, 4>, 3> lights{{{0.18f, 0.18f, 0.18f, 1}, {0.02f, 0.05f, 0.4f, 1},
                                                      {3.0f, 1.2f, 0.6f, 1}}};
    for (const auto &l : lights) {
        SceneUniforms u = plainUniforms(32, 32);
        u.mixCount = 1;
        u.mixWeights = {0.5f, 0, 0, 0};
        SceneTextures t;
        t.mixes[0] = light(l);
        const QImage out = render(u, t, 32, 32);
        // Stored as half floats; the CPU side uses the same rounded values.
        const auto want = agx({double(qfloat16(l[0])) * 0.5, double(qfloat16(l[1])) * 0.5,
                               double(qfloat16(l[2])) * 0.5}, 1, 0, 1);
        for (auto [x, y] : {std::pair{0, 0}, std::pair{31, 31}, std::pair{13, 7}})
            expectNear(rgbAt(out, x, y), want, 2, "agx of the light");
    }
}

TEST_F(Composite, ContrastOffsetAndGammaFollowTheCurve) {
    SceneUniforms u = plainUniforms(16, 16);
    u.look = {0, 1.4f, 0, 0.05f};
    u.tone = {1.0f / 2.2f, 0, 0, 0};
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    SceneTextures t;
    t.mixes[0] = light({0.25f, 0.1f, 0.05f, 1});
    const auto want = agx({0.25, double(qfloat16(0.1f)), double(qfloat16(0.05f))}, 1.4, 0.05, 1.0 / 2.2);
    expectNear(rgbAt(render(u, t, 16, 16), 5, 5), want, 2, "graded");
}

TEST_F(Composite, MixCountZeroGivesBlackLight) {
    SceneUniforms u = plainUniforms(16, 16);
    u.mixWeights = {1, 1, 1, 1};
    SceneTextures t;
    for (auto &m : t.mixes) m = light({5, 5, 5, 1});
    const auto black = agx({0, 0, 0}, 1, 0, 1);
    expectNear(rgbAt(render(u, t, 16, 16), 8, 8), black, 2, "no light terms");
    u.mixCount = 4;
    const auto lit = agx({20, 20, 20}, 1, 0, 1);
    expectNear(rgbAt(render(u, t, 16, 16), 8, 8), lit, 2, "four light terms");
}

TEST_F(Composite, AnLedAddsLightAtItsCentreAndFadesAway) {
    const int w = 64, h = 64;
    SceneUniforms u = plainUniforms(w, h);
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    u.led33 = {32.5f, 20.5f, 3.0f, 1.0f};
    u.led33Color = {0.0f, 2.0f, 0.0f, 0};
    SceneTextures t;
    t.mixes[0] = light({0.05f, 0.05f, 0.05f, 1});
    const QImage out = render(u, t, w, h);
    const double base = double(qfloat16(0.05f));
    // At the centre the core is exp(0) and the glow 0.03·exp(0).
    expectNear(rgbAt(out, 32, 20), agx({base, base + 2.0 * 1.03, base}, 1, 0, 1), 2, "LED centre");
    expectNear(rgbAt(out, 2, 60), agx({base, base + 2.0 * 0.03 * std::exp(-0.45 * std::hypot(30.0, 40.0) / 3.0), base}, 1, 0, 1),
               2, "far corner");
    EXPECT_GT(rgbAt(out, 32, 20)[1], rgbAt(out, 32, 26)[1]);
    // A level of 0 is off.
    u.led33.at(3) = 0;
    expectNear(rgbAt(render(u, t, w, h), 32, 20), agx({base, base, base}, 1, 0, 1), 2, "LED off");
}

TEST_F(Composite, GroovesAppearOnlyInsideTheBands) {
    const int w = 256, h = 256;
    SceneUniforms u = plainUniforms(w, h);
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    // Record centred on the plate, 120 px to its rim: q = (p − c) / 120.
    const float c = 128.0f;
    u.recordInv = Float3x3::fromRows<float>({{{1 / 120.0f, 0, -c / 120.0f}, {0, 1 / 120.0f, -c / 120.0f}, {0, 0, 1}}});
    u.recordGeo = {150, 50, 140, 60};
    u.recordLight = {1, 0, 1, 1};
    u.recordColor = {1, 1, 1, 1};
    u.bands[0] = {130, 100, 0, 0};
    u.bandCount = 1;
    SceneTextures t;
    t.mixes[0] = light({0.1f, 0.1f, 0.1f, 1});
    auto at = [&](const QImage &img, double rmm) { return rgbAt(img, int(c + rmm * 0.8), int(c))[1]; };
    const QImage grooved = render(u, t, w, h);
    u.bandCount = 0;
    const QImage smooth = render(u, t, w, h);
    // Inside the band the sheen is full; in the gap and outside it stays at 15 %.
    EXPECT_GT(at(grooved, 115), at(grooved, 90) + 20);
    EXPECT_GT(at(grooved, 115), at(grooved, 136) + 20);
    EXPECT_GT(at(grooved, 115), at(smooth, 115) + 20);
    EXPECT_NEAR(at(grooved, 90), at(smooth, 90), 2);
    EXPECT_NEAR(at(grooved, 136), at(smooth, 136), 2);
    // The label area (inside 50 mm + 0.3) is not the live record: only the plate's light.
    const auto plain = agx({double(qfloat16(0.1f)), double(qfloat16(0.1f)), double(qfloat16(0.1f))}, 1, 0, 1);
    EXPECT_NEAR(at(grooved, 20), plain[1] * 255, 2);
}

TEST_F(Composite, ShowcaseOffLeavesTheArtUnlifted) {
    const int w = 32, h = 32;
    SceneUniforms u = plainUniforms(w, h);
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    u.coverMaskRect = {0, 0, float(w), float(h)};
    u.coverInv = Float3x3::fromRows<float>({{{1.0f / w, 0, 0}, {0, 1.0f / h, 0}, {0, 0, 1}}});
    u.cover = {1, 0, 0, 0};
    SceneTextures t;
    t.mixes[0] = light({0.02f, 0.02f, 0.02f, 1});
    QImage artImage(4, 4, QImage::Format_RGBA8888);
    artImage.fill(QColor(255, 255, 255));
    t.artNew = t.artOld = TextureUpload::art(*renderer->vulkan(), artImage);
    GrayImage mask;
    mask.width = mask.height = 1;
    mask.pixels = {255};
    t.coverMask = TextureUpload::gray(*renderer->vulkan(), mask);
    const double l = double(qfloat16(0.02f));
    // showcase.x = 0: gain 1 whatever the other fields say.
    u.showcase = {0, 8, 0.5f, 0};
    u.tone.at(2) = 8;
    expectNear(rgbAt(render(u, t, w, h), 16, 16), agx({l, l, l}, 1, 0, 1), 2, "showcase off");
    // With a floor of 0.1 the white art under 0.02 of light is lifted 5×.
    u.showcase = {0.1f, 8, 0, 0};
    u.artMean = {1, 1, 1, 0};
    expectNear(rgbAt(render(u, t, w, h), 16, 16), agx({0.1, 0.1, 0.1}, 1, 0, 1), 3, "showcase floor");
}

TEST(CompositeCreation, ABrokenShaderLeavesNoRendererAndIsLogged) {
    ShaderLibrary broken = ShaderLibrary::embedded();
    broken.composite = {0xdeadbeef, 1, 2, 3, 4, 5};
    EXPECT_EQ(SceneRenderer::create(broken), nullptr);
    const QString log = QString::fromUtf8([] {
        QFile f(Log::path());
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }());
    EXPECT_TRUE(log.contains(QStringLiteral("Cena: shader não compilou: "))) << log.toStdString();
}

}  // namespace
