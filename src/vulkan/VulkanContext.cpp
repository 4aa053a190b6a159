#include "vulkan/VulkanContext.h"

#include "core/app/Log.h"
#include "vulkan/VulkanCheck.h"

#include <cstring>
#include <stdexcept>
#include <vector>

GpuTexture::~GpuTexture()
{
    if (!context) return;
    VkDevice device = context->device;
    if (view) vkDestroyImageView(device, view, nullptr);
    if (image) vkDestroyImage(device, image, nullptr);
    if (memory) {
        vkFreeMemory(device, memory, nullptr);
        context->noteFreed(allocatedSize);
    }
}

HostBuffer::~HostBuffer()
{
    if (!context) return;
    if (mapped) vkUnmapMemory(context->device, memory);
    if (buffer) vkDestroyBuffer(context->device, buffer, nullptr);
    if (memory) {
        vkFreeMemory(context->device, memory, nullptr);
        context->noteFreed(size);
    }
}

static bool hasExtension(const std::vector<VkExtensionProperties> &list, const char *name)
{
    for (const auto &e : list)
        if (std::strcmp(e.extensionName, name) == 0) return true;
    return false;
}

namespace {

int rank(VkPhysicalDeviceType type)
{
    switch (type) {
    case VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU:
        return 0;
    case VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU:
        return 1;
    case VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU:
        return 2;
    case VK_PHYSICAL_DEVICE_TYPE_CPU:
        return 4;
    default:
        return 3;
    }
}

}  // namespace

int VulkanContext::chooseDevice(const std::vector<std::pair<VkPhysicalDeviceType, int>> &candidates)
{
    int best = -1, bestRank = 0, bestOrder = 0;
    for (const auto &[type, index] : candidates) {
        const int r = rank(type);
        if (best < 0 || r < bestRank || (r == bestRank && index < bestOrder)) {
            best = index;
            bestRank = r;
            bestOrder = index;
        }
    }
    return best;
}

QString VulkanContext::typeName(VkPhysicalDeviceType type)
{
    switch (type) {
    case VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU:
        return QStringLiteral("integrada");
    case VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU:
        return QStringLiteral("dedicada");
    case VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU:
        return QStringLiteral("virtual");
    case VK_PHYSICAL_DEVICE_TYPE_CPU:
        return QStringLiteral("CPU");
    default:
        return QStringLiteral("outro");
    }
}

