#include "platform/linux/X11WindowList.h"

#include <X11/Xlib-xcb.h>
#include <X11/Xlib.h>
#include <X11/extensions/dpms.h>
#include <X11/extensions/scrnsaver.h>
#include <algorithm>
#include <cstdlib>
#include <unistd.h>
#include <xcb/xcb.h>

namespace {

constexpr unsigned long allDesktops = 0xFFFFFFFFul;

bool contains(const std::vector<unsigned long> &list, unsigned long item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

X11WindowList::X11WindowList(const QByteArray &displayName, QObject *parent)
    : WindowList(parent)
    , x(displayName)
{
    if (!x.isOpen()) return;
    connect(&x, &X11Connection::rootPropertyChanged, this, &X11WindowList::rootPropertyChanged);
    // Top-level windows (managers' frames) mapped, unmapped, moved or resized; a dragged window's
    // stream of moves is told at most every 50 ms.
    x.watchRoot(SubstructureNotifyMask);
    moved.setSingleShot(true);
    moved.setInterval(50);
    connect(&moved, &QTimer::timeout, this, &WindowList::changed);

    Display *d = x.xdisplay();
    int eventBase = 0, errorBase = 0;
    dpms = DPMSQueryExtension(d, &eventBase, &errorBase) && DPMSCapable(d);
    if (XScreenSaverQueryExtension(d, &eventBase, &errorBase)) {
        saverNotify = eventBase + ScreenSaverNotify;
        XScreenSaverSelectInput(d, x.root(), ScreenSaverNotifyMask);
        XFlush(d);
    }
    connect(&x, &X11Connection::otherEvent, this, [this](int type) {
        if (type == saverNotify)
            emit changed();
        else if ((type == MapNotify || type == UnmapNotify || type == ConfigureNotify || type == DestroyNotify) &&
                 !moved.isActive())
            moved.start();
    });
}

bool X11WindowList::screensOff()
{
    if (!x.isOpen()) return false;
    Display *d = x.xdisplay();
    bool off = false;
    if (dpms) {
        CARD16 level = DPMSModeOn;
        BOOL enabled = False;
        const bool answered = DPMSInfo(d, &level, &enabled);
        off = powerLevelIsDark(answered, enabled, level);
    }
    if (!off && saverNotify >= 0) {
        XScreenSaverInfo info{};
        off = XScreenSaverQueryInfo(d, x.root(), &info) && info.state == ScreenSaverOn;
    }
    x.readQueuedSoon();
    return off;
}

bool X11WindowList::powerLevelIsDark(bool answered, bool enabled, int level)
{
    return answered && enabled && level != DPMSModeOn;
}

void X11WindowList::addOwnWindow(WId window) { own.insert(window); }

void X11WindowList::removeOwnWindow(WId window) { own.remove(window); }

void X11WindowList::rootPropertyChanged(unsigned long atom)
{
    if (atom == x.atom("_NET_CLIENT_LIST_STACKING") || atom == x.atom("_NET_ACTIVE_WINDOW") ||
        atom == x.atom("_NET_CURRENT_DESKTOP"))
        emit changed();
}

std::vector<ListedWindow> X11WindowList::windows()
{
    std::vector<ListedWindow> out;
    if (!x.isOpen()) return out;
    const std::optional<unsigned long> currentDesktop = x.value(x.root(), x.atom("_NET_CURRENT_DESKTOP"));
    const std::vector<unsigned long> stacking = x.values(x.root(), x.atom("_NET_CLIENT_LIST_STACKING"));
    const unsigned long hidden = x.atom("_NET_WM_STATE_HIDDEN");
    const unsigned long desktopType = x.atom("_NET_WM_WINDOW_TYPE_DESKTOP");
    const unsigned long dockType = x.atom("_NET_WM_WINDOW_TYPE_DOCK");
    const unsigned long ourPid = static_cast<unsigned long>(getpid());

    // Every question about every client goes out at once and the answers are read after: one
    // round trip for the whole list instead of several per window, since a covered room asks
    // four times a second.
    xcb_connection_t *c = XGetXCBConnection(x.xdisplay());
    const xcb_window_t root = xcb_window_t(x.root());
    struct Asked {
        xcb_window_t window;
        xcb_get_window_attributes_cookie_t attributes;
        xcb_get_geometry_cookie_t geometry;
        xcb_translate_coordinates_cookie_t corner;
        xcb_get_property_cookie_t state, desktop, types, pid, extents, opacity;
        bool aboveOurs;  // stacked above one of our own windows
    };
    auto property = [&](xcb_window_t w, const char *name) {
        return xcb_get_property(c, 0, w, xcb_atom_t(x.atom(name)), XCB_GET_PROPERTY_TYPE_ANY, 0, 4096);
    };
    std::vector<Asked> asked;
    asked.reserve(stacking.size());
    bool aboveOurs = false;
    for (const unsigned long client : stacking) {
        if (own.contains(WId(client))) {
            aboveOurs = true;
            continue;
        }
        const auto w = xcb_window_t(client);
        asked.push_back({w, xcb_get_window_attributes(c, w), xcb_get_geometry(c, w),
                         xcb_translate_coordinates(c, w, root, 0, 0), property(w, "_NET_WM_STATE"),
                         property(w, "_NET_WM_DESKTOP"), property(w, "_NET_WM_WINDOW_TYPE"), property(w, "_NET_WM_PID"),
                         property(w, "_NET_FRAME_EXTENTS"), property(w, "_NET_WM_WINDOW_OPACITY"), aboveOurs});
    }

    // A window that vanished meanwhile answers with an error, which reads as "no reply"; the
    // error is taken here so that it never reaches the event queue.
    auto taken = [](auto *answer, xcb_generic_error_t *error) {
        std::free(error);
        return answer;
    };
    auto values = [&](xcb_get_property_cookie_t cookie) {
        std::vector<unsigned long> items;
        xcb_generic_error_t *error = nullptr;
        if (xcb_get_property_reply_t *reply = xcb_get_property_reply(c, cookie, &error)) {
            if (reply->format == 32) {
                const auto *data = static_cast<const uint32_t *>(xcb_get_property_value(reply));
                items.assign(data, data + xcb_get_property_value_length(reply) / 4);
            }
            std::free(reply);
        }
        std::free(error);
        return items;
    };
    // Other programs' desktop windows above ours, by their place in `out`: judged by their
    // contents once every reply is read.
    std::vector<std::pair<size_t, xcb_window_t>> desktopsAbove;
    for (const Asked &a : asked) {
        // Every reply is read, the skipped windows' too, so none is left waiting in the connection.
        xcb_generic_error_t *e1 = nullptr, *e2 = nullptr, *e3 = nullptr;
        xcb_get_window_attributes_reply_t *attributes =
            taken(xcb_get_window_attributes_reply(c, a.attributes, &e1), e1);
        xcb_get_geometry_reply_t *geometry = taken(xcb_get_geometry_reply(c, a.geometry, &e2), e2);
        xcb_translate_coordinates_reply_t *corner = taken(xcb_translate_coordinates_reply(c, a.corner, &e3), e3);
        const std::vector<unsigned long> state = values(a.state), desktop = values(a.desktop), types = values(a.types),
                                         pid = values(a.pid), frame = values(a.extents), opacity = values(a.opacity);
        const bool viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE && geometry && corner;
        const bool elsewhere =
            currentDesktop && !desktop.empty() && desktop.front() != allDesktops && desktop.front() != *currentDesktop;
        const bool desktopAbove = contains(types, desktopType) && a.aboveOurs;
        if (viewable && !contains(state, hidden) && !elsewhere && (!contains(types, desktopType) || desktopAbove) &&
            !contains(types, dockType) && (pid.empty() || pid.front() != ourPid)) {
            // left, right, top, bottom
            std::vector<unsigned long> extents = frame;
            extents.resize(4, 0);
            ListedWindow listed;
            listed.frame =
                QRect(corner->dst_x - int(extents[0]), corner->dst_y - int(extents[2]),
                      geometry->width + int(extents[0] + extents[1]), geometry->height + int(extents[2] + extents[3]));
            if (!opacity.empty()) listed.opacity = double(opacity.front()) / double(0xFFFFFFFFul);
            if (desktopAbove) desktopsAbove.emplace_back(out.size(), a.window);
            out.push_back(listed);
        }
        std::free(attributes);
        std::free(geometry);
        std::free(corner);
    }
    for (auto it = desktopsAbove.rbegin(); it != desktopsAbove.rend(); ++it)
        if (transparency.seeThrough(it->second)) out.erase(out.begin() + qsizetype(it->first));
    x.readQueuedSoon();
    return out;
}
