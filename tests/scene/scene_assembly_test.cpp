#include "SmallScene.h"
#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/music/CoverArt.h"
#include "core/music/PlayerState.h"
#include "core/scene/ImageDecoder.h"
#include "core/scene/SceneStatus.h"
#include "vulkan/VulkanCheck.h"
#include "scene/PlateGeometry.h"
#include "scene/RoomScene.h"
#include "scene/SceneLoader.h"

#include <optional>

using namespace rendertest;
using namespace scenetest;
using namespace std::chrono_literals;

namespace {

double distance(std::array<double, 2> a, std::array<double, 2> b) { return std::hypot(a[0] - b[0], a[1] - b[1]); }

TEST(PlateGeometry, QuadMapsOntoArtAndDiscAndThePlateFillsTheScreenCentred)
{
    const PlateManifest::Quad q{{{10, 20}, {110, 25}, {105, 90}, {12, 80}}};
    const auto art = PlateGeometry::artFromPlate(q), disc = PlateGeometry::discFromPlate(q);
    ASSERT_TRUE(art && disc);
    const std::array<std::array<double, 2>, 4> st{{{0, 0}, {1, 0}, {1, 1}, {0, 1}}},
        d{{{-1, 1}, {1, 1}, {1, -1}, {-1, -1}}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(distance(PlateGeometry::apply(*art, q[i]), st[i]), 0, 1e-9) << "art " << i;
        EXPECT_NEAR(distance(PlateGeometry::apply(*disc, q[i]), d[i]), 0, 1e-9) << "disc " << i;
    }
    // A 1600×900 plate on a 1000×1000 screen: scaled to 1000 high, 1777.8 wide, cropped left and right.
    const auto m = PlateGeometry::fitPlate(1600, 900, 1000, 1000);
    EXPECT_NEAR(distance(PlateGeometry::apply(m, {500, 500}), {800, 450}), 0, 1e-9);
    EXPECT_NEAR(PlateGeometry::apply(m, {500, 0})[1], 0, 1e-9);
    EXPECT_NEAR(PlateGeometry::apply(m, {500, 1000})[1], 900, 1e-9);
    // A world point through the camera's 3×4 matrix: (1+6+3, 2+12+5, 3+6) ÷ 9.
    const PlateManifest::Camera camera{{{{1, 0, 2, 3}, {0, 1, 4, 5}, {0, 0, 1, 6}}}};
    EXPECT_NEAR(distance(PlateGeometry::projectWorld(camera, {1, 2, 3}).value(), {10.0 / 9, 19.0 / 9}), 0, 1e-12);
}

TEST_F(SmallScene, AssemblesMatricesProbesAreaAndLight)
{
    // A framing the scene lacks gives the preferred one ("wide" before "close"), not an error
    // and not the first by name.
    LoadedScene &s = load(manifest([](QJsonObject &root, QJsonObject &wide) {
                              root = with(root, {"framings", "close"}, wide);
                          }),
                          "gone");
    EXPECT_EQ(s.framingName, "wide");
    EXPECT_EQ(s.plateSize, (Float4{64, 48, 1 / 64.0f, 1 / 48.0f}));
    EXPECT_EQ(s.coverMask.value().rect, (Float4{4, 9, 12, 12}));  // content box plus a one-pixel margin
    // The sleeve's centre probe is the cover quad's centre, as uv.
    EXPECT_NEAR(std::hypot(s.probes[0][0] - 10.0f / 64, s.probes[0][1] - 15.0f / 48), 0, 1e-6);
    // The animated area holds the record (30…60), the arm (from y 0) and the strobe map's
    // rectangle in the bottom-left corner (plate 1…5, 42…46 with its margin).
    const Float4 area = s.dynPlateRect;
    EXPECT_EQ(s.effects->strobeRect(), (Float4{0, 41, 7, 7}));
    EXPECT_TRUE(area[0] <= 0 && area[1] <= 0 && area[0] + area[2] >= 60 && area[1] + area[3] >= 48)
        << area[0] << " " << area[1] << " " << area[2] << " " << area[3];

    // While "dia" builds, the ready "noite" stands in with the whole weight of the blend.
    s.mixes->ensure({"noite"});
    ASSERT_TRUE(testsupport::waitUntil([&] { return s.mixes->ready("noite") != nullptr; }, 120s));
    SceneUniforms u;
    SceneTextures t;
    s.fillStatic(u, t, PlateGeometry::identity(), {}, {{"noite", 0.75}, {"dia", 0.25}});
    EXPECT_EQ(u.mixCount, 1u);  // "dia" is not built: it draws no light rather than garbage
    EXPECT_FLOAT_EQ(u.mixWeights[0], 1.0f);
    EXPECT_EQ(t.mixes[0], s.mixes->ready("noite"));
    s.mixes->ensure({"noite", "dia"});
    ASSERT_TRUE(testsupport::waitUntil([&] { return s.mixes->ready("dia") != nullptr; }, 120s));
    s.fillStatic(u, t, PlateGeometry::identity(), {}, {{"noite", 0.75}, {"dia", 0.25}});
    EXPECT_EQ(u.mixCount, 2u);
    EXPECT_EQ(u.mixWeights, (Float4{0.75f, 0.25f, 0, 0}));
}

TEST_F(SmallScene, OfflineRenderIsRepeatableAndShowsTheLight)
{
    OfflineRender::Options o;
    std::tie(o.sceneDir, o.output) = std::tuple(dir, root.filePath("x.png"));
    EXPECT_EQ(OfflineRender::render(o), "sem manifest.json em " + dir);
    EXPECT_FALSE(QFileInfo::exists(o.output));

    o = renderOf(128, 96, "noite");
    std::tie(o.playing, o.album, o.trackNumber, o.trackCount, o.duration, o.position) =
        std::tuple(true, "A", 2, 6, 200, 50);
    const QImage a = rendered(o, "a.png"), b = rendered(o, "b.png");
    ASSERT_EQ(a.size(), QSize(128, 96));
    EXPECT_EQ(a, b);
    // The lamp plate brightens to the right.
    EXPECT_GT(qRed(a.pixel(120, 5)), qRed(a.pixel(4, 5)) + 20);
    // The LED glows at its centre (plate 20, 40 → screen 40, 80) and only with the panel on.
    EXPECT_GT(qRed(a.pixel(40, 80)), qRed(a.pixel(40, 60)) + 30);
    o.fxPanel = false;
    EXPECT_LT(qRed(rendered(o, "c.png").pixel(40, 80)), qRed(a.pixel(40, 80)) - 30);
}

TEST_F(SmallScene, SteamRisesOverTheCupAndNeverBelowIt)
{
    OfflineRender::Options o = renderOf(512, 384, "noite");
    o.mediaTime = 42;
    const QImage steam = rendered(o, "steam.png");
    o.steam = false;
    const QImage still = rendered(o, "still.png");
    ASSERT_EQ(steam.size(), still.size());
    // The cup sits at plate (10, 44), screen (80, 352); the steam only ever adds light above it.
    const auto gain = [&](int x, int y) { return qRed(steam.pixel(x, y)) - qRed(still.pixel(x, y)); };
    EXPECT_EQ(sumOver(steam.rect(), [&](int x, int y) { return gain(x, y) < 0; }), 0);
    EXPECT_GT(sumOver(steam.rect(), [&](int x, int y) { return gain(x, y) >= 2; }), 30);
    const QRect below(0, 355, 512, 29);
    EXPECT_EQ(differingPixels(steam.copy(below), still.copy(below)), 0);
}

TEST_F(SmallScene, TheStackShowsTheCoverPlayedBefore)
{
    const auto solid = [&](const QString &name, QRgb colour) {
        testsupport::solidImage(colour, 300, 300).save(root.filePath(name));
        return root.filePath(name);
    };
    OfflineRender::Options o = renderOf(128, 96, "dia");
    o.steam = false;
    o.stackCoverImage = solid("red.png", qRgb(230, 20, 20));
    const QImage red = rendered(o, "red-stack.png");
    o.stackCoverImage = solid("blue.png", qRgb(20, 20, 230));
    const QImage blue = rendered(o, "blue-stack.png");
    o.fxStack = false;
    const QImage none = rendered(o, "no-stack.png");
    ASSERT_FALSE(red.isNull() || blue.isNull() || none.isNull());
    // Inside the top cover (plate 50, 40 → screen 100, 80) the art tints the light; outside it nothing changes.
    EXPECT_GT(qRed(red.pixel(100, 80)), qBlue(red.pixel(100, 80)) + 40);
    EXPECT_GT(qBlue(blue.pixel(100, 80)), qRed(blue.pixel(100, 80)) + 40);
    EXPECT_EQ(qRed(none.pixel(100, 80)), qBlue(none.pixel(100, 80)));
    EXPECT_EQ(red.pixel(100, 40), blue.pixel(100, 40));
    EXPECT_EQ(red.pixel(20, 85), none.pixel(20, 85));

    // Shop-window light in the room's dim light (0.2): a dark cover is lifted, a light one is left as it is.
    o.fxStack = true;
    const auto stackOf = [&](QRgb cover, bool showcase) {
        manifest([&](QJsonObject &root, QJsonObject &) {
            if (showcase) root["showcase"] = QJsonObject{{"floor", 0.01}, {"maxGain", 4}, {"artFloor", 0.05}};
        });
        o.stackCoverImage = solid("cover.png", cover);
        return qGray(rendered(o, "stack.png").pixel(100, 80));
    };
    const QRgb light = qRgb(200, 200, 200), dark = qRgb(20, 20, 20);
    EXPECT_EQ(stackOf(light, true), stackOf(light, false));
    EXPECT_GT(stackOf(dark, true), 2 * stackOf(dark, false));
}

// The room's shared state over the small scene, with a settings file of its own, and a renderer.
class SmallRoom : public SmallScene {
protected:
    void SetUp() override
    {
        SmallScene::SetUp();
        gpu = SceneRenderer::create();
        ASSERT_TRUE(gpu);
    }
    std::unique_ptr<RoomScene> roomScene()
    {
        return std::make_unique<RoomScene>(RoomScene::Services{&state, &status, &power, &settings, nullptr, nullptr,
                                                               MediaClock([this] { return now; })},
                                           gpu);
    }

