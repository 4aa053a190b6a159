#include "platform/linux/X11DesktopWindow.h"

#include "platform/linux/X11Connection.h"

#include <QGuiApplication>
#include <QWindow>
#include <qguiapplication_platform.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/shape.h>

namespace {

// Qt's own connection: our requests then reach the server in order with Qt's, before the map
// request that show() sends, so the manager sees a desktop window from the start.
Display *qtDisplay()
{
    auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return x11 ? x11->display() : nullptr;
}

bool tiles(X11Connection &x) { return x.managerName() == "i3"; }

}  // namespace

namespace X11DesktopWindow {

bool managerTilesDesktopWindows()
{
    X11Connection x(qtDisplay());
    return x.isOpen() && tiles(x);
}

bool prepare(QWindow *window)
{
    Display *display = qtDisplay();
    if (!display || !window || !window->handle()) return false;
    X11Connection x(display);

    // Flags first: Qt rewrites the window type whenever the flags change.
    Qt::WindowFlags flags =
        window->flags() | Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus | Qt::WindowTransparentForInput;
    if (tiles(x)) flags |= Qt::BypassWindowManagerHint;
    window->setFlags(flags);

    const Window id = Window(window->winId());
    const unsigned long desktopType = x.atom("_NET_WM_WINDOW_TYPE_DESKTOP");
    XChangeProperty(display, id, x.atom("_NET_WM_WINDOW_TYPE"), XA_ATOM, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char *>(&desktopType), 1);
    const unsigned long everyDesktop = 0xFFFFFFFFul;
    XChangeProperty(display, id, x.atom("_NET_WM_DESKTOP"), XA_CARDINAL, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char *>(&everyDesktop), 1);
    // An unmapped window's _NET_WM_STATE is its initial state; Qt merges its own into it on show.
    const unsigned long states[] = {x.atom("_NET_WM_STATE_STICKY"), x.atom("_NET_WM_STATE_SKIP_TASKBAR"),
                                    x.atom("_NET_WM_STATE_SKIP_PAGER"), x.atom("_NET_WM_STATE_BELOW")};
    XChangeProperty(display, id, x.atom("_NET_WM_STATE"), XA_ATOM, 32, PropModeReplace,
                    reinterpret_cast<const unsigned char *>(states), 4);

    int shapeEvent = 0, shapeError = 0;
    if (XShapeQueryExtension(display, &shapeEvent, &shapeError))
        XShapeCombineRectangles(display, id, ShapeInput, 0, 0, nullptr, 0, ShapeSet, Unsorted);
    XFlush(display);
    return true;
}

}  // namespace X11DesktopWindow
