#include "platform/wayland/WaylandConnection.h"

#include "core/app/Log.h"

#include "fractional-scale-v1-client-protocol.h"
#include "plasma-virtual-desktop-client-protocol.h"
#include "plasma-window-management-client-protocol.h"
#include "viewporter-client-protocol.h"
#include "wlr-foreign-toplevel-management-unstable-v1-client-protocol.h"
#include "wlr-layer-shell-unstable-v1-client-protocol.h"
#include "xdg-output-unstable-v1-client-protocol.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <algorithm>
#include <cstring>
#include <wayland-client.h>

namespace {

// The versions this code speaks; a compositor offering less gets its own version.
constexpr uint32_t kCompositorVersion = 4;
constexpr uint32_t kOutputVersion = 4;
constexpr uint32_t kLayerShellVersion = 4;
constexpr uint32_t kXdgOutputVersion = 3;

template <typename T>
T *bind(wl_registry *registry, uint32_t name, const wl_interface *interface, uint32_t offered, uint32_t wanted)
{
    return static_cast<T *>(wl_registry_bind(registry, name, interface, std::min(offered, wanted)));
}

}  // namespace

WaylandConnection::WaylandConnection(const QByteArray &displayName, QObject *parent)
    : QObject(parent)
{
    display = wl_display_connect(displayName.isEmpty() ? nullptr : displayName.constData());
    if (!display) return;
    static const wl_registry_listener listener = {&WaylandConnection::global, &WaylandConnection::globalRemove};
    registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &listener, this);
    // Globals first, then the properties of the outputs they announced.
    wl_display_roundtrip(display);
    wl_display_roundtrip(display);

    notifier = std::make_unique<QSocketNotifier>(wl_display_get_fd(display), QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &WaylandConnection::readEvents);
    // Events queued while somebody else read the socket (the Vulkan driver waits on it for its
    // buffers) and requests not yet sent are handled before the loop sleeps.
    if (auto *dispatcher = QCoreApplication::eventDispatcher())
        aboutToBlock =
            connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, &WaylandConnection::dispatchPending);
}

WaylandConnection::~WaylandConnection()
{
    disconnect(aboutToBlock);
    notifier.reset();
    if (!display) return;
    for (auto &entry : outputList) {
        if (entry->output.xdgOutput) zxdg_output_v1_destroy(entry->output.xdgOutput);
        wl_output_destroy(entry->output.output);
    }
    if (fractionalGlobal) wp_fractional_scale_manager_v1_destroy(fractionalGlobal);
    if (viewporterGlobal) wp_viewporter_destroy(viewporterGlobal);
    if (layerShellGlobal) zwlr_layer_shell_v1_destroy(layerShellGlobal);
    if (xdgOutputManager) zxdg_output_manager_v1_destroy(xdgOutputManager);
    if (subcompositorGlobal) wl_subcompositor_destroy(subcompositorGlobal);
    if (compositorGlobal) wl_compositor_destroy(compositorGlobal);
    wl_registry_destroy(registry);
    wl_display_flush(display);
    wl_display_disconnect(display);
}

std::optional<bool> WaylandConnection::offersLayerShell(const QByteArray &displayName)
{
    wl_display *d = wl_display_connect(displayName.isEmpty() ? nullptr : displayName.constData());
    if (!d) return std::nullopt;
    bool offered = false;
    static const wl_registry_listener listener = {
        [](void *data, wl_registry *, uint32_t, const char *interface, uint32_t) {
            if (std::strcmp(interface, zwlr_layer_shell_v1_interface.name) == 0) *static_cast<bool *>(data) = true;
        },
        [](void *, wl_registry *, uint32_t) {}};
    wl_registry *r = wl_display_get_registry(d);
    wl_registry_add_listener(r, &listener, &offered);
    const bool answered = wl_display_roundtrip(d) >= 0;
    wl_registry_destroy(r);
    wl_display_disconnect(d);
    if (!answered) return std::nullopt;
    return offered;
}

std::vector<const WaylandConnection::Output *> WaylandConnection::outputs() const
{
    std::vector<const Output *> ready;
    for (const auto &entry : outputList)
        if (entry->output.ready) ready.push_back(&entry->output);
    return ready;
}

const WaylandConnection::Output *WaylandConnection::output(uint32_t id) const
{
    for (const auto &entry : outputList)
        if (entry->output.id == id) return &entry->output;
    return nullptr;
}

const WaylandConnection::Output *WaylandConnection::outputOf(const wl_output *output) const
{
    for (const auto &entry : outputList)
        if (entry->output.output == output) return &entry->output;
    return nullptr;
}

bool WaylandConnection::offers(const wl_interface &interface) const
{
    return lateGlobals.count(QByteArray(interface.name)) > 0;
}

void *WaylandConnection::bindWhenListening(const wl_interface &interface, uint32_t version)
{
    const auto it = lateGlobals.find(QByteArray(interface.name));
    if (!display || it == lateGlobals.end()) return nullptr;
    return wl_registry_bind(registry, it->second.name, &interface, std::min(it->second.version, version));
}

void WaylandConnection::flush()
{
    if (display) wl_display_flush(display);
}

