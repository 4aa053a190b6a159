#pragma once

#include "vulkan/VulkanContext.h"

#include <QImage>
#include <memory>
#include <optional>

// One image that a pass draws into this frame.
struct TargetImage {
    VkImage image = VK_NULL_HANDLE;
    VkImageView view = VK_NULL_HANDLE;
    uint32_t width = 0;
    uint32_t height = 0;
    VkFormat format = VK_FORMAT_B8G8R8A8_UNORM;
    VkImageLayout finalLayout = VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL;  // layout after the pass
    VkSemaphore acquired = VK_NULL_HANDLE;                             // waited on before drawing, when set
    VkSemaphore rendered = VK_NULL_HANDLE;  // signalled when the frame's commands complete, when set
    // The target's framebuffer for this image: the renderer makes it on first use and the target
    // destroys it with the image, so a steady frame creates none. Null: one per frame.
    VkFramebuffer *framebuffer = nullptr;
    bool copyable = false;  // it can be a transfer destination (a pass may copy pixels into it)
};

// Something the renderer draws into: an offscreen image or a window's swapchain image. The
// composite's output is display-encoded B8G8R8A8; only a layer's linear still is not. Main thread.
class RenderTarget {
public:
    virtual ~RenderTarget() = default;
    // The image for this frame, or none (the pass is skipped this frame).
    virtual std::optional<TargetImage> acquire() = 0;
    // Called after the frame's command buffer was submitted, in the order acquired.
    virtual void present() {}
    // The size of its images.
    virtual uint32_t width() const = 0;
    virtual uint32_t height() const = 0;
};

// A device image the renderer draws into and that can be read back or sampled. Readback waits for
// nothing: call it after the renderer has finished the frame (SceneRenderer::waitIdle).
class OffscreenTarget : public RenderTarget {
public:
    // `finalLayout`: transfer source to copy or read it back, shader-read-only to sample it.
    OffscreenTarget(std::shared_ptr<VulkanContext> context, uint32_t width, uint32_t height,
                    VkFormat format = VK_FORMAT_B8G8R8A8_UNORM,
                    VkImageLayout finalLayout = VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    ~OffscreenTarget() override;
    OffscreenTarget(const OffscreenTarget &) = delete;
    OffscreenTarget &operator=(const OffscreenTarget &) = delete;

    std::optional<TargetImage> acquire() override;
    // Pixels as QImage::Format_ARGB32 (the bytes of B8G8R8A8 on a little-endian machine); only
    // for a B8G8R8A8 target left as a transfer source.
    QImage readback();
    const TextureRef &texture() const { return image; }
    uint32_t width() const override { return image->width; }
    uint32_t height() const override { return image->height; }

private:
    std::shared_ptr<VulkanContext> context;
    TextureRef image;
    VkFormat format;
    VkImageLayout finalLayout;
    VkFramebuffer framebuffer = VK_NULL_HANDLE;
    bool drawn = false;
};
