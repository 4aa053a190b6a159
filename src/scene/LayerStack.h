#pragma once

#include <QRect>
#include <QSize>
#include <functional>

class BaseSurface;
class SwapchainTarget;

// The surfaces one screen's room is drawn into: the base picture that fills the screen and the
// small moving layers above it (the record and arm, the steam, the rain on the glass), each with
// a swapchain of its own. How they are made is the window system's: child windows of the desktop
// window on X11 (WindowLayerStack), subsurfaces of a layer surface on Wayland
// (WaylandLayerStack). Main thread; the callbacks are called on it.
class LayerStack {
public:
    enum class Layer { moving, steam, rain };

    virtual ~LayerStack() = default;

    // The base surface got a swapchain.
    virtual bool ok() const = 0;
    virtual BaseSurface *baseSurface() = 0;
    // The screen's size in device pixels; empty until the window system has given one.
    virtual QSize pixelSize() const = 0;
    // A rectangle of this stack's pixels in the coordinates of the platform's WindowList.
    virtual QRect toWindowList(const QRect &pixels) const = 0;
    // Whether the base is shown at all (the window mapped, the surface configured).
    virtual bool isShown() const = 0;

    // Puts a layer at `rect` (stack pixels); an empty rectangle removes it.
    virtual void place(Layer layer, const QRect &rect) = 0;
    virtual SwapchainTarget *target(Layer layer) const = 0;
    virtual QRect rect(Layer layer) const = 0;
    // Shows the layers that have been drawn once, over a base already on screen: until then each
    // would be a black box.
    virtual void showDrawn() = 0;
    // Removes every moving layer.
    virtual void clear() = 0;

    // Pacing by the window system, where it has any (Wayland's frame callbacks): a frame that is
    // about to be presented announces itself with frameComing(); until the compositor has shown
    // it, holdsFrame() is true, and onFrameReleased follows. frameDropped() takes back an
    // announced frame that presented nothing. Without pacing these do nothing.
    virtual bool holdsFrame() const { return false; }
    virtual void frameComing() {}
    virtual void frameDropped() {}

    // The window system needs the base's pixels again, or a layer's.
    std::function<void()> onBaseExposed;
    std::function<void()> onLayerExposed;
    // pixelSize() changed.
    std::function<void()> onResized;
    // isShown() changed.
    std::function<void(bool shown)> onShownChanged;
    std::function<void()> onFrameReleased;
};
