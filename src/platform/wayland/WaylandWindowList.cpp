#include "platform/wayland/WaylandWindowList.h"

#include "platform/wayland/WaylandConnection.h"

#include "wlr-foreign-toplevel-management-unstable-v1-client-protocol.h"

#include <algorithm>
#include <wayland-client.h>

WaylandWindowList::WaylandWindowList(WaylandConnection &c, const QString &appId, QObject *parent)
    : WindowList(parent)
    , connection(c)
    , ownAppId(appId)
    , manager(static_cast<zwlr_foreign_toplevel_manager_v1 *>(
          c.bindWhenListening(zwlr_foreign_toplevel_manager_v1_interface, 3)))
{
    if (!manager) return;
    static const zwlr_foreign_toplevel_manager_v1_listener listener = {
        [](void *data, zwlr_foreign_toplevel_manager_v1 *, zwlr_foreign_toplevel_handle_v1 *handle) {
            static_cast<WaylandWindowList *>(data)->add(handle);
        },
        [](void *data, zwlr_foreign_toplevel_manager_v1 *) {
            static_cast<WaylandWindowList *>(data)->manager = nullptr;
        },
    };
    zwlr_foreign_toplevel_manager_v1_add_listener(manager, &listener, this);
    connection.flush();
    // The outputs a toplevel is on name themselves; one that went away no longer counts.
    connect(&connection, &WaylandConnection::outputsChanged, this, &WindowList::changed);
}

WaylandWindowList::~WaylandWindowList()
{
    for (auto &t : toplevels) zwlr_foreign_toplevel_handle_v1_destroy(t->handle);
    if (manager) zwlr_foreign_toplevel_manager_v1_destroy(manager);
    connection.flush();
}

void WaylandWindowList::add(zwlr_foreign_toplevel_handle_v1 *handle)
{
    auto t = std::make_unique<Toplevel>();
    t->list = this;
    t->handle = handle;
    static const zwlr_foreign_toplevel_handle_v1_listener listener = {
        [](void *, zwlr_foreign_toplevel_handle_v1 *, const char *) {},  // title
        [](void *data, zwlr_foreign_toplevel_handle_v1 *, const char *appId) {
            static_cast<Toplevel *>(data)->pendingAppId = QString::fromUtf8(appId);
        },
        [](void *data, zwlr_foreign_toplevel_handle_v1 *, wl_output *output) {
            auto &outputs = static_cast<Toplevel *>(data)->outputs;
            if (std::find(outputs.begin(), outputs.end(), output) == outputs.end()) outputs.push_back(output);
        },
        [](void *data, zwlr_foreign_toplevel_handle_v1 *, wl_output *output) {
            auto &outputs = static_cast<Toplevel *>(data)->outputs;
            outputs.erase(std::remove(outputs.begin(), outputs.end(), output), outputs.end());
        },
        [](void *data, zwlr_foreign_toplevel_handle_v1 *, wl_array *states) {
            bool covering = false, minimized = false;
            const auto *begin = static_cast<const uint32_t *>(states->data);
            for (const uint32_t *s = begin; s < begin + states->size / sizeof(uint32_t); ++s) {
                covering |= *s == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_FULLSCREEN ||
                            *s == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MAXIMIZED;
                minimized |= *s == ZWLR_FOREIGN_TOPLEVEL_HANDLE_V1_STATE_MINIMIZED;
            }
            static_cast<Toplevel *>(data)->pendingCovers = covering && !minimized;
        },
        [](void *data, zwlr_foreign_toplevel_handle_v1 *) {
            auto *t = static_cast<Toplevel *>(data);
            t->appId = t->pendingAppId;
            t->covers = t->pendingCovers;
            emit t->list->changed();
        },
        [](void *data, zwlr_foreign_toplevel_handle_v1 *) {
            auto *t = static_cast<Toplevel *>(data);
            t->list->remove(t);
        },
        [](void *, zwlr_foreign_toplevel_handle_v1 *, zwlr_foreign_toplevel_handle_v1 *) {},  // parent
    };
    zwlr_foreign_toplevel_handle_v1_add_listener(handle, &listener, t.get());
    toplevels.push_back(std::move(t));
}

void WaylandWindowList::remove(Toplevel *toplevel)
{
    const auto it =
        std::find_if(toplevels.begin(), toplevels.end(), [toplevel](const auto &t) { return t.get() == toplevel; });
    if (it == toplevels.end()) return;
    const bool covered = (*it)->covers;
    zwlr_foreign_toplevel_handle_v1_destroy((*it)->handle);
    toplevels.erase(it);
    if (covered) emit changed();
}

std::vector<ListedWindow> WaylandWindowList::windows()
{
    std::vector<ListedWindow> out;
    for (const auto &t : toplevels) {
        if (!t->covers || t->appId == ownAppId) continue;
        for (wl_output *o : t->outputs)
            if (const WaylandConnection::Output *known = connection.outputOf(o))
                out.push_back(ListedWindow{known->logical, 1.0});
    }
    return out;
}
