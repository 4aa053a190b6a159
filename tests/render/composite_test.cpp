#include "RenderTestSupport.h"
#include "render/MovingRegions.h"

#include <QFile>
#include <gtest/gtest.h>

// The composite shader against values worked out by hand; 1:1 textures are read at texel centres (no filtering).

using namespace rendertest;

namespace {

Rgb times(Rgb a, double k) { return {a[0] * k, a[1] * k, a[2] * k}; }
Rgb plus(Rgb a, Rgb b, double k) { return {a[0] + b[0] * k, a[1] + b[1] * k, a[2] + b[2] * k}; }
double luminance(Rgb c) { return 0.2126 * c[0] + 0.7152 * c[1] + 0.0722 * c[2]; }

class Composite : public RendererTest {
protected:
    using Redraw = LayerStill::Redraw;
    using RendererTest::render;
    QImage render(int w, int h) const { return render(u, t, w, h); }
    // Plain uniforms for a w×h plate under one constant light l; returns the light as stored.
    Rgb lit(int w, int h, Rgb l)
    {
        u = plainUniforms(w, h);
        return light(u, t, l);
    }
    // One light that grows across and down the plate, vignette and grain on, an LED at (ledX, ledY).
    void lightUnevenly(float ledX, float ledY)
    {
        t.mixes[0] = half(halfImage(16, 16, [](int x, int y) {
            return std::array<float, 4>{0.05f + x * 0.02f, 0.1f + y * 0.02f, 0.2f, 1};
        }));
        u.mixCount = 1;
        u.mixWeights = {1, 0, 0, 0};
        u.look = {0.4f, 1, 0.05f, 0};
        u.led33 = {ledX, ledY, 4, 1};
        u.led33Color = {1, 0.5f, 0, 0};
    }
    // A moving layer w×h at (x, y) of the screen: its still room, drawn when it changed, then the moving parts over
    // it where they reach. The still reaches beyond the layer, as one shared with the steam's layer does.
    struct MovingLayer {
        MovingLayer(int x, int y, int w, int h)
            : x(x)
            , y(y)
            , target(renderer->vulkan(), uint32_t(w), uint32_t(h))
            , still(renderer->vulkan(), x - 3, y - 2, uint32_t(w + 5), uint32_t(h + 4))
        {
        }
        QImage draw(const SceneUniforms &u, const SceneTextures &t, Redraw *redrew = nullptr)
        {
            SceneUniforms lu = u;
            lu.origin = {float(x), float(y), 0, 0};
            SceneTextures lt = t;
            lt.still = still.linear().texture();
            SceneRenderer::Pass pass{&target, lu};
            pass.still = &still;
            pass.redrawStill = still.changed(lu, lt);
            if (still.holdsArm()) still.holdArm(pass.uniforms);
            if (redrew) *redrew = pass.redrawStill;
            renderer->draw(std::nullopt, {pass}, std::nullopt, lt);
            renderer->waitIdle();
            return target.readback();
        }
        QImage of(const QImage &full) const { return full.copy(x, y, int(target.width()), int(target.height())); }
        // A frame per redraw expected, each the layer's region of `full` to within a step; returns the last.
        QImage expectFrames(const SceneUniforms &u, const SceneTextures &t, const QImage &full,
                            std::initializer_list<Redraw> redraws)
        {
            QImage part;
            int frame = 0;
            for (Redraw expected : redraws) {
                Redraw redrew{};
                part = draw(u, t, &redrew);
                EXPECT_EQ(redrew, expected) << "frame " << frame;
                EXPECT_EQ(differingPixels(part, of(full), 1), 0) << "frame " << frame++;
            }
            return part;
        }
        int x, y;
        OffscreenTarget target;
        LayerStill still;
    };

