#pragma once

#include "render/PipelineCache.h"
#include "render/ShaderLibrary.h"
#include "render/ShaderVariant.h"
#include "render/VulkanHandle.h"

#include <map>
#include <memory>
#include <utility>

// The composite and steam programs, each compiled for a ShaderVariant the first time a frame
// needs it and kept (and written to the pipeline cache). Thread of the renderer.
class ProgramVariants {
public:
    enum class Program { composite, still, moving, steam, steamOver };

    // `colourPass`: the passes into finished pixels; `linearPass`: the still room's linear
    // texture. Both, the layout and the cache outlive this. Throws VulkanError.
    ProgramVariants(VkDevice device, VkPipelineLayout layout, VkRenderPass colourPass, VkRenderPass linearPass,
                    const ShaderLibrary &shaders, PipelineCache &cache, bool creationFeedback);

    // Throws VulkanError when the pipeline cannot be made.
    VkPipeline get(Program program, const ShaderVariant &variant);

private:
    VkDevice device;
    VkPipelineLayout layout;
    VkRenderPass colourPass, linearPass;
    PipelineCache &cache;
    bool creationFeedback;
    ShaderModuleHandle vertex, composite, still, moving, steam;
    std::map<std::pair<Program, ShaderVariant>, PipelineHandle> made;
};
