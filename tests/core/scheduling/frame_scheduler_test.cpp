#include "TestSupport.h"
#include "core/app/Settings.h"
#include "core/scheduling/FrameScheduler.h"
#include "core/scheduling/SessionSignals.h"
#include "core/scheduling/WindowList.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTimer>
#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <tuple>

using namespace std::chrono_literals;
using testsupport::readFile;
using testsupport::spin;
using testsupport::waitUntil;

namespace {

// The user's settings file of this process lives in a private folder, set before it is first computed.
const bool kPrivateConfig = [] {
    static QTemporaryDir config;
    return qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
}();

const QString kCovered = QStringLiteral("Cena: área animada coberta por janelas → pausa");
const QString kVisible = QStringLiteral("Cena: área animada à vista → renderiza");

// The window list of the X server stands in here as a plain list the test sets.
class FixedWindowList : public WindowList {
public:
    std::vector<ListedWindow> windows() override
    {
        ++queries;
        return list;
    }
    // Without `announce` (the stacking-change notice) only the periodic probe can notice.
    void set(std::vector<ListedWindow> windows, bool announce = true)
    {
        list = std::move(windows);
        if (announce) emit changed();
    }
    bool screensOff() override { return off; }
    void setScreensOff(bool value, bool announce = true)
    {
        off = value;
        if (announce) emit changed();
    }
    int queries = 0;

private:
    std::vector<ListedWindow> list;
    bool off = false;
};

// Lines that report a change of the room's visibility ("Cena: … → renderiza|pausa").
QStringList visibilityLines(const testsupport::LogTail &log)
{
    QStringList out;
    for (const QString &line : log.messages())
        if (line.startsWith("Cena: ") && (line.endsWith(" → pausa") || line.endsWith(" → renderiza"))) out << line;
    return out;
}

// The animated area and the sample points inside it: x and y at 150, 250, …, 550.
const QRect kArea(100, 100, 500, 500);

class FrameSchedulerTest : public ::testing::Test {
protected:
    testsupport::LogTail log;
    void SetUp() override
    {
        Settings settings;
        for (const char *key : {"debugIgnoreOcclusion", "perfLogInterval"}) settings.remove(key);
    }

    // A scheduler at `fps`, attached to the test's window list and session, wanting frames.
    FrameScheduler &make(int fps = 60, bool withArea = true)
    {
        scheduler = std::make_unique<FrameScheduler>(
            fps, MediaClock([this] { return clockSource(); }), [this] { return gpu(); },
            [this](double t) {
                ++ticks;
                times.push_back(t);
            });
        if (withArea) scheduler->animatedArea = [] { return std::optional<QRect>(kArea); };
        scheduler->attach(&windows, &session);
        scheduler->setWantsFrames(true);
        return *scheduler;
    }

    // Ticks keep arriving: a few more come within a generous wait.
    bool ticking()
    {
        const int from = ticks;
        return waitUntil([&] { return ticks >= from + 3; }, 10s);
    }
    // No tick arrives over a while (the tick is stopped, so no timing is involved).
    bool silent()
    {
        const int from = ticks;
        spin(300ms);
        return ticks == from;
    }

