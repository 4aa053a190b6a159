#pragma once

#include "render/PipelineCache.h"
#include "render/ShaderLibrary.h"
#include "render/ShaderVariant.h"
#include "render/VulkanHandle.h"

#include <QThreadPool>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

// The composite and steam programs, each compiled for a ShaderVariant the first time a frame
// needs it and kept (and written to the pipeline cache). A frame asks first whether its programs
// are made (ready), so that they are compiled on a worker thread while the frame waits, rather
// than on the thread that draws. Any thread.
class ProgramVariants {
public:
    enum class Program { composite, still, moving, steam, steamOver };

    // `colourPass`: the passes into finished pixels; `linearPass`: the still room's linear
    // texture. Both, the layout and the cache outlive this. Throws VulkanError.
    ProgramVariants(VkDevice device, VkPipelineLayout layout, VkRenderPass colourPass, VkRenderPass linearPass,
                    const ShaderLibrary &shaders, PipelineCache &cache, bool creationFeedback);

    ~ProgramVariants();

    // Throws VulkanError when the pipeline cannot be made; compiles it here when it is not made.
    VkPipeline get(Program program, const ShaderVariant &variant);
    // Whether the pipeline is made. When it is not, it is compiled on a worker thread (once),
    // and a later call answers true; one that fails to compile is left to get() to report.
    bool ready(Program program, const ShaderVariant &variant);

private:
    using Key = std::pair<Program, ShaderVariant>;
    PipelineHandle make(const Key &key);
    VkPipeline keep(const Key &key, PipelineHandle handle);

    VkDevice device;
    VkPipelineLayout layout;
    VkRenderPass colourPass, linearPass;
    PipelineCache &cache;
    bool creationFeedback;
    ShaderModuleHandle vertex, composite, still, moving, steam;
    std::mutex lock;  // over `made`, `pending` and the cache file
    std::map<Key, PipelineHandle> made;
    std::set<Key> pending, failed;
    QThreadPool workers;
};
