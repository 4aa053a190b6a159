#include "RenderTestSupport.h"

#include "vulkan/PipelineCache.h"
#include "vulkan/VulkanContext.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace rendertest;

namespace {

TEST(DeviceChoice, HardwareBeatsTheSoftwareDeviceWhateverTheOrder)
{
    constexpr auto cpu = VK_PHYSICAL_DEVICE_TYPE_CPU, discrete = VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU,
                   integrated = VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU, virt = VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU,
                   other = VK_PHYSICAL_DEVICE_TYPE_OTHER;
    EXPECT_EQ(VulkanContext::chooseDevice({{cpu, 0}, {discrete, 1}}), 1);
    EXPECT_EQ(VulkanContext::chooseDevice({{discrete, 0}, {cpu, 1}}), 0);
    // A two-GPU machine takes its integrated GPU, in either order.
    EXPECT_EQ(VulkanContext::chooseDevice({{discrete, 0}, {integrated, 1}, {cpu, 2}}), 1);
    EXPECT_EQ(VulkanContext::chooseDevice({{cpu, 0}, {integrated, 1}, {discrete, 2}}), 1);
    EXPECT_EQ(VulkanContext::chooseDevice({{cpu, 0}, {virt, 1}}), 1);
    EXPECT_EQ(VulkanContext::chooseDevice({{cpu, 0}, {other, 1}, {virt, 2}}), 2);
    EXPECT_EQ(VulkanContext::chooseDevice({{cpu, 0}, {other, 1}}), 1);
    // Among equals the first enumerated wins.
    EXPECT_EQ(VulkanContext::chooseDevice({{discrete, 0}, {discrete, 1}}), 0);
    EXPECT_EQ(VulkanContext::chooseDevice({}), -1);

    auto context = VulkanContext::create();
    ASSERT_TRUE(context);
    EXPECT_EQ(context->properties.deviceType, VK_PHYSICAL_DEVICE_TYPE_CPU);  // the tests run on lavapipe
}

// A cache file is taken only from the driver that wrote it (others, damaged or cut short: empty).
TEST(DeviceChoice, ThePipelineCacheFileIsKeptOnlyForItsOwnDevice)
{
    auto context = VulkanContext::create();
    ASSERT_TRUE(context);
    const VkPhysicalDeviceProperties &props = context->properties;
    QTemporaryDir dir;
    const QString path = dir.filePath("cache/pipelines.bin");
    EXPECT_FALSE(PipelineCache(context->device, props, path).loaded());
    EXPECT_TRUE(PipelineCache(context->device, props, path).save());
    const QByteArray written = testsupport::readFile(path);
    ASSERT_GE(written.size(), 32) << "a header at least";
    EXPECT_TRUE(PipelineCache::fits(written, props));
    EXPECT_TRUE(PipelineCache(context->device, props, path).loaded());

    QByteArray otherDevice = written, otherDriver = written;
    otherDevice[12] = char(otherDevice[12] ^ 0x5a);  // the device ID
    otherDriver[31] = char(otherDriver[31] ^ 0x01);  // the last byte of the cache UUID
    for (const QByteArray &bad : {otherDevice, otherDriver, written.left(20), QByteArray(4096, '\xff')}) {
        EXPECT_FALSE(PipelineCache::fits(bad, props));
        testsupport::writeFile(path, bad);
        EXPECT_FALSE(PipelineCache(context->device, props, path).loaded());
    }
}

}  // namespace
