#include "render/ProgramVariants.h"

#include "core/app/Log.h"
#include "vulkan/VulkanPipelines.h"

#include <QElapsedTimer>
#include <chrono>
#ifdef __GLIBC__
#include <malloc.h>
#endif

using namespace VulkanPipelines;

ProgramVariants::ProgramVariants(VkDevice device, VkPipelineLayout layout, VkRenderPass colourPass,
                                 VkRenderPass linearPass, const ShaderLibrary &shaders, PipelineCache &cache,
                                 bool creationFeedback)
    : device(device)
    , layout(layout)
    , colourPass(colourPass)
    , linearPass(linearPass)
    , cache(cache)
    , creationFeedback(creationFeedback)
    , vertex(device, makeShader(device, shaders.fullscreen))
    , composite(device, makeShader(device, shaders.composite))
    , still(device, makeShader(device, shaders.compositeStill))
    , moving(device, makeShader(device, shaders.compositeMoving))
    , steam(device, makeShader(device, shaders.steam))
{
    // One at a time: a software device's compiles take the cores the frames need.
    workers.setMaxThreadCount(1);
    setClock({});
}

void ProgramVariants::setClock(std::function<double()> seconds)
{
    if (!seconds)
        seconds = [] {
            return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        };
    std::lock_guard<std::mutex> held(lock);
    clock = std::move(seconds);
    lastSweep = clock();
}

ProgramVariants::~ProgramVariants() { workers.waitForDone(); }

PipelineHandle ProgramVariants::make(const Key &key)
{
    const auto &[program, variant] = key;
    QElapsedTimer timer;
    timer.start();
    const VkShaderModule fragment = program == Program::composite ? composite.get()
                                    : program == Program::still   ? still.get()
                                    : program == Program::moving  ? moving.get()
                                                                  : steam.get();
    const VkSpecializationInfo constants = variant.info();
    bool hit = false;
    PipelineHandle handle;
    *handle.out(device) = makePipeline(device, layout, program == Program::still ? linearPass : colourPass, vertex,
                                       fragment, program == Program::steamOver ? Blend::premultipliedOver : Blend::none,
                                       cache.handle(), creationFeedback ? &hit : nullptr, &constants);
    static const char *const names[] = {"composição", "quadro parado", "partes móveis", "vapor", "vapor por cima"};
    Log::write(QStringLiteral("Vulkan: pipeline %1 (luzes %2, braços %3, frentes %4, chuva %5, partes %6) em %7 ms%8")
                   .arg(QString::fromUtf8(names[int(program)]))
                   .arg(variant.mixes)
                   .arg(variant.arms)
                   .arg(variant.fronts)
                   .arg(variant.rain ? QStringLiteral("sim") : QStringLiteral("não"))
                   .arg(variant.parts)
                   .arg(timer.elapsed())
                   .arg(hit ? QStringLiteral(", do cache") : QString()));
    return handle;
}

// The first one made for a key stays; one made meanwhile elsewhere goes.
VkPipeline ProgramVariants::keep(const Key &key, PipelineHandle handle)
{
    std::lock_guard<std::mutex> held(lock);
    pending.erase(key);
    auto [at, added] = made.try_emplace(key, Made{std::move(handle), clock()});
    if (added) cache.save();
    return at->second.handle;
}

VkPipeline ProgramVariants::get(Program program, const ShaderVariant &variant)
{
    const Key key{program, variant};
    {
        std::lock_guard<std::mutex> held(lock);
        const auto at = made.find(key);
        if (at != made.end()) {
            at->second.used = clock();
            return at->second.handle;
        }
    }
    return keep(key, make(key));
}

bool ProgramVariants::ready(Program program, const ShaderVariant &variant)
{
    const Key key{program, variant};
    std::lock_guard<std::mutex> held(lock);
    if (const auto at = made.find(key); at != made.end()) {
        at->second.used = clock();
        return true;
    }
    if (failed.count(key)) return true;
    if (pending.insert(key).second)
        workers.start([this, key] {
            try {
                keep(key, make(key));
            } catch (const std::exception &) {
                // get() compiles it again and reports the failure where a frame needs it.
                std::lock_guard<std::mutex> again(lock);
                pending.erase(key);
                failed.insert(key);
            }
        });
    return false;
}

void ProgramVariants::evictIdle()
{
    int gone = 0;
    {
        std::lock_guard<std::mutex> held(lock);
        const double now = clock();
        if (now - lastSweep < 10) return;
        lastSweep = now;
        gone = int(std::erase_if(made, [now](const auto &entry) { return now - entry.second.used >= idleSeconds; }));
    }
    if (!gone) return;
#ifdef __GLIBC__
    // What the driver freed sits in the allocator's arenas, among blocks still in use, until handed back.
    malloc_trim(0);
#endif
    Log::write(QStringLiteral("Vulkan: %1 pipelines sem uso liberados").arg(gone));
}

size_t ProgramVariants::count() const
{
    std::lock_guard<std::mutex> held(lock);
    return made.size();
}
