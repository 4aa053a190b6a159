#include "vulkan/PipelineCache.h"

#include "core/app/Log.h"
#include "core/app/StateFile.h"
#include "vulkan/VulkanCheck.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <cstring>
#include <vector>

PipelineCache::PipelineCache(VkDevice dev, const VkPhysicalDeviceProperties &properties, const QString &file)
    : device(dev)
    , path(file)
{
    QByteArray data;
    if (!path.isEmpty()) {
        QFile f(path);
        if (f.open(QIODevice::ReadOnly) && f.size() <= maxFileBytes) data = f.read(maxFileBytes);
        if (!data.isEmpty() && !fits(data, properties)) {
            Log::write(QStringLiteral("Vulkan: cache de pipelines de outro dispositivo ou driver; ignorado"));
            data.clear();
        }
    }
    VkPipelineCacheCreateInfo ci{VK_STRUCTURE_TYPE_PIPELINE_CACHE_CREATE_INFO};
    ci.initialDataSize = size_t(data.size());
    ci.pInitialData = data.isEmpty() ? nullptr : data.constData();
    if (vkCreatePipelineCache(device, &ci, nullptr, &cache) != VK_SUCCESS) {
        // The driver refused what it once wrote: start empty rather than go without a cache.
        ci.initialDataSize = 0;
        ci.pInitialData = nullptr;
        data.clear();
        vkCheck(vkCreatePipelineCache(device, &ci, nullptr, &cache), "vkCreatePipelineCache");
    }
    readBytes = size_t(data.size());
    fromFile = !data.isEmpty();
}

PipelineCache::~PipelineCache() { vkDestroyPipelineCache(device, cache, nullptr); }

bool PipelineCache::fits(const QByteArray &data, const VkPhysicalDeviceProperties &properties)
{
    // The header every driver writes first: its length, version one, vendor, device, cache UUID.
    struct Header {
        uint32_t length, version, vendor, device;
        uint8_t uuid[VK_UUID_SIZE];
    } h;
    if (size_t(data.size()) < sizeof h) return false;
    std::memcpy(&h, data.constData(), sizeof h);
    return h.length >= sizeof h && h.length <= size_t(data.size()) &&
           h.version == VK_PIPELINE_CACHE_HEADER_VERSION_ONE && h.vendor == properties.vendorID &&
           h.device == properties.deviceID && std::memcmp(h.uuid, properties.pipelineCacheUUID, VK_UUID_SIZE) == 0;
}

bool PipelineCache::save()
{
    if (path.isEmpty()) return true;
    size_t size = 0;
    if (vkGetPipelineCacheData(device, cache, &size, nullptr) != VK_SUCCESS) return false;
    if (size <= readBytes || size > size_t(maxFileBytes)) return true;
    std::vector<char> bytes(size);
    if (vkGetPipelineCacheData(device, cache, &size, bytes.data()) != VK_SUCCESS) return false;
    QDir().mkpath(QFileInfo(path).absolutePath());
    QString error;
    if (!StateFile::write(path, QByteArray(bytes.data(), qsizetype(size)), &error)) {
        Log::write(QStringLiteral("Vulkan: não foi possível gravar o cache de pipelines: ") + error);
        return false;
    }
    readBytes = size;
    return true;
}

QString PipelineCache::defaultPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/turnelo/pipelines.bin");
}
