#pragma once

#include "scene/LayerStack.h"
#include "scene/SurfaceScale.h"

#include <QMetaObject>
#include <QPointer>
#include <array>
#include <functional>
#include <memory>
#include <vector>

class LayerWindow;
class QVulkanInstance;
class QImage;
class QWindow;
class SceneRenderer;

// The room's surfaces as Qt windows: the desktop window hosts a child window with the base
// picture, and each moving layer is a child window of that one with a swapchain of its own.
// Their pixels are the host's device pixels, as are the X server's (and so the window list's,
// global on the screen); Qt places the windows in logical pixels. Main thread.
class WindowLayerStack : public LayerStack {
public:
    // Paints a window's background, which the window system repaints by itself; false when it
    // could not.
    using BackgroundPainter = std::function<bool(QWindow *, const QImage &)>;

    // `host`: the desktop window (not owned; outlives the stack). With `paintBackground`, the
    // still room is the base window's background rather than a swapchain's image.
    WindowLayerStack(SceneRenderer &renderer, QWindow *host, BackgroundPainter paintBackground = {});
    ~WindowLayerStack() override;
    WindowLayerStack(const WindowLayerStack &) = delete;
    WindowLayerStack &operator=(const WindowLayerStack &) = delete;

    bool ok() const override { return base != nullptr; }
    BaseSurface *baseSurface() override { return base.get(); }
    QSize pixelSize() const override;
    QRect toWindowList(const QRect &pixels) const override;
    bool isShown() const override;
    void place(Layer layer, const QRect &rect) override;
    SwapchainTarget *target(Layer layer) const override { return layerSlots[size_t(layer)].target.get(); }
    QRect rect(Layer layer) const override { return layerSlots[size_t(layer)].rect; }
    void showDrawn() override;
    void clear() override;

private:
    struct Slot {
        // The target goes before its window: the window owns the surface.
        std::unique_ptr<LayerWindow> window;
        std::unique_ptr<SwapchainTarget> target;
        QRect rect;
    };
    void drop(Slot &slot);
    void hostResized();
    SurfaceScale scale() const;

    SceneRenderer &renderer;
    QPointer<QWindow> host;
    std::unique_ptr<QVulkanInstance> vulkan;
    std::unique_ptr<LayerWindow> baseWindow;
    std::unique_ptr<SwapchainTarget> baseTarget;
    std::unique_ptr<BaseSurface> base;
    std::array<Slot, 3> layerSlots;
    std::vector<QMetaObject::Connection> hostConnections;
};
