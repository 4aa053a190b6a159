#include "platform/wayland/PlasmaWindowList.h"

#include "platform/wayland/WaylandConnection.h"

#include "plasma-virtual-desktop-client-protocol.h"
#include "plasma-window-management-client-protocol.h"

#include <algorithm>
#include <unistd.h>
#include <wayland-client.h>

namespace {

// Events this list does not need; every event of the bound version needs a handler.
template <typename... Args> void ignore(void *, Args...) {}

}  // namespace

PlasmaWindowList::PlasmaWindowList(WaylandConnection &c, QObject *parent)
    : WindowList(parent)
    , connection(c)
    , manager(static_cast<org_kde_plasma_window_management *>(
          c.bindWhenListening(org_kde_plasma_window_management_interface, 16)))
    , desktopManager(static_cast<org_kde_plasma_virtual_desktop_management *>(
          c.bindWhenListening(org_kde_plasma_virtual_desktop_management_interface, 2)))
{
    if (!manager) return;
    // From version 13 on windows are announced by uuid (the number is deprecated).
    const bool byUuid = wl_proxy_get_version(reinterpret_cast<wl_proxy *>(manager)) >=
                        ORG_KDE_PLASMA_WINDOW_MANAGEMENT_WINDOW_WITH_UUID_SINCE_VERSION;
    static const org_kde_plasma_window_management_listener byNumber = {
        ignore<org_kde_plasma_window_management *, uint32_t>,
        [](void *data, org_kde_plasma_window_management *m, uint32_t id) {
            static_cast<PlasmaWindowList *>(data)->add(org_kde_plasma_window_management_get_window(m, id));
        },
        ignore<org_kde_plasma_window_management *, wl_array *>,
        ignore<org_kde_plasma_window_management *, const char *>,
        ignore<org_kde_plasma_window_management *, uint32_t, const char *>,
    };
    static const org_kde_plasma_window_management_listener byUuidListener = {
        ignore<org_kde_plasma_window_management *, uint32_t>,
        ignore<org_kde_plasma_window_management *, uint32_t>,
        ignore<org_kde_plasma_window_management *, wl_array *>,
        ignore<org_kde_plasma_window_management *, const char *>,
        [](void *data, org_kde_plasma_window_management *m, uint32_t, const char *uuid) {
            static_cast<PlasmaWindowList *>(data)->add(org_kde_plasma_window_management_get_window_by_uuid(m, uuid));
        },
    };
    org_kde_plasma_window_management_add_listener(manager, byUuid ? &byUuidListener : &byNumber, this);
    if (desktopManager) {
        static const org_kde_plasma_virtual_desktop_management_listener desktops = {
            [](void *data, org_kde_plasma_virtual_desktop_management *, const char *id, uint32_t) {
                static_cast<PlasmaWindowList *>(data)->addDesktop(QString::fromUtf8(id));
            },
            [](void *data, org_kde_plasma_virtual_desktop_management *, const char *id) {
                auto &list = static_cast<PlasmaWindowList *>(data)->desktopList;
                const auto it = std::find_if(list.begin(), list.end(), [id](const auto &d) { return d->id == id; });
                if (it == list.end()) return;
                org_kde_plasma_virtual_desktop_destroy((*it)->handle);
                list.erase(it);
            },
            ignore<org_kde_plasma_virtual_desktop_management *>,
            ignore<org_kde_plasma_virtual_desktop_management *, uint32_t>,
        };
        org_kde_plasma_virtual_desktop_management_add_listener(desktopManager, &desktops, this);
    }
    connection.flush();
}

bool PlasmaWindowList::offered(const WaylandConnection &connection)
{
    return connection.offers(org_kde_plasma_window_management_interface);
}

PlasmaWindowList::~PlasmaWindowList()
{
    for (auto &w : windowList) org_kde_plasma_window_destroy(w->handle);
    for (auto &d : desktopList) org_kde_plasma_virtual_desktop_destroy(d->handle);
    if (manager) org_kde_plasma_window_management_destroy(manager);
    if (desktopManager) org_kde_plasma_virtual_desktop_management_destroy(desktopManager);
    connection.flush();
}

