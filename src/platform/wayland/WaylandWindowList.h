#pragma once

#include "core/scheduling/WindowList.h"

#include <QString>
#include <memory>
#include <vector>

class WaylandConnection;
struct wl_output;
struct zwlr_foreign_toplevel_handle_v1;

// Other programs' toplevels from the compositor's foreign-toplevel list. Wayland tells a client
// no window geometry, only states: a fullscreen or maximized toplevel is listed as covering each
// output it is on, whole (a maximized window leaves at most the panels, which the moving part of
// the room does not reach). Minimized toplevels and this program's own (its app id) are left out.
// A toplevel on a workspace that is not shown still counts: the protocol does not say which one
// is; the frame callbacks keep such a room paced all the same. Without the global the list is
// empty. Main thread; the connection outlives it.
class WaylandWindowList : public WindowList {
    Q_OBJECT
public:
    // `ownAppId`: the app id of this program's windows (Qt's desktop file name).
    WaylandWindowList(WaylandConnection &connection, const QString &ownAppId, QObject *parent = nullptr);
    ~WaylandWindowList() override;

    std::vector<ListedWindow> windows() override;
    // Everything it lists comes from the compositor's events, each told as a change.
    bool announcesMoves() const override { return true; }
    bool available() const { return manager != nullptr; }

private:
    struct Toplevel {
        WaylandWindowList *list = nullptr;
        zwlr_foreign_toplevel_handle_v1 *handle = nullptr;
        QString appId, pendingAppId;
        std::vector<wl_output *> outputs;
        bool covers = false, pendingCovers = false;
    };
    void add(zwlr_foreign_toplevel_handle_v1 *handle);
    void remove(Toplevel *toplevel);

    WaylandConnection &connection;
    QString ownAppId;
    struct zwlr_foreign_toplevel_manager_v1 *manager = nullptr;
    std::vector<std::unique_ptr<Toplevel>> toplevels;
};