void WaylandConnection::global(void *data, wl_registry *registry, uint32_t name, const char *interface,
                               uint32_t version)
{
    auto *self = static_cast<WaylandConnection *>(data);
    const auto is = [interface](const wl_interface &i) { return std::strcmp(interface, i.name) == 0; };
    if (is(wl_compositor_interface))
        self->compositorGlobal =
            bind<wl_compositor>(registry, name, &wl_compositor_interface, version, kCompositorVersion);
    else if (is(wl_subcompositor_interface))
        self->subcompositorGlobal = bind<wl_subcompositor>(registry, name, &wl_subcompositor_interface, version, 1);
    else if (is(zwlr_layer_shell_v1_interface))
        self->layerShellGlobal =
            bind<zwlr_layer_shell_v1>(registry, name, &zwlr_layer_shell_v1_interface, version, kLayerShellVersion);
    else if (is(zwlr_foreign_toplevel_manager_v1_interface) || is(org_kde_plasma_window_management_interface) ||
             is(org_kde_plasma_virtual_desktop_management_interface))
        self->lateGlobals[QByteArray(interface)] = Offer{name, version};
    else if (is(wp_fractional_scale_manager_v1_interface))
        self->fractionalGlobal =
            bind<wp_fractional_scale_manager_v1>(registry, name, &wp_fractional_scale_manager_v1_interface, version, 1);
    else if (is(wp_viewporter_interface))
        self->viewporterGlobal = bind<wp_viewporter>(registry, name, &wp_viewporter_interface, version, 1);
    else if (is(zxdg_output_manager_v1_interface)) {
        self->xdgOutputManager =
            bind<zxdg_output_manager_v1>(registry, name, &zxdg_output_manager_v1_interface, version, kXdgOutputVersion);
        for (auto &entry : self->outputList) self->watchXdgOutput(*entry);
    } else if (is(wl_output_interface))
        self->addOutput(name, version);
}

void WaylandConnection::globalRemove(void *data, wl_registry *, uint32_t name)
{
    auto *self = static_cast<WaylandConnection *>(data);
    auto &list = self->outputList;
    const auto it =
        std::find_if(list.begin(), list.end(), [name](const auto &entry) { return entry->output.id == name; });
    if (it == list.end()) return;
    const bool wasReady = (*it)->output.ready;
    if ((*it)->output.xdgOutput) zxdg_output_v1_destroy((*it)->output.xdgOutput);
    wl_output_destroy((*it)->output.output);
    list.erase(it);
    if (wasReady) emit self->outputsChanged();
}

void WaylandConnection::addOutput(uint32_t id, uint32_t version)
{
    auto entry = std::make_unique<Entry>();
    entry->connection = this;
    entry->output.id = id;
    entry->output.output = bind<wl_output>(registry, id, &wl_output_interface, version, kOutputVersion);
    static const wl_output_listener listener = {
        [](void *, wl_output *, int32_t, int32_t, int32_t, int32_t, int32_t, const char *, const char *, int32_t) {},
        [](void *data, wl_output *, uint32_t flags, int32_t width, int32_t height, int32_t) {
            if (flags & WL_OUTPUT_MODE_CURRENT) static_cast<Entry *>(data)->output.mode = QSize(width, height);
        },
        [](void *data, wl_output *) {
            auto *e = static_cast<Entry *>(data);
            e->connection->outputDone(*e);
        },
        [](void *data, wl_output *, int32_t factor) { static_cast<Entry *>(data)->output.scale = std::max(1, factor); },
        [](void *data, wl_output *, const char *name) {
            // xdg-output's name wins where both come: older compositors only have that one.
            auto *e = static_cast<Entry *>(data);
            if (!e->output.xdgOutput) e->output.name = QString::fromUtf8(name);
        },
        [](void *, wl_output *, const char *) {},
    };
    wl_output_add_listener(entry->output.output, &listener, entry.get());
    if (xdgOutputManager) watchXdgOutput(*entry);
    outputList.push_back(std::move(entry));
}

void WaylandConnection::watchXdgOutput(Entry &entry)
{
    if (entry.output.xdgOutput || !xdgOutputManager) return;
    entry.output.xdgOutput = zxdg_output_manager_v1_get_xdg_output(xdgOutputManager, entry.output.output);
    static const zxdg_output_v1_listener listener = {
        [](void *data, zxdg_output_v1 *, int32_t x, int32_t y) {
            static_cast<Entry *>(data)->output.logical.moveTopLeft(QPoint(x, y));
        },
        [](void *data, zxdg_output_v1 *, int32_t width, int32_t height) {
            static_cast<Entry *>(data)->output.logical.setSize(QSize(width, height));
        },
        [](void *, zxdg_output_v1 *) {},  // from version 3 on, wl_output.done ends a change
        [](void *data, zxdg_output_v1 *, const char *name) {
            static_cast<Entry *>(data)->output.name = QString::fromUtf8(name);
        },
        [](void *, zxdg_output_v1 *, const char *) {},
    };
    zxdg_output_v1_add_listener(entry.output.xdgOutput, &listener, &entry);
}

void WaylandConnection::outputDone(Entry &entry)
{
    Output &o = entry.output;
    // Without xdg-output the layout is unknown: each output stands at the origin at its size.
    if (!o.xdgOutput && o.mode.isValid()) o.logical = QRect(QPoint(0, 0), o.mode / o.scale);
    if (o.name.isEmpty()) o.name = QStringLiteral("wl_output-%1").arg(o.id);
    o.ready = true;
    emit outputsChanged();
}

void WaylandConnection::readEvents()
{
    if (!display) return;
    while (wl_display_prepare_read(display) != 0) wl_display_dispatch_pending(display);
    if (wl_display_read_events(display) < 0 || wl_display_dispatch_pending(display) < 0) {
        dispatchPending();  // reports the loss
        return;
    }
    wl_display_flush(display);
}

void WaylandConnection::dispatchPending()
{
    if (!display || lostReported) return;
    if (wl_display_dispatch_pending(display) >= 0 && wl_display_get_error(display) == 0) {
        wl_display_flush(display);
        return;
    }
    lostReported = true;
    notifier->setEnabled(false);
    Log::write(
        QStringLiteral("Wayland: conexão com o compositor perdida (erro %1)").arg(wl_display_get_error(display)));
    emit lost();
}
