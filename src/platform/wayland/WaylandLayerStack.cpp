#include "platform/wayland/WaylandLayerStack.h"

#include "core/app/Log.h"
#include "platform/wayland/WaylandConnection.h"
#include "render/SceneRenderer.h"
#include "vulkan/SwapchainTarget.h"
#include "scene/BaseSurface.h"

#include "fractional-scale-v1-client-protocol.h"
#include "viewporter-client-protocol.h"
#include "wlr-layer-shell-unstable-v1-client-protocol.h"

#include <cmath>
#include <wayland-client.h>
// After wayland-client.h, which it needs.
#include <vulkan/vulkan_wayland.h>

namespace {

// An empty region: clicks and touches go through to whatever lies below the room.
void takeNoInput(wl_compositor *compositor, wl_surface *surface)
{
    wl_region *none = wl_compositor_create_region(compositor);
    wl_surface_set_input_region(surface, none);
    wl_region_destroy(none);
}

}  // namespace

WaylandLayerStack::WaylandLayerStack(SceneRenderer &r, WaylandConnection &c, uint32_t outputId)
    : renderer(r)
    , connection(c)
    , output(outputId)
{
    const WaylandConnection::Output *o = connection.output(output);
    if (!o || !connection.layerShell() || !connection.compositor()) {
        failed = true;
        return;
    }
    surface = wl_compositor_create_surface(connection.compositor());
    takeNoInput(connection.compositor(), surface);
    if (connection.fractionalScale()) {
        // Until the compositor prefers a scale, the output's whole one, through the viewport too.
        scale = SurfaceScale::fractional(120 * o->scale);
        viewport = wp_viewporter_get_viewport(connection.viewporter(), surface);
        fractional = wp_fractional_scale_manager_v1_get_fractional_scale(connection.fractionalScale(), surface);
        static const wp_fractional_scale_v1_listener scaleListener = {
            [](void *data, wp_fractional_scale_v1 *, uint32_t per120) {
                static_cast<WaylandLayerStack *>(data)->setScale(SurfaceScale::fractional(int(per120)));
            },
        };
        wp_fractional_scale_v1_add_listener(fractional, &scaleListener, this);
    } else {
        scale = SurfaceScale::whole(o->scale);
    }
    layerSurface = zwlr_layer_shell_v1_get_layer_surface(connection.layerShell(), surface, o->output,
                                                         ZWLR_LAYER_SHELL_V1_LAYER_BACKGROUND, "turnelo");
    static const zwlr_layer_surface_v1_listener listener = {
        [](void *data, zwlr_layer_surface_v1 *, uint32_t serial, uint32_t width, uint32_t height) {
            static_cast<WaylandLayerStack *>(data)->configure(serial, width, height);
        },
        [](void *data, zwlr_layer_surface_v1 *) {
            auto *self = static_cast<WaylandLayerStack *>(data);
            if (self->closed) return;
            self->closed = true;
            Log::write(QStringLiteral("Wayland: o compositor fechou a superfície da saída ") + self->outputName());
            QMetaObject::invokeMethod(
                &self->context,
                [self] {
                    if (self->onShownChanged) self->onShownChanged(false);
                    if (self->onClosed) self->onClosed();
                },
                Qt::QueuedConnection);
        },
    };
    zwlr_layer_surface_v1_add_listener(layerSurface, &listener, this);
    zwlr_layer_surface_v1_set_anchor(layerSurface,
                                     ZWLR_LAYER_SURFACE_V1_ANCHOR_TOP | ZWLR_LAYER_SURFACE_V1_ANCHOR_BOTTOM |
                                         ZWLR_LAYER_SURFACE_V1_ANCHOR_LEFT | ZWLR_LAYER_SURFACE_V1_ANCHOR_RIGHT);
    zwlr_layer_surface_v1_set_size(layerSurface, 0, 0);
    zwlr_layer_surface_v1_set_exclusive_zone(layerSurface, -1);
    zwlr_layer_surface_v1_set_keyboard_interactivity(layerSurface, ZWLR_LAYER_SURFACE_V1_KEYBOARD_INTERACTIVITY_NONE);
    // The first commit carries no picture: the compositor answers with the surface's size.
    wl_surface_commit(surface);
    connection.flush();
    QObject::connect(&connection, &WaylandConnection::outputsChanged, &context, [this] { outputChanged(); });
}

