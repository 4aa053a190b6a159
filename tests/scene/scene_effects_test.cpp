#include "SmallScene.h"

#include "core/turntable/TonearmMotion.h"
#include "scene/PlateGeometry.h"
#include "scene/TonearmSprites.h"

#include <cmath>

using namespace rendertest;
using namespace scenetest;
using namespace std::chrono_literals;

namespace {

// The uniforms of one frame of the effects, every switch on, a record playing.
struct Filled {
    SceneUniforms u;
    SceneTextures t;
};
Filled fillEffects(LoadedScene &s, const Blend &blend)
{
    Filled f;
    s.effects->fill(f.u, f.t, blend, 5.0, RecordSpin{}, true, {0.5, 0.5, 0.5}, 30, false);
    return f;
}

TEST_F(SmallScene, MissingPassesAndSpritesSwitchTheirEffectOff)
{
    LoadedScene &s = load(manifest());
    ASSERT_TRUE(s.sprites);
    s.sprites->ensureNow({"dia"}, 0, 10);
    EXPECT_FALSE(s.sprites->pose(0, 0, {{"dia", 1.0}}));
    const SceneUniforms u = fillEffects(s, {{"dia", 1.0}}).u;
    EXPECT_EQ(u.recordRect[2], 0.0f);      // approximate record
    EXPECT_EQ(u.recordLight[3], 1.0f);     // the live record is still on
    EXPECT_EQ(u.recordMaskRect[2], 0.0f);  // no mask file: the analytic disc
    EXPECT_EQ(u.led33[3], 1.0f);           // playing: the 33 LED is lit
}

TEST_F(SmallScene, RecordLightAndSpeedLedColoursComeFromTheManifest)
{
    LoadedScene &s = load(manifest([](QJsonObject &root, QJsonObject &wide) {
        root = with(root, {"presets", "dia", "record_light"}, QJsonObject{{"azimuth_deg", 90}, {"elevation_deg", 30}});
        root = with(root, {"presets", "noite", "record_light"},
                    QJsonObject{{"azimuth_deg", 0}, {"color", QJsonArray{1, 0.5, 0.25}}});
        wide = with(
            wide, {"panel", "led45"},
            QJsonObject{{"center_px", QJsonArray{30, 40}}, {"radius_px", 2}, {"color", QJsonArray{0.1, 0.2, 0.3}}});
    }));
    const Filled day = fillEffects(s, {{"dia", 1.0}});
    EXPECT_NEAR(day.u.recordLight[0], 0, 1e-6);
    EXPECT_NEAR(day.u.recordLight[1], 1, 1e-6);
    EXPECT_EQ(day.u.recordColor[3], 0.0f) << "a light without colour takes the irradiance estimate";
    EXPECT_EQ(day.u.led45Color, (Float4{0.1f, 0.2f, 0.3f, 0}));
    EXPECT_EQ(day.u.led45, (Float4{30, 40, 2, 0}));
    const Filled night = fillEffects(s, {{"noite", 1.0}});
    EXPECT_NEAR(night.u.recordLight[0], 1, 1e-6);
    EXPECT_EQ(night.u.recordColor, (Float4{1, 0.5f, 0.25f, 1}));
    // In a cross-fade the colour holds while the preset that gives it carries most of the blend.
    EXPECT_EQ(fillEffects(s, {{"noite", 0.55}, {"dia", 0.45}}).u.recordColor, (Float4{1, 0.5f, 0.25f, 1}));
    EXPECT_EQ(fillEffects(s, {{"noite", 0.25}, {"dia", 0.75}}).u.recordColor[3], 0.0f);
}

TEST_F(SmallScene, RainCoolsTheRoomWithoutWindowGlassUnlessTheSaverIsOn)
{
    // The scene has no window: no drops, but the rainy-day light still applies.
    LoadedScene &s = load(manifest());
    s.effects->setRain(0.8);
    const Filled wet = fillEffects(s, {{"dia", 1.0}});
    EXPECT_GT(wet.u.rain[2], 0.1f);
    EXPECT_EQ(wet.u.rain[1], 0.8f);
    EXPECT_EQ(wet.u.rain[3], 0.0f);
    EXPECT_EQ(wet.u.glassRect[2], 0.0f);
    s.effects->setSwitches({}, true);
    EXPECT_EQ(fillEffects(s, {{"dia", 1.0}}).u.rain, (Float4{}));
}

TEST_F(SmallScene, AFailedPassBuildTakesOnlyItsOwnPresetOffTheRecordAndBounce)
{
    // Passes for both plates, but the lamp's diffuse pass and bounce image have the wrong size:
    // "noite" (room and lamp) cannot build, "dia" (room only) can.
    const auto grey = [](int, int) { return std::array<float, 4>{0.3f, 0.3f, 0.3f, 1}; };
    writeExr(dir + "/record/room_spec.exr", 30, 30, grey);
    writeExr(dir + "/record/room_diffuse.exr", 30, 30, grey);
    writeExr(dir + "/record/lamp_spec.exr", 30, 30, grey);
    writeExr(dir + "/record/lamp_diffuse.exr", 20, 30, grey);
    writeExr(dir + "/bounce/room.exr", 16, 16, grey);
    writeExr(dir + "/bounce/lamp.exr", 8, 16, grey);
    LoadedScene &s = load(manifest([](QJsonObject &, QJsonObject &wide) {
        wide["bounce"] = QJsonObject{{"bbox", QJsonArray{0, 0, 16, 16}}};
    }));
    s.effects->ensure({"dia", "noite"});
    ASSERT_TRUE(testsupport::waitUntil([&] { return !s.effects->building(); }, 120s));
    const Filled day = fillEffects(s, {{"dia", 1.0}});
    EXPECT_EQ(day.u.recordRect, (Float4{30, 10, 30, 30}));
    EXPECT_EQ(day.u.recordMisc[2], 1.0f);
    EXPECT_NE(day.t.record[0], nullptr);
    EXPECT_EQ(day.u.bounceRect, (Float4{0, 0, 16, 16}));
    EXPECT_EQ(day.u.bounceWeights[0], 1.0f);
    for (const Blend &b : {Blend{{"noite", 1.0}}, Blend{{"noite", 0.5}, {"dia", 0.5}}}) {
        const Filled f = fillEffects(s, b);
        EXPECT_EQ(std::pair(f.u.recordRect[2], f.u.bounceRect[2]), std::pair(0.0f, 0.0f));
        EXPECT_EQ(f.u.recordLight[3], 1.0f);  // still live, in the approximate mode
    }
}

TEST_F(SmallScene, GroovesPackTwoBandsPerEntryAndALongSideStaysUnderTheNeedle)
{
    LoadedScene &s = load(manifest());
    // Forty tracks, the last playing: side B holds 20 tracks, more than the 16 bands drawn. The
    // drawn bands still run from the outer to the inner groove, and wherever the needle is in
    // any track, the playing one included, it is inside a drawn band.
    const RecordGrooves side = RecordGrooves::make("Long", 40, 40, 180, 146, 60);
    ASSERT_EQ(side.bands.size(), 20u);
    s.effects->setGrooves(side);
    const Filled f = fillEffects(s, {{"dia", 1.0}});
    ASSERT_EQ(f.u.bandCount, 16u);
    auto drawn = [&](uint32_t b) {
        const Float4 &e = f.u.bands[b / 2];
        return b % 2 ? std::pair(e[2], e[3]) : std::pair(e[0], e[1]);
    };
    EXPECT_FLOAT_EQ(drawn(0).first, 146);
    EXPECT_NEAR(drawn(15).second, 60, 1e-4);
    for (uint32_t b = 0; b + 1 < 16; ++b) EXPECT_GT(drawn(b).second, drawn(b + 1).first) << "no gap after " << b;
    for (size_t k = 0; k < side.bands.size(); ++k)
        for (double p : {0.0, 0.5, 1.0}) {
            const double r = side.bands[k].outer - p * (side.bands[k].outer - side.bands[k].inner);
            bool inside = false;
            for (uint32_t b = 0; b < 16; ++b)
                inside = inside || (r <= drawn(b).first + 1e-4 && r >= drawn(b).second - 1e-4);
            EXPECT_TRUE(inside) << "track " << k << " at " << p;
        }
}

// A tonearm seen by a perspective camera 500 mm above the record plane; the arm lies along +x
// from the pivot at rest, yaw turns it about +z, lift raises its tip.
class TonearmPose : public ::testing::Test {
protected:
    using V3 = std::array<double, 3>;
    static constexpr double f = 1000, height = 500, cx = 400, cy = 300;

