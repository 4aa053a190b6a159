#pragma once

#include "vulkan/VulkanContext.h"
#include "vulkan/VulkanHandle.h"

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

    // The fixed GPU objects of the build passes, owned by the builder.
    struct Resources {
        SetLayoutHandle setLayout;    // binding 0: the source texture
        PipelineLayoutHandle layout;  // plus four floats of push constants
        SamplerHandle sampler;
        RenderPassHandle clearPass;  // accumulator, cleared to 0
        RenderPassHandle loadPass;   // accumulator, kept
        PipelineHandle accumulate;
        PipelineHandle accumulateAlpha;
        std::map<VkFormat, RenderPassHandle> resultPass;
        std::map<VkFormat, PipelineHandle> convert;
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

    // One synchronous build. Throws with the message to log: SceneError for a plate
    // that cannot be read or has the wrong size, VulkanError (with its VkResult) when the device
    // fails, std::invalid_argument for a size or format it cannot build.
    TextureRef build(const std::vector<Term> &terms, const QString &dir, int width, int height, VkFormat format,
                     Stats *stats = nullptr) const;

    const std::shared_ptr<VulkanContext> &vulkan() const { return context; }

private:
    std::shared_ptr<VulkanContext> context;
    Resources res;
};
