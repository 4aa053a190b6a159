#pragma once

#include "vulkan/RenderTarget.h"

#include <QFutureWatcher>
#include <QImage>
#include <QObject>
#include <QTimer>
#include <functional>
#include <memory>

class SwapchainTarget;

// The still room: rendered once into a device image and shown in the desktop window, whenever
// it changed or the window was exposed, so a still room costs no shading. Shown one of two ways:
// copied into the window's swapchain, from an image kept to copy again on exposure; or painted
// as the window's background, which the window system keeps and repaints from by itself (X11),
// so that no copy of it stays here (a software device holds every image in the process's own
// memory). Two images, one shown and one spare to render the next base into; the spare is freed
// 3 s after the last change, so a steady room holds one (none when painted). Main thread.
class BaseSurface : public QObject {
    Q_OBJECT
public:
    // Paints the window's background; false when it could not.
    using Painter = std::function<bool(const QImage &)>;

    // `window`: the swapchain of the window that shows the base; not owned, outlives this.
    BaseSurface(std::shared_ptr<VulkanContext> context, SwapchainTarget *window, QObject *parent = nullptr);
    BaseSurface(std::shared_ptr<VulkanContext> context, Painter painter, QObject *parent = nullptr);
    ~BaseSurface() override;

    // The image to render the next base into, at the given size; a size change drops both
    // images. None when the image cannot be made (out of device memory).
    OffscreenTarget *nextTarget(uint32_t width, uint32_t height);
    // Shows the image last returned by nextTarget (rendered, or still rendering) in the window;
    // false when the window could not take it now (the caller draws the base again next frame).
    // A painted base is read back on a worker thread and painted when it is there: until then
    // canPresent() is false.
    bool present();
    // Copies the shown image into the window again (the window was exposed).
    bool reshow();
    bool hasShown() const { return shown != nullptr || painted; }
    // The image now on screen (transfer-source layout), or null (none yet, or painted).
    const GpuTexture *shownImage() const { return shown ? shown->texture().get() : nullptr; }
    // Whether a shown base keeps its image here (shownImage), or none (painted).
    bool keepsImage() const { return !painter; }
    // The window can take a new base now, without waiting for the device.
    bool canPresent() const;
    size_t memoryBytes() const;

    static constexpr int releaseAfterMs = 3000;
    // A painted base that could not be read or painted after present() took it.
    std::function<void()> onPaintFailed;

private:
    std::shared_ptr<VulkanContext> context;
    SwapchainTarget *window = nullptr;
    Painter painter;
    bool painted = false;
    QFutureWatcher<QImage> reading;
    bool readPending = false;
    std::unique_ptr<OffscreenTarget> shown, spare;
    QTimer releaseTimer;
};
