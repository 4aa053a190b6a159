#include "TestSupport.h"
#include "core/app/Settings.h"
#include "core/scheduling/FrameScheduler.h"
#include "core/scheduling/SessionSignals.h"
#include "core/scheduling/WindowList.h"

#include <QRegularExpression>
#include <QTimer>
#include <gtest/gtest.h>

#include <memory>
#include <tuple>

// Time is stepped by calling the scheduler's beats; the event loop runs only where a test checks its timers.

using namespace std::chrono_literals;
using testsupport::waitUntil;

namespace {

// The user's settings file of this process lives in a private folder, set before it is first computed.
const bool kPrivateConfig = [] {
    static QTemporaryDir config;
    return qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
}();

const QString kCovered = QStringLiteral("Cena: área animada coberta por janelas → pausa");
const QString kVisible = QStringLiteral("Cena: área animada à vista → renderiza");

// The window list of the X server as a plain list the test sets; without `announce` (the
// stacking-change notice) only the periodic probe can notice a change.
struct FixedWindowList : WindowList {
    std::vector<ListedWindow> windows() override
    {
        ++queries;
        return list;
    }
    bool screensOff() override { return off; }
    void set(std::vector<ListedWindow> windows, bool announce = true)
    {
        list = std::move(windows);
        if (announce) emit changed();
    }
    void setScreensOff(bool value, bool announce = true)
    {
        off = value;
        if (announce) emit changed();
    }
    std::vector<ListedWindow> list;
    bool off = false;
    int queries = 0;
};

// The animated area and the sample points inside it: x and y at 150, 250, …, 550.
const QRect kArea(100, 100, 500, 500);
const std::vector<ListedWindow> kOverAll{{QRect(0, 0, 800, 800), 1.0}};
constexpr auto locked = &SessionSignals::lockedChanged, asleep = &SessionSignals::asleepChanged,
               active = &SessionSignals::activeChanged;

class FrameSchedulerTest : public ::testing::Test {
protected:
    testsupport::LogTail log;
    void SetUp() override { Settings().remove("perfLogInterval"); }

    // A scheduler at `fps`, attached to the test's window list and session, wanting frames.
    FrameScheduler &make(int fps = 60, bool withArea = true)
    {
        scheduler = std::make_unique<FrameScheduler>(
            fps, MediaClock([this] { return clockNow; }), [this] { return gpuTime; },
            [this](double t) { ticks.push_back(t); });
        if (withArea) scheduler->animatedArea = [] { return std::optional<QRect>(kArea); };
        scheduler->attach(&windows, &session);
        scheduler->setWantsFrames(true);
        return *scheduler;
    }
    void probeForASecond()
    {
        for (int n = 0; n < 4; ++n) scheduler->probeTick();
    }
    // Sends one change of the session and tells whether frames run after it.
    bool runsAfter(void (SessionSignals::*change)(bool), bool value)
    {
        (session.*change)(value);
        return scheduler->isRunning();
    }
    // Lines that report a change of the room's visibility, from the `from`th.
    QStringList visibilityLines(int from = 0) const
    {
        return log.messages().filter(QRegularExpression("^Cena: .* → (pausa|renderiza)$")).mid(from);
    }

