#pragma once

#include "core/scheduling/WindowList.h"

#include <QRect>
#include <QString>
#include <memory>
#include <vector>

class WaylandConnection;
struct org_kde_plasma_virtual_desktop;
struct org_kde_plasma_virtual_desktop_management;
struct org_kde_plasma_window;
struct org_kde_plasma_window_management;

// Other programs' windows from KWin's window list, with their geometry: the windows on the
// current virtual desktop that are not minimized and that the task bar shows (Plasma's own
// desktop, panels and popups are left out, as are this program's windows, by process id). KWin
// offers the list only to programs whose desktop file asks for it (X-KDE-Wayland-Interfaces):
// without the global the list is empty. Main thread; the connection outlives it.
class PlasmaWindowList : public WindowList {
    Q_OBJECT
public:
    explicit PlasmaWindowList(WaylandConnection &connection, QObject *parent = nullptr);
    ~PlasmaWindowList() override;

    // Whether this compositor lets this program see its window list.
    static bool offered(const WaylandConnection &connection);

    std::vector<ListedWindow> windows() override;
    // Everything it lists, geometry included, comes from KWin's events, each told as a change.
    bool announcesMoves() const override { return true; }

private:
    struct Window {
        PlasmaWindowList *list = nullptr;
        org_kde_plasma_window *handle = nullptr;
        QRect geometry;
        uint32_t state = 0;
        uint32_t pid = 0;
        std::vector<QString> desktops;
    };
    struct Desktop {
        PlasmaWindowList *list = nullptr;
        org_kde_plasma_virtual_desktop *handle = nullptr;
        QString id;
        bool active = false;
    };
    void add(org_kde_plasma_window *handle);
    void remove(Window *window);
    void addDesktop(const QString &id);
    bool shown(const Window &window) const;

    WaylandConnection &connection;
    org_kde_plasma_window_management *manager = nullptr;
    org_kde_plasma_virtual_desktop_management *desktopManager = nullptr;
    std::vector<std::unique_ptr<Window>> windowList;
    std::vector<std::unique_ptr<Desktop>> desktopList;
};