    SceneUniforms u;
    SceneTextures t;
};

TEST_F(Composite, WeightedLightThroughTheToneCurve)
{
    const std::array<Rgb, 4> lights{{{0.18, 0.18, 0.18}, {0.02, 0.05, 0.4}, {3.0, 1.2, 0.6}, {0.25, 0.1, 0.05}}};
    for (int i = 0; i < 4; ++i)
        t.mixes[i] = constant({float(lights[i][0]), float(lights[i][1]), float(lights[i][2]), 1});
    u = plainUniforms(16, 16);
    u.mixWeights = {0.5f, 0.25f, 0.125f, 2.0f};
    Rgb sum{};  // count 0 is black whatever the weights; each further term adds its weighted light
    for (uint32_t n = 0; n <= 4; ++n) {
        u.mixCount = n;
        if (n > 0) sum = plus(sum, halfRounded(lights[n - 1]), u.mixWeights[n - 1]);
        expectLinear(render(16, 16), 5, 9, sum, "terms " + std::to_string(n));
    }
    // Contrast and offset around middle grey, then the output gamma.
    u.mixCount = 1;
    u.look = {0, 1.4f, 0, 0.05f};
    u.tone = {1.0f / 2.2f, 0, 0, 0};
    const Rgb graded = agx(rgb(0.5 * halfRounded(0.18)), 1.4, 0.05, 1.0 / 2.2);
    const auto got = rgbAt(render(16, 16), 3, 12);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(got[c], graded[c] * 255, 2) << "graded channel " << c;
}

TEST_F(Composite, DitherAveragesAGreyBetweenTwoLevelsToItsExactValue)
{
    // Dither: ±1 step, so a grey between two 8-bit levels averages to its exact value and no pixel strays further.
    const double grey = lit(64, 64, rgb(greyForLevel(100.3)))[0];
    const double exact = agx(rgb(grey), 1, 0, 1)[1] * 255;
    ASSERT_NEAR(exact - std::floor(exact), 0.5, 0.3);  // the light is stored as a half: still between levels
    const QImage image = render(64, 64);
    const auto green = [&](int x, int y) { return qGreen(image.pixel(x, y)); };
    EXPECT_EQ(sumOver(image.rect(), [&](int x, int y) { return std::abs(green(x, y) - exact) > 1.6; }), 0);
    EXPECT_NEAR(sumOver(image.rect(), green) / (64 * 64), exact, 0.08);
}

TEST_F(Composite, ALayerMatchesTheSameRegionOfTheFullImage)
{
    // A scaled, shifted plate, lit unevenly, the plate-fixed effects (vignette, grain, LED, record) and dither on.
    u = plainUniforms(100, 75);
    u.screenToPlate = Float3x3::fromRows<float>({{{1.5f, 0, 2}, {0, 1.5f, 1}, {0, 0, 1}}});
    lightUnevenly(50, 40);
    u.recordInv = Float3x3::fromRows<float>({{{1 / 30.0f, 0, -50 / 30.0f}, {0, 1 / 30.0f, -37.5f / 30.0f}, {0, 0, 1}}});
    u.recordGeo = {150, 40, 140, 50};
    u.recordLight = {0.6f, 0.8f, 0.8f, 1};
    u.recordColor = {1, 1, 1, 1};
    u.bands[0] = {140, 90, 85, 60};
    u.bandCount = 2;
    SceneUniforms layer = u;
    layer.origin = {20, 12, 0, 0};
    const QImage part = render(layer, t, 24, 16), want = render(64, 48).copy(20, 12, 24, 16);
    // Groove edges anti-alias over a screen-space derivative lavapipe may round apart; a wrong origin moves all.
    EXPECT_LE(differingPixels(part, want), 24 * 16 / 10);
    EXPECT_EQ(differingPixels(part, want, 12), 0);
    u.recordLight = layer.recordLight = {};
    EXPECT_TRUE(render(layer, t, 24, 16) == render(64, 48).copy(20, 12, 24, 16));
}

TEST_F(Composite, AMovingLayerFindsTheRecordsTurningSpecksOneByOne)
{
    // A record 120 px across (a speck's cell about two pixels), turned part-way, its specks bright. Shaded only in
    // the specks' rectangles over its still room, the layer is the full image's region.
    lit(128, 128, rgb(0.05));
    u.recordInv = Float3x3::fromRows<float>({{{1 / 60.0f, 0, -1}, {0, 1 / 60.0f, -1}, {0, 0, 1}}});
    u.recordGeo = {30, 5, 0, 0};
    u.recordLight = {0.6f, 0.8f, 0, 1};  // no highlight: the record's colour lights only the specks
    u.recordColor = {30, 30, 30, 1};
    u.label = {1.1f, 0, 0, 0};
    SceneUniforms dull = u;
    dull.recordColor = {0, 0, 0, 1};
    const QImage full = render(128, 128);
    EXPECT_GT(differingPixels(full, render(dull, t, 128, 128), 40), 10) << "too few specks to check";
    // A pixel on a speck cell's edge may fall either side in two compilations; a missed speck loses all its pixels.
    EXPECT_LE(differingPixels(MovingLayer(14, 14, 100, 100).draw(u, t), full.copy(14, 14, 100, 100), 12), 2);
}

TEST(MovingRegions, EachPartsPixelsLieInARegionThatNamesItAndTheRestIsLeftAlone)
{
    // A 200×100 layer at screen (50, 20), the screen the plate at twice its size. In layer pixels: the record's disc
    // at (90, 40), radius 50 (150 mm); the label 70–110 × 20–60, the strobe 70–110 × 60–80, the arm 140–160 × 0–80,
    // its shadow 150–170 × 70–80.
    using V = ShaderVariant;
    SceneUniforms u;
    u.screenToPlate = Float3x3::fromRows<float>({{{0.5f, 0, 0}, {0, 0.5f, 0}, {0, 0, 1}}});
    u.origin = {50, 20, 0, 0};
    u.recordLight = {0, 0, 0, 1};
    u.recordInv = Float3x3::fromRows<float>({{{1 / 25.0f, 0, -70 / 25.0f}, {0, 1 / 25.0f, -30 / 25.0f}, {0, 0, 1}}});
    u.recordGeo = {150, 40, 140, 50};
    u.label = {0.7f, 0, 0, 0};
    u.labelMaskRect = {60, 20, 20, 20};
    u.strobeRect = {60, 40, 20, 10};
    u.armCount = 2;
    u.armWeights = {1, 0, 0, 0};  // the second pose weighs nothing: it is not drawn
    u.armRects = {{{95, 10, 10, 40}, {0, 0, 100, 100}, {}, {}}};
    u.shadowRects = {{{100, 45, 10, 5}, {}, {}, {}}};
    const int w = 200, h = 100;
    // The parts each pixel is shaded with last, drawing the regions in order.
    auto partsMap = [&](const MovingRegions &regions) {
        std::vector<uint32_t> map(w * h, 0);
        for (const MovingRegions::Region &r : regions)
            for (int y = r.y; y < r.y + int(r.height); ++y)
                for (int x = r.x; x < r.x + int(r.width); ++x) map[y * w + x] = r.parts;
        return map;
    };
    const std::vector<uint32_t> map = partsMap(MovingRegions(u, w, h));
    // Each part covers its box; a drawn pixel is within 4 px of one of its parts' boxes (speck rectangles carry all),
    // and the specks' rectangles are a small part of the disc: shading the whole layer would be right, but slow.
    const std::pair<uint32_t, QRectF> boxes[] = {{V::specks, {40, -10, 100, 100}},
                                                 {V::label, {70, 20, 40, 40}},
                                                 {V::strobe, {70, 60, 40, 20}},
                                                 {V::arm, {140, 0, 20, 80}},
                                                 {V::armShadow, {150, 70, 20, 10}}};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const QPointF c(x + 0.5, y + 0.5);
            const uint32_t at = map[y * w + x];
            bool near = at == 0;
            for (const auto &[part, box] : boxes) {
                if (part != V::specks && box.contains(c)) {
                    ASSERT_TRUE(at & part) << part << " missing at " << x << "," << y;
                }
                near = near || ((at & part) && box.adjusted(-4, -4, 4, 4).contains(c));
            }
            ASSERT_TRUE(near) << "parts " << at << " drawn at " << x << "," << y;
        }
    EXPECT_LT(std::count_if(map.begin(), map.end(), [](uint32_t p) { return p & V::specks; }), M_PI * 50 * 50 / 10);
    // Held in the still, the arm is drawn only where another part reaches, as before; its parts alone: as if alone.
    const std::vector<uint32_t> held = partsMap(MovingRegions(u, w, h, V::allParts, V::armParts));
    SceneUniforms armAlone = u;
    armAlone.recordLight = armAlone.labelMaskRect = armAlone.strobeRect = {};
    EXPECT_EQ(partsMap(MovingRegions(u, w, h, V::armParts)), partsMap(MovingRegions(armAlone, w, h)));
    for (int i = 0; i < w * h; ++i) ASSERT_EQ(held[i], (map[i] & ~V::armParts) ? map[i] : 0u) << i % w << "," << i / w;
    // The record's and the arm's maps are seen in perspective: under a turned, foreshortened map and one front layer
    // of two, each pixel whose centre the map takes into the label or the front carries it; the unused front is
    // nowhere.
    SceneUniforms turned;
    turned.screenToPlate = Float3x3::fromRows<float>({{{0, 0.5f, 0}, {0.5f, 0, 0}, {0.002f, 0.004f, 1}}});
    turned.labelMaskRect = {10, 20, 15, 20};
    turned.frontCount = 1;
    turned.frontWeights = {1, 1, 0, 0};
    turned.frontRects = {{{5, 5, 10, 10}, {0, 0, 500, 500}}};
    const std::vector<uint32_t> seen = partsMap(MovingRegions(turned, w, h));
    int labelled = 0, inLabel = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double sx = x + 0.5, sy = y + 0.5, d = 0.002 * sx + 0.004 * sy + 1;
            const QPointF p(0.5 * sy / d, 0.5 * sx / d);
            const uint32_t at = seen[y * w + x];
            const bool insideLabel = QRectF(10, 20, 15, 20).contains(p);
            labelled += (at & V::label) ? 1 : 0;
            inLabel += insideLabel;
            if (insideLabel) {
                ASSERT_TRUE(at & V::label) << x << "," << y;
            }
            if (QRectF(5, 5, 10, 10).contains(p)) {
                ASSERT_TRUE(at & V::front) << x << "," << y;
            }
            if (p.x() > 20 || p.y() > 20) {
                ASSERT_FALSE(at & V::front) << x << "," << y;
            }
        }
    EXPECT_GT(inLabel, 100);
    EXPECT_LT(labelled, inLabel * 2);
}

