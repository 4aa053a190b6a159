#pragma once

#include <vulkan/vulkan.h>

#include <QString>
#include <stdexcept>

// The render layer's one error: a failed Vulkan call, its text naming the call and its result,
// or, with `doing`, what the renderer was doing when the device said no.
struct VulkanError : std::runtime_error {
    VulkanError(const char *call, VkResult result);
    VulkanError(const QString &doing, const VulkanError &cause);
    VkResult result;
};

// The one check for every VkResult: throws VulkanError unless the call succeeded.
void vkCheck(VkResult result, const char *call);

// Readable name of a result ("VK_ERROR_OUT_OF_DEVICE_MEMORY").
const char *vkResultName(VkResult result);
