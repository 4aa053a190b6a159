#include "platform/linux/X11WindowBackground.h"

#include <QGuiApplication>
#include <QImage>
#include <QWindow>
#include <qguiapplication_platform.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace X11WindowBackground {

bool paint(QWindow *window, const QImage &picture)
{
    auto *x11 = qGuiApp ? qGuiApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    Display *display = x11 ? x11->display() : nullptr;
    if (!display || !window || !window->handle() || picture.isNull()) return false;
    const QImage pixels = picture.format() == QImage::Format_ARGB32 || picture.format() == QImage::Format_RGB32
                              ? picture
                              : picture.convertToFormat(QImage::Format_RGB32);
    const Window id = Window(window->winId());
    XWindowAttributes attributes;
    if (!XGetWindowAttributes(display, id, &attributes) || (attributes.depth != 24 && attributes.depth != 32))
        return false;
    const Pixmap pixmap =
        XCreatePixmap(display, id, unsigned(pixels.width()), unsigned(pixels.height()), unsigned(attributes.depth));
    // The server's 32-bit pixels in this machine's byte order are the image's own: no conversion.
    XImage *image = XCreateImage(display, attributes.visual, unsigned(attributes.depth), ZPixmap, 0,
                                 const_cast<char *>(reinterpret_cast<const char *>(pixels.constBits())),
                                 unsigned(pixels.width()), unsigned(pixels.height()), 32, int(pixels.bytesPerLine()));
    if (!image) {
        XFreePixmap(display, pixmap);
        return false;
    }
    GC gc = XCreateGC(display, pixmap, 0, nullptr);
    // Xlib cuts a large picture into requests the server takes.
    XPutImage(display, pixmap, gc, image, 0, 0, 0, 0, unsigned(pixels.width()), unsigned(pixels.height()));
    image->data = nullptr;  // the QImage's
    XDestroyImage(image);
    XFreeGC(display, gc);
    XSetWindowBackgroundPixmap(display, id, pixmap);
    // The window holds the pixmap now; the server frees it with the window or the next one.
    XFreePixmap(display, pixmap);
    XClearWindow(display, id);
    XFlush(display);
    return true;
}

}  // namespace X11WindowBackground