TEST_F(Composite, FramesWithChangingUniformsHoldTheirMemory)
{
    // A driver that specialises the shader on the block's values per bind grows by megabytes a frame, thirty a second.
    auto residentMB = [] {
        QFile f(QStringLiteral("/proc/self/statm"));
        return f.open(QIODevice::ReadOnly) ? f.readAll().split(' ').value(1).toDouble() * 4096 / 1048576 : -1.0;
    };
    u = plainUniforms(32, 32);
    render(32, 32);
    const double before = residentMB();
    for (int i = 0; i < 40; ++i) {
        u.look = {0.01f * i, 1, 0, 0};
        u.mixCount = uint32_t(i % 3);
        render(32, 32);
    }
    EXPECT_LT(residentMB() - before, 40.0);
}

TEST_F(Composite, SleeveArtCrossfadeMaskAndShowcaseGain)
{
    const double l = lit(32, 32, rgb(0.5))[0];
    u.coverMaskRect = {0, 0, 32, 32};
    u.coverInv = Float3x3::fromRows<float>({{{1 / 32.0f, 0, 0}, {0, 1 / 32.0f, 0}, {0, 0, 1}}});
    t.coverMask = grey(128, 32, 32);
    t.artOld = art(QColor(255, 128, 0));
    t.artNew = art(QColor(0, 64, 255));
    u.cover = {0.25f, 0, 0, 0};
    u.showcase = {0, 8, 0.5f, 0};  // showcase off (x = 0) whatever its other fields: gain 1
    u.tone.at(2) = 8;
    // a = ¾ old + ¼ new; lin = l · mix(1, a, 128/255).
    const Rgb a{0.75, 0.75 * srgbToLinear(128) + 0.25 * srgbToLinear(64), 0.25};
    const double cm = 128 / 255.0;
    expectLinear(render(32, 32), 16, 16, plus(rgb(l * (1 - cm)), a, l * cm), "crossfade under half a mask");

    // White art, full mask, under 0.02 of light.
    t.coverMask = grey(255, 32, 32);
    t.artOld = t.artNew = art(QColor(255, 255, 255));
    const double dim = light(u, t, rgb(0.02))[0];
    // Floor 0.1 for light art: gain 0.1 / 0.02 = 5, under the cap 8.
    u.showcase = {0.1f, 8, 0, 0};
    u.artMean = {1, 1, 1, 0};
    expectLinear(render(32, 32), 16, 16, rgb(0.1), "light-art floor");
    // Dark art (luminance 0.05), floor 0.02: 0.02 / (0.02 · 0.05) = 20, capped by the dark cap
    // max(tone.z = 10, showcase.y = 4) = 10, above the light-art gain min(5, 4).
    u.showcase = {0.1f, 4, 0.02f, 0};
    u.artMean = {0.05f, 0.05f, 0.05f, 0};
    u.tone.at(2) = 10;
    expectLinear(render(32, 32), 16, 16, rgb(10 * dim), "dark-art floor");
}

