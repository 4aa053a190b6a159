#pragma once

#include "core/scheduling/WindowList.h"
#include "platform/linux/X11Connection.h"
#include "platform/linux/X11WindowTransparency.h"

#include <QSet>
#include <QTimer>
#include <QWindow>

// Other programs' windows from the EWMH stacking list (_NET_CLIENT_LIST_STACKING), bottom to
// top, each as its frame on the root window (decorations from _NET_FRAME_EXTENTS included).
// Left out: unmapped or iconic (_NET_WM_STATE_HIDDEN) clients, clients on another desktop,
// dock windows, this process's windows (_NET_WM_PID) and the windows given to addOwnWindow.
// Another program's desktop window is listed only when it is stacked above one of the windows
// given to addOwnWindow and hides what lies below it (X11WindowTransparency): a room under it
// is seen by nobody. It keeps its own X connection; without an X server the list is empty.
// The screens are off while the server's DPMS power level is standby, suspend or off, or while
// its screen saver (MIT-SCREEN-SAVER) blanks them; powering down blanks them too, so the saver's
// notices announce both. Top-level windows mapped, unmapped, moved or resized are announced as
// changes too. Main thread only.
class X11WindowList : public WindowList {
    Q_OBJECT
public:
    // An empty name opens $DISPLAY.
    explicit X11WindowList(const QByteArray &displayName = {}, QObject *parent = nullptr);

    std::vector<ListedWindow> windows() override;
    bool screensOff() override;
    bool announcesMoves() const override { return x.isOpen(); }

    // Windows of ours that a program other than this one may have created (or whose
    // _NET_WM_PID is unreliable); never listed.
    void addOwnWindow(WId window);
    void removeOwnWindow(WId window);

    bool connected() const { return x.isOpen(); }

    // Whether a DPMS answer (DPMSInfo's result, its enabled flag and power level) means the monitors are dark.
    static bool powerLevelIsDark(bool answered, bool enabled, int level);

private:
    void rootPropertyChanged(unsigned long atom);

    X11Connection x;
    X11WindowTransparency transparency{x};
    QSet<WId> own;
    QTimer moved;          // a window's place changed: changed() when it times out
    bool dpms = false;     // the server can power its monitors down
    int saverNotify = -1;  // the event type of the screen saver's notices; -1 without the extension
};