WaylandLayerStack::~WaylandLayerStack()
{
    renderer.waitIdle();
    releaseFrame();
    base.reset();
    for (Slot &slot : layerSlots) drop(slot);
    baseTarget.reset();
    VkInstance instance = renderer.vulkan()->instance;
    if (vkSurface) vkDestroySurfaceKHR(instance, vkSurface, nullptr);
    if (fractional) wp_fractional_scale_v1_destroy(fractional);
    if (viewport) wp_viewport_destroy(viewport);
    if (layerSurface) zwlr_layer_surface_v1_destroy(layerSurface);
    if (surface) wl_surface_destroy(surface);
    connection.flush();
}

QString WaylandLayerStack::outputName() const
{
    const WaylandConnection::Output *o = connection.output(output);
    return o ? o->name : QString::number(output);
}

QSize WaylandLayerStack::pixelSize() const
{
    if (!configured || closed || !baseTarget) return {};
    return scale.pixels(logicalSize);
}

QRect WaylandLayerStack::toWindowList(const QRect &pixels) const
{
    const WaylandConnection::Output *o = connection.output(output);
    const QPoint corner = o ? o->logical.topLeft() : QPoint();
    return scale.toLogical(pixels).translated(corner);
}

VkSurfaceKHR WaylandLayerStack::makeVkSurface(wl_surface *wl)
{
    VkInstance instance = renderer.vulkan()->instance;
    auto create =
        reinterpret_cast<PFN_vkCreateWaylandSurfaceKHR>(vkGetInstanceProcAddr(instance, "vkCreateWaylandSurfaceKHR"));
    if (!create) return VK_NULL_HANDLE;
    VkWaylandSurfaceCreateInfoKHR info{VK_STRUCTURE_TYPE_WAYLAND_SURFACE_CREATE_INFO_KHR};
    info.display = connection.wlDisplay();
    info.surface = wl;
    VkSurfaceKHR made = VK_NULL_HANDLE;
    return create(instance, &info, nullptr, &made) == VK_SUCCESS ? made : VK_NULL_HANDLE;
}

void WaylandLayerStack::configure(uint32_t serial, uint32_t width, uint32_t height)
{
    zwlr_layer_surface_v1_ack_configure(layerSurface, serial);
    const WaylandConnection::Output *o = connection.output(output);
    // Anchored to every edge, the compositor names the size; zero would be its mistake, and the
    // output's own size stands in.
    QSize size{int(width), int(height)};
    if (size.isEmpty() && o) size = o->logical.size();
    if (size.isEmpty()) return;
    logicalSize = size;
    const bool first = !configured;
    configured = true;
    if (!baseTarget) {
        vkSurface = makeVkSurface(surface);
        if (!vkSurface) {
            Log::write(QStringLiteral("Wayland: sem superfície Vulkan para a saída ") + outputName());
            failed = true;
            return;
        }
        const QSize pixels = scale.pixels(logicalSize);
        baseTarget = std::make_unique<SwapchainTarget>(renderer.vulkan(), vkSurface, uint32_t(pixels.width()),
                                                       uint32_t(pixels.height()), VK_PRESENT_MODE_MAILBOX_KHR);
        base = std::make_unique<BaseSurface>(renderer.vulkan(), baseTarget.get());
    }
    if (first) logFractionalScale();
    applySize();
    if (first && onShownChanged) onShownChanged(true);
    if (onResized) onResized();
}

void WaylandLayerStack::outputChanged()
{
    // With a fractional scale the compositor says which it prefers on its own.
    const WaylandConnection::Output *o = connection.output(output);
    if (o && !fractional) setScale(SurfaceScale::whole(o->scale));
}

void WaylandLayerStack::setScale(const SurfaceScale &next)
{
    if (next == scale || closed) return;
    scale = next;
    if (!configured) return;
    logFractionalScale();
    applySize();
    // The layers' rectangles were snapped to the old scale: the view places them again.
    for (Slot &slot : layerSlots) drop(slot);
    if (onResized) onResized();
}

void WaylandLayerStack::logFractionalScale() const
{
    if (!fractional) return;
    const QSize pixels = scale.pixels(logicalSize);
    Log::write(QStringLiteral("Wayland: saída %1 em escala %2 (%3×%4 pixels)")
                   .arg(outputName(), QString::number(scale.factor(), 'g', 4).replace('.', ','))
                   .arg(pixels.width())
                   .arg(pixels.height()));
}