TEST_F(Composite, CoverBounceIsTintedByTheArt)
{
    const double l = lit(32, 32, rgb(0.3))[0];
    u.bounceRect = {0, 0, 16, 32};
    t.bounce[0] = constant({0.5f, 0.125f, 0.0625f, 1}, 16, 32);
    t.bounce[1] = constant({0.25f, 0.25f, 0.25f, 1}, 16, 32);
    u.bounceWeights = {1, 0.5f, 0, 0};
    u.artMean = {0, 1, 0.5f, 0};
    const QImage out = render(32, 32);
    // b = (0.625, 0.25, 0.1875): red loses 0.625 (clamped at 0), green keeps all, blue loses half.
    expectLinear(out, 8, 16, {0, l, l - 0.1875 * 0.5}, "inside");
    expectLinear(out, 24, 16, rgb(l), "outside the sprites");
    // As a moving layer over its still room: a new bounce image alone draws the still again.
    MovingLayer layer(4, 4, 24, 24);
    layer.expectFrames(u, t, out, {Redraw::all, Redraw::none});
    t.bounce[0] = constant({0.125f, 0.5f, 0.0625f, 1}, 16, 32);
    layer.expectFrames(u, t, render(32, 32), {Redraw::all});
}

TEST_F(Composite, TheLabelTurnsAndBlursWithTheRecord)
{
    const double l = lit(64, 64, rgb(0.5))[0];
    // The label spans the plate, y up: q = (p.x/32 − 1, 1 − p.y/32).
    u.labelInv = Float3x3::fromRows<float>({{{1 / 32.0f, 0, -1}, {0, -1 / 32.0f, 1}, {0, 0, 1}}});
    u.labelMaskRect = {0, 0, 64, 64};
    t.labelMask = grey(255, 64, 64);
    // Black art, a white mark at its right middle (texels 12–15 × 6–9): at angle 0 on plate x 48–64, y 24–40.
    QImage mark(16, 16, QImage::Format_RGBA8888);
    mark.fill(Qt::black);
    for (int y = 6; y < 10; ++y)
        for (int x = 12; x < 16; ++x) mark.setPixelColor(x, y, Qt::white);
    t.labelNew = art(mark);
    t.labelOld = art(QColor(Qt::black));
    u.cover = {1, 0, 0, 0};
    const Rgb on = rgb(l), off{};
    auto expectMarks = [&](Rgb right, Rgb bottom, Rgb top, const std::string &what) {
        const QImage out = render(64, 64);
        expectLinear(out, 56, 32, right, what + ": right");
        expectLinear(out, 32, 56, bottom, what + ": bottom");
        expectLinear(out, 32, 8, top, what + ": top");
        expectLinear(out, 8, 32, off, what + ": left");
    };
    expectMarks(on, off, off, "angle 0");
    // l = R(π/2) q: the mark at l = (0.75, 0) shows at q = (0, −0.75), the bottom.
    u.label = {float(M_PI / 2), 0, 0, 0};
    expectMarks(off, on, off, "angle π/2");
    // Two samples over an arc of π: angles π/2 and −π/2, half the mark at the bottom and the top.
    u.label = {0, float(M_PI), 2, 0};
    expectMarks(off, times(on, 0.5), times(on, 0.5), "blurred");

    // As a moving layer over its still room (lit unevenly, vignetted, an LED): the still is drawn once, each turn
    // shades the label over it, every frame is the full image's region, and a change to the still room draws it again.
    lightUnevenly(40, 20);
    MovingLayer layer(16, 16, 48, 48);
    QImage previous;
    for (float angle : {0.0f, float(M_PI / 2), float(M_PI)}) {
        SCOPED_TRACE(testing::Message() << "angle " << angle);
        u.label = {angle, 0, 0, 0};
        const QImage part = layer.expectFrames(u, t, render(64, 64), {angle == 0 ? Redraw::all : Redraw::none});
        EXPECT_TRUE(previous.isNull() || differingPixels(part, previous, 40) > 50) << "the label did not turn";
        previous = part;
    }
    u.led33[3] = 0.3f;
    layer.expectFrames(u, t, render(64, 64), {Redraw::all});
}