    void SetUp() override
    {
        ASSERT_TRUE(root.isValid());
        info.pivot = {15, -20, 0};  // off the origin on both axes of the plane
        info.yawAxis = {0, 0, 1};
        info.liftAxis = {0, -1, 0};
        std::tie(info.yawRest, info.yawLeadIn, info.yawRunOut, info.liftMax) = std::tuple(0, 10, 30, 6);
        info.planeZ = 0;
        info.yawSamples = {0, 15, 30};
        info.bbox = {100, 50, 40, 40};
        camera.P = {{{f, 0, -cx, cx * height}, {0, -f, -cy, cy * height}, {0, 0, -1, height}}};
        // Each sprite marks its sample and preset by where its content sits.
        for (const QString preset : {"dia", "noite"})
            for (int i = 0; i < 3; ++i)
                writeExr(root.filePath(QStringLiteral("%1/arm_%2.exr").arg(preset).arg(i, 2, 10, QChar('0'))), 40, 40,
                         [&](int x, int y) {
                             const int x0 = 2 + 8 * i, y0 = preset == "dia" ? 2 : 20;
                             const bool on = x >= x0 && x < x0 + 4 && y >= y0 && y < y0 + 4;
                             return on ? std::array<float, 4>{0.5f, 0.5f, 0.5f, 1} : std::array<float, 4>{};
                         });
        context = VulkanContext::create();
        sprites = std::make_unique<TonearmSprites>(info, camera, context, root.path());
    }

