#pragma once

#include <QPointer>
#include <QRect>
#include <QSize>
#include <array>
#include <functional>
#include <memory>

class BaseSurface;
class LayerWindow;
class QVulkanInstance;
class QWindow;
class SceneRenderer;
class SwapchainTarget;

// The windows one screen's room is drawn into, over its desktop window: the base picture that
// fills it and the small moving layers above (the record and arm, the steam, the rain on the
// glass), each a child window with a swapchain of its own. Main thread.
class LayerStack {
public:
    enum class Layer { moving, steam, rain };

    // `host`: the desktop window (not owned; outlives the stack).
    LayerStack(SceneRenderer &renderer, QWindow *host);
    ~LayerStack();
    LayerStack(const LayerStack &) = delete;
    LayerStack &operator=(const LayerStack &) = delete;

    // The base window got a surface and a swapchain.
    bool ok() const { return base != nullptr; }
    BaseSurface *baseSurface() { return base.get(); }

    // The host's size in device pixels changed.
    void resize(const QSize &pixels);
    // Puts a layer at `rect` (host pixels); an empty rectangle removes it.
    void place(Layer layer, const QRect &rect);
    SwapchainTarget *target(Layer layer) const { return layerSlots[size_t(layer)].target.get(); }
    const QRect &rect(Layer layer) const { return layerSlots[size_t(layer)].rect; }
    // Shows the layers that have been drawn once: until then each would be a black box.
    void showDrawn();
    // Removes every moving layer.
    void clear();

    // The window system needs the base's pixels again, or a layer's.
    std::function<void()> onBaseExposed;
    std::function<void()> onLayerExposed;

private:
    struct Slot {
        // The target goes before its window: the window owns the surface.
        std::unique_ptr<LayerWindow> window;
        std::unique_ptr<SwapchainTarget> target;
        QRect rect;
    };
    void drop(Slot &slot);

    SceneRenderer &renderer;
    QPointer<QWindow> host;
    std::unique_ptr<QVulkanInstance> vulkan;
    std::unique_ptr<LayerWindow> baseWindow;
    std::unique_ptr<SwapchainTarget> baseTarget;
    std::unique_ptr<BaseSurface> base;
    std::array<Slot, 3> layerSlots;
};
