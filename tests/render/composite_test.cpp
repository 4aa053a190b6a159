#include "RenderTestSupport.h"

#include <QFile>
#include <gtest/gtest.h>
#include <map>

// Light, tone curve and the finishing steps (vignette, grain, dither) of the composite shader,
// and how a drawable with an origin agrees with the full-screen image.

using namespace rendertest;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

class Composite : public RendererTest {
protected:
    // Per pixel of a grey image, the grain's normal deviate recovered from the 8-bit green:
    // (linear − l) / (strength · √l).
    static std::vector<double> grainOf(const QImage &image, double l, double strength)
    {
        static std::map<int, double> greyOfLevel;
        std::vector<double> out;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x) {
                const int level = qGreen(image.pixel(x, y));
                if (!greyOfLevel.count(level)) greyOfLevel[level] = greyForLevel(level);
                out.push_back((greyOfLevel[level] - l) / (strength * std::sqrt(l + 1e-4)));
            }
        return out;
    }
};

TEST_F(Composite, WeightedLightThroughTheToneCurve)
{
    const std::array<Rgb, 4> lights{{{0.18, 0.18, 0.18}, {0.02, 0.05, 0.4}, {3.0, 1.2, 0.6}, {0.25, 0.1, 0.05}}};
    SceneTextures t;
    for (int i = 0; i < 4; ++i)
        t.mixes[i] = constant({float(lights[i][0]), float(lights[i][1]), float(lights[i][2]), 1});
    SceneUniforms u = plainUniforms(16, 16);
    u.mixWeights = {0.5f, 0.25f, 0.125f, 2.0f};
    // Count 0 is black whatever the weights; each further term adds its weighted light.
    Rgb sum{};
    for (uint32_t n = 0; n <= 4; ++n) {
        u.mixCount = n;
        if (n > 0)
            for (int c = 0; c < 3; ++c) sum[c] += halfRounded(lights[n - 1][c]) * u.mixWeights[n - 1];
        expectLinear(render(u, t, 16, 16), 5, 9, sum, "terms " + std::to_string(n));
    }
    // Contrast and offset around middle grey, then the output gamma.
    u.mixCount = 1;
    u.look = {0, 1.4f, 0, 0.05f};
    u.tone = {1.0f / 2.2f, 0, 0, 0};
    const Rgb graded = agx({0.5 * 0.18, 0.5 * halfRounded(0.18), 0.5 * halfRounded(0.18)}, 1.4, 0.05, 1.0 / 2.2);
    const auto got = rgbAt(render(u, t, 16, 16), 3, 12);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(got[c], graded[c] * 255, 2) << "graded channel " << c;
}