std::shared_ptr<VulkanContext> VulkanContext::create()
{
    std::shared_ptr<VulkanContext> c(new VulkanContext());

    uint32_t count = 0;
    vkCheck(vkEnumerateInstanceExtensionProperties(nullptr, &count, nullptr), "vkEnumerateInstanceExtensionProperties");
    std::vector<VkExtensionProperties> available(count);
    vkCheck(vkEnumerateInstanceExtensionProperties(nullptr, &count, available.data()),
            "vkEnumerateInstanceExtensionProperties");
    // Window-system extensions are taken when present, so a swapchain target can be added later;
    // offscreen rendering needs none.
    std::vector<const char *> extensions;
    for (const char *name : {"VK_KHR_surface", "VK_KHR_xlib_surface", "VK_KHR_xcb_surface", "VK_KHR_wayland_surface"})
        if (hasExtension(available, name)) extensions.push_back(name);

    VkApplicationInfo app{VK_STRUCTURE_TYPE_APPLICATION_INFO};
    app.pApplicationName = "Turnelo";
    app.apiVersion = VK_API_VERSION_1_1;
    VkInstanceCreateInfo ici{VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO};
    ici.pApplicationInfo = &app;
    ici.enabledExtensionCount = uint32_t(extensions.size());
    ici.ppEnabledExtensionNames = extensions.data();
    vkCheck(vkCreateInstance(&ici, nullptr, &c->instance), "vkCreateInstance");

    vkCheck(vkEnumeratePhysicalDevices(c->instance, &count, nullptr), "vkEnumeratePhysicalDevices");
    std::vector<VkPhysicalDevice> devices(count);
    vkCheck(vkEnumeratePhysicalDevices(c->instance, &count, devices.data()), "vkEnumeratePhysicalDevices");
    // Only devices with a graphics queue are candidates.
    std::vector<std::pair<VkPhysicalDevice, uint32_t>> candidates;
    for (VkPhysicalDevice d : devices) {
        uint32_t n = 0;
        vkGetPhysicalDeviceQueueFamilyProperties(d, &n, nullptr);
        std::vector<VkQueueFamilyProperties> families(n);
        vkGetPhysicalDeviceQueueFamilyProperties(d, &n, families.data());
        for (uint32_t i = 0; i < n; ++i)
            if (families[i].queueFlags & VK_QUEUE_GRAPHICS_BIT) {
                candidates.push_back({d, i});
                break;
            }
    }
    if (candidates.empty()) throw std::runtime_error("nenhum dispositivo Vulkan com fila gráfica");
    std::vector<std::pair<VkPhysicalDeviceType, int>> kinds;
    for (size_t i = 0; i < candidates.size(); ++i) {
        VkPhysicalDeviceProperties p;
        vkGetPhysicalDeviceProperties(candidates[i].first, &p);
        kinds.push_back({p.deviceType, int(i)});
    }
    const auto &chosen = candidates[size_t(chooseDevice(kinds))];
    c->physical = chosen.first;
    c->queueFamily = chosen.second;
    vkGetPhysicalDeviceProperties(c->physical, &c->properties);
    Log::write(QStringLiteral("Vulkan: dispositivo ") + c->deviceName() + " (" + typeName(c->properties.deviceType) +
               ")");
    vkGetPhysicalDeviceMemoryProperties(c->physical, &c->memoryProperties);
    {
        uint32_t n = 0;
        vkGetPhysicalDeviceQueueFamilyProperties(c->physical, &n, nullptr);
        std::vector<VkQueueFamilyProperties> families(n);
        vkGetPhysicalDeviceQueueFamilyProperties(c->physical, &n, families.data());
        c->timestampValidBits = families[c->queueFamily].timestampValidBits;
    }

    vkCheck(vkEnumerateDeviceExtensionProperties(c->physical, nullptr, &count, nullptr),
            "vkEnumerateDeviceExtensionProperties");
    std::vector<VkExtensionProperties> deviceExts(count);
    vkCheck(vkEnumerateDeviceExtensionProperties(c->physical, nullptr, &count, deviceExts.data()),
            "vkEnumerateDeviceExtensionProperties");
    std::vector<const char *> enabledDeviceExts;
    if (hasExtension(deviceExts, VK_KHR_SWAPCHAIN_EXTENSION_NAME)) {
        enabledDeviceExts.push_back(VK_KHR_SWAPCHAIN_EXTENSION_NAME);
        c->hasSwapchain = true;
    }
    if (hasExtension(deviceExts, VK_EXT_PIPELINE_CREATION_FEEDBACK_EXTENSION_NAME)) {
        enabledDeviceExts.push_back(VK_EXT_PIPELINE_CREATION_FEEDBACK_EXTENSION_NAME);
        c->hasCreationFeedback = true;
    }

    VkPhysicalDeviceFeatures supported{};
    vkGetPhysicalDeviceFeatures(c->physical, &supported);
    VkPhysicalDeviceFeatures features{};
    features.samplerAnisotropy = supported.samplerAnisotropy;

    float priority = 1.0f;
    VkDeviceQueueCreateInfo qci{VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO};
    qci.queueFamilyIndex = c->queueFamily;
    qci.queueCount = 1;
    qci.pQueuePriorities = &priority;
    VkDeviceCreateInfo dci{VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO};
    dci.queueCreateInfoCount = 1;
    dci.pQueueCreateInfos = &qci;
    dci.enabledExtensionCount = uint32_t(enabledDeviceExts.size());
    dci.ppEnabledExtensionNames = enabledDeviceExts.data();
    dci.pEnabledFeatures = &features;
    vkCheck(vkCreateDevice(c->physical, &dci, nullptr, &c->device), "vkCreateDevice");
    vkGetDeviceQueue(c->device, c->queueFamily, 0, &c->queue);
    return c;
}

VulkanContext::~VulkanContext()
{
    if (device) {
        vkDeviceWaitIdle(device);
        vkDestroyDevice(device, nullptr);
    }
    if (instance) vkDestroyInstance(instance, nullptr);
}

