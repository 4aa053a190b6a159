#pragma once

// A test's own view of an X server through plain Xlib, independent of the code under test.
// Include it last: Xlib's macros (None, Bool, Status) clash with Qt's and gtest's names.

#include <QByteArray>
#include <QRect>
#include <algorithm>
#include <initializer_list>
#include <vector>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

class XClient {
public:
    explicit XClient(const QByteArray &display)
        : d(XOpenDisplay(display.constData()))
    {
        // Other programs' windows can go between a listing and a read of them: Xlib's own
        // handler would end the test there; the failed read answers empty instead.
        XSetErrorHandler([](Display *, XErrorEvent *) { return 0; });
    }
    // Closing the connection destroys every window it made.
    ~XClient()
    {
        if (d) XCloseDisplay(d);
    }
    XClient(const XClient &) = delete;
    XClient &operator=(const XClient &) = delete;

    Display *d;

    Atom atom(const char *name) { return XInternAtom(d, name, False); }
    Window root() { return DefaultRootWindow(d); }

    std::vector<unsigned long> values(Window window, const char *property)
    {
        std::vector<unsigned long> out;
        Atom type = 0;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char *data = nullptr;
        if (XGetWindowProperty(d, window, atom(property), 0, 1024, False, AnyPropertyType, &type, &format, &count,
                               &after, &data) == Success &&
            data && format == 32) {
            const auto *items = reinterpret_cast<const unsigned long *>(data);
            for (unsigned long i = 0; i < count; ++i)
                out.push_back(items[i] & 0xFFFFFFFFul);  // Xlib sign-extends format-32 items
        }
        if (data) XFree(data);
        return out;
    }

    void setValues(Window window, const char *property, Atom type, const std::vector<unsigned long> &items)
    {
        XChangeProperty(d, window, atom(property), type, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char *>(items.data()), int(items.size()));
        XSync(d, False);
    }

    bool has(Window window, const char *property, const char *item)
    {
        return std::ranges::count(values(window, property), atom(item)) > 0;
    }

    int stackIndex(Window window)
    {
        const auto stack = values(root(), "_NET_CLIENT_LIST_STACKING");
        const auto found = std::find(stack.begin(), stack.end(), window);
        return found == stack.end() ? -1 : int(found - stack.begin());
    }

    // A user-placed top-level window at `geometry` (kept there); a transparent 32-bit ARGB one when `argb`.
    Window makeWindow(const QRect &geometry, bool argb = false, const char *type = nullptr)
    {
        XSetWindowAttributes attributes{};
        unsigned long mask = CWBackPixel | CWBorderPixel;
        Visual *visual = CopyFromParent;
        int depth = CopyFromParent;
        attributes.background_pixel = argb ? 0 : 0xC0C0C0;
        if (argb) {
            XVisualInfo info;
            if (!XMatchVisualInfo(d, DefaultScreen(d), 32, TrueColor, &info)) return 0;
            visual = info.visual;
            depth = 32;
            attributes.colormap = XCreateColormap(d, root(), visual, AllocNone);
            mask |= CWColormap;
        }
        const Window window =
            XCreateWindow(d, root(), geometry.x(), geometry.y(), unsigned(geometry.width()),
                          unsigned(geometry.height()), 0, depth, InputOutput, visual, mask, &attributes);
        XStoreName(d, window, "x11-test-client");
        XSizeHints hints{};
        hints.flags = USPosition | USSize;
        hints.x = geometry.x();
        hints.y = geometry.y();
        hints.width = geometry.width();
        hints.height = geometry.height();
        XSetWMNormalHints(d, window, &hints);
        if (type) setValues(window, "_NET_WM_WINDOW_TYPE", XA_ATOM, {atom(type)});
        XMapWindow(d, window);
        XSync(d, False);
        return window;
    }
    void move(Window window, const QRect &r)
    {
        XMoveResizeWindow(d, window, r.x(), r.y(), unsigned(r.width()), unsigned(r.height()));
        XSync(d, False);
    }
    // Paints rectangles of a window in one colour; a 32-bit window takes the alpha as given.
    void fill(Window window, unsigned long argb, std::initializer_list<QRect> rects)
    {
        GC gc = XCreateGC(d, window, 0, nullptr);
        XSetForeground(d, gc, argb);
        for (const QRect &r : rects) XFillRectangle(d, window, gc, r.x(), r.y(), r.width(), r.height());
        XFreeGC(d, gc);
        XSync(d, False);
    }
    void close(Window window)
    {
        XDestroyWindow(d, window);
        XSync(d, False);
    }

    std::vector<Window> children(Window window)
    {
        Window rootReturn = 0, parent = 0, *list = nullptr;
        unsigned int count = 0;
        std::vector<Window> out;
        if (XQueryTree(d, window, &rootReturn, &parent, &list, &count)) out.assign(list, list + count);
        if (list) XFree(list);
        return out;
    }
    // Where a window lies on the screen, mapped or not.
    QRect onScreen(Window window)
    {
        XWindowAttributes a{};
        int x = 0, y = 0;
        Window child = 0;
        if (!XGetWindowAttributes(d, window, &a) || !XTranslateCoordinates(d, window, root(), 0, 0, &x, &y, &child))
            return {};
        return QRect(x, y, a.width, a.height);
    }

    // The manager's frame around a client: its top-level ancestor, border included.
    QRect outerFrame(Window window)
    {
        Window top = window;
        for (;;) {
            Window rootReturn = 0, parent = 0, *children = nullptr;
            unsigned int count = 0;
            if (!XQueryTree(d, top, &rootReturn, &parent, &children, &count)) return {};
            if (children) XFree(children);
            if (parent == rootReturn) break;
            top = parent;
        }
        XWindowAttributes a{};
        if (!XGetWindowAttributes(d, top, &a)) return {};
        return QRect(a.x, a.y, a.width + 2 * a.border_width, a.height + 2 * a.border_width);
    }

    // A request to the manager as a pager sends it (source 2: managers honour those).
    void ask(Window window, const char *message, std::initializer_list<long> data)
    {
        XEvent event{};
        event.xclient.type = ClientMessage;
        event.xclient.window = window;
        event.xclient.message_type = atom(message);
        event.xclient.format = 32;
        std::copy(data.begin(), data.end(), event.xclient.data.l);
        XSendEvent(d, root(), False, SubstructureRedirectMask | SubstructureNotifyMask, &event);
        XSync(d, False);
    }
    void restack(Window window, int detail) { ask(window, "_NET_RESTACK_WINDOW", {2, 0, detail}); }
};
