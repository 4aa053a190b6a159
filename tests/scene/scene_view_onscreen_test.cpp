// The room in a real window on a private X server, drawn by the scene view itself: once the
// record turns and the arm has settled, a frame allocates nothing; through a playing track the
// needle creeps inwards with no player signal and no lift. A moving part's window is mapped only
// over a still room already on screen, and lies on its own pixels at any scale.

#include "TestSupport.h"
#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/music/PlayerState.h"
#include "core/scene/SceneStatus.h"
#include "render/SceneRenderer.h"
#include "scene/BaseSurface.h"
#include "scene/LoadedScene.h"
#include "scene/RoomScene.h"
#include "scene/SceneView.h"
#include "scene/WindowLayerStack.h"
#include "vulkan/RenderTarget.h"

#include <QGuiApplication>
#include <QRegularExpression>
#include <QWindow>
#include <cstdlib>
#include <gtest/gtest.h>
#include <algorithm>
#include <new>
#include <optional>
#include "XClient.h"  // last: Xlib's macros clash with Qt's and gtest's names

namespace {

// Only the thread that draws counts: the driver's own threads allocate as they please.
thread_local bool counting = false;
long allocations = 0;

void *allocate(std::size_t n, std::size_t alignment)
{
    if (counting) ++allocations;
    void *p = alignment > alignof(std::max_align_t)
                  ? std::aligned_alloc(alignment, (n + alignment - 1) / alignment * alignment)
                  : std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    return p;
}

}  // namespace