void WaylandLayerStack::applySize()
{
    wl_surface_set_buffer_scale(surface, scale.bufferScale());
    if (viewport) wp_viewport_set_destination(viewport, logicalSize.width(), logicalSize.height());
    const QSize pixels = scale.pixels(logicalSize);
    if (baseTarget) baseTarget->resize(uint32_t(pixels.width()), uint32_t(pixels.height()));
}

void WaylandLayerStack::commitBase()
{
    if (!baseTarget || baseTarget->presentedCount() == 0) return;
    wl_surface_commit(surface);
    connection.flush();
}

void WaylandLayerStack::positionSlot(Slot &slot)
{
    const QRect logical = scale.toLogical(slot.rect);
    wl_subsurface_set_position(slot.subsurface, logical.x(), logical.y());
    if (slot.viewport) wp_viewport_set_destination(slot.viewport, logical.width(), logical.height());
}

void WaylandLayerStack::place(Layer layer, const QRect &asked)
{
    Slot &slot = layerSlots[size_t(layer)];
    const QRect wanted = scale.snap(asked, pixelSize());
    if (wanted == slot.rect && (wanted.isEmpty() || slot.surface)) return;
    if (wanted.isEmpty() || !configured || closed || failed || !connection.subcompositor()) {
        drop(slot);
        commitBase();
        return;
    }
    slot.rect = wanted;
    if (slot.surface) {
        positionSlot(slot);
        if (slot.target) slot.target->resize(uint32_t(wanted.width()), uint32_t(wanted.height()));
        commitBase();
        return;
    }
    slot.surface = wl_compositor_create_surface(connection.compositor());
    takeNoInput(connection.compositor(), slot.surface);
    wl_surface_set_buffer_scale(slot.surface, scale.bufferScale());
    if (viewport) slot.viewport = wp_viewporter_get_viewport(connection.viewporter(), slot.surface);
    slot.subsurface = wl_subcompositor_get_subsurface(connection.subcompositor(), slot.surface, surface);
    // Its own pictures show when it commits them, not when the base next does.
    wl_subsurface_set_desync(slot.subsurface);
    positionSlot(slot);
    slot.vkSurface = makeVkSurface(slot.surface);
    if (!slot.vkSurface) {
        drop(slot);
        return;
    }
    slot.target = std::make_unique<SwapchainTarget>(renderer.vulkan(), slot.vkSurface, uint32_t(wanted.width()),
                                                    uint32_t(wanted.height()), VK_PRESENT_MODE_MAILBOX_KHR);
    commitBase();
}

void WaylandLayerStack::drop(Slot &slot)
{
    if (&slot == &layerSlots[size_t(Layer::moving)]) releaseFrame();
    if (slot.target) renderer.waitIdle();
    slot.target.reset();
    if (slot.vkSurface) vkDestroySurfaceKHR(renderer.vulkan()->instance, slot.vkSurface, nullptr);
    if (slot.viewport) wp_viewport_destroy(slot.viewport);
    if (slot.subsurface) wl_subsurface_destroy(slot.subsurface);
    if (slot.surface) wl_surface_destroy(slot.surface);
    slot = Slot{};
}

void WaylandLayerStack::clear()
{
    for (Slot &slot : layerSlots) drop(slot);
    commitBase();
}

void WaylandLayerStack::frameComing()
{
    Slot &moving = layerSlots[size_t(Layer::moving)];
    if (!moving.surface || frameCallback) return;
    frameCallback = wl_surface_frame(moving.surface);
    static const wl_callback_listener listener = {
        [](void *data, wl_callback *, uint32_t) { static_cast<WaylandLayerStack *>(data)->releaseFrame(); },
    };
    wl_callback_add_listener(frameCallback, &listener, this);
}

void WaylandLayerStack::frameDropped()
{
    if (!frameCallback) return;
    wl_callback_destroy(frameCallback);
    frameCallback = nullptr;
}

void WaylandLayerStack::releaseFrame()
{
    if (!frameCallback) return;
    wl_callback_destroy(frameCallback);
    frameCallback = nullptr;
    // From the event loop, not from inside the event's dispatch or a layer being dropped: the
    // next frame draws at once.
    QMetaObject::invokeMethod(
        &context,
        [this] {
            if (onFrameReleased) onFrameReleased();
        },
        Qt::QueuedConnection);
}
