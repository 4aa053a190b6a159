#include "RenderTestSupport.h"

#include "render/VulkanContext.h"

#include <gtest/gtest.h>

using namespace rendertest;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

TEST(DeviceChoice, HardwareBeatsTheSoftwareDeviceWhateverTheOrderAndTheChoiceIsLogged)
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
    EXPECT_EQ(VulkanContext::chooseDevice({{cpu, 0}}), 0);
    EXPECT_EQ(VulkanContext::chooseDevice({}), -1);

    auto context = VulkanContext::create();
    ASSERT_TRUE(context);
    EXPECT_EQ(context->properties.deviceType, VK_PHYSICAL_DEVICE_TYPE_CPU);  // the tests run on lavapipe
    EXPECT_TRUE(readLog().contains("Vulkan: dispositivo " + context->deviceName() + " (CPU)"));
}

}  // namespace
