#include "platform/linux/X11Connection.h"

#include <QSet>
#include <QSocketNotifier>
#include <QTimer>

#include <X11/Xatom.h>
#include <X11/Xlib.h>

namespace {

// Xlib's default error handler ends the process. A window may vanish between listing it and
// asking about it, so errors on our own connections are ignored (the request then reports
// failure to its caller); errors on other connections go to whoever handled them before.
QSet<Display *> &quietDisplays()
{
    static QSet<Display *> displays;
    return displays;
}

XErrorHandler previousHandler = nullptr;

int quietErrors(Display *display, XErrorEvent *event)
{
    if (quietDisplays().contains(display) || !previousHandler) return 0;
    return previousHandler(display, event);
}

void installQuietErrors()
{
    static bool installed = false;
    if (installed) return;
    installed = true;
    previousHandler = XSetErrorHandler(quietErrors);
}

}  // namespace

X11Connection::X11Connection(const QByteArray &displayName, QObject *parent)
    : QObject(parent)
{
    display = XOpenDisplay(displayName.isEmpty() ? nullptr : displayName.constData());
    if (!display) return;
    installQuietErrors();
    quietDisplays().insert(display);
    rootWindow = DefaultRootWindow(display);
    notifier = new QSocketNotifier(ConnectionNumber(display), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &X11Connection::readEvents);
}

X11Connection::X11Connection(_XDisplay *borrowed, QObject *parent)
    : QObject(parent)
    , display(borrowed)
    , owned(false)
{
    if (display) rootWindow = DefaultRootWindow(display);
}

X11Connection::~X11Connection()
{
    if (!display || !owned) return;
    delete notifier;
    quietDisplays().remove(display);
    XCloseDisplay(display);
}

X11Connection::XAtom X11Connection::atom(const char *name)
{
    if (!display) return 0;
    auto found = atoms.constFind(QByteArray(name));
    if (found != atoms.constEnd()) return *found;
    const XAtom made = XInternAtom(display, name, False);
    atoms.insert(QByteArray(name), made);
    return made;
}

void X11Connection::readProperty(XWindow window, XAtom property, int format,
                                 const std::function<void(const unsigned char *, unsigned long)> &use)
{
    if (!display || !window) return;
    Atom type = 0;
    int got = 0;
    unsigned long count = 0, after = 0;
    unsigned char *data = nullptr;
    const int status = XGetWindowProperty(display, window, property, 0, 4096, False, AnyPropertyType, &type, &got,
                                          &count, &after, &data);
    if (status == Success && data && got == format) use(data, count);
    if (data) XFree(data);
    readQueuedSoon();
}

std::vector<unsigned long> X11Connection::values(XWindow window, XAtom property)
{
    std::vector<unsigned long> out;
    readProperty(window, property, 32, [&](const unsigned char *data, unsigned long count) {
        // Xlib hands format-32 items as longs, sign-extended where long is 64 bits wide:
        // 0xFFFFFFFF (every desktop) would read as ~0ul.
        const auto *items = reinterpret_cast<const unsigned long *>(data);
        for (unsigned long i = 0; i < count; ++i) out.push_back(items[i] & 0xFFFFFFFFul);
    });
    return out;
}

std::optional<unsigned long> X11Connection::value(XWindow window, XAtom property)
{
    const std::vector<unsigned long> all = values(window, property);
    if (all.empty()) return std::nullopt;
    return all.front();
}

QByteArray X11Connection::bytes(XWindow window, XAtom property)
{
    QByteArray out;
    readProperty(window, property, 8, [&](const unsigned char *data, unsigned long count) {
        out = QByteArray(reinterpret_cast<const char *>(data), int(count));
    });
    return out;
}

int X11Connection::depth(XWindow window)
{
    if (!display || !window) return 0;
    XWindowAttributes attributes;
    const bool ok = XGetWindowAttributes(display, window, &attributes) != 0;
    readQueuedSoon();
    return ok ? attributes.depth : 0;
}

QByteArray X11Connection::managerName()
{
    const std::optional<unsigned long> check = value(rootWindow, atom("_NET_SUPPORTING_WM_CHECK"));
    if (!check) return {};
    // A stale check window left by a manager that died no longer points at itself.
    if (value(*check, atom("_NET_SUPPORTING_WM_CHECK")) != check) return {};
    return bytes(*check, atom("_NET_WM_NAME"));
}

void X11Connection::watchRoot(long extraMask)
{
    if (!display || !owned) return;
    XWindowAttributes attributes;
    long mask = PropertyChangeMask | extraMask;
    if (XGetWindowAttributes(display, rootWindow, &attributes)) mask |= attributes.your_event_mask;
    XSelectInput(display, rootWindow, mask);
    XFlush(display);
}

void X11Connection::sync()
{
    if (!display) return;
    XSync(display, False);
    readQueuedSoon();
}

void X11Connection::readEvents()
{
    readScheduled = false;
    if (!display || !owned) return;
    while (XPending(display) > 0) {
        XEvent event;
        XNextEvent(display, &event);
        if (event.type == PropertyNotify && event.xproperty.window == rootWindow)
            emit rootPropertyChanged(event.xproperty.atom);
        else
            emit otherEvent(event.type);
    }
}

void X11Connection::readQueuedSoon()
{
    if (!display || !owned || readScheduled || XEventsQueued(display, QueuedAlready) == 0) return;
    readScheduled = true;
    QTimer::singleShot(0, this, &X11Connection::readEvents);
}