void PlasmaWindowList::add(org_kde_plasma_window *handle)
{
    auto w = std::make_unique<Window>();
    w->list = this;
    w->handle = handle;
    static const org_kde_plasma_window_listener listener = {
        ignore<org_kde_plasma_window *, const char *>,  // title
        ignore<org_kde_plasma_window *, const char *>,  // app id
        [](void *data, org_kde_plasma_window *, uint32_t flags) {
            static_cast<Window *>(data)->state = flags;
            emit static_cast<Window *>(data)->list->changed();
        },
        ignore<org_kde_plasma_window *, int32_t>,       // the numbered desktop of old
        ignore<org_kde_plasma_window *, const char *>,  // icon name
        [](void *data, org_kde_plasma_window *) {
            auto *w = static_cast<Window *>(data);
            w->list->remove(w);
        },
        ignore<org_kde_plasma_window *>,                           // initial state complete
        ignore<org_kde_plasma_window *, org_kde_plasma_window *>,  // parent
        [](void *data, org_kde_plasma_window *, int32_t x, int32_t y, uint32_t width, uint32_t height) {
            static_cast<Window *>(data)->geometry = QRect(x, y, int(width), int(height));
            emit static_cast<Window *>(data)->list->changed();
        },
        ignore<org_kde_plasma_window *>,  // icon
        [](void *data, org_kde_plasma_window *, uint32_t pid) { static_cast<Window *>(data)->pid = pid; },
        [](void *data, org_kde_plasma_window *, const char *id) {
            static_cast<Window *>(data)->desktops.push_back(QString::fromUtf8(id));
            emit static_cast<Window *>(data)->list->changed();
        },
        [](void *data, org_kde_plasma_window *, const char *id) {
            auto &desktops = static_cast<Window *>(data)->desktops;
            desktops.erase(std::remove(desktops.begin(), desktops.end(), QString::fromUtf8(id)), desktops.end());
            emit static_cast<Window *>(data)->list->changed();
        },
        ignore<org_kde_plasma_window *, const char *, const char *>,  // application menu
        ignore<org_kde_plasma_window *, const char *>,                // activity entered
        ignore<org_kde_plasma_window *, const char *>,                // activity left
        ignore<org_kde_plasma_window *, const char *>,                // resource name
    };
    org_kde_plasma_window_add_listener(handle, &listener, w.get());
    windowList.push_back(std::move(w));
}

void PlasmaWindowList::remove(Window *window)
{
    const auto it =
        std::find_if(windowList.begin(), windowList.end(), [window](const auto &w) { return w.get() == window; });
    if (it == windowList.end()) return;
    org_kde_plasma_window_destroy((*it)->handle);
    windowList.erase(it);
    emit changed();
}

void PlasmaWindowList::addDesktop(const QString &id)
{
    auto d = std::make_unique<Desktop>();
    d->list = this;
    d->id = id;
    d->handle = org_kde_plasma_virtual_desktop_management_get_virtual_desktop(desktopManager, id.toUtf8().constData());
    static const org_kde_plasma_virtual_desktop_listener listener = {
        ignore<org_kde_plasma_virtual_desktop *, const char *>,  // id
        ignore<org_kde_plasma_virtual_desktop *, const char *>,  // name
        [](void *data, org_kde_plasma_virtual_desktop *) {
            static_cast<Desktop *>(data)->active = true;
            emit static_cast<Desktop *>(data)->list->changed();
        },
        [](void *data, org_kde_plasma_virtual_desktop *) { static_cast<Desktop *>(data)->active = false; },
        ignore<org_kde_plasma_virtual_desktop *>,  // done
        ignore<org_kde_plasma_virtual_desktop *>,  // removed (the manager says so too)
    };
    org_kde_plasma_virtual_desktop_add_listener(d->handle, &listener, d.get());
    desktopList.push_back(std::move(d));
}

bool PlasmaWindowList::shown(const Window &w) const
{
    if (w.state &
        (ORG_KDE_PLASMA_WINDOW_MANAGEMENT_STATE_MINIMIZED | ORG_KDE_PLASMA_WINDOW_MANAGEMENT_STATE_SKIPTASKBAR))
        return false;
    if (w.pid == uint32_t(::getpid()) || w.geometry.isEmpty()) return false;
    if (w.state & ORG_KDE_PLASMA_WINDOW_MANAGEMENT_STATE_ON_ALL_DESKTOPS || desktopList.empty()) return true;
    // Without a word on desktops yet, a window counts: on a single desktop it is on it.
    if (w.desktops.empty()) return true;
    return std::any_of(desktopList.begin(), desktopList.end(), [&w](const auto &d) {
        return d->active && std::find(w.desktops.begin(), w.desktops.end(), d->id) != w.desktops.end();
    });
}

std::vector<ListedWindow> PlasmaWindowList::windows()
{
    std::vector<ListedWindow> out;
    for (const auto &w : windowList)
        if (shown(*w)) out.push_back(ListedWindow{w->geometry, 1.0});
    return out;
}