TEST_F(Composite, StrobeDotsSitWhereThePhasePutsThem)
{
    const double l = lit(32, 32, rgb(0.05))[0];
    // Angle 1/16 turn on the left, 3/16 on the right; top rows full coverage and no across position, bottom rows
    // half coverage at across position 0.25.
    t.strobe = half(halfImage(32, 32, [](int x, int y) {
        return std::array<float, 4>{x < 16 ? 0.0625f : 0.1875f, y < 16 ? 1.0f : 0.5f, y < 16 ? 0.0f : 0.25f, 1};
    }));
    u.strobeRect = {0, 0, 32, 32};
    u.strobe = {4, float(M_PI / 8), 1, 0.8f};
    u.strobeColor = {0.5f, 0.25f, 0.125f, 0};
    auto with = [&](double k) { return plus(rgb(l), {0.5, 0.25, 0.125}, k); };
    // Four dots, phase 1/16 turn: f = frac(4 · (1/16 + 1/16)) = 0.5 on the left (a dot's centre), 0 on the right
    // (between dots). Across 0.25 puts the point 0.55 from the centre: smoothstep(0.8, 0.5, 0.55) = 0.9259.
    const QImage out = render(32, 32);
    expectLinear(out, 8, 8, with(0.8), "sharp, on a dot");
    expectLinear(out, 24, 8, with(0), "sharp, between dots");
    expectLinear(out, 8, 24, with(0.9259 * 0.5 * 0.8), "sharp, off-centre, half coverage");
}

