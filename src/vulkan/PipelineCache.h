#pragma once

#include <vulkan/vulkan.h>

#include <QString>

// The device's compiled pipelines, kept across starts in a file so that a second start compiles
// nothing where the driver keeps what it compiled. A file written for another device or driver,
// or a damaged one, is ignored and replaced. Thread of its owner.
class PipelineCache {
public:
    // `path` empty: a cache for this run only.
    PipelineCache(VkDevice device, const VkPhysicalDeviceProperties &properties, const QString &path);
    ~PipelineCache();
    PipelineCache(const PipelineCache &) = delete;
    PipelineCache &operator=(const PipelineCache &) = delete;

    VkPipelineCache handle() const { return cache; }
    // Whether the file held a cache for this device and driver.
    bool loaded() const { return fromFile; }
    // Writes the cache to its file when it holds more than was read; false when that failed.
    bool save();

    // "$XDG_CACHE_HOME/turnelo/pipelines.bin" (~/.cache when unset).
    static QString defaultPath();
    // Whether `data` starts with a header for this device and driver, as the driver wrote it.
    static bool fits(const QByteArray &data, const VkPhysicalDeviceProperties &properties);

    static constexpr qint64 maxFileBytes = 64 << 20;

private:
    VkDevice device;
    VkPipelineCache cache = VK_NULL_HANDLE;
    QString path;
    size_t readBytes = 0;
    bool fromFile = false;
};
