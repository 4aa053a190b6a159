#pragma once

#include "scene/SurfaceScale.h"
#include "scene/LayerStack.h"

#include <QObject>
#include <array>
#include <cstdint>
#include <memory>
#include <vulkan/vulkan.h>

class SceneRenderer;
class WaylandConnection;
struct wl_callback;
struct wl_surface;
struct wl_subsurface;
struct wp_fractional_scale_v1;
struct wp_viewport;
struct zwlr_layer_surface_v1;

// The room's surfaces on one Wayland output: a layer surface on the background layer (anchored
// to every edge, over other surfaces' exclusive zones, no keyboard, no input) shows the base
// picture, and each moving layer is a desynchronised subsurface of it with a small swapchain of
// its own. Pixels are buffer pixels: at the compositor's preferred fractional scale where it has
// one, else at the output's integer scale; the window list's coordinates are the compositor's
// logical layout. Frames are paced by frame callbacks on the moving layer:
// a compositor that stops drawing the background stops the frames. Main thread; the connection
// outlives the stack.
class WaylandLayerStack : public LayerStack {
public:
    WaylandLayerStack(SceneRenderer &renderer, WaylandConnection &connection, uint32_t outputId);
    ~WaylandLayerStack() override;
    WaylandLayerStack(const WaylandLayerStack &) = delete;
    WaylandLayerStack &operator=(const WaylandLayerStack &) = delete;

    // Not failed: the surface was made and, once configured, got a swapchain.
    bool ok() const override { return !failed; }
    BaseSurface *baseSurface() override { return base.get(); }
    QSize pixelSize() const override;
    QRect toWindowList(const QRect &pixels) const override;
    bool isShown() const override { return configured && !closed; }
    void place(Layer layer, const QRect &rect) override;
    SwapchainTarget *target(Layer layer) const override { return layerSlots[size_t(layer)].target.get(); }
    QRect rect(Layer layer) const override { return layerSlots[size_t(layer)].rect; }
    void showDrawn() override {}
    void clear() override;

    bool holdsFrame() const override { return frameCallback != nullptr; }
    void frameComing() override;
    void frameDropped() override;

    uint32_t outputId() const { return output; }
    QString outputName() const;
    // The compositor will not show this surface again (its output went away); called once,
    // from the event loop (the stack may be destroyed in it).
    std::function<void()> onClosed;

private:
    struct Slot {
        wl_surface *surface = nullptr;
        wl_subsurface *subsurface = nullptr;
        wp_viewport *viewport = nullptr;
        VkSurfaceKHR vkSurface = VK_NULL_HANDLE;
        std::unique_ptr<SwapchainTarget> target;
        QRect rect;
    };
    void configure(uint32_t serial, uint32_t width, uint32_t height);
    void outputChanged();
    void setScale(const SurfaceScale &next);
    void logFractionalScale() const;
    void applySize();
    VkSurfaceKHR makeVkSurface(wl_surface *surface);
    void positionSlot(Slot &slot);
    // Commits the layer surface so that subsurface positions and new subsurfaces take effect;
    // only once it shows a picture (before that, its first picture's commit does it).
    void commitBase();
    void drop(Slot &slot);
    void releaseFrame();

    SceneRenderer &renderer;
    WaylandConnection &connection;
    uint32_t output;
    QObject context;  // the connections to the connection's signals end with it
    wl_surface *surface = nullptr;
    zwlr_layer_surface_v1 *layerSurface = nullptr;
    wp_fractional_scale_v1 *fractional = nullptr;
    wp_viewport *viewport = nullptr;
    VkSurfaceKHR vkSurface = VK_NULL_HANDLE;
    std::unique_ptr<SwapchainTarget> baseTarget;
    std::unique_ptr<BaseSurface> base;
    std::array<Slot, 3> layerSlots;
    wl_callback *frameCallback = nullptr;
    QSize logicalSize;
    SurfaceScale scale = SurfaceScale::whole(1);
    bool configured = false;
    bool closed = false;
    bool failed = false;
};