    testsupport::ScopedEnv scenes{"TURNELO_SCENES_DIR", root.path().toUtf8()};
    Settings settings{root.filePath("settings.json")};
    PlayerState state;
    SceneStatus status;
    PowerMonitor power{settings, nullptr};
    std::shared_ptr<SceneRenderer> gpu;
    double now = 1000;  // the media clock: tests move it
};

TEST_F(SmallRoom, AChosenLightFadesInOnceItsMixesAreBuiltAndMusicStartsTheRecord)
{
    manifest();
    settings.setLightPreset("dia");
    const auto room = roomScene();
    room->load();
    ASSERT_TRUE(testsupport::waitUntil([&] { return room->ready(); }, 60s));
    room->advance(now += 10);
    EXPECT_EQ(room->blend(), (Blend{{"dia", 1.0}}));
    settings.setLightPreset("noite");
    EXPECT_EQ(room->scene()->mixes->building().value_or(""), "noite") << "not built until the clock's next tick";
    room->advance(now += 10);
    EXPECT_EQ(room->blend(), (Blend{{"dia", 1.0}})) << "the old light went before the new one was built";
    ASSERT_TRUE(testsupport::waitUntil([&] { return room->scene()->mixes->ready("noite") != nullptr; }, 60s));
    room->advance(now += LightMixer::crossFadeSeconds / 2);
    EXPECT_NEAR(room->blend().at("noite"), 0.5, 0.2);
    room->advance(now += LightMixer::crossFadeSeconds / 2);
    EXPECT_EQ(room->blend(), (Blend{{"noite", 1.0}}));

    // Music starting sets the record turning and the arm on its way to the groove.
    const double rest = room->armState().yaw;
    state.setPlaying(true);
    room->advance(now += 5);
    EXPECT_NE(room->armState().yaw, rest) << "the arm stayed at rest";
}

// Unreadable plates, a device out of memory, a thread that throws: the room says why, the program goes on.
TEST_F(SmallRoom, WhateverFailsOnTheWayComesBackAsTheReason)
{
    manifest();
    using Reason = SceneStatus::Reason;
    const std::vector<std::pair<std::function<void()>, Reason>> throws{
        {[] { throw VulkanError("vkAllocateMemory", VK_ERROR_OUT_OF_DEVICE_MEMORY); }, Reason::gpu},
        {[] { throw std::bad_alloc(); }, Reason::gpu},
        {[] { throw SceneError(SceneError::Kind::badPlate, "room.exr: truncado"); }, Reason::damagedPlates},
    };
    for (const auto &[raise, reason] : throws) {
        SceneLoader loader(*gpu, status, settings, [raise = raise](auto &&...) -> SceneLoader::Assembled {
            raise();
            return QString();
        });
        std::optional<SceneStatus::Problem> got;
        loader.onUnavailable = [&](const SceneStatus::Problem &p) { got = p; };
        loader.load();
        ASSERT_TRUE(testsupport::waitUntil([&] { return got.has_value(); }, 30s));
        EXPECT_EQ(int(got->reason), int(reason)) << got->detail.toStdString();
    }

    // A damaged light plate: the first light cannot be built and the room says why.
    writeExr(dir + "/light/lamp.exr", 32, 48, [](int, int) { return std::array<float, 4>{1, 1, 1, 1}; });
    settings.setLightPreset("noite");
    const auto room = roomScene();
    std::optional<SceneStatus::Problem> problem;
    QObject::connect(room.get(), &RoomScene::unavailable, [&](const SceneStatus::Problem &p) { problem = p; });
    room->load();
    ASSERT_TRUE(testsupport::waitUntil([&] { return problem.has_value(); }, 120s));
    EXPECT_EQ(problem->reason, Reason::damagedPlates);
    EXPECT_EQ(problem->detail, QString::fromUtf8("lamp.exr tem 32×48, manifest diz 64×48"));
    EXPECT_EQ(status.problem(), problem);
    EXPECT_FALSE(room->ready());
}

// A framing whose files are not on disk is offered, not installed; asking for it changes nothing.
TEST_F(SmallRoom, AFramingNotOnDiskLeavesTheRoomAsItIs)
{
    // The same framing under another name, with no files of its own.
    manifest([](QJsonObject &json, QJsonObject &wide) { json = with(json, {"framings", "mid"}, wide); });
    settings.setFraming("wide");
    SceneLoader loader(*gpu, status, settings);
    int loads = 0;
    loader.onLoaded = [&](std::unique_ptr<LoadedScene>, const QString &, double) { ++loads; };
    loader.load();
    ASSERT_TRUE(testsupport::waitUntil([&] { return loads == 1; }, 60s));
    EXPECT_EQ(status.framings(), (QStringList{"wide", "mid"}));
    EXPECT_EQ(status.installedFramings(), QStringList{"wide"});

    settings.setFraming("mid");
    const int generation = loader.generation();
    loader.framingChanged();
    EXPECT_EQ(loader.generation(), generation) << "a load started for a framing with no files";
    loader.load();  // a reload (the scene changed on disk) stays on the framing on screen
    ASSERT_TRUE(testsupport::waitUntil([&] { return loads == 2; }, 60s));
    EXPECT_EQ(loader.framing(), "wide");
}

// "showcase" overrides the manifest's showcase light, "debugCoverArt" stands in for the player's cover.
TEST_F(SmallRoom, DeveloperKeysReplaceTheShowcaseLightAndTheCover)
{
    manifest();
    ASSERT_TRUE(testsupport::solidImage(Qt::red).save(root.filePath("cover.png")));
    settings.setValue("showcase", QVariantMap{{"maxGain", 2.5}, {"floor", 0.25}});
    settings.setValue("debugCoverArt", root.filePath("cover.png"));
    const auto room = roomScene();
    room->load();
    ASSERT_TRUE(testsupport::waitUntil([&] { return room->scene() != nullptr; }, 60s));
    EXPECT_EQ(room->scene()->showcase, (std::array<double, 3>{0.25, 2.5, 0.0}))
        << "floor, maximum gain; a key the setting lacks keeps the manifest's";
    const CoverArt::Color mean = room->coverArt().current().mean;
    EXPECT_GT(mean.r, 0.9);
    EXPECT_LT(mean.g, 0.05);
}

}  // namespace