    std::function<std::pair<double, long long>()> gpu = [] { return std::pair<double, long long>{0.0, 0}; };
    FixedWindowList windows;
    SessionSignals session;
    std::unique_ptr<FrameScheduler> scheduler;
    int ticks = 0;
    std::vector<double> times;
    MediaClock::Source clockSource = &MediaClock::steady;
    int count(const QString &message) const { return int(log.messages().count(message)); }
};

TEST_F(FrameSchedulerTest, RunsOnlyWhenAttachedWantedAndExposed)
{
    auto s = std::make_unique<FrameScheduler>(60, MediaClock(), nullptr, [this](double) { ++ticks; });
    s->setWantsFrames(true);
    EXPECT_FALSE(s->isRunning()) << "no tick before the view is attached";
    s->attach(nullptr, nullptr);
    EXPECT_TRUE(s->isRunning());
    s->setWantsFrames(false);
    EXPECT_FALSE(s->isRunning());
    s->setWantsFrames(true);
    s->setOccluded(true);
    EXPECT_FALSE(s->isRunning());
    EXPECT_TRUE(silent());
    s->setOccluded(false);
    EXPECT_TRUE(s->isRunning());
    EXPECT_TRUE(ticking());

    // Each tick hands over the media clock's time.
    s->setWantsFrames(false);
    clockSource = [] { return 42.5; };
    auto &m = make();
    ASSERT_TRUE(ticking());
    EXPECT_EQ(times.back(), 42.5);
    m.invalidate();
}

TEST_F(FrameSchedulerTest, OnlyOpaqueWindowsOverEverySamplePointStopTheTicks)
{
    auto &s = make();
    ASSERT_TRUE(ticking());

    // Rows 0–3 whole, row 4 up to but not including the last point: 24 of 25. The second
    // window's right edge ends one pixel before x = 550.
    windows.set({{QRect(0, 0, 800, 500), 1.0}, {QRect(0, 500, 550, 300), 1.0}});
    EXPECT_FALSE(s.isCovered());
    windows.set({{QRect(0, 0, 800, 800), 0.99}});  // the room shows through
    EXPECT_FALSE(s.isCovered());
    EXPECT_TRUE(ticking());
    EXPECT_TRUE(visibilityLines(log).isEmpty()) << log.lines().join('\n').toStdString();

    windows.set({{QRect(90, 90, 520, 520), 1.0}});
    EXPECT_TRUE(s.isCovered());
    EXPECT_FALSE(s.isRunning());
    spin(700ms);  // several probes while covered
    EXPECT_EQ(count(kCovered), 1);
    windows.set({});
    EXPECT_FALSE(s.isCovered());
    EXPECT_TRUE(ticking());
    EXPECT_EQ(count(kVisible), 1);

    // Two windows side by side, each alone leaving points open.
    windows.set({{QRect(100, 100, 250, 500), 1.0}, {QRect(350, 100, 250, 500), 1.0}});
    EXPECT_TRUE(s.isCovered());
    EXPECT_FALSE(s.isRunning());
    windows.set({});

    // Without the stacking notice the periodic probe still finds the cover, and the uncover.
    windows.set({{QRect(0, 0, 800, 800), 1.0}}, false);
    EXPECT_TRUE(waitUntil([&] { return s.isCovered(); }, 10s));
    EXPECT_FALSE(s.isRunning());
    windows.set({}, false);
    EXPECT_TRUE(waitUntil([&] { return !s.isCovered(); }, 10s));
    EXPECT_TRUE(ticking());

    // While visible the list is asked about once a second, not on every probe tick.
    QElapsedTimer span;
    span.start();
    const int before = windows.queries;
    spin(2500ms);
    EXPECT_LE(windows.queries - before, span.elapsed() / 1000 + 2);

    // No animated area: nothing to cover.
    auto &noArea = make(60, false);
    windows.set({{QRect(0, 0, 800, 800), 1.0}});
    EXPECT_FALSE(noArea.isCovered());
    EXPECT_TRUE(ticking());
}

TEST_F(FrameSchedulerTest, LockSleepAndSessionSwitchPauseEachOnTheirOwn)
{
    auto &s = make();
    ASSERT_TRUE(ticking());
    const auto expectLines = [&](int from, const QStringList &expected) {
        EXPECT_EQ(visibilityLines(log).mid(from).join('\n').toStdString(), expected.join('\n').toStdString());
    };

    emit session.lockedChanged(true);
    EXPECT_FALSE(s.isRunning());
    // Unlocking while covered is no visibility change.
    windows.set({{QRect(0, 0, 800, 800), 1.0}});
    ASSERT_TRUE(s.isCovered());
    emit session.lockedChanged(false);
    EXPECT_FALSE(s.isRunning());
    expectLines(0, {"Cena: screenIsLocked → pausa", kCovered});
    windows.set({});
    EXPECT_TRUE(ticking());

    emit session.lockedChanged(true);
    emit session.lockedChanged(false);
    EXPECT_TRUE(ticking());
    expectLines(3, {"Cena: screenIsLocked → pausa", "Cena: screenIsUnlocked → renderiza"});

    emit session.asleepChanged(true);
    EXPECT_FALSE(s.isRunning());
    emit session.activeChanged(false);  // already hidden: nothing to say
    emit session.asleepChanged(false);  // screens wake, but the session is still away
    EXPECT_FALSE(s.isRunning());
    emit session.activeChanged(true);
    EXPECT_TRUE(ticking());
    expectLines(5, {"Cena: screensDidSleep → pausa", "Cena: sessionDidBecomeActive → renderiza"});

    emit session.activeChanged(false);
    EXPECT_FALSE(s.isRunning());
    emit session.activeChanged(true);
    emit session.asleepChanged(true);
    emit session.asleepChanged(false);
    EXPECT_TRUE(ticking());
    expectLines(7, {"Cena: sessionDidResignActive → pausa", "Cena: sessionDidBecomeActive → renderiza",
                    "Cena: screensDidSleep → pausa", "Cena: screensDidWake → renderiza"});
}

TEST_F(FrameSchedulerTest, ScreensOffPauseUntilTheyShowAgainWithoutListingTheirWindows)
{
    auto &s = make();
    ASSERT_TRUE(ticking());
    const QString off = QStringLiteral("Cena: monitor desligado → pausa");
    const QString on = QStringLiteral("Cena: monitor ligado → renderiza");

    windows.setScreensOff(true);
    EXPECT_FALSE(s.isRunning());
    const int queries = windows.queries;
    spin(700ms);  // probes on every tick now, asking only about the screens
    EXPECT_EQ(windows.queries, queries);
    windows.setScreensOff(false);
    EXPECT_TRUE(ticking());

    // Without the notice the periodic probe notices both.
    windows.setScreensOff(true, false);
    EXPECT_TRUE(waitUntil([&] { return !s.isRunning(); }, 10s));
    windows.setScreensOff(false, false);
    EXPECT_TRUE(waitUntil([&] { return s.isRunning(); }, 10s));
    EXPECT_EQ(visibilityLines(log), QStringList({off, on, off, on}));

    // Back on with a window over the room meanwhile: still paused, and the line says why.
    windows.setScreensOff(true);
    windows.set({{QRect(0, 0, 800, 800), 1.0}}, false);
    windows.setScreensOff(false);
    EXPECT_FALSE(s.isRunning());
    EXPECT_EQ(visibilityLines(log).mid(4), QStringList({off, kCovered}));
    windows.set({});
    EXPECT_TRUE(ticking());

    // Locked meanwhile: the screens going off or on changes nothing anyone sees.
    emit session.lockedChanged(true);
    windows.setScreensOff(true);
    emit session.lockedChanged(false);
    EXPECT_FALSE(s.isRunning());
    windows.setScreensOff(false);
    EXPECT_TRUE(ticking());
    EXPECT_EQ(visibilityLines(log).mid(7), QStringList({"Cena: screenIsLocked → pausa", on}));
}

TEST_F(FrameSchedulerTest, IgnoringOcclusionRunsBehindWindowsButNotWhenLockedOrAsleep)
{
    Settings().setValue("debugIgnoreOcclusion", true);
    auto &s = make();
    // Read once: a later change does not apply to this scheduler.
    Settings().setValue("debugIgnoreOcclusion", false);

    windows.set({{QRect(0, 0, 800, 800), 1.0}});
    s.setOccluded(true);
    EXPECT_TRUE(s.isRunning());
    EXPECT_TRUE(ticking());

    emit session.lockedChanged(true);
    EXPECT_FALSE(s.isRunning());
    emit session.lockedChanged(false);
    EXPECT_TRUE(ticking());
    emit session.asleepChanged(true);
    EXPECT_FALSE(s.isRunning());
    EXPECT_EQ(count("Cena: screenIsUnlocked → renderiza"), 1);
}

TEST_F(FrameSchedulerTest, SetRateChangesTheTickOnlyWhenTheRateDiffers)
{
    auto &s = make(60);
    ASSERT_TRUE(ticking());

    s.setRate(15);
    EXPECT_TRUE(s.isRunning());
    // Ticks cannot come faster than the rate, however loaded the machine is.
    const int from = ticks;
    QElapsedTimer span;
    span.start();
    spin(1500ms);
    EXPECT_LE(ticks - from, span.elapsed() / 66 + 2);

    // Setting the same rate again must not restart the tick: at 2 fps, with the rate set
    // again every 50 ms, a restarting tick would never fire.
    s.setRate(2);
    QTimer again;
    QObject::connect(&again, &QTimer::timeout, [&] { s.setRate(2); });
    again.start(50);
    const int atTwo = ticks;
    EXPECT_TRUE(waitUntil([&] { return ticks >= atTwo + 2; }, 10s));
}

TEST_F(FrameSchedulerTest, PerformanceLine)
{
    // A zero interval would write without pause.
    for (const QVariant &interval : {QVariant(), QVariant("soon"), QVariant(0)}) {
        if (interval.isValid()) Settings().setValue("perfLogInterval", interval);
        EXPECT_EQ(FrameScheduler(30, MediaClock(), nullptr, nullptr).perfInterval(), 300.0)
            << interval.toString().toStdString();
    }
    Settings().setValue("perfLogInterval", 0.3);

    // The line measures its interval on the media clock: each line moves it on by 2 s, so every
    // interval is exactly 2 s whenever the timer fires. 0.1 GPU seconds over 4 command buffers:
    // 25 ms a frame, 5 % busy.
    gpu = [] { return std::pair<double, long long>{0.1, 4}; };
    double clockNow = 100;
    clockSource = [&] { return clockNow; };
    int seenAtLine = 0;
    std::vector<int> framesPerLine;
    const std::clock_t cpuAtStart = std::clock();
    std::vector<std::clock_t> cpuAtLine;
    auto &s = make(60);
    clockNow += 2;
    s.describeState = [&] {
        framesPerLine.push_back(ticks - seenAtLine);
        seenAtLine = ticks;
        cpuAtLine.push_back(std::clock());
        clockNow += 2;
        return QStringLiteral("tocando, visível");
    };
    EXPECT_EQ(s.perfInterval(), 0.3);
    // Spend CPU time inside the first interval.
    const std::clock_t burnStart = std::clock();
    while (std::clock() - burnStart < CLOCKS_PER_SEC / 5) {}
    const double cpuBurnt = double(std::clock() - burnStart) / CLOCKS_PER_SEC;
    auto perfLines = [&] { return log.messages().filter(QRegularExpression("^Perf ")); };
    ASSERT_TRUE(waitUntil([&] { return perfLines().size() >= 2; }, 20s));

    const QRegularExpression format(
        R"(^Perf 2s: (\d+\.\d) fps, CPU (\d+\.\d\d)%, GPU 25\.000 ms/quadro \(5\.00% ocupada\), )"
        R"(footprint (-?\d+) MB, tocando, visível$)");
    const QStringList lines = perfLines();
    for (int n = 0; n < 2; ++n) {
        const auto m = format.match(lines[n]);
        ASSERT_TRUE(m.hasMatch()) << lines[n].toStdString();
        EXPECT_NEAR(m.captured(1).toDouble(), framesPerLine[n] / 2.0, 0.051) << lines[n].toStdString();
        // At least the burnt time, at most what the whole process spent, by another clock.
        const double spent = double(cpuAtLine[n] - (n ? cpuAtLine[n - 1] : cpuAtStart)) / CLOCKS_PER_SEC;
        if (n == 0) {
            EXPECT_GE(m.captured(2).toDouble(), cpuBurnt * 0.9 / 2 * 100.0) << lines[n].toStdString();
        }
        EXPECT_LE(m.captured(2).toDouble(), spent * 1.1 / 2 * 100.0 + 1.0) << lines[n].toStdString();
        // Resident memory, compared with the kernel's own figure in kB.
        int rssKb = -1;
        for (const QByteArray &row : readFile("/proc/self/status").split('\n'))
            if (row.startsWith("VmRSS:")) rssKb = row.mid(6).trimmed().split(' ').first().toInt();
#ifdef __SANITIZE_ADDRESS__
        constexpr int slackMb = 16;  // the sanitizer's quarantine keeps freed memory resident meanwhile
#else
        constexpr int slackMb = 3;
#endif
        EXPECT_NEAR(m.captured(3).toInt(), rssKb / 1024, slackMb);
    }

    // No command buffer completed: no time per frame.
    gpu = [] { return std::pair<double, long long>{0.0, 0}; };
    ASSERT_TRUE(waitUntil([&] { return perfLines().size() >= 4; }, 20s));
    EXPECT_TRUE(perfLines()[3].contains("GPU 0.000 ms/quadro (0.00% ocupada)")) << perfLines()[3].toStdString();
}

TEST_F(FrameSchedulerTest, InvalidateStopsTicksProbesSignalsAndTheLine)
{
    Settings().setValue("perfLogInterval", 0.2);
    auto &s = make();
    ASSERT_TRUE(ticking());
    s.invalidate();
    EXPECT_FALSE(s.isRunning());
    const int queries = windows.queries;
    windows.set({{QRect(0, 0, 800, 800), 1.0}});
    emit session.lockedChanged(true);
    s.setWantsFrames(true);
    EXPECT_TRUE(silent());
    spin(700ms);
    EXPECT_EQ(windows.queries, queries);
    EXPECT_TRUE(log.lines().isEmpty()) << log.lines().join('\n').toStdString();
    s.attach(&windows, &session);
    EXPECT_FALSE(s.isRunning());
}

TEST(FrameSchedulerRate, NextRate)
{
    // moving, rain drawn, base rate, battery saver → rate
    const std::tuple<bool, bool, int, bool, int> cases[] = {
        {true, false, 30, false, 30}, {true, true, 60, false, 60},   {true, false, 30, true, 15},
        {true, true, 45, true, 15},   {false, false, 30, false, 15}, {false, true, 30, false, 20},
        {false, true, 60, true, 20},  {false, false, 60, true, 15}};
    for (const auto &[moving, rain, base, eco, expected] : cases)
        EXPECT_EQ(FrameScheduler::nextRate(moving, rain, base, eco), expected) << moving << rain << base << eco;
}

}  // namespace
