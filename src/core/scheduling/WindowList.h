#pragma once

#include <QObject>
#include <QRect>
#include <vector>

// One top-level window of another program that may hide part of the room.
struct ListedWindow {
    QRect frame;           // global screen pixels, decorations (frame extents) included
    double opacity = 1.0;  // the window's own opacity; 1 when it sets none
};

// The windows stacked above the desktop, as the window server sees them. Only other
// programs' windows that are shown on the current desktop are listed: hidden, iconic and
// other desktops' windows and this process's own windows are left out. Main thread.
class WindowList : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~WindowList() override = default;

    virtual std::vector<ListedWindow> windows() = 0;

    // Whether the screens show nothing now: their monitors are powered down (standby, suspend
    // or off) or the window server blanked them. False when the server cannot tell.
    virtual bool screensOff() { return false; }

    // Whether changed() also comes when a window is mapped, unmapped, moved or resized, so that
    // only what it does not announce (a window's opacity) is left to the periodic probe.
    virtual bool announcesMoves() const { return false; }

signals:
    // The stacking, the active window, the current desktop or the screens' blanking changed
    // (and, where announcesMoves(), a window's place): worth probing at once.
    void changed();
};
