#pragma once

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QRect>
#include <QString>
#include <QTimer>

#include "core/scheduling/MediaClock.h"
#include <functional>
#include <optional>
#include <utility>

class SessionSignals;
class WindowList;

// Drives a scene view's frames and keeps them off whenever nobody can see the room: while its
// animated area is hidden behind other programs' opaque windows, while the host window is not
// exposed, while the screen is locked, asleep, blanked or powered down or the session is
// switched away, and while the view wants no animation. Also writes the periodic "Perf" line to the log.
//
// The frame tick is a precise timer at the current rate; "paused" means that timer is stopped.
// The coverage probe (0.25 s) and the performance timer run from creation until invalidate().
//
// Main thread only. takeGpuTime is called on the main thread too; the renderer's clock it reads
// is the only state shared with other threads, and it guards itself.
class FrameScheduler : public QObject {
    Q_OBJECT
public:
    // fps: the starting rate (frames per second, at least 1).
    // takeGpuTime: GPU seconds and completed command buffers since its last call (taking
    //   resets them); may be empty, then the line shows no GPU time.
    // clock: the media clock; each tick hands its time to onFrame, and the performance line
    //   measures its intervals on it.
    // onFrame: called on every tick with the media time in seconds.
    // Reads "debugIgnoreOcclusion" and "perfLogInterval" from the user's settings once, here.
    FrameScheduler(int fps, MediaClock clock, std::function<std::pair<double, long long>()> takeGpuTime,
                   std::function<void(double)> onFrame, QObject *parent = nullptr);
    ~FrameScheduler() override;

    // Short state text appended to the performance line; empty when unset.
    std::function<QString()> describeState;
    // The moving part of the room in global screen pixels (the space of ListedWindow::frame);
    // none means it can never be covered.
    std::function<std::optional<QRect>()> animatedArea;
    // Optional: whether the window system takes a frame now. Where the compositor paces the
    // frames (Wayland's frame callbacks) it refuses one while it has not shown the last; a tick
    // it refuses draws and counts nothing and stops the tick until release(). Unset: every tick draws.
    std::function<bool()> mayDraw;
    // The window system takes frames again: a held tick draws at once and the tick runs on.
    void release();

    // Makes the frame tick exist (before the first attach, update() leaves it stopped) and
    // follows the given window list and session signals instead of any earlier ones. Either
    // may be null: no window list means nothing covers the room; no session signals means the
    // lock and sleep flags stay as they are. Neither is owned. No effect after invalidate().
    void attach(WindowList *windows, SessionSignals *session);

    // The host window is not exposed (hidden, unmapped, minimised).
    void setOccluded(bool occluded);
    bool isOccluded() const { return occluded; }

    void setWantsFrames(bool wants);
    bool wantsFrames() const { return wantsFramesFlag; }

    // Restarts the tick at the new rate only when it differs from the current one.
    void setRate(int fps);
    int rate() const { return fps; }
    int tickIntervalMs() const { return tick.interval(); }

    // Asks the window list whether the screens are off, and while they are on recomputes whether
    // the animated area is hidden. Unforced, it follows the probe timer's cadence: once a second
    // while visible, on every tick (4 Hz) while the screens are off or while covered (once a
    // second there too when the window list announces moves).
    void probeCoverage(bool force);
    bool isCovered() const { return covered; }
    // Whether the probe timer beats: not while the session is locked, asleep or switched away,
    // when nothing shows whatever covers the room; coming back, a probe runs at once.
    bool isProbing() const { return probeTimer.isActive(); }

    // Whether frames are being produced now.
    bool isRunning() const { return tick.isActive(); }

    // Seconds between performance lines: "perfLogInterval", or 300 when it is absent, not a
    // number or not positive.
    double perfInterval() const { return perfSeconds; }

    // Stops the tick and both timers and lets go of the window list and session signals.
    void invalidate();

    // The three timers' beats: a frame, a coverage probe (250 ms), a performance line. Whoever
    // steps time itself (a test) calls them directly instead of waiting for the timers.
    void frameTick();
    void probeTick();
    void writePerfLine();

    // The rate for the next frames: the base rate while anything moves (15 under battery
    // saver); when still, 20 while rain is drawn on the glass (its drops keep running), else 15.
    static int nextRate(bool moving, bool rainDrawn, int baseFps, bool ecoActive);
    // A device that draws on the processor (the software rasteriser, one thread) takes a core's
    // time for every second of its work. The rate at most `wanted` at which frames of
    // `deviceSecondsPerFrame` keep it to `share` of a core, on steps (60, 48, 40, 30, 24, 20, 15,
    // 12, 10, 8, 6, 5, 4, 3, 2, 1). A cost that wavers around a step must not move the rate
    // every frame (each change restarts the tick): the `current` rate stays while it costs at
    // most a tenth over the share, and rises only to a step that fits with a fifth to spare.
    // No figure yet (0 or less): `wanted`.
    static int sustainedRate(int wanted, double deviceSecondsPerFrame, double share, int current);

private:
    // Locked, asleep or switched away: nothing shows, whatever covers the room.
    bool away() const { return locked || asleep || inactive; }
    void update();
    bool visible() const;
    void setCovered(bool value);
    // Whether every sample point of the animated area lies under an opaque listed window.
    bool areaHidden() const;
    // Applies one lock/sleep/session flag change, logging when the room's visibility flips.
    void applySessionEvent(bool &flag, bool value, const char *onName, const char *offName);

    std::function<std::pair<double, long long>()> takeGpuTime;
    std::function<void(double)> onFrame;

    QTimer tick;
    bool attached = false;
    bool invalidated = false;
    QPointer<WindowList> windows;
    QPointer<SessionSignals> session;
    QMetaObject::Connection windowsChanged;
    QMetaObject::Connection lockedConnection;
    QMetaObject::Connection asleepConnection;
    QMetaObject::Connection activeConnection;

    bool wantsFramesFlag = false;
    bool occluded = false;
    bool locked = false;
    bool asleep = false;
    // The session was switched away (another user, a greeter). Kept apart from `asleep` so that
    // screens waking during a switched-away session do not restart the frames.
    bool inactive = false;
    // The window list reports the screens off (monitors powered down or blanked). Kept apart from
    // `asleep`, which follows the system's sleep, so that either can end on its own.
    bool screensOff = false;
    bool covered = false;
    bool ignoreOcclusion = false;
    // A tick found the window system still holding the last frame.
    bool held = false;

    QTimer probeTimer;
    long long probeTicks = 0;

    MediaClock clock;
    long long frames = 0;
    QTimer perfTimer;
    double perfSeconds = 300.0;
    double lastWall = 0.0;
    double lastCPU = 0.0;
    int fps = 30;
};
