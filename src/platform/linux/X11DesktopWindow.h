#pragma once

class QWindow;

// Makes a Qt window the room's desktop window on X11: borderless, of type
// _NET_WM_WINDOW_TYPE_DESKTOP, on every desktop (sticky), below other windows, left out of
// taskbars and pagers, and without input (an empty input shape, so clicks reach the icons or
// whatever lies below). Under a manager that tiles desktop windows (i3) the window bypasses
// the manager instead (override-redirect) and X11DesktopStacking keeps it at the bottom.
namespace X11DesktopWindow {

// `window` must be created (winId valid) and not yet shown. False when Qt does not run on X11,
// and nothing is changed then.
bool prepare(QWindow *window);

// Whether the running window manager tiles desktop windows like ordinary ones.
bool managerTilesDesktopWindows();

}  // namespace X11DesktopWindow
