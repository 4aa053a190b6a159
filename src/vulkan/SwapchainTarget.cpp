#include "vulkan/SwapchainTarget.h"

#include "core/app/Log.h"
#include "vulkan/VulkanCheck.h"

#include <algorithm>

SwapchainTarget::SwapchainTarget(std::shared_ptr<VulkanContext> ctx, VkSurfaceKHR s, uint32_t width, uint32_t height,
                                 VkPresentModeKHR presentMode)
    : context(std::move(ctx))
    , surface(s)
    , mode(presentMode)
    , wanted{width, height}
{
    VkDevice device = context->device;
    VkCommandPoolCreateInfo pci{VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
    pci.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    pci.queueFamilyIndex = context->queueFamily;
    vkCheck(vkCreateCommandPool(device, &pci, nullptr, &copyPool), "vkCreateCommandPool");
    VkCommandBufferAllocateInfo ai{VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    ai.commandPool = copyPool;
    ai.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    ai.commandBufferCount = 1;
    vkCheck(vkAllocateCommandBuffers(device, &ai, &copyCmd), "vkAllocateCommandBuffers");
    VkFenceCreateInfo fci{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
    fci.flags = VK_FENCE_CREATE_SIGNALED_BIT;
    vkCheck(vkCreateFence(device, &fci, nullptr, &copyFence), "vkCreateFence");
}

SwapchainTarget::~SwapchainTarget()
{
    release();
    VkDevice device = context->device;
    if (swapchain) vkDestroySwapchainKHR(device, swapchain, nullptr);
    if (copyFence) vkDestroyFence(device, copyFence, nullptr);
    if (copyPool) vkDestroyCommandPool(device, copyPool, nullptr);
}

void SwapchainTarget::resize(uint32_t width, uint32_t height)
{
    if (width == wanted.width && height == wanted.height) return;
    wanted = {width, height};
    stale = true;
}

void SwapchainTarget::release()
{
    VkDevice device = context->device;
    {
        std::lock_guard<std::mutex> lock(context->queueMutex());
        vkQueueWaitIdle(context->queue);
    }
    for (VkFramebuffer f : framebuffers)
        if (f) vkDestroyFramebuffer(device, f, nullptr);
    for (VkImageView v : views) vkDestroyImageView(device, v, nullptr);
    for (VkSemaphore s : rendered) vkDestroySemaphore(device, s, nullptr);
    for (VkSemaphore s : acquireSems) vkDestroySemaphore(device, s, nullptr);
    framebuffers.clear();
    views.clear();
    rendered.clear();
    acquireSems.clear();
    images.clear();
    current = UINT32_MAX;
}

bool SwapchainTarget::recreate()
{
    VkDevice device = context->device;
    VkSurfaceCapabilitiesKHR caps{};
    if (vkGetPhysicalDeviceSurfaceCapabilitiesKHR(context->physical, surface, &caps) != VK_SUCCESS) return false;
    VkExtent2D size = caps.currentExtent.width != UINT32_MAX ? caps.currentExtent : wanted;
    size.width = std::clamp(size.width, caps.minImageExtent.width,
                            std::max(caps.minImageExtent.width, caps.maxImageExtent.width));
    size.height = std::clamp(size.height, caps.minImageExtent.height,
                             std::max(caps.minImageExtent.height, caps.maxImageExtent.height));
    if (size.width == 0 || size.height == 0) return false;  // minimised or not mapped yet

    VkBool32 supported = VK_FALSE;
    vkGetPhysicalDeviceSurfaceSupportKHR(context->physical, context->queueFamily, surface, &supported);
    if (!supported) return false;

    release();
    VkSwapchainCreateInfoKHR ci{VK_STRUCTURE_TYPE_SWAPCHAIN_CREATE_INFO_KHR};
    ci.surface = surface;
    ci.minImageCount = std::max(caps.minImageCount, 2u);
    if (caps.maxImageCount) ci.minImageCount = std::min(ci.minImageCount, caps.maxImageCount);
    // The composite writes display-encoded values: an _SRGB format would encode them twice.
    ci.imageFormat = VK_FORMAT_B8G8R8A8_UNORM;
    ci.imageColorSpace = VK_COLOR_SPACE_SRGB_NONLINEAR_KHR;
    ci.imageExtent = size;
    ci.imageArrayLayers = 1;
    canCopyInto = caps.supportedUsageFlags & VK_IMAGE_USAGE_TRANSFER_DST_BIT;
    ci.imageUsage = VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | (canCopyInto ? VK_IMAGE_USAGE_TRANSFER_DST_BIT : 0);
    ci.imageSharingMode = VK_SHARING_MODE_EXCLUSIVE;
    ci.preTransform = caps.currentTransform;
    ci.compositeAlpha = (caps.supportedCompositeAlpha & VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR)
                            ? VK_COMPOSITE_ALPHA_OPAQUE_BIT_KHR
                            : VkCompositeAlphaFlagBitsKHR(caps.supportedCompositeAlpha & -caps.supportedCompositeAlpha);
    ci.presentMode = VK_PRESENT_MODE_FIFO_KHR;
    if (mode != VK_PRESENT_MODE_FIFO_KHR) {
        uint32_t count = 0;
        vkGetPhysicalDeviceSurfacePresentModesKHR(context->physical, surface, &count, nullptr);
        std::vector<VkPresentModeKHR> modes(count);
        vkGetPhysicalDeviceSurfacePresentModesKHR(context->physical, surface, &count, modes.data());
        if (std::find(modes.begin(), modes.end(), mode) != modes.end()) ci.presentMode = mode;
    }
    // A mailbox keeps one image shown, one queued and one to draw into without waiting.
    if (ci.presentMode == VK_PRESENT_MODE_MAILBOX_KHR) {
        ci.minImageCount = std::max(ci.minImageCount, 3u);
        if (caps.maxImageCount) ci.minImageCount = std::min(ci.minImageCount, caps.maxImageCount);
    }
    ci.clipped = VK_TRUE;
    ci.oldSwapchain = swapchain;
    VkSwapchainKHR made = VK_NULL_HANDLE;
    const VkResult r = vkCreateSwapchainKHR(device, &ci, nullptr, &made);
    if (swapchain) vkDestroySwapchainKHR(device, swapchain, nullptr);
    swapchain = made;
    if (r != VK_SUCCESS) {
        Log::write(QStringLiteral("Cena: swapchain falhou: ") + QString::fromUtf8(vkResultName(r)));
        swapchain = VK_NULL_HANDLE;
        return false;
    }
    extent = size;
    uint32_t n = 0;
    vkGetSwapchainImagesKHR(device, swapchain, &n, nullptr);
    images.resize(n);
    vkGetSwapchainImagesKHR(device, swapchain, &n, images.data());
    VkSemaphoreCreateInfo sci{VK_STRUCTURE_TYPE_SEMAPHORE_CREATE_INFO};
    for (VkImage image : images) {
        VkImageViewCreateInfo vci{VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
        vci.image = image;
        vci.viewType = VK_IMAGE_VIEW_TYPE_2D;
        vci.format = VK_FORMAT_B8G8R8A8_UNORM;
        vci.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
        VkImageView view;
        vkCheck(vkCreateImageView(device, &vci, nullptr, &view), "vkCreateImageView");
        views.push_back(view);
        VkSemaphore s;
        vkCheck(vkCreateSemaphore(device, &sci, nullptr, &s), "vkCreateSemaphore");
        rendered.push_back(s);
    }
    framebuffers.assign(images.size(), VK_NULL_HANDLE);
    for (size_t i = 0; i <= images.size(); ++i) {
        VkSemaphore s;
        vkCheck(vkCreateSemaphore(device, &sci, nullptr, &s), "vkCreateSemaphore");
        acquireSems.push_back(s);
    }
    stale = false;
    return true;
}

std::optional<TargetImage> SwapchainTarget::acquire()
{
    if (stale && !recreate()) return std::nullopt;
    if (!swapchain) return std::nullopt;
    VkSemaphore sem = acquireSems[nextAcquire];
    uint32_t index = 0;
    // A bounded wait: a window that is not shown must not hold the main thread.
    const VkResult r = vkAcquireNextImageKHR(context->device, swapchain, 100'000'000ull, sem, VK_NULL_HANDLE, &index);
    if (r == VK_ERROR_OUT_OF_DATE_KHR) {
        stale = true;
        return std::nullopt;
    }
    if (r != VK_SUCCESS && r != VK_SUBOPTIMAL_KHR) return std::nullopt;
    if (r == VK_SUBOPTIMAL_KHR) stale = true;
    nextAcquire = (nextAcquire + 1) % acquireSems.size();
    current = index;
    TargetImage t;
    t.image = images[index];
    t.view = views[index];
    t.width = extent.width;
    t.height = extent.height;
    t.finalLayout = VK_IMAGE_LAYOUT_PRESENT_SRC_KHR;
    t.acquired = sem;
    t.rendered = rendered[index];
    t.framebuffer = &framebuffers[index];
    t.copyable = canCopyInto;
    return t;
}

void SwapchainTarget::present()
{
    if (current == UINT32_MAX) return;
    VkPresentInfoKHR pi{VK_STRUCTURE_TYPE_PRESENT_INFO_KHR};
    pi.waitSemaphoreCount = 1;
    pi.pWaitSemaphores = &rendered[current];
    pi.swapchainCount = 1;
    pi.pSwapchains = &swapchain;
    pi.pImageIndices = &current;
    VkResult r;
    {
        std::lock_guard<std::mutex> lock(context->queueMutex());
        r = vkQueuePresentKHR(context->queue, &pi);
    }
    if (r == VK_ERROR_OUT_OF_DATE_KHR || r == VK_SUBOPTIMAL_KHR) stale = true;
    if (r == VK_SUCCESS || r == VK_SUBOPTIMAL_KHR) ++presented;
    current = UINT32_MAX;
}

bool SwapchainTarget::copyPending() const
{
    return copyFence && vkGetFenceStatus(context->device, copyFence) == VK_NOT_READY;
}

bool SwapchainTarget::show(const GpuTexture &source, VkImageLayout layout)
{
    if ((!canCopyInto && !stale) || copyPending()) return false;
    std::optional<TargetImage> target = acquire();
    if (!target || !canCopyInto) {
        current = UINT32_MAX;
        return false;
    }
    VkDevice device = context->device;
    vkWaitForFences(device, 1, &copyFence, VK_TRUE, UINT64_MAX);
    vkResetFences(device, 1, &copyFence);
    vkResetCommandBuffer(copyCmd, 0);
    VkCommandBufferBeginInfo bi{VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    bi.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    vkBeginCommandBuffer(copyCmd, &bi);
    transitionImage(copyCmd, source.image, layout, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    transitionImage(copyCmd, target->image, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    VkImageBlit blit{};
    blit.srcSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    blit.srcOffsets[1] = {int32_t(source.width), int32_t(source.height), 1};
    blit.dstSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
    blit.dstOffsets[1] = {int32_t(target->width), int32_t(target->height), 1};
    vkCmdBlitImage(copyCmd, source.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, target->image,
                   VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &blit, VK_FILTER_LINEAR);
    transitionImage(copyCmd, target->image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, VK_IMAGE_LAYOUT_PRESENT_SRC_KHR);
    transitionImage(copyCmd, source.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, layout);
    vkEndCommandBuffer(copyCmd);
    VkPipelineStageFlags stage = VK_PIPELINE_STAGE_TRANSFER_BIT;
    VkSubmitInfo si{VK_STRUCTURE_TYPE_SUBMIT_INFO};
    si.waitSemaphoreCount = 1;
    si.pWaitSemaphores = &target->acquired;
    si.pWaitDstStageMask = &stage;
    si.commandBufferCount = 1;
    si.pCommandBuffers = &copyCmd;
    si.signalSemaphoreCount = 1;
    si.pSignalSemaphores = &target->rendered;
    if (context->submit(si, copyFence) != VK_SUCCESS) {
        current = UINT32_MAX;
        return false;
    }
    present();
    return true;
}
