#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <functional>
#include <optional>
#include <vector>

class QSocketNotifier;
struct _XDisplay;

// An Xlib connection of our own to the X server, independent of Qt's platform plugin, so the
// X11 services also work (and are tested) in a plain QCoreApplication. Requests that hit a
// window which vanished meanwhile fail quietly: their errors are swallowed, never fatal.
// Main thread only.
class X11Connection : public QObject {
    Q_OBJECT
public:
    using XWindow = unsigned long;
    using XAtom = unsigned long;

    // An empty name opens $DISPLAY. Without a server the connection stays closed.
    explicit X11Connection(const QByteArray &displayName = {}, QObject *parent = nullptr);
    // Uses another owner's connection (Qt's) without closing it or reading its events, so
    // requests are ordered with that owner's own.
    explicit X11Connection(_XDisplay *borrowed, QObject *parent = nullptr);
    ~X11Connection() override;

    bool isOpen() const { return display != nullptr; }
    _XDisplay *xdisplay() const { return display; }
    XWindow root() const { return rootWindow; }

    XAtom atom(const char *name);

    // Format-32 values of a property (CARDINAL, WINDOW or ATOM lists); empty when unset.
    std::vector<unsigned long> values(XWindow window, XAtom property);
    std::optional<unsigned long> value(XWindow window, XAtom property);
    // The raw bytes of a format-8 property (UTF8_STRING, STRING, WM_CLASS).
    QByteArray bytes(XWindow window, XAtom property);

    // Colour depth of a window; 0 when it is gone.
    int depth(XWindow window);

    // The name the running window manager gives itself (_NET_SUPPORTING_WM_CHECK); empty when
    // no EWMH manager runs.
    QByteArray managerName();

    // PropertyNotify of the root window arrives as rootPropertyChanged; the events of `extraMask`
    // (X event mask bits) as otherEvent.
    void watchRoot(long extraMask = 0);

    // Sends buffered requests and waits until the server has handled them.
    void sync();

    // Call after raw Xlib round trips: events they pulled into Xlib's queue, where the socket
    // notifier no longer sees them, are read from the event loop, never from inside a caller.
    void readQueuedSoon();

signals:
    void rootPropertyChanged(unsigned long atom);
    // Any other event, by its type; an extension's events come as its event base + their code.
    void otherEvent(int type);

private:
    // Hands the property's items to `use` when it is set with the given format.
    void readProperty(XWindow window, XAtom property, int format,
                      const std::function<void(const unsigned char *, unsigned long)> &use);
    void readEvents();

    _XDisplay *display = nullptr;
    XWindow rootWindow = 0;
    QSocketNotifier *notifier = nullptr;
    QHash<QByteArray, XAtom> atoms;
    bool readScheduled = false;
    bool owned = true;
};
