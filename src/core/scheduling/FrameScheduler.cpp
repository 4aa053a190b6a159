#include "core/scheduling/FrameScheduler.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/scheduling/ProcessUsage.h"
#include "core/scheduling/SessionSignals.h"
#include "core/scheduling/WindowList.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace {

constexpr int kProbeIntervalMs = 250;
// Unforced probes run on every tick while covered (to resume quickly), else on every 4th.
constexpr int kProbeEvery = 4;
constexpr int kGrid = 5;
// A window at this opacity or below shows the room through it.
constexpr double kOpaque = 0.99;
constexpr double kDefaultPerfSeconds = 300.0;

int intervalFor(int fps) { return std::max(1, int(std::lround(1000.0 / fps))); }

// Half-open like the pixels it spans: a frame at x of width w covers [x, x + w).
bool inside(const QRect &r, double x, double y)
{
    return x >= r.x() && x < double(r.x()) + r.width() && y >= r.y() && y < double(r.y()) + r.height();
}

}  // namespace

FrameScheduler::FrameScheduler(int fps, MediaClock mediaClock,
                               std::function<std::pair<double, long long>()> takeGpuTime,
                               std::function<void(double)> onFrame, QObject *parent)
    : QObject(parent)
    , takeGpuTime(std::move(takeGpuTime))
    , onFrame(std::move(onFrame))
    , clock(std::move(mediaClock))
    , fps(std::max(1, fps))
{
    {
        const Settings settings;
        ignoreOcclusion = settings.debugIgnoreOcclusion();
        perfSeconds = settings.perfLogInterval();
    }
    if (!std::isfinite(perfSeconds) || perfSeconds <= 0) perfSeconds = kDefaultPerfSeconds;

    tick.setTimerType(Qt::PreciseTimer);
    tick.setInterval(intervalFor(this->fps));
    connect(&tick, &QTimer::timeout, this, &FrameScheduler::frameTick);

    probeTimer.setInterval(kProbeIntervalMs);
    connect(&probeTimer, &QTimer::timeout, this, &FrameScheduler::probeTick);
    probeTimer.start();

    lastWall = clock.now();
    lastCPU = ProcessUsage::cpuSeconds();
    perfTimer.setInterval(int(std::clamp(std::round(perfSeconds * 1000.0), 1.0, double(INT_MAX))));
    connect(&perfTimer, &QTimer::timeout, this, &FrameScheduler::writePerfLine);
    perfTimer.start();
}

FrameScheduler::~FrameScheduler() = default;

void FrameScheduler::attach(WindowList *newWindows, SessionSignals *newSession)
{
    if (invalidated) return;
    disconnect(windowsChanged);
    disconnect(lockedConnection);
    disconnect(asleepConnection);
    disconnect(activeConnection);
    windows = newWindows;
    session = newSession;
    if (newWindows) windowsChanged = connect(newWindows, &WindowList::changed, this, [this] { probeCoverage(true); });
    if (newSession) {
        lockedConnection = connect(newSession, &SessionSignals::lockedChanged, this, [this](bool value) {
            applySessionEvent(locked, value, "screenIsLocked", "screenIsUnlocked");
        });
        asleepConnection = connect(newSession, &SessionSignals::asleepChanged, this, [this](bool value) {
            applySessionEvent(asleep, value, "screensDidSleep", "screensDidWake");
        });
        activeConnection = connect(newSession, &SessionSignals::activeChanged, this, [this](bool active) {
            applySessionEvent(inactive, !active, "sessionDidResignActive", "sessionDidBecomeActive");
        });
    }
    attached = true;
    probeCoverage(true);
    update();
}

void FrameScheduler::setOccluded(bool value)
{
    occluded = value;
    probeCoverage(true);
    update();
}

void FrameScheduler::setWantsFrames(bool wants)
{
    wantsFramesFlag = wants;
    update();
}

void FrameScheduler::setRate(int newFps)
{
    newFps = std::max(1, newFps);
    if (newFps == fps) return;
    fps = newFps;
    tick.setInterval(intervalFor(fps));  // restarts a running tick
}

int FrameScheduler::nextRate(bool moving, bool rainDrawn, int baseFps, bool ecoActive)
{
    if (moving) return ecoActive ? 15 : baseFps;
    return rainDrawn ? 20 : 15;
}

int FrameScheduler::sustainedRate(int wanted, double deviceSecondsPerFrame, double share, int current)
{
    if (!(deviceSecondsPerFrame > 0)) return wanted;
    const double most = share / deviceSecondsPerFrame;
    const auto within = [wanted](double limit) {
        if (wanted <= limit) return wanted;
        for (int step : {60, 48, 40, 30, 24, 20, 15, 12, 10, 8, 6, 5, 4, 3, 2})
            if (step <= limit && step < wanted) return step;
        return 1;
    };
    if (current >= 1 && current <= wanted && current <= most * 1.1) return std::max(current, within(most * 0.8));
    return within(most);
}

