#pragma once

class QImage;
class QWindow;

// A picture as an X11 window's background: the server keeps it in a pixmap of its own and
// repaints every exposed part of the window from it without asking the program, so the program
// need keep no copy. The window's children are left as they are. Main thread.
namespace X11WindowBackground {

// `window` must be created. False when Qt does not run on X11 or the window is gone; the
// picture (ARGB32, opaque) is scaled to nothing: it should be the window's size in pixels.
bool paint(QWindow *window, const QImage &picture);

}  // namespace X11WindowBackground
