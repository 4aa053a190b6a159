#pragma once

#include <vulkan/vulkan.h>

#include <QString>
#include <stdexcept>

// A failed Vulkan call; the text names the call and its result.
struct VulkanError : std::runtime_error {
    VulkanError(const char *call, VkResult result);
    VkResult result;
};

// The one check for every VkResult: throws VulkanError unless the call succeeded.
void vkCheck(VkResult result, const char *call);

// Readable name of a result ("VK_ERROR_OUT_OF_DEVICE_MEMORY").
const char *vkResultName(VkResult result);