TEST_F(Composite, RecordShadingWithAndWithoutPasses)
{
    // Record centred on a pixel centre, 60 px to the rim: 2.5 mm per pixel. Label to 40 mm, one band from 100 to
    // 60 mm (24–40 px out). No sheen unless stated.
    const int size = 128;
    const Rgb l = lit(size, size, {0.3, 0.2, 0.1});
    u.recordInv = Float3x3::fromRows<float>({{{1 / 60.0f, 0, -64.5f / 60}, {0, 1 / 60.0f, -64.5f / 60}, {0, 0, 1}}});
    u.recordGeo = {150, 40, 140, 50};
    u.recordLight = {1, 0, 0, 1};
    u.bands[0] = {100, 60, 0, 0};
    u.bandCount = 1;
    auto ring = [](const QImage &out, int r, Rgb want, const std::string &what) {  // right, left, down, up
        for (auto [x, y] : {std::pair{64 + r, 64}, {64 - r, 64}, {64, 64 + r}, {64, 64 - r}})
            expectLinear(out, x, y, want, what, 3);
    };
    // Approximate mode: the plate's vinyl, 0.8 of it in the grooves, untouched on the label.
    QImage out = render(size, size);
    ring(out, 32, times(l, 0.8), "approximate, grooved");
    ring(out, 48, l, "approximate, smooth");
    ring(out, 10, l, "approximate, label");

    // Sheen along (1, 0) with a given colour: a streak ahead, none across; ripple 0.85 (a pixel is wider than
    // 1/8 mm).
    u.recordLight = {1, 0, 0.5f, 1};
    u.recordColor = {1, 0.8f, 0.6f, 1};
    const Rgb lc{1, 0.8, 0.6};
    out = render(size, size);
    expectLinear(out, 96, 64, plus(times(l, 0.8), lc, 0.5 * 0.85), "sheen ahead", 3);
    expectLinear(out, 64, 96, times(l, 0.8), "sheen across", 3);
    // Without a colour of its own the sheen is grey, 1.5 × the luminance of the label's light.
    u.recordColor.at(3) = 0;
    expectLinear(render(size, size), 96, 64, plus(times(l, 0.8), rgb(1.5 * luminance(l)), 0.5 * 0.85), "grey sheen", 3);

    // With passes: S = ¾ rec0 + ¼ rec1 (colour), D the same of their alphas.
    u.recordLight = {1, 0, 0, 1};
    const std::array<float, 4> r0{0.1f, 0.2f, 0.3f, 0.4f}, r1{0.3f, 0.1f, 0.1f, 0.2f};
    t.record = {constant(r0), constant(r1)};
    u.recordRect = {0, 0, float(size), float(size)};
    u.recordMisc = {0.5f, 0.5f, 0.75f, 0.25f};
    Rgb s;
    for (int c = 0; c < 3; ++c) s[c] = 0.75 * halfRounded(r0[c]) + 0.25 * halfRounded(r1[c]);
    const double dp = 0.75 * halfRounded(r0[3]) + 0.25 * halfRounded(r1[3]);
    const Rgb grooved = plus(times(s, 0.5), rgb(1), 0.028 * dp), smooth = plus(times(s, 0.85), rgb(1), 0.028 * dp);
    out = render(size, size);
    ring(out, 32, grooved, "passes, grooved");
    ring(out, 48, smooth, "passes, smooth");
    ring(out, 10, l, "passes, label");
    // A mask replaces the analytic disc: half coverage everywhere, the label area included.
    u.recordMaskRect = {0, 0, float(size), float(size)};
    t.recordMask = grey(128, size, size);
    const double cov = 128 / 255.0;
    out = render(size, size);
    ring(out, 10, plus(times(l, 1 - cov), smooth, cov), "masked, label");
    ring(out, 32, plus(times(l, 1 - cov), grooved, cov), "masked, grooved");
}

TEST_F(Composite, TonearmShadowReflectionAndFrontLayers)
{
    // Plate 80×16 in columns of 8 px, lit grey 0.2. Slots 0 and 1 read the source plane at p + (100, 0), slot 2 at
    // p + (200, 0); reflections are placed in plate pixels.
    lit(80, 16, rgb(0.2));
    u.armInv = {Float3x3::fromRows<float>({{{1, 0, 100}, {0, 1, 0}, {0, 0, 1}}}),
                Float3x3::fromRows<float>({{{1, 0, 200}, {0, 1, 0}, {0, 0, 1}}})};
    u.armCount = 3;
    u.armWeights = {0.5f, 0.3f, 0.2f, 0};
    u.armRects = {{{100, 0, 16, 16}, {300, 0, 16, 16}, {208, 0, 16, 16}, {}}};  // plate x 0–16, none, 8–24
    t.arm[0] = constant({0.25f, 0.125f, 0, 0.5f}, 16, 16);
    t.arm[2] = constant({0, 0, 0.25f, 0.625f}, 16, 16);
    u.shadowRects = {{{132, 0, 16, 16}, {140, 0, 16, 16}, {}, {}}};  // plate x 32–48 and 40–56
    t.shadows[0] = grey(102, 16, 16);                                // 0.4
    t.shadows[1] = grey(51, 16, 16);                                 // 0.2
    u.reflRects = {{{16, 0, 16, 16}, {}, {48, 0, 16, 16}, {}}};      // plate x 16–32 and 48–64
    t.reflections[0] = constant({0.125f, 0, 0, 1}, 16, 16);
    t.reflections[2] = constant({0.5f, 0.5f, 0, 1}, 16, 16);
    u.frontCount = 2;
    u.frontWeights = {1, 0.5f, 0, 0};
    u.frontRects = {{{64, 0, 16, 16}, {72, 0, 8, 16}}};
    t.fronts[0] = constant({0, 0.25f, 0, 0.5f}, 16, 16);
    t.fronts[1] = constant({0.25f, 0, 0, 0.5f}, 8, 16);
    // Shadow weight 0.8 (slots 0, 1), a slot outside its rectangle counts 1: the light is scaled by
    // 1 − 0.8 + Σ shadow·weight. Reflections add before the arm goes over.
    const std::array<Rgb, 10> want{{
        {0.125 + 0.75 * 0.2, 0.0625 + 0.75 * 0.2, 0.75 * 0.2},            // arm 0: ½ of it over
        {0.125 + 0.625 * 0.2, 0.0625 + 0.625 * 0.2, 0.05 + 0.625 * 0.2},  // arms 0 and 2
        {0.875 * (0.2 + 0.0625), 0.875 * 0.2, 0.05 + 0.875 * 0.2},        // arm 2 over reflection 0
        {0.2 + 0.0625, 0.2, 0.2},                                         // reflection 0
        rgb(0.2 * 0.7),                                                   // shadow 0: 0.2 + 0.4·0.5
        rgb(0.2 * 0.46),                                                  // both: 0.2 + 0.2 + 0.06
        {0.2 * 0.76 + 0.1, 0.2 * 0.76 + 0.1, 0.2 * 0.76},                 // shadow 1, then reflection 2
        {0.3, 0.3, 0.2},                                                  // reflection 2
        {0.5 * 0.2, 0.25 + 0.5 * 0.2, 0.5 * 0.2},                         // front 0
        {0.125 + 0.25 * 0.2, 0.25 + 0.25 * 0.2, 0.25 * 0.2},              // fronts 0 and ½ of 1
    }};
    const QImage out = render(80, 16);
    for (int i = 0; i < 10; ++i) expectLinear(out, 4 + 8 * i, 8, want[i], "column " + std::to_string(i));
    // As a moving layer: a standing arm is drawn into the still and left there; moved on by less than
    // LayerStill::standing it stays where it is held, by more it is shaded each frame until it stands again.
    MovingLayer layer(8, 0, 72, 16);
    layer.expectFrames(u, t, out, {Redraw::all, Redraw::finished, Redraw::none});
    // Turned by 0.0012 about (200, 8), amid the corners of the sprites and shadows it warps: they move 0.15 px at most.
    SceneUniforms crept = u, moved = u;
    const double a = 0.0012, c = std::cos(a), s = std::sin(a);
    crept.armInv[0] =
        Float3x3::fromRows<double>({{{c, -s, 200 - c * 200 + s * 8 + 100}, {s, c, 8 - s * 200 - c * 8}, {0, 0, 1}}});
    layer.expectFrames(crept, t, out, {Redraw::none});
    moved.armInv[0] = Float3x3::fromRows<float>({{{1, 0, 104}, {0, 1, 0}, {0, 0, 1}}});
    const QImage there = render(moved, t, 80, 16);
    EXPECT_GT(differingPixels(layer.of(there), layer.of(out), 1), 50);
    layer.expectFrames(moved, t, there, {Redraw::finished, Redraw::finished, Redraw::none});
    // Tilted in perspective, as the arm's warps are, its far corners move as far as a shift would.
    SceneUniforms tilted = moved;
    tilted.armInv[0] = Float3x3::fromRows<float>({{{1, 0, 104}, {0, 1, 0}, {1e-4f, 0, 1}}});
    layer.expectFrames(tilted, t, render(tilted, t, 80, 16), {Redraw::finished, Redraw::finished, Redraw::none});
}

