#pragma once

#include "core/scene/PlateImages.h"
#include "vulkan/VulkanContext.h"

#include <QImage>

// CPU rasters to shader-read-only textures. Throw VulkanError (for example out of memory).
namespace TextureUpload {

// Half-float RGBA (plates, sprites, passes): R16G16B16A16_SFLOAT.
TextureRef half(VulkanContext &context, const HalfImage &image);
// 8-bit grey (masks, shadows): R8_UNORM.
TextureRef gray(VulkanContext &context, const GrayImage &image);
// Cover and label art: sRGB RGBA8 with a full mip chain, so the shader reads linear values.
TextureRef art(VulkanContext &context, const QImage &image);
// Data maps stored in an 8-bit image (the stack's uv map): RGBA8 UNORM, no mips.
TextureRef map(VulkanContext &context, const QImage &image);

}  // namespace TextureUpload