TEST_F(Composite, VignetteGrainAndDither)
{
    SceneTextures t;
    // Vignette on a plate twice as wide as high: both axes are measured in half widths.
    SceneUniforms u = plainUniforms(64, 32);
    const double l = light(u, t, {0.18, 0.18, 0.18})[0];
    u.look.at(0) = 0.5f;
    QImage image = render(u, t, 64, 32);
    // d² at the pixel centres: corner (31.5² + 15.5²)/32², right edge (31.5² + 0.5²)/32²,
    // bottom edge (0.5² + 15.5²)/32², centre 2 · 0.5²/32².
    const std::array<std::tuple<int, int, double>, 4> points{
        {{0, 0, 1.2036133}, {63, 16, 0.9692383}, {32, 31, 0.2348633}, {32, 16, 0.0004883}}};
    for (auto [x, y, d2] : points) {
        const double f = 1 - 0.5 * d2;
        expectLinear(image, x, y, {l * f, l * f, l * f}, "vignette 0.5");
    }
    u.look.at(0) = 2.0f;  // strong enough to go below zero in the corner: black, not negative
    image = render(u, t, 64, 32);
    expectLinear(image, 0, 0, {0, 0, 0}, "vignette 2 corner");
    expectLinear(image, 32, 31, {l * (1 - 2 * 0.2348633), l * (1 - 2 * 0.2348633), l * (1 - 2 * 0.2348633)},
                 "vignette 2 bottom");

    // Grain: a unit deviate (three uniform hashes, mean 0, range ±3) times strength · √mean.
    u = plainUniforms(64, 64);
    for (auto [level, strength] : {std::pair{0.5, 0.15}, std::pair{0.1, 0.08}}) {
        const double g = light(u, t, {level, level, level})[0];
        u.look.at(2) = float(strength);
        const std::vector<double> grain = grainOf(render(u, t, 64, 64), g, strength);
        double sum = 0, squares = 0;
        for (double e : grain) sum += e, squares += e * e;
        const double mean = sum / grain.size();
        EXPECT_NEAR(mean, 0.0, 0.1) << "light " << level;
        EXPECT_NEAR(std::sqrt(squares / grain.size() - mean * mean), 1.0, 0.1) << "light " << level;
        const auto [lo, hi] = std::minmax_element(grain.begin(), grain.end());
        EXPECT_GT(*lo, -3.4) << "light " << level;
        EXPECT_LT(*hi, 3.4) << "light " << level;
    }
    // Fixed to the plate pixel: a plate shifted under the screen carries its grain along.
    const double g = light(u, t, {0.5, 0.5, 0.5})[0];
    u.look.at(2) = 0.15f;
    const std::vector<double> still = grainOf(render(u, t, 64, 64), g, 0.15);
    u.screenToPlate = Float3x3::fromRows<float>({{{1, 0, 7}, {0, 1, 3}, {0, 0, 1}}});
    const std::vector<double> shifted = grainOf(render(u, t, 64, 64), g, 0.15);
    double agree = 0, n = 0;
    for (int y = 0; y + 3 < 64; ++y)
        for (int x = 0; x + 7 < 64; ++x, ++n) agree += shifted[y * 64 + x] * still[(y + 3) * 64 + x + 7];
    EXPECT_GT(agree / n, 0.9);  // correlation of two unit deviates, only the dither differs

    // Dither: ±1 step (two uniform hashes), so a grey that falls between two 8-bit levels
    // averages to its exact value instead of rounding, and no pixel strays past one step.
    u = plainUniforms(64, 64);
    const double between = greyForLevel(100.3);
    const double grey = light(u, t, {between, between, between})[0];
    const double exact = agx({grey, grey, grey}, 1, 0, 1)[1] * 255;
    ASSERT_GT(exact - std::floor(exact), 0.2);  // the light is stored as a half: still between levels
    ASSERT_LT(exact - std::floor(exact), 0.8);
    image = render(u, t, 64, 64);
    double sum = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) {
            const int level = qGreen(image.pixel(x, y));
            sum += level;
            ASSERT_LE(std::abs(level - exact), 1.6) << x << "," << y;
        }
    EXPECT_NEAR(sum / (64 * 64), exact, 0.08);
}

