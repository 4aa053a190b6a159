#include "platform/linux/X11WindowList.h"

#include <X11/Xlib.h>
#include <algorithm>
#include <unistd.h>

namespace {

constexpr unsigned long allDesktops = 0xFFFFFFFFul;

bool contains(const std::vector<unsigned long> &list, unsigned long item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

X11WindowList::X11WindowList(const QByteArray &displayName, QObject *parent)
    : WindowList(parent), x(displayName)
{
    if (!x.isOpen())
        return;
    connect(&x, &X11Connection::rootPropertyChanged, this, &X11WindowList::rootPropertyChanged);
    x.watchRoot();
}

void X11WindowList::addOwnWindow(WId window)
{
    own.insert(window);
}

void X11WindowList::removeOwnWindow(WId window)
{
    own.remove(window);
}

void X11WindowList::rootPropertyChanged(unsigned long atom)
{
    if (atom == x.atom("_NET_CLIENT_LIST_STACKING") || atom == x.atom("_NET_ACTIVE_WINDOW")
        || atom == x.atom("_NET_CURRENT_DESKTOP"))
        emit changed();
}

std::vector<ListedWindow> X11WindowList::windows()
{
    std::vector<ListedWindow> out;
    if (!x.isOpen())
        return out;
    Display *display = x.xdisplay();
    const std::optional<unsigned long> currentDesktop = x.value(x.root(), x.atom("_NET_CURRENT_DESKTOP"));
    const unsigned long hidden = x.atom("_NET_WM_STATE_HIDDEN");
    const unsigned long desktopType = x.atom("_NET_WM_WINDOW_TYPE_DESKTOP");
    const unsigned long dockType = x.atom("_NET_WM_WINDOW_TYPE_DOCK");
    const unsigned long ourPid = static_cast<unsigned long>(getpid());

    for (const unsigned long client : x.values(x.root(), x.atom("_NET_CLIENT_LIST_STACKING"))) {
        if (own.contains(WId(client)))
            continue;
        XWindowAttributes attributes;
        if (!XGetWindowAttributes(display, client, &attributes) || attributes.map_state != IsViewable)
            continue;
        if (contains(x.values(client, x.atom("_NET_WM_STATE")), hidden))
            continue;
        const std::optional<unsigned long> desktop = x.value(client, x.atom("_NET_WM_DESKTOP"));
        if (currentDesktop && desktop && *desktop != allDesktops && *desktop != *currentDesktop)
            continue;
        const std::vector<unsigned long> types = x.values(client, x.atom("_NET_WM_WINDOW_TYPE"));
        if (contains(types, desktopType) || contains(types, dockType))
            continue;
        if (x.value(client, x.atom("_NET_WM_PID")) == ourPid)
            continue;

        int rootX = 0, rootY = 0;
        Window child = 0;
        if (!XTranslateCoordinates(display, client, x.root(), 0, 0, &rootX, &rootY, &child))
            continue;
        // left, right, top, bottom
        std::vector<unsigned long> extents = x.values(client, x.atom("_NET_FRAME_EXTENTS"));
        extents.resize(4, 0);
        ListedWindow listed;
        listed.frame = QRect(rootX - int(extents[0]), rootY - int(extents[2]),
                             attributes.width + int(extents[0] + extents[1]),
                             attributes.height + int(extents[2] + extents[3]));
        if (const std::optional<unsigned long> opacity = x.value(client, x.atom("_NET_WM_WINDOW_OPACITY")))
            listed.opacity = double(*opacity) / double(0xFFFFFFFFul);
        out.push_back(listed);
    }
    x.readQueuedSoon();
    return out;
}