TEST_F(Composite, EachSlotOfTheArmItsShadowAndItsReflectionDrawsItsOwnImage)
{
    // Twelve columns of 8 px under grey 0.2: the four arm slots, then the four shadows, then the four reflections,
    // each slot its own image in its own column, each weighing a quarter.
    const double l = lit(96, 8, rgb(0.2))[0];
    u.armCount = 4;
    u.armWeights = {0.25f, 0.25f, 0.25f, 0.25f};
    for (int j = 0; j < 4; ++j) {
        const float v = 0.25f * float(j + 1), x = 8.0f * float(j);
        u.armRects[j] = {x, 0, 8, 8};
        t.arm[j] = constant({v, 0, 0, 1});
        u.shadowRects[j] = {x + 32, 0, 8, 8};
        t.shadows[j] = grey(uint8_t(51 * j), 8, 8);
        u.reflRects[j] = {x + 64, 0, 8, 8};
        t.reflections[j] = constant({0, v, 0, 1});
    }
    const QImage out = render(96, 8);
    for (int j = 0; j < 4; ++j) {
        const double v = 0.25 * (j + 1);
        // An opaque arm over ¾ of the light; a shadow of 0.2 j where the other three let all through.
        expectLinear(out, 8 * j + 4, 4, {0.75 * l + v / 4, 0.75 * l, 0.75 * l}, "arm " + std::to_string(j));
        expectLinear(out, 8 * j + 36, 4, rgb(l * (0.75 + 0.05 * j)), "shadow " + std::to_string(j));
        expectLinear(out, 8 * j + 68, 4, {l, l + v / 4, l}, "reflection " + std::to_string(j));
    }
    // A shadow whose image is missing darkens nothing.
    t.shadows = {};
    const QImage unshaded = render(96, 8);
    for (int j = 0; j < 4; ++j)
        expectLinear(unshaded, 8 * j + 36, 4, rgb(l), "no image for shadow " + std::to_string(j));
}