TEST_F(Composite, ALayerMatchesTheSameRegionOfTheFullImage)
{
    // A scaled, shifted plate under a 64×48 screen, lit unevenly, with the plate-fixed effects
    // (vignette, grain, LED, live record) and the screen-fixed dither all on.
    const int w = 64, h = 48;
    SceneUniforms u = plainUniforms(100, 75);
    u.screenToPlate = Float3x3::fromRows<float>({{{1.5f, 0, 2}, {0, 1.5f, 1}, {0, 0, 1}}});
    SceneTextures t;
    t.mixes[0] = half(halfImage(16, 16, [](int x, int y) {
        return std::array<float, 4>{0.05f + x * 0.02f, 0.1f + y * 0.02f, 0.2f, 1};
    }));
    u.mixCount = 1;
    u.mixWeights = {1, 0, 0, 0};
    u.look = {0.4f, 1, 0.05f, 0};
    u.led33 = {50, 40, 4, 1};
    u.led33Color = {1, 0.5f, 0, 0};
    u.recordInv = Float3x3::fromRows<float>({{{1 / 30.0f, 0, -50 / 30.0f}, {0, 1 / 30.0f, -37.5f / 30.0f}, {0, 0, 1}}});
    u.recordGeo = {150, 40, 140, 50};
    u.recordLight = {0.6f, 0.8f, 0.8f, 1};
    u.recordColor = {1, 1, 1, 1};
    u.bands[0] = {140, 90, 85, 60};
    u.bandCount = 2;
    const QImage full = render(u, t, w, h);
    SceneUniforms layer = u;
    layer.origin = {20, 12, 0, 0};
    const QImage part = render(layer, t, 24, 16), want = full.copy(20, 12, 24, 16);
    // The groove edges are anti-aliased over a screen-space derivative, which the software
    // rasterizer may round apart between two draws; a wrong origin moves every pixel instead.
    int differing = 0, worst = 0;
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 24; ++x) {
            int d = 0;
            for (int c = 0; c < 3; ++c)
                d = std::max(
                    d, std::abs(int(part.pixel(x, y) >> (8 * c) & 0xff) - int(want.pixel(x, y) >> (8 * c) & 0xff)));
            differing += d > 0;
            worst = std::max(worst, d);
        }
    EXPECT_LE(differing, 24 * 16 / 10);
    EXPECT_LE(worst, 12);
    u.recordLight = {};
    layer.recordLight = {};
    EXPECT_TRUE(render(layer, t, 24, 16) == render(u, t, w, h).copy(20, 12, 24, 16));
}

TEST_F(Composite, FramesWithChangingUniformsHoldTheirMemory)
{
    // A driver that specialises the shader on the block's values per bind grows by megabytes a
    // frame; an animated room draws thirty frames a second.
    auto residentMB = [] {
        QFile f(QStringLiteral("/proc/self/statm"));
        return f.open(QIODevice::ReadOnly) ? f.readAll().split(' ').value(1).toDouble() * 4096 / 1048576 : -1.0;
    };
    SceneUniforms u = plainUniforms(32, 32);
    SceneTextures t;
    render(u, t, 32, 32);
    const double before = residentMB();
    for (int i = 0; i < 40; ++i) {
        u.look = {0.01f * i, 1, 0, 0};
        u.mixCount = uint32_t(i % 3);
        render(u, t, 32, 32);
    }
    EXPECT_LT(residentMB() - before, 40.0);
}

TEST_F(Composite, AnLedAddsLightAtItsCentreAndFadesAway)
{
    SceneUniforms u = plainUniforms(64, 64);
    SceneTextures t;
    const double base = light(u, t, {0.05, 0.05, 0.05})[0];
    u.led45 = {32.5f, 20.5f, 3.0f, 1.0f};
    u.led45Color = {0.0f, 2.0f, 0.0f, 0};
    const QImage out = render(u, t, 64, 64);
    // At the centre the core is exp(0) and the glow 0.03·exp(0); 50 px away only the glow.
    expectLinear(out, 32, 20, {base, base + 2.0 * 1.03, base}, "LED centre");
    expectLinear(out, 2, 60, {base, base + 2.0 * 0.03 * std::exp(-0.45 * 50 / 3.0), base}, "far corner");
    u.led45.at(3) = 0;  // level 0 is off
    expectLinear(render(u, t, 64, 64), 32, 20, {base, base, base}, "LED off");
}

TEST(CompositeCreation, ABrokenShaderLeavesNoRendererAndIsLogged)
{
    ShaderLibrary broken = ShaderLibrary::embedded();
    broken.composite = {0xdeadbeef, 1, 2, 3, 4, 5};
    EXPECT_EQ(SceneRenderer::create(broken), nullptr);
    EXPECT_TRUE(readLog().contains(QStringLiteral("Cena: shader não compilou: "))) << readLog().toStdString();
}

}  // namespace
