#include "vulkan/RenderTarget.h"

#include "vulkan/VulkanCheck.h"

#include <cstring>

OffscreenTarget::OffscreenTarget(std::shared_ptr<VulkanContext> ctx, uint32_t width, uint32_t height, VkFormat format,
                                 VkImageLayout finalLayout)
    : context(std::move(ctx))
    , format(format)
    , finalLayout(finalLayout)
{
    image = context->createTexture(format, width, height,
                                   VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_TRANSFER_SRC_BIT |
                                       VK_IMAGE_USAGE_TRANSFER_DST_BIT | VK_IMAGE_USAGE_SAMPLED_BIT);
}

OffscreenTarget::~OffscreenTarget()
{
    if (!framebuffer) return;
    // A frame in flight may still draw through it; offscreen targets are rare enough to wait.
    {
        std::lock_guard<std::mutex> lock(context->queueMutex());
        vkQueueWaitIdle(context->queue);
    }
    vkDestroyFramebuffer(context->device, framebuffer, nullptr);
}

std::optional<TargetImage> OffscreenTarget::acquire()
{
    drawn = true;
    TargetImage t;
    t.image = image->image;
    t.view = image->view;
    t.width = image->width;
    t.height = image->height;
    t.format = format;
    t.finalLayout = finalLayout;
    t.framebuffer = &framebuffer;
    t.copyable = true;
    return t;
}

QImage OffscreenTarget::readback()
{
    QImage out(int(image->width), int(image->height), QImage::Format_ARGB32);
    if (!drawn) {
        out.fill(Qt::black);
        return out;
    }
    const VkDeviceSize bytes = VkDeviceSize(image->width) * image->height * 4;
    auto buffer = context->createHostBuffer(bytes, VK_BUFFER_USAGE_TRANSFER_DST_BIT);
    context->runOnce([&](VkCommandBuffer cmd) {
        // After the passes submitted before it, which may still be drawing the image.
        transitionImage(cmd, image->image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
        VkBufferImageCopy region{};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.imageExtent = {image->width, image->height, 1};
        vkCmdCopyImageToBuffer(cmd, image->image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, buffer->buffer, 1, &region);
    });
    for (uint32_t y = 0; y < image->height; ++y)
        std::memcpy(out.scanLine(int(y)), static_cast<const uint8_t *>(buffer->mapped) + size_t(y) * image->width * 4,
                    size_t(image->width) * 4);
    return out;
}