QString VulkanContext::deviceName() const { return QString::fromUtf8(properties.deviceName); }

VkResult VulkanContext::submit(const VkSubmitInfo &info, VkFence fence)
{
    std::lock_guard<std::mutex> lock(queueLock);
    return vkQueueSubmit(queue, 1, &info, fence);
}

uint32_t VulkanContext::memoryType(uint32_t typeBits, VkMemoryPropertyFlags flags) const
{
    for (uint32_t i = 0; i < memoryProperties.memoryTypeCount; ++i)
        if ((typeBits & (1u << i)) && (memoryProperties.memoryTypes[i].propertyFlags & flags) == flags) return i;
    throw VulkanError("memoryType", VK_ERROR_OUT_OF_DEVICE_MEMORY);
}

bool VulkanContext::supportsFormat(VkFormat format, VkFormatFeatureFlags features) const
{
    VkFormatProperties p;
    vkGetPhysicalDeviceFormatProperties(physical, format, &p);
    return (p.optimalTilingFeatures & features) == features;
}

TextureRef VulkanContext::createTexture(VkFormat format, uint32_t width, uint32_t height, VkImageUsageFlags usage,
                                        uint32_t mipLevels)
{
    auto t = std::make_shared<GpuTexture>();
    t->context = shared_from_this();
    t->format = format;
    t->width = width;
    t->height = height;
    t->mipLevels = mipLevels;
    VkImageCreateInfo ici{VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO};
    ici.imageType = VK_IMAGE_TYPE_2D;
    ici.format = format;
    ici.extent = {width, height, 1};
    ici.mipLevels = mipLevels;
    ici.arrayLayers = 1;
    ici.samples = VK_SAMPLE_COUNT_1_BIT;
    ici.tiling = VK_IMAGE_TILING_OPTIMAL;
    ici.usage = usage;
    ici.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    ici.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    vkCheck(vkCreateImage(device, &ici, nullptr, &t->image), "vkCreateImage");
    VkMemoryRequirements req;
    vkGetImageMemoryRequirements(device, t->image, &req);
    VkMemoryAllocateInfo mai{VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO};
    mai.allocationSize = req.size;
    mai.memoryTypeIndex = memoryType(req.memoryTypeBits, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT);
    vkCheck(vkAllocateMemory(device, &mai, nullptr, &t->memory), "vkAllocateMemory");
    t->allocatedSize = req.size;
    noteAllocated(req.size);
    vkCheck(vkBindImageMemory(device, t->image, t->memory, 0), "vkBindImageMemory");
    VkImageViewCreateInfo vci{VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO};
    vci.image = t->image;
    vci.viewType = VK_IMAGE_VIEW_TYPE_2D;
    vci.format = format;
    vci.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, mipLevels, 0, 1};
    vkCheck(vkCreateImageView(device, &vci, nullptr, &t->view), "vkCreateImageView");
    return t;
}

std::unique_ptr<HostBuffer> VulkanContext::createHostBuffer(VkDeviceSize size, VkBufferUsageFlags usage)
{
    auto b = std::make_unique<HostBuffer>();
    b->context = shared_from_this();
    VkBufferCreateInfo bci{VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO};
    bci.size = size;
    bci.usage = usage;
    bci.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    vkCheck(vkCreateBuffer(device, &bci, nullptr, &b->buffer), "vkCreateBuffer");
    VkMemoryRequirements req;
    vkGetBufferMemoryRequirements(device, b->buffer, &req);
    VkMemoryAllocateInfo mai{VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO};
    mai.allocationSize = req.size;
    mai.memoryTypeIndex =
        memoryType(req.memoryTypeBits, VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT);
    vkCheck(vkAllocateMemory(device, &mai, nullptr, &b->memory), "vkAllocateMemory");
    b->size = req.size;
    noteAllocated(req.size);
    vkCheck(vkBindBufferMemory(device, b->buffer, b->memory, 0), "vkBindBufferMemory");
    vkCheck(vkMapMemory(device, b->memory, 0, VK_WHOLE_SIZE, 0, &b->mapped), "vkMapMemory");
    return b;
}

