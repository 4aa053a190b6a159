#include "render/ProgramVariants.h"

#include "core/app/Log.h"
#include "render/VulkanPipelines.h"

#include <QElapsedTimer>

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
}

VkPipeline ProgramVariants::get(Program program, const ShaderVariant &variant)
{
    PipelineHandle &held = made[{program, variant}];
    if (held) return held;
    QElapsedTimer timer;
    timer.start();
    const VkShaderModule fragment = program == Program::composite ? composite.get()
                                    : program == Program::still   ? still.get()
                                    : program == Program::moving  ? moving.get()
                                                                  : steam.get();
    const VkSpecializationInfo constants = variant.info();
    bool hit = false;
    *held.out(device) = makePipeline(device, layout, program == Program::still ? linearPass : colourPass, vertex,
                                     fragment, program == Program::steamOver ? Blend::premultipliedOver : Blend::none,
                                     cache.handle(), creationFeedback ? &hit : nullptr, &constants);
    cache.save();
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
    return held;
}
