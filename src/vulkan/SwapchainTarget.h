#pragma once

#include "vulkan/RenderTarget.h"

#include <QtGlobal>
#include <memory>
#include <vector>

// A window's swapchain as a render target: B8G8R8A8_UNORM images presented with FIFO. The
// surface belongs to the window system (the window that made it); the swapchain, its views,
// framebuffers and semaphores belong here and are remade when the size changes or the
// surface says it is out of date. Main thread.
class SwapchainTarget : public RenderTarget {
public:
    // `mode`: the present mode wanted (FIFO when the surface lacks it). Where the window system
    // paces the frames itself (Wayland's frame callbacks), MAILBOX: a FIFO present there waits
    // for the compositor, forever while it does not draw the surface.
    SwapchainTarget(std::shared_ptr<VulkanContext> context, VkSurfaceKHR surface, uint32_t width, uint32_t height,
                    VkPresentModeKHR mode = VK_PRESENT_MODE_FIFO_KHR);
    ~SwapchainTarget() override;
    SwapchainTarget(const SwapchainTarget &) = delete;
    SwapchainTarget &operator=(const SwapchainTarget &) = delete;

    // The window's new size in pixels; the swapchain follows at the next acquire.
    void resize(uint32_t width, uint32_t height);
    // None when the surface cannot present now (zero size, lost surface, no image free in time).
    std::optional<TargetImage> acquire() override;
    void present() override;
    // Copies a B8G8R8A8 image of the same size (shader-read-only or transfer-source layout as
    // given) into the next swapchain image and presents it: the still room shown without shading.
    // False, without waiting, while the previous copy is still on the device.
    bool show(const GpuTexture &image, VkImageLayout layout);
    bool copyPending() const;
    // Images handed to the window system so far.
    quint64 presentedCount() const { return presented; }

    uint32_t width() const override { return extent.width; }
    uint32_t height() const override { return extent.height; }

private:
    bool recreate();
    void release();

    std::shared_ptr<VulkanContext> context;
    VkSurfaceKHR surface;
    VkSwapchainKHR swapchain = VK_NULL_HANDLE;
    VkPresentModeKHR mode;
    quint64 presented = 0;
    VkExtent2D wanted{};
    VkExtent2D extent{};
    bool stale = true;
    bool canCopyInto = false;
    std::vector<VkImage> images;
    std::vector<VkImageView> views;
    std::vector<VkFramebuffer> framebuffers;
    std::vector<VkSemaphore> rendered;     // one per image
    std::vector<VkSemaphore> acquireSems;  // rotating, one more than the images
    size_t nextAcquire = 0;
    uint32_t current = UINT32_MAX;  // image acquired and not yet presented
    VkCommandPool copyPool = VK_NULL_HANDLE;
    VkCommandBuffer copyCmd = VK_NULL_HANDLE;
    VkFence copyFence = VK_NULL_HANDLE;
};