void *operator new(std::size_t n) { return allocate(n, 0); }
void *operator new(std::size_t n, std::align_val_t a) { return allocate(n, std::size_t(a)); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete(void *p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void *p, std::size_t, std::align_val_t) noexcept { std::free(p); }

namespace {

using namespace std::chrono_literals;

TEST(SceneViewOnScreen, SteadyFramesOfTheShippedRoomAllocateNothing)
{
    // The validation layer keeps its books on the drawing thread: only the room's own allocations count.
    qunsetenv("VK_INSTANCE_LAYERS");
    testsupport::LogTail log;
    testsupport::ScopedEnv scenes("TURNELO_SCENES_DIR",
                                  (qEnvironmentVariable("TURNELO_SOURCE_DIR") + "/scenes/room").toUtf8());
    Settings settings;
    settings.setLightPreset("dia");
    // At the lowest rate a loaded machine's slower frames leave the software device's rate where
    // it is: a change of rate is no steady frame.
    settings.setValue("fps", 15);
    double now = 1000;  // the media clock: the test moves it
    const MediaClock clock([&now] { return now; });
    PlayerState state;
    state.setTrack(Track{"Side A", "Turnelo", "Demo", 600, PlayerSource{"bench", "Bench", "Bench"}, 2, 5});
    state.setPosition(120);
    state.setPositionDate(now);
    state.setPlaying(true);
    SceneStatus status;
    PowerMonitor power(settings, nullptr);

    QWindow host;
    host.setGeometry(0, 0, 640, 360);
    host.show();
    std::shared_ptr<SceneRenderer> gpu = SceneRenderer::create();
    ASSERT_TRUE(gpu);
    RoomScene room({&state, &status, &power, &settings, nullptr, nullptr, clock}, gpu);
    SceneView view(room, {nullptr, nullptr, clock}, &host);
    room.load();
    testsupport::waitUntil(
        [&] { return !log.messages().filter(QRegularExpression("Cena pronta|indisponível")).isEmpty(); }, 300s);
    ASSERT_EQ(log.messages().filter("Cena pronta").size(), 1) << log.messages().join('\n').toStdString();

    // The arm snaps into its groove after a long step; its sprites come in, and with the rain its layer.
    double t = now + 20;
    // Each frame waits for the last, or the view drops the ticks the device cannot take yet.
    auto frames = [&](int n) {
        for (int i = 0; i < n; ++i, t += 1.0 / 30) {
            view.frame(t);
            gpu->waitIdle();
        }
    };
    frames(5);
    const qsizetype dryWindows = QGuiApplication::allWindows().size();
    room.weatherChanged({true, 0.8});
    frames(5);
    EXPECT_EQ(QGuiApplication::allWindows().size(), dryWindows + 1) << "no window of its own for the rain, or one dry";
    testsupport::spin(2s);
    // Two seconds more: the arm settles in its groove, and the shaders for the parts it crossed
    // on its way are compiled.
    frames(60);
    testsupport::spin(500ms);
    gpu->waitIdle();
    gpu->gpuClock().take();

    // A loaded machine can push the software device below the wanted rate, and a change of
    // rate restarts the tick (which allocates): only a round whose rate held is a steady one.
    long long drawn = 0;
    for (int round = 0; round < 3; ++round) {
        const int rate = view.rate();
        allocations = 0;
        counting = true;
        frames(30);
        counting = false;
        gpu->waitIdle();
        drawn = gpu->gpuClock().take().second;
        if (view.rate() == rate) break;
        ASSERT_LT(round, 2) << "the rate never held for 30 frames";
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_GT(room.scene()->sprites->memoryBytes(), 0u) << "the arm's sprites never came";
    EXPECT_GE(drawn, 30) << "each frame draws its layers in one command buffer";

    // A minute of the track at 30 frames a second, no player signal: the goal drifts inwards
    // with the position and the arm follows it needle down.
    const double yaw = room.armState().yaw;
    double highest = 0;
    for (int i = 0; i < 1800; ++i, t += 1.0 / 30) {
        room.advance(t);
        highest = std::max(highest, room.armState().lift);
    }
    const auto &arm = *room.scene()->framing.tonearm;
    const double inwards = arm.yawRunOut > arm.yawLeadIn ? 1 : -1;
    EXPECT_GT((room.armState().yaw - yaw) * inwards, 0.01) << "the arm stayed at " << yaw;
    EXPECT_NEAR(room.armState().yaw, room.armGoalNow(), 0.25);
    EXPECT_LT(highest, 0.002) << "the arm lifted while creeping";
    view.teardown();
}

// A 320×180 desktop window, the device and the window's layer stack.
class WindowLayerStackOnScreen : public ::testing::Test {
protected:
    void SetUp() override
    {
        host.setGeometry(0, 0, 320, 180);
        host.show();
        ASSERT_TRUE(gpu);
        stack.emplace(*gpu, &host);
        ASSERT_TRUE(stack->ok());
    }
    void TearDown() override
    {
        if (gpu) gpu->waitIdle();
    }
    QWindow host;
    std::shared_ptr<SceneRenderer> gpu = SceneRenderer::create();
    std::optional<WindowLayerStack> stack;
};

TEST_F(WindowLayerStackOnScreen, AMovingPartsWindowWaitsForTheStillRoomUnderIt)
{
    stack->place(LayerStack::Layer::moving, QRect(40, 30, 64, 48));
    ASSERT_NE(stack->target(LayerStack::Layer::moving), nullptr);
    const auto shownWindows = [] { return std::ranges::count_if(QGuiApplication::allWindows(), &QWindow::isVisible); };
    const auto before = shownWindows();
    // Mapped now, it would keep the black that lies there until its next frame.
    stack->showDrawn();
    EXPECT_EQ(shownWindows(), before);

    BaseSurface &base = *stack->baseSurface();
    const SceneRenderer::Pass still{base.nextTarget(320, 180), SceneUniforms{}};
    ASSERT_NE(still.target, nullptr);
    ASSERT_TRUE(testsupport::waitUntil([&] { return gpu->ready(still, {}, std::nullopt); }, 120s));
    gpu->draw(still, {}, std::nullopt, SceneTextures{});
    ASSERT_TRUE(testsupport::waitUntil([&] { return base.canPresent() && base.present(); }, 10s));
    ASSERT_TRUE(base.hasShown());
    stack->showDrawn();
    EXPECT_EQ(shownWindows(), before + 1);
}

// Also run at a whole and a fractional scale (QT_SCALE_FACTOR, see tests/CMakeLists.txt): a layer's
// window (whose size its swapchain takes) lies exactly on the screen pixels its picture is drawn
// for, with no seam against the room under it; the covering check looks there for other windows.
TEST_F(WindowLayerStackOnScreen, ALayersWindowLiesOnThePixelsItDraws)
{
    XClient x(qgetenv("DISPLAY"));
    std::vector<Window> bases;
    ASSERT_TRUE(testsupport::waitUntil([&] { return (bases = x.children(host.winId())).size() == 1; }, 5s));
    const QRect base = x.onScreen(bases[0]);
    EXPECT_EQ(stack->pixelSize(), base.size());

    // Odd edges fall between logical pixels at any scale above 1.
    const QRect asked(41, 31, 63, 47);
    stack->place(LayerStack::Layer::moving, asked);
    const QRect placed = stack->rect(LayerStack::Layer::moving);
    EXPECT_TRUE(placed.contains(asked));
    std::vector<Window> layers;
    ASSERT_TRUE(testsupport::waitUntil([&] { return (layers = x.children(bases[0])).size() == 1; }, 5s));
    const QRect window = x.onScreen(layers[0]);
    EXPECT_EQ(window, placed.translated(base.topLeft())) << "scale " << host.devicePixelRatio();
    EXPECT_EQ(stack->toWindowList(placed), window);
}

}  // namespace
