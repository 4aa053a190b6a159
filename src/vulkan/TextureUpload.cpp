#include "vulkan/TextureUpload.h"

#include <algorithm>
#include <cmath>

namespace TextureUpload {

static constexpr VkImageUsageFlags sampledUpload = VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT;

TextureRef half(VulkanContext &context, const HalfImage &image)
{
    auto t = context.createTexture(VK_FORMAT_R16G16B16A16_SFLOAT, uint32_t(image.width), uint32_t(image.height),
                                   sampledUpload);
    context.upload(*t, image.pixels.data(), 8);
    return t;
}

TextureRef gray(VulkanContext &context, const GrayImage &image)
{
    auto t = context.createTexture(VK_FORMAT_R8_UNORM, uint32_t(image.width), uint32_t(image.height), sampledUpload);
    context.upload(*t, image.pixels.data(), 1);
    return t;
}

static TextureRef rgba8(VulkanContext &context, const QImage &image, VkFormat format, bool mipmaps)
{
    QImage rgba = image.convertToFormat(QImage::Format_RGBA8888);
    const uint32_t w = uint32_t(std::max(rgba.width(), 1)), h = uint32_t(std::max(rgba.height(), 1));
    uint32_t levels = 1;
    if (mipmaps) levels = uint32_t(std::floor(std::log2(double(std::max(w, h))))) + 1;
    VkImageUsageFlags usage = sampledUpload | (levels > 1 ? VK_IMAGE_USAGE_TRANSFER_SRC_BIT : 0);
    auto t = context.createTexture(format, w, h, usage, levels);
    std::vector<uint8_t> packed(size_t(w) * h * 4);
    for (uint32_t y = 0; y < h; ++y)
        std::copy_n(rgba.constScanLine(int(y)), size_t(w) * 4, packed.data() + size_t(y) * w * 4);
    context.upload(*t, packed.data(), 4);
    return t;
}

TextureRef art(VulkanContext &context, const QImage &image)
{
    return rgba8(context, image, VK_FORMAT_R8G8B8A8_SRGB, true);
}

TextureRef map(VulkanContext &context, const QImage &image)
{
    return rgba8(context, image, VK_FORMAT_R8G8B8A8_UNORM, false);
}

}  // namespace TextureUpload
