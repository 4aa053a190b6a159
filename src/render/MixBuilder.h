#pragma once

#include "render/VulkanContext.h"

#include <QString>
#include <array>
#include <map>
#include <memory>
#include <vector>

// Sums a preset's plates on the GPU into one light texture: each plate is uploaded 256 rows at
// a time through one small band texture and added, weighted, into a half-float accumulator,
// which is finally converted into the finished format. One per renderer, shared by all
// families; `build` runs on worker threads (it serialises only its queue submissions).
class MixBuilder {
public:
    struct Term {
        QString file;                    // plate name without directory and ".exr"
        std::array<double, 3> weight{};  // linear RGB factor
        bool toAlpha = false;            // add the weighted luminance to alpha instead of RGB
    };

    // The fixed GPU objects of the build passes; the builder owns and destroys them.
    struct Resources {
        VkDescriptorSetLayout setLayout = VK_NULL_HANDLE;  // binding 0: the source texture
        VkPipelineLayout layout = VK_NULL_HANDLE;          // plus four floats of push constants
        VkSampler sampler = VK_NULL_HANDLE;
        VkRenderPass clearPass = VK_NULL_HANDLE;  // accumulator, cleared to 0
        VkRenderPass loadPass = VK_NULL_HANDLE;   // accumulator, kept
        VkPipeline accumulate = VK_NULL_HANDLE;
        VkPipeline accumulateAlpha = VK_NULL_HANDLE;
        std::map<VkFormat, VkRenderPass> resultPass;
        std::map<VkFormat, VkPipeline> convert;
    };

    // What one build did, for tests and benchmarks.
    struct Stats {
        int termsDrawn = 0;
        int bands = 0;  // render passes into the accumulator
    };

    static constexpr uint32_t bandRows = 256;

    MixBuilder(std::shared_ptr<VulkanContext> context, Resources resources);
    ~MixBuilder();
    MixBuilder(const MixBuilder &) = delete;
    MixBuilder &operator=(const MixBuilder &) = delete;

    // One synchronous build. Throws with the message to log: ImageDecoder::Failure for a plate
    // that cannot be read or has the wrong size, VulkanError (with its VkResult) when the device
    // fails, std::invalid_argument for a size or format it cannot build.
    TextureRef build(const std::vector<Term> &terms, const QString &dir, int width, int height, VkFormat format,
                     Stats *stats = nullptr) const;

    const std::shared_ptr<VulkanContext> &vulkan() const { return context; }

private:
    std::shared_ptr<VulkanContext> context;
    Resources res;
};
