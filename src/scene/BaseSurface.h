#pragma once

#include "render/RenderTarget.h"

#include <QObject>
#include <QTimer>
#include <memory>

class SwapchainTarget;

// The still room: rendered once into a device image and copied into the desktop window's
// swapchain whenever it changed or the window was exposed, so a still room costs no shading.
// Two images, one shown and one spare to render the next base into; the spare is freed 3 s
// after the last change, so a steady room holds one. Main thread.
class BaseSurface : public QObject {
    Q_OBJECT
public:
    // `window`: the swapchain of the window that shows the base; not owned, outlives this.
    BaseSurface(std::shared_ptr<VulkanContext> context, SwapchainTarget *window, QObject *parent = nullptr);
    ~BaseSurface() override;

    // The image to render the next base into, at the given size; a size change drops both
    // images. None when the image cannot be made (out of device memory).
    OffscreenTarget *nextTarget(uint32_t width, uint32_t height);
    // Shows the image last returned by nextTarget (rendered and complete) in the window; false
    // when the window could not take it now (the caller draws the base again next frame).
    bool present();
    // Copies the shown image into the window again (the window was exposed).
    bool reshow();
    bool hasShown() const { return shown != nullptr; }
    // The image now on screen (transfer-source layout), or null.
    const GpuTexture *shownImage() const { return shown ? shown->texture().get() : nullptr; }
    // The window can take a new base now, without waiting for the device.
    bool canPresent() const;
    size_t memoryBytes() const;

    static constexpr int releaseAfterMs = 3000;

private:
    std::shared_ptr<VulkanContext> context;
    SwapchainTarget *window;
    std::unique_ptr<OffscreenTarget> shown, spare;
    QTimer releaseTimer;
};
