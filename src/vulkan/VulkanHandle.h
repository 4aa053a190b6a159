#pragma once

#include <vulkan/vulkan.h>

#include <utility>

// One Vulkan object of a device and the call that destroys it, owned: released when the owner
// goes (members in reverse order of declaration), so a failed step of a build leaks nothing and
// no destroy list is written by hand. The device must outlive it.
template <typename T, void (*Destroy)(VkDevice, T, const VkAllocationCallbacks *)> class VulkanHandle {
public:
    VulkanHandle() = default;
    VulkanHandle(VkDevice device, T handle)
        : device(device)
        , handle(handle)
    {
    }
    ~VulkanHandle() { reset(); }
    VulkanHandle(VulkanHandle &&other) noexcept
        : device(other.device)
        , handle(std::exchange(other.handle, T(VK_NULL_HANDLE)))
    {
    }
    VulkanHandle &operator=(VulkanHandle &&other) noexcept
    {
        if (this != &other) {
            reset();
            device = other.device;
            handle = std::exchange(other.handle, T(VK_NULL_HANDLE));
        }
        return *this;
    }
    VulkanHandle(const VulkanHandle &) = delete;
    VulkanHandle &operator=(const VulkanHandle &) = delete;

    // For a vkCreate… call: drops what is held and hands out the slot for the new object.
    T *out(VkDevice owner)
    {
        reset();
        device = owner;
        return &handle;
    }
    void reset()
    {
        if (handle != T(VK_NULL_HANDLE)) Destroy(device, handle, nullptr);
        handle = T(VK_NULL_HANDLE);
    }
    T get() const { return handle; }
    operator T() const { return handle; }
    const T *ptr() const { return &handle; }
    explicit operator bool() const { return handle != T(VK_NULL_HANDLE); }

private:
    VkDevice device = VK_NULL_HANDLE;
    T handle = VK_NULL_HANDLE;
};

using PipelineHandle = VulkanHandle<VkPipeline, vkDestroyPipeline>;
using PipelineLayoutHandle = VulkanHandle<VkPipelineLayout, vkDestroyPipelineLayout>;
using RenderPassHandle = VulkanHandle<VkRenderPass, vkDestroyRenderPass>;
using SamplerHandle = VulkanHandle<VkSampler, vkDestroySampler>;
using SetLayoutHandle = VulkanHandle<VkDescriptorSetLayout, vkDestroyDescriptorSetLayout>;
using DescriptorPoolHandle = VulkanHandle<VkDescriptorPool, vkDestroyDescriptorPool>;
using CommandPoolHandle = VulkanHandle<VkCommandPool, vkDestroyCommandPool>;
using FenceHandle = VulkanHandle<VkFence, vkDestroyFence>;
using FramebufferHandle = VulkanHandle<VkFramebuffer, vkDestroyFramebuffer>;
using QueryPoolHandle = VulkanHandle<VkQueryPool, vkDestroyQueryPool>;
using ShaderModuleHandle = VulkanHandle<VkShaderModule, vkDestroyShaderModule>;
