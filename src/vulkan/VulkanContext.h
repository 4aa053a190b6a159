#pragma once

#include <vulkan/vulkan.h>

#include <QString>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

class VulkanContext;

// One device image with its memory and a view. Owned through TextureRef; it keeps its context
// alive, so a texture may outlive the renderer that made it. Layout after creation by the
// context's helpers: shader-read-only.
struct GpuTexture {
    std::shared_ptr<VulkanContext> context;
    VkImage image = VK_NULL_HANDLE;
    VkDeviceMemory memory = VK_NULL_HANDLE;
    VkImageView view = VK_NULL_HANDLE;
    VkFormat format = VK_FORMAT_UNDEFINED;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t mipLevels = 1;
    VkDeviceSize allocatedSize = 0;

    GpuTexture() = default;
    GpuTexture(const GpuTexture &) = delete;
    GpuTexture &operator=(const GpuTexture &) = delete;
    ~GpuTexture();
};
using TextureRef = std::shared_ptr<GpuTexture>;

// A host-visible, coherent buffer, mapped for its whole life.
struct HostBuffer {
    std::shared_ptr<VulkanContext> context;
    VkBuffer buffer = VK_NULL_HANDLE;
    VkDeviceMemory memory = VK_NULL_HANDLE;
    void *mapped = nullptr;
    VkDeviceSize size = 0;

    HostBuffer() = default;
    HostBuffer(const HostBuffer &) = delete;
    HostBuffer &operator=(const HostBuffer &) = delete;
    ~HostBuffer();
};

// Instance, chosen physical device, logical device and the one graphics queue. The queue is
// shared by the frame loop and the pre-mix workers: every submission goes through `submit`,
// which serialises access. Everything else here may be called from any thread.
class VulkanContext : public std::enable_shared_from_this<VulkanContext> {
public:
    // Takes the device that `chooseDevice` picks among those with a graphics queue and logs it.
    // Throws VulkanError or std::runtime_error.
    static std::shared_ptr<VulkanContext> create();

    // Which of the candidates (device type, index in enumeration order) to use: the integrated
    // GPU first (it saves power on a two-GPU machine), then a discrete, a virtual, any other,
    // and a CPU device (lavapipe) last; the first enumerated wins among equals. Returns the
    // chosen index, or -1 for no candidates.
    static int chooseDevice(const std::vector<std::pair<VkPhysicalDeviceType, int>> &candidates);
    // "integrada", "dedicada", "virtual", "CPU" or "outro", for the log.
    static QString typeName(VkPhysicalDeviceType type);
    ~VulkanContext();

    VkInstance instance = VK_NULL_HANDLE;
    VkPhysicalDevice physical = VK_NULL_HANDLE;
    VkDevice device = VK_NULL_HANDLE;
    VkQueue queue = VK_NULL_HANDLE;
    uint32_t queueFamily = 0;
    VkPhysicalDeviceProperties properties{};
    VkPhysicalDeviceMemoryProperties memoryProperties{};
    uint32_t timestampValidBits = 0;
    bool hasSwapchain = false;
    bool hasCreationFeedback = false;  // pipelines say whether they came from the cache

    QString deviceName() const;

    // Serialised vkQueueSubmit.
    VkResult submit(const VkSubmitInfo &info, VkFence fence);
    // Serialised access to the queue for presentation and other queue calls.
    std::mutex &queueMutex() { return queueLock; }

    // Memory type with the given property flags among `typeBits`; throws when none.
    uint32_t memoryType(uint32_t typeBits, VkMemoryPropertyFlags flags) const;
    bool supportsFormat(VkFormat format, VkFormatFeatureFlags features) const;

    // A 2D device-local texture; throws VulkanError (e.g. out of device memory).
    TextureRef createTexture(VkFormat format, uint32_t width, uint32_t height, VkImageUsageFlags usage,
                             uint32_t mipLevels = 1);
    std::unique_ptr<HostBuffer> createHostBuffer(VkDeviceSize size, VkBufferUsageFlags usage);

    // Copies tightly packed pixels into mip level 0 and, when the texture has mip levels,
    // fills them by linear blits; leaves the texture shader-read-only. Blocks until done.
    void upload(GpuTexture &texture, const void *pixels, size_t bytesPerPixel);
    // Records into a one-time command buffer, submits and waits. Any thread.
    void runOnce(const std::function<void(VkCommandBuffer)> &record);

    // Bytes of device memory currently allocated through this context.
    size_t allocatedBytes() const { return allocated.load(); }
    void noteAllocated(VkDeviceSize bytes) { allocated += size_t(bytes); }
    void noteFreed(VkDeviceSize bytes) { allocated -= size_t(bytes); }

private:
    VulkanContext() = default;
    std::mutex queueLock;
    std::atomic<size_t> allocated{0};
};

// Image layout transition of all mip levels of a colour image.
void transitionImage(VkCommandBuffer cmd, VkImage image, VkImageLayout from, VkImageLayout to, uint32_t mipLevels = 1,
                     uint32_t baseMip = 0);