void transitionImage(VkCommandBuffer cmd, VkImage image, VkImageLayout from, VkImageLayout to, uint32_t mipLevels,
                     uint32_t baseMip)
{
    VkImageMemoryBarrier b{VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER};
    b.oldLayout = from;
    b.newLayout = to;
    b.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    b.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    b.image = image;
    b.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, baseMip, mipLevels, 0, 1};
    // Coarse but correct: these transitions happen on uploads and pass boundaries, not per pixel.
    b.srcAccessMask = VK_ACCESS_MEMORY_WRITE_BIT;
    b.dstAccessMask = VK_ACCESS_MEMORY_READ_BIT | VK_ACCESS_MEMORY_WRITE_BIT;
    vkCmdPipelineBarrier(cmd, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, VK_PIPELINE_STAGE_ALL_COMMANDS_BIT, 0, 0, nullptr, 0,
                         nullptr, 1, &b);
}

void VulkanContext::runOnce(const std::function<void(VkCommandBuffer)> &record)
{
    VkCommandPool pool = VK_NULL_HANDLE;
    VkCommandPoolCreateInfo pci{VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
    pci.flags = VK_COMMAND_POOL_CREATE_TRANSIENT_BIT;
    pci.queueFamilyIndex = queueFamily;
    vkCheck(vkCreateCommandPool(device, &pci, nullptr, &pool), "vkCreateCommandPool");
    VkFence fence = VK_NULL_HANDLE;
    auto cleanup = [&] {
        if (fence) vkDestroyFence(device, fence, nullptr);
        vkDestroyCommandPool(device, pool, nullptr);
    };
    try {
        VkCommandBufferAllocateInfo ai{VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
        ai.commandPool = pool;
        ai.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
        ai.commandBufferCount = 1;
        VkCommandBuffer cmd;
        vkCheck(vkAllocateCommandBuffers(device, &ai, &cmd), "vkAllocateCommandBuffers");
        VkCommandBufferBeginInfo bi{VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
        bi.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
        vkCheck(vkBeginCommandBuffer(cmd, &bi), "vkBeginCommandBuffer");
        record(cmd);
        vkCheck(vkEndCommandBuffer(cmd), "vkEndCommandBuffer");
        VkFenceCreateInfo fci{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
        vkCheck(vkCreateFence(device, &fci, nullptr, &fence), "vkCreateFence");
        VkSubmitInfo si{VK_STRUCTURE_TYPE_SUBMIT_INFO};
        si.commandBufferCount = 1;
        si.pCommandBuffers = &cmd;
        vkCheck(submit(si, fence), "vkQueueSubmit");
        vkCheck(vkWaitForFences(device, 1, &fence, VK_TRUE, UINT64_MAX), "vkWaitForFences");
    } catch (...) {
        cleanup();
        throw;
    }
    cleanup();
}

void VulkanContext::upload(GpuTexture &texture, const void *pixels, size_t bytesPerPixel)
{
    const VkDeviceSize bytes = VkDeviceSize(texture.width) * texture.height * bytesPerPixel;
    auto staging = createHostBuffer(bytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT);
    std::memcpy(staging->mapped, pixels, size_t(bytes));
    runOnce([&](VkCommandBuffer cmd) {
        transitionImage(cmd, texture.image, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                        texture.mipLevels);
        VkBufferImageCopy region{};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.imageExtent = {texture.width, texture.height, 1};
        vkCmdCopyBufferToImage(cmd, staging->buffer, texture.image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &region);
        int32_t w = int32_t(texture.width), h = int32_t(texture.height);
        for (uint32_t level = 1; level < texture.mipLevels; ++level) {
            transitionImage(cmd, texture.image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                            VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, 1, level - 1);
            VkImageBlit blit{};
            blit.srcSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, level - 1, 0, 1};
            blit.srcOffsets[1] = {w, h, 1};
            int32_t nw = std::max(w / 2, 1), nh = std::max(h / 2, 1);
            blit.dstSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, level, 0, 1};
            blit.dstOffsets[1] = {nw, nh, 1};
            vkCmdBlitImage(cmd, texture.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, texture.image,
                           VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &blit, VK_FILTER_LINEAR);
            transitionImage(cmd, texture.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL,
                            VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, level - 1);
            w = nw;
            h = nh;
        }
        transitionImage(cmd, texture.image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                        VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, texture.mipLevels);
    });
}