    // Rodrigues' rotation about a unit axis.
    static V3 rotate(const V3 &v, V3 axis, double deg)
    {
        const double t = deg * M_PI / 180, c = std::cos(t), s = std::sin(t);
        const double dot = axis[0] * v[0] + axis[1] * v[1] + axis[2] * v[2];
        const V3 cross{axis[1] * v[2] - axis[2] * v[1], axis[2] * v[0] - axis[0] * v[2],
                       axis[0] * v[1] - axis[1] * v[0]};
        V3 r;
        for (int i = 0; i < 3; ++i) r[i] = v[i] * c + cross[i] * s + axis[i] * dot * (1 - c);
        return r;
    }
    V3 atPivot(const V3 &x) const { return {x[0] + info.pivot[0], x[1] + info.pivot[1], x[2] + info.pivot[2]}; }
    std::array<double, 2> plate(const V3 &x) const { return PlateGeometry::projectWorld(camera, x).value(); }
    static std::array<double, 2> project(const Float3x3 &m, std::array<double, 2> p)
    {
        double h[3];
        for (int r = 0; r < 3; ++r) h[r] = m.columns[0][r] * p[0] + m.columns[1][r] * p[1] + m.columns[2][r];
        return {h[0] / h[2], h[1] / h[2]};
    }

