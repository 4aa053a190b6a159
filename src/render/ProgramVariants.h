#pragma once

#include "vulkan/PipelineCache.h"
#include "render/ShaderLibrary.h"
#include "render/ShaderVariant.h"
#include "vulkan/VulkanHandle.h"

#include <QThreadPool>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

// The composite and steam programs, each compiled for a ShaderVariant the first time a frame
// needs it and kept (and written to the pipeline cache) until no frame has asked for it in
// idleSeconds. A frame asks first whether its programs are made (ready), so that they are
// compiled on a worker thread while the frame waits, rather than on the thread that draws.
// Any thread.
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

    // A software device holds megabytes of compiled code per program, and a light change leaves
    // the programs of its fade behind: those no frame asked for in this long go. Longer than a
    // track, so that the base's programs stay from one cover to the next.
    static constexpr double idleSeconds = 600;
    // Destroys the programs idle for idleSeconds, looking at most every few seconds. Between
    // frames: a program that goes must be in no command buffer that is still to run.
    void evictIdle();
    size_t count() const;
    // Seconds on a monotonic clock; the steady clock unless a test sets one.
    void setClock(std::function<double()> seconds);

private:
    using Key = std::pair<Program, ShaderVariant>;
    struct Made {
        PipelineHandle handle;
        double used = 0;  // when a frame last asked for it
    };
    PipelineHandle make(const Key &key);
    VkPipeline keep(const Key &key, PipelineHandle handle);

    VkDevice device;
    VkPipelineLayout layout;
    VkRenderPass colourPass, linearPass;
    PipelineCache &cache;
    bool creationFeedback;
    ShaderModuleHandle vertex, composite, still, moving, steam;
    mutable std::mutex lock;  // over `made`, `pending`, `clock` and the cache file
    std::map<Key, Made> made;
    std::function<double()> clock;
    double lastSweep = 0;
    std::set<Key> pending, failed;
    QThreadPool workers;
};