TEST_F(Composite, RainOnTheGlassAndRainyDayLight)
{
    // Rainy-day light cools everything, drops or not: mix(l, (0.85 l + 0.15 lum) · tint, z).
    const Rgb warm = lit(16, 16, {0.4, 0.2, 0.1});
    u.rain = {0, 0, 0.6f, 0};
    const Rgb tint{0.92, 0.97, 1.06};
    Rgb cooled;
    for (int c = 0; c < 3; ++c) cooled[c] = 0.4 * warm[c] + 0.6 * (0.85 * warm[c] + 0.15 * luminance(warm)) * tint[c];
    expectLinear(render(16, 16), 8, 8, cooled, "rainy light");

    // Drops on a glass mask over the left 128 of 160 columns; cells are 1% of a plate 1024 wide (11 px). Under even
    // light a drop refracts the same light at 0.92, and wet glass is tinted by (0.93, 0.96, 1) at half the intensity.
    const int w = 160, h = 96;
    const double l = lit(1024, 512, rgb(0.3))[0];
    u.glassRect = {0, 0, 128, float(h)};
    t.glass = grey(255, 128, h);
    const QImage dry = render(w, h);
    auto wetFraction = [&](const QImage &img, double intensity) {
        EXPECT_EQ(differingPixels(img.copy(128, 0, w - 128, h), dry.copy(128, 0, w - 128, h)), 0) << intensity;
        int wet = 0, unexplained = 0;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < 128; ++x) {
                // Some drop strength k in [0, 1] must explain the pixel.
                const auto got = rgbAt(img, x, y);
                int best = 255, bestK = 0;
                for (int k = 0; k <= 20; ++k) {
                    const double s = l * (1 - 0.08 * k / 20.0);
                    const Rgb want = agx({s * (1 - 0.035 * intensity), s * (1 - 0.02 * intensity), s}, 1, 0, 1);
                    int err = 0;
                    for (int c = 0; c < 3; ++c) err = std::max(err, int(std::lround(std::abs(got[c] - want[c] * 255))));
                    if (err < best) best = err, bestK = k;
                }
                unexplained += best > 2;
                wet += bestK >= 12;  // darker than the dither can make a dry pixel
            }
        EXPECT_EQ(unexplained, 0) << "rain " << intensity;
        return double(wet) / (128 * h);
    };
    u.rain = {5, 1, 0, 1};
    const QImage heavy = render(w, h);
    MovingLayer(16, 8, 96, 64).expectFrames(u, t, heavy, {Redraw::all});  // the drops of a layer over its still
    const double heavyWet = wetFraction(heavy, 1);
    EXPECT_GT(heavyWet, 0.01);
    EXPECT_LT(heavyWet, 0.5);
    u.rain = {5, 0.1f, 0, 1};
    EXPECT_LT(wetFraction(render(w, h), 0.1), heavyWet);
    u.rain = {6, 1, 0, 1};  // running drops move with time
    EXPECT_GT(differingPixels(render(w, h), heavy), 20);
    // Behind an opaque dust cover (transmission 0) the glass shows neither drops nor tint.
    u.dust = {0, 1, 0, 0};
    u.dustRect = {0, 0, float(w), float(h)};
    t.dustCover = grey(255, w, h);
    EXPECT_TRUE(render(w, h) == dry);
}

TEST_F(Composite, AFramesPipelinesAreMadeOnAWorkerBeforeItIsDrawnAndGoWhenIdle)
{
    // A variant no other test draws: three lights, one front layer, rain.
    lit(16, 16, rgb(0.2));
    u.mixCount = 3;
    u.frontCount = 1;
    u.rain = {0, 0.5f, 0, 1};
    u.glassRect = {0, 0, 8, 8};
    OffscreenTarget target(renderer->vulkan(), 16, 16);
    const std::optional<SceneRenderer::Pass> pass = SceneRenderer::Pass{&target, u, std::nullopt};
    EXPECT_FALSE(renderer->ready(pass, {}, std::nullopt));
    EXPECT_TRUE(
        testsupport::waitUntil([&] { return renderer->ready(pass, {}, std::nullopt); }, std::chrono::minutes(2)));
    testsupport::LogTail log;
    renderer->draw(pass, {}, std::nullopt, t);
    renderer->waitIdle();
    EXPECT_TRUE(log.messages().filter("Vulkan: pipeline").isEmpty())
        << "the draw compiled: " << log.messages().join('\n').toStdString();

    // Programs no frame asked for in a while go; one needed again is made again, the same.
    ProgramVariants &programs = renderer->programs();
    double now = 1e9;  // after any steady-clock reading: the programs other draws made are old
    programs.setClock([&now] { return now; });
    const QImage three = render(16, 16);
    const SceneUniforms threeLights = u;
    u.mixCount = 1;
    now += ProgramVariants::idleSeconds / 2;
    render(16, 16);
    EXPECT_EQ(programs.count(), 2u) << "only the two lately drawn are kept";
    now += ProgramVariants::idleSeconds / 2 + 1;
    render(16, 16);
    EXPECT_EQ(programs.count(), 1u) << "the three lights' program stayed idle for long";
    u = threeLights;
    EXPECT_TRUE(render(16, 16) == three);
    EXPECT_EQ(programs.count(), 2u);
    programs.setClock({});
}

TEST(CompositeCreation, ABrokenShaderLeavesNoRendererAndIsLogged)
{
    ShaderLibrary broken = ShaderLibrary::embedded();
    broken.composite = {0xdeadbeef, 1, 2, 3, 4, 5};
    EXPECT_EQ(SceneRenderer::create(broken), nullptr);
    EXPECT_TRUE(readLog().contains(QStringLiteral("Cena: shader não compilou: "))) << readLog().toStdString();
}

}  // namespace