    QTemporaryDir root;
    PlateManifest::Tonearm info;
    PlateManifest::Camera camera;
    std::shared_ptr<VulkanContext> context;
    std::unique_ptr<TonearmSprites> sprites;
};

TEST_F(TonearmPose, WeightsSlotsAndWarpsForAYawBetweenSamples)
{
    sprites->ensureNow({"dia", "noite"}, 5, 5);  // samples 0 and 1
    TonearmMotion arm;
    arm.yaw = 5;  // a third of the way from sample 0 (0°) to sample 1 (15°)
    arm.lift = 0.5;
    const auto pose = sprites->pose(arm, {{"dia", 0.75}, {"noite", 0.25}});
    ASSERT_TRUE(pose);
    ASSERT_EQ(pose->slotList.size(), 4u);
    const double expected[4] = {2.0 / 3 * 0.75, 2.0 / 3 * 0.25, 1.0 / 3 * 0.75, 1.0 / 3 * 0.25};
    for (int j = 0; j < 4; ++j) {
        ASSERT_NE(pose->slotList[size_t(j)].frame, nullptr) << j;
        EXPECT_NEAR(pose->slotList[size_t(j)].weight, expected[j], 1e-6) << j;
        EXPECT_EQ(pose->slotList[size_t(j)].warp, j / 2);
    }
    EXPECT_NEAR(pose->weight, 1.0, 1e-6);
    // Slots 0, 1: sample 0 of "dia", "noite"; slots 2, 3: sample 1 (its content 8 px further right).
    const auto rect = [&](int j) { return pose->slotList[size_t(j)].frame->rect; };
    EXPECT_EQ(rect(2)[0] - rect(0)[0], 8.0f);
    EXPECT_EQ(rect(1)[1] - rect(0)[1], 18.0f);
    EXPECT_EQ(rect(3)[0] - rect(1)[0], 8.0f);

    // The warps take the plate pixel where a point of the arm appears at (yaw 5°, lift half of
    // 6°) back to where the same point lies in each sample's sprite.
    for (int s = 0; s < 2; ++s)
        for (const V3 &x : {V3{50, 0, 0}, V3{150, 6, 0}, V3{220, -6, 0}, V3{120, 40, 0}}) {
            const V3 lifted = atPivot(rotate(rotate(x, info.liftAxis, 3.0), info.yawAxis, 5.0));
            const auto inSample = plate(atPivot(rotate(x, info.yawAxis, info.yawSamples[size_t(s)])));
            const auto back = project(pose->warps[size_t(s)], plate(lifted));
            EXPECT_NEAR(back[0], inSample[0], 0.05) << "sample " << s << " x " << x[0];
            EXPECT_NEAR(back[1], inSample[1], 0.05) << "sample " << s << " x " << x[0];
        }

    SceneUniforms u;
    SceneTextures t;
    pose->apply(u, t);
    EXPECT_EQ(u.armCount, 4u);
    EXPECT_NEAR(u.armWeights[0] + u.armWeights[1] + u.armWeights[2] + u.armWeights[3], 1.0, 1e-6);

    // Past the loaded samples the nearest loaded one stands in: at 20° sample 2 is missing and
    // sample 1 takes its slots.
    const auto far = sprites->pose(20, 0, {{"dia", 1.0}});
    ASSERT_TRUE(far);
    ASSERT_GE(far->slotList.size(), 3u);
    EXPECT_EQ(far->slotList[2].frame, far->slotList[0].frame);
}

TEST_F(TonearmPose, TheCacheKeepsOnlyWhatTheArmNeedsNow)
{
    const auto loaded = [&] { return !sprites->isLoading(); };
    sprites->ensure({"dia", "noite"}, 0, 0);  // samples 0 and 1 of both presets
    ASSERT_TRUE(testsupport::waitUntil(loaded, 60s));
    const size_t four = sprites->memoryBytes();
    ASSERT_GT(four, 0u);
    // The arm swung to the run-out under one preset: what it left behind is let go.
    sprites->ensure({"dia"}, 30, 30);
    ASSERT_TRUE(testsupport::waitUntil(loaded, 60s));
    sprites->ensure({"dia"}, 30, 30);
    EXPECT_EQ(sprites->memoryBytes(), four / 2) << "samples 1 and 2 of one preset remain";
    EXPECT_TRUE(sprites->pose(30, 0, {{"dia", 1.0}}));
}

}  // namespace
