#pragma once

#include "platform/linux/X11Connection.h"

#include <QElapsedTimer>
#include <QHash>

// Whether another program's window lets what lies under it show, judged by what it shows
// rather than by its depth. It shows through only when it has a 32-bit visual, a compositing
// manager owns _NET_WM_CM_S<screen> (without one, alpha is never blended), and its contents
// are transparent in more than a few places: the alpha of a sparse grid of its pixels is read
// back. A 32-bit window painted opaque nearly everywhere (Plasma's desktop paints its own
// wallpaper) hides what lies under it. A window that cannot be read counts as opaque.
//
// Verdicts are kept for a few seconds, since a window's contents are often still empty right
// after it maps. Uses the given connection, which must outlive it; main thread only.
class X11WindowTransparency {
public:
    using XWindow = X11Connection::XWindow;

    explicit X11WindowTransparency(X11Connection &connection);

    // The last verdict while it is fresh, else a new one.
    bool seeThrough(XWindow window);

    // How long a verdict holds; a caller that wants to notice a change asks again this often.
    static constexpr int freshMs = 5000;

private:
    bool judge(XWindow window);
    bool composited();

    struct Verdict {
        bool seeThrough;
        qint64 at;
    };
    X11Connection &x;
    QHash<XWindow, Verdict> verdicts;
    QElapsedTimer clock;
};
