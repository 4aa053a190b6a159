#pragma once

#include <vulkan/vulkan.h>

#include <cstdint>
#include <vector>

// Small builders for the fixed shapes of this renderer: one colour attachment, one full-screen
// triangle, dynamic viewport and scissor. All throw VulkanError.
namespace VulkanPipelines {

VkRenderPass makeRenderPass(VkDevice device, VkFormat format, VkAttachmentLoadOp load, VkImageLayout initial,
                            VkImageLayout final);
VkShaderModule makeShader(VkDevice device, const std::vector<uint32_t> &spirv);
enum class Blend { none, additive, premultipliedOver };
// `cache` may be null. `fromCache`, when given, tells whether the driver found the whole pipeline
// in the cache (only where it reports creation feedback; left as it is otherwise). `specialization`
// sets the fragment shader's constants.
VkPipeline makePipeline(VkDevice device, VkPipelineLayout layout, VkRenderPass pass, VkShaderModule vertex,
                        VkShaderModule fragment, Blend blendMode, VkPipelineCache cache = VK_NULL_HANDLE,
                        bool *fromCache = nullptr, const VkSpecializationInfo *specialization = nullptr);
VkSampler makeSampler(VkDevice device, VkFilter filter, VkSamplerAddressMode address, bool mipmaps, float anisotropy);

}  // namespace VulkanPipelines