    FixedWindowList windows;
    SessionSignals session;
    std::pair<double, long long> gpuTime{0.0, 0};  // GPU seconds and command buffers since the last line
    std::unique_ptr<FrameScheduler> scheduler;
    std::vector<double> ticks;  // the media time each tick carried
    double clockNow = 0;
};

TEST_F(FrameSchedulerTest, RunsOnlyWhenAttachedWantedAndExposed)
{
    FrameScheduler s(60, MediaClock(), nullptr, nullptr);
    s.setWantsFrames(true);
    EXPECT_FALSE(s.isRunning()) << "no tick before the view is attached";
    s.attach(nullptr, nullptr);
    EXPECT_TRUE(s.isRunning());
    s.setWantsFrames(false);
    EXPECT_FALSE(s.isRunning());
    s.setWantsFrames(true);
    s.setOccluded(true);
    EXPECT_FALSE(s.isRunning());
    s.setOccluded(false);
    EXPECT_TRUE(s.isRunning());

    // Exposed again, the window system's word is checked against the windows at once, between
    // the probe's beats: one that came over the room unannounced keeps it paused.
    auto &listed = make();
    listed.probeTick();
    windows.set(kOverAll, false);
    listed.setOccluded(true);
    listed.setOccluded(false);
    EXPECT_FALSE(listed.isRunning());

    // A compositor that has not shown the last frame holds the tick; taking frames again draws one at once.
    windows.set({});
    bool takes = false;
    listed.mayDraw = [&takes] { return takes; };
    listed.frameTick();
    EXPECT_TRUE(ticks.empty());
    EXPECT_FALSE(listed.isRunning()) << "a refused tick stops until released";
    takes = true;
    listed.release();
    EXPECT_EQ(ticks.size(), 1u);
    EXPECT_TRUE(listed.isRunning());
}

TEST_F(FrameSchedulerTest, OnlyOpaqueWindowsOverEverySamplePointStopTheTicks)
{
    auto &s = make();
    const auto state = [](const FrameScheduler &f) { return std::pair(f.isCovered(), f.isRunning()); };
    const std::pair covered(true, false), shown(false, true);

    // Rows 0–3 whole, row 4 up to but not including the last point: 24 of 25. The second
    // window's right edge ends one pixel before x = 550.
    windows.set({{QRect(0, 0, 800, 500), 1.0}, {QRect(0, 500, 550, 300), 1.0}});
    EXPECT_EQ(state(s), shown);
    windows.set({{QRect(0, 0, 800, 800), 0.99}});  // the room shows through
    EXPECT_EQ(state(s), shown);

    windows.set({{QRect(90, 90, 520, 470), 1.0}});  // over the last row's points at y = 550, not far below
    EXPECT_EQ(state(s), covered);
    probeForASecond();  // several probes while covered say it once
    windows.set({});
    EXPECT_EQ(state(s), shown);
    EXPECT_EQ(visibilityLines(), QStringList({kCovered, kVisible}));

    // Two windows side by side, each alone leaving points open.
    windows.set({{QRect(100, 100, 250, 500), 1.0}, {QRect(350, 100, 250, 500), 1.0}});
    EXPECT_EQ(state(s), covered);
    windows.set({});

    // Without the stacking notice the periodic probe finds the cover within a second, and the
    // uncover at the next beat.
    windows.set(kOverAll, false);
    probeForASecond();
    EXPECT_EQ(state(s), covered);
    windows.set({}, false);
    s.probeTick();
    EXPECT_EQ(state(s), shown);

    // Covered from the start: no frame runs before the first probe.
    windows.set(kOverAll, false);
    EXPECT_FALSE(make().isRunning());

    // No animated area: nothing to cover.
    auto &noArea = make(60, false);
    windows.set(kOverAll);
    EXPECT_EQ(state(noArea), shown);
}

TEST_F(FrameSchedulerTest, LockSleepSessionSwitchAndDarkScreensPauseEachOnTheirOwn)
{
    auto &s = make();
    EXPECT_FALSE(runsAfter(locked, true));
    // Unlocking while covered is no visibility change.
    windows.set(kOverAll);
    ASSERT_TRUE(s.isCovered());
    EXPECT_FALSE(runsAfter(locked, false));
    EXPECT_EQ(visibilityLines(), QStringList({"Cena: screenIsLocked → pausa", kCovered}));
    windows.set({});

    EXPECT_FALSE(runsAfter(asleep, true));
    emit session.activeChanged(false);  // already hidden: nothing to say
    EXPECT_FALSE(runsAfter(asleep, false)) << "the screens woke, but the session is still away";
    EXPECT_TRUE(runsAfter(active, true));
    EXPECT_FALSE(runsAfter(active, false));
    emit session.activeChanged(true);

    // Screens powered down: paused.
    windows.setScreensOff(true);
    EXPECT_FALSE(s.isRunning());
    // Without the notice the probe notices them coming back at its next beat.
    windows.setScreensOff(false, false);
    s.probeTick();
    EXPECT_TRUE(s.isRunning());
    // Back on with a window over the room meanwhile: still paused.
    windows.setScreensOff(true);
    windows.set(kOverAll, false);
    windows.setScreensOff(false);
    EXPECT_FALSE(s.isRunning());
    windows.set({});

    // A window that came over the room unannounced while away is seen on the way back, before a
    // frame is drawn behind it.
    emit session.lockedChanged(true);
    windows.set(kOverAll, false);
    EXPECT_FALSE(runsAfter(locked, false));
    windows.set({});
    EXPECT_EQ(visibilityLines(12), QStringList({"Cena: screenIsLocked → pausa", kCovered, kVisible}));
}

TEST_F(FrameSchedulerTest, TicksCarryTheMediaTimeAtTheRateAndTheSameRateDoesNotRestartThem)
{
    clockNow = 42.5;
    auto &s = make(60);
    s.setRate(15);
    EXPECT_EQ(s.tickIntervalMs(), 67);
    EXPECT_TRUE(s.isRunning());
    // A restarting tick would never fire while something sets the same rate more often than it.
    s.setRate(20);
    QTimer again;
    QObject::connect(&again, &QTimer::timeout, [&] { s.setRate(20); });
    again.start(10);
    EXPECT_TRUE(waitUntil([&] { return ticks.size() >= 2; }, 10s));
    EXPECT_EQ(ticks.empty() ? 0.0 : ticks.back(), 42.5) << "a tick carries the media clock's time";

    // moving, rain drawn, base rate, battery saver → rate
    const std::tuple<bool, bool, int, bool, int> cases[] = {{true, true, 60, false, 60},
                                                            {true, false, 30, true, 15},
                                                            {false, false, 30, false, 15},
                                                            {false, true, 60, true, 20}};
    for (const auto &[moving, rain, base, eco, expected] : cases)
        EXPECT_EQ(FrameScheduler::nextRate(moving, rain, base, eco), expected) << moving << rain << base << eco;

    // A software device's frames at half a core: wanted rate, seconds a frame, current rate → rate.
    // From {30, 0.034, 15}: a cost wavering about a step's edge leaves the rate where it is, both
    // ways; clearly over, or with room to spare, it moves.
    const std::tuple<int, double, int, int> software[] = {
        {30, 0.010, 0, 30},  {30, 0.029, 0, 15},  {30, 0.0249, 0, 20},  {60, 0.010, 0, 48},  {20, 0.040, 0, 12},
        {30, 0.3, 0, 1},     {30, 0.15, 0, 3},    {30, 0.0, 15, 30},    {30, -1.0, 15, 30},  {30, 0.034, 15, 15},
        {30, 0.030, 12, 12}, {30, 0.034, 12, 12}, {30, 0.0375, 15, 12}, {30, 0.026, 12, 15}, {30, 0.010, 15, 30},
        {15, 0.010, 30, 15}, {15, 0.0475, 0, 10}};
    for (const auto &[wanted, seconds, current, expected] : software)
        EXPECT_EQ(FrameScheduler::sustainedRate(wanted, seconds, 0.5, current), expected)
            << wanted << " " << seconds << " " << current;
}

TEST_F(FrameSchedulerTest, PerformanceLinesCountTheFramesOfTheirInterval)
{
    Settings().setValue("perfLogInterval", 0);  // would write without pause
    EXPECT_EQ(FrameScheduler(30, MediaClock(), nullptr, nullptr).perfInterval(), 300.0);
    Settings().setValue("perfLogInterval", 0.3);

    // The room's tests read its frame rate from these lines, and a person the frame's GPU cost:
    // 0.1 GPU seconds over 4 command buffers in 2 s is 25 ms a frame, 5 % busy.
    gpuTime = {0.1, 4};
    clockNow = 100;
    auto &s = make(60);
    EXPECT_EQ(s.perfInterval(), 0.3);
    const auto perfLines = [&] { return log.messages().filter(QRegularExpression("^Perf ")); };
    for (int n = 0; n < 7; ++n) s.frameTick();
    clockNow += 2;
    s.writePerfLine();
    clockNow += 2;
    s.writePerfLine();
    ASSERT_EQ(perfLines().size(), 2);
    EXPECT_TRUE(perfLines()[0].startsWith("Perf 2s: 3.5 fps, ")) << perfLines()[0].toStdString();
    EXPECT_TRUE(perfLines()[0].contains("GPU 25.000 ms/quadro (5.00% ocupada)")) << perfLines()[0].toStdString();
    EXPECT_TRUE(perfLines()[1].startsWith("Perf 2s: 0.0 fps, ")) << perfLines()[1].toStdString();
}

TEST_F(FrameSchedulerTest, InvalidateStopsTicksProbesSignalsAndTheLine)
{
    Settings().setValue("perfLogInterval", 0.1);
    auto &s = make();
    s.invalidate();
    EXPECT_FALSE(s.isRunning());
    EXPECT_FALSE(s.isProbing());
    const int queries = windows.queries;
    windows.set(kOverAll);
    emit session.lockedChanged(true);
    s.setWantsFrames(true);
    s.probeTick();
    testsupport::spin(300ms);  // the timers, had they kept running, would probe and write meanwhile
    EXPECT_TRUE(ticks.empty());
    EXPECT_EQ(windows.queries, queries);
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
    s.attach(&windows, &session);
    EXPECT_FALSE(s.isRunning());
}

}  // namespace