void FrameScheduler::update()
{
    if (!attached) return;
    // A locked, sleeping or absent session shows nothing: the probe's round trips to the window
    // server would be all a hidden room costs.
    if (away() && probeTimer.isActive())
        probeTimer.stop();
    else if (!away() && !probeTimer.isActive())
        probeTimer.start();
    const bool run = wantsFramesFlag && !locked && (ignoreOcclusion || (!occluded && !covered)) && !asleep &&
                     !inactive && !screensOff && !held;
    if (run && !tick.isActive())
        tick.start();
    else if (!run && tick.isActive())
        tick.stop();
}

bool FrameScheduler::visible() const
{
    return !locked && !asleep && !inactive && !screensOff && (ignoreOcclusion || (!occluded && !covered));
}

void FrameScheduler::applySessionEvent(bool &flag, bool value, const char *onName, const char *offName)
{
    const bool before = visible();
    const bool wasAway = away();
    flag = value;
    // Back from away, what covers the room now is asked at once: the probe rested meanwhile.
    if (wasAway && !away()) probeCoverage(true);
    const bool after = visible();
    if (before != after)
        Log::write(QStringLiteral("Cena: ") + QLatin1String(value ? onName : offName) + QStringLiteral(" → ") +
                   (after ? QStringLiteral("renderiza") : QStringLiteral("pausa")));
    update();
}

void FrameScheduler::probeTick()
{
    ++probeTicks;
    probeCoverage(false);
}

void FrameScheduler::probeCoverage(bool force)
{
    if (invalidated) return;
    // A covered room is probed on every beat to resume at once, unless the list announces the
    // moves that would uncover it; dark screens always, as their waking is announced nowhere.
    const bool quick = screensOff || (covered && !(windows && windows->announcesMoves()));
    if (!force && !quick && probeTicks % kProbeEvery != 0) return;

    // Dark screens show nothing, so their windows need no listing. Coming back on, the coverage
    // is settled first, so that the line about the screens tells whether the room now shows.
    const bool off = windows && windows->screensOff();
    if (!off) setCovered(areaHidden());
    if (off != screensOff) applySessionEvent(screensOff, off, "monitor desligado", "monitor ligado");
}

bool FrameScheduler::areaHidden() const
{
    const std::optional<QRect> area = animatedArea ? animatedArea() : std::nullopt;
    if (!area || area->isEmpty() || !windows) return false;
    const std::vector<ListedWindow> listed = windows->windows();
    const double cellW = double(area->width()) / kGrid;
    const double cellH = double(area->height()) / kGrid;
    for (int j = 0; j < kGrid; ++j) {
        const double y = area->y() + (j + 0.5) * cellH;
        for (int i = 0; i < kGrid; ++i) {
            const double x = area->x() + (i + 0.5) * cellW;
            const bool hidden = std::any_of(listed.begin(), listed.end(), [&](const ListedWindow &w) {
                return w.opacity > kOpaque && inside(w.frame, x, y);
            });
            if (!hidden) return false;
        }
    }
    return true;
}

void FrameScheduler::setCovered(bool value)
{
    if (value == covered) return;
    covered = value;
    Log::write(covered ? QStringLiteral("Cena: área animada coberta por janelas → pausa")
                       : QStringLiteral("Cena: área animada à vista → renderiza"));
    update();
}

void FrameScheduler::release()
{
    if (!held) return;
    held = false;
    update();
    if (tick.isActive()) frameTick();
}

void FrameScheduler::frameTick()
{
    if (mayDraw && !mayDraw()) {
        held = true;
        update();
        return;
    }
    ++frames;
    if (onFrame) onFrame(clock.now());
}

void FrameScheduler::writePerfLine()
{
    const double now = clock.now();
    const double cpu = ProcessUsage::cpuSeconds();
    const double w = std::max(now - lastWall, 1e-9);
    const auto [gpuSeconds, buffers] = takeGpuTime ? takeGpuTime() : std::pair<double, long long>{0.0, 0};
    const double gpuMsPerFrame = buffers >= 1 ? gpuSeconds / double(buffers) * 1000.0 : 0.0;
    Log::write(QString::asprintf("Perf %.0fs: %.1f fps, CPU %.2f%%, GPU %.3f ms/quadro (%.2f%% ocupada), "
                                 "footprint %d MB, ",
                                 w, double(frames) / w, (cpu - lastCPU) / w * 100.0, gpuMsPerFrame,
                                 gpuSeconds / w * 100.0, ProcessUsage::footprintMegabytes()) +
               (describeState ? describeState() : QString()));
    frames = 0;
    lastWall = now;
    lastCPU = cpu;
}

void FrameScheduler::invalidate()
{
    invalidated = true;
    attached = false;
    tick.stop();
    probeTimer.stop();
    perfTimer.stop();
    disconnect(windowsChanged);
    disconnect(lockedConnection);
    disconnect(asleepConnection);
    disconnect(activeConnection);
    windows = nullptr;
    session = nullptr;
}
