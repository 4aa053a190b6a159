#include "render/SceneRenderer.h"

#include "core/app/Log.h"
#include "vulkan/VulkanCheck.h"
#include "vulkan/VulkanHandle.h"
#include "vulkan/VulkanPipelines.h"

#include <QElapsedTimer>
#include <cstring>
#include <stdexcept>

using namespace VulkanPipelines;

namespace {
constexpr uint32_t sceneBindingCount = 4 + SceneTextures::slotCount;
constexpr size_t framesInFlight = 2;
}  // namespace

struct SceneRenderer::FrameSlot {
    VkDevice device = VK_NULL_HANDLE;
    CommandPoolHandle pool;
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    FenceHandle fence;
    DescriptorPoolHandle descriptors;
    QueryPoolHandle queries;
    VkDescriptorSet sets[2] = {VK_NULL_HANDLE, VK_NULL_HANDLE};  // composite, steam
    // What `sets` point at now. The textures stay alive while bound, so a new texture can never
    // share an address with a bound one and pointer equality means the same texture.
    std::array<const GpuTexture *, SceneTextures::slotCount> bound{};
    VkBuffer boundUniforms = VK_NULL_HANDLE;
    std::unique_ptr<HostBuffer> uniforms;
    std::vector<FramebufferHandle> framebuffers;
    SceneTextures keepAlive;  // the textures the descriptor sets and recorded commands read
    bool submitted = false;

    void releaseFramebuffers() { framebuffers.clear(); }
};

std::unique_ptr<SceneRenderer> SceneRenderer::create(const ShaderLibrary &shaders, const QString &pipelineCache)
{
    std::unique_ptr<SceneRenderer> r(new SceneRenderer());
    try {
        r->build(shaders, pipelineCache);
    } catch (const VulkanError &e) {
        Log::write((e.result == VK_ERROR_INVALID_SHADER_NV ? QStringLiteral("Cena: shader não compilou: ")
                                                           : QStringLiteral("Cena: dispositivo Vulkan falhou: ")) +
                   QString::fromUtf8(e.what()));
        return nullptr;
    } catch (const std::exception &e) {
        Log::write(QStringLiteral("Cena: sem dispositivo Vulkan: ") + QString::fromUtf8(e.what()));
        return nullptr;
    }
    return r;
}

void SceneRenderer::build(const ShaderLibrary &shaders, const QString &pipelineCache)
{
    context = VulkanContext::create();
    const VkFormatFeatureFlags renderable =
        VK_FORMAT_FEATURE_COLOR_ATTACHMENT_BIT | VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT;
    if (!context->supportsFormat(VK_FORMAT_B10G11R11_UFLOAT_PACK32, renderable))
        lightTextureFormat = VK_FORMAT_R16G16B16A16_SFLOAT;
    makeSceneLayout();
    makePipelines(shaders, pipelineCache);
    makeFallbacks();
    makeFrameSlots();
    presented.reserve(8);
    waits.reserve(8);
    doneSemaphores.reserve(8);
    waitStages.reserve(8);
}

void SceneRenderer::makeSceneLayout()
{
    VkDevice device = context->device;
    *lin.out(device) = makeSampler(device, VK_FILTER_LINEAR, VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE, false, 1.0f);
    const float aniso = context->properties.limits.maxSamplerAnisotropy >= 4.0f ? 4.0f : 1.0f;
    VkPhysicalDeviceFeatures features{};
    vkGetPhysicalDeviceFeatures(context->physical, &features);
    // The software device's anisotropic path all but stalls (minutes at 200% CPU for one
    // frame) on the art of steeply seen sleeves and labels, depending on the target size;
    // it gets trilinear only.
    const bool software = context->properties.deviceType == VK_PHYSICAL_DEVICE_TYPE_CPU;
    *art.out(device) = makeSampler(device, VK_FILTER_LINEAR, VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE, true,
                                   features.samplerAnisotropy && !software ? aniso : 1.0f);
    *sprite.out(device) = makeSampler(device, VK_FILTER_LINEAR, VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_BORDER, false, 1.0f);

    // Composite and steam share one set layout: the uniform block, three samplers, 34 textures.
    std::vector<VkDescriptorSetLayoutBinding> bindings(sceneBindingCount);
    VkSampler samplers[3] = {lin, art, sprite};
    for (uint32_t b = 0; b < sceneBindingCount; ++b) {
        bindings[b].binding = b;
        bindings[b].descriptorCount = 1;
        bindings[b].stageFlags = VK_SHADER_STAGE_FRAGMENT_BIT;
        if (b == 0) {
            bindings[b].descriptorType = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER_DYNAMIC;
        } else if (b <= 3) {
            bindings[b].descriptorType = VK_DESCRIPTOR_TYPE_SAMPLER;
            bindings[b].pImmutableSamplers = &samplers[b - 1];
        } else {
            bindings[b].descriptorType = VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE;
        }
    }
    VkDescriptorSetLayoutCreateInfo slci{VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO};
    slci.bindingCount = sceneBindingCount;
    slci.pBindings = bindings.data();
    vkCheck(vkCreateDescriptorSetLayout(device, &slci, nullptr, sceneSetLayout.out(device)),
            "vkCreateDescriptorSetLayout");
    VkPipelineLayoutCreateInfo plci{VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO};
    plci.setLayoutCount = 1;
    plci.pSetLayouts = sceneSetLayout.ptr();
    vkCheck(vkCreatePipelineLayout(device, &plci, nullptr, sceneLayout.out(device)), "vkCreatePipelineLayout");
}

void SceneRenderer::makePipelines(const ShaderLibrary &shaders, const QString &pipelineCache)
{
    VkDevice device = context->device;
    QElapsedTimer timer;
    timer.start();
    cache = std::make_unique<PipelineCache>(device, context->properties, pipelineCache);
    int made = 0, cached = 0;
    const auto makePipeline = [&](VkDevice d, VkPipelineLayout layout, VkRenderPass pass, VkShaderModule vertex,
                                  VkShaderModule fragment, Blend blend) {
        bool hit = false;
        VkPipeline p = VulkanPipelines::makePipeline(d, layout, pass, vertex, fragment, blend, cache->handle(),
                                                     context->hasCreationFeedback ? &hit : nullptr);
        ++made;
        cached += hit ? 1 : 0;
        return p;
    };
    const auto module = [&](const std::vector<uint32_t> &spirv) {
        return ShaderModuleHandle(device, makeShader(device, spirv));
    };
    const ShaderModuleHandle vert = module(shaders.fullscreen);
    const ShaderModuleHandle toned = module(shaders.compositeTone), steamUp = module(shaders.steamUp);
    const ShaderModuleHandle accumulated = module(shaders.accumulate), alpha = module(shaders.accumulateAlpha);
    const ShaderModuleHandle converted = module(shaders.convertPlate);

    VkRenderPass pass = targetPass(VK_FORMAT_B8G8R8A8_UNORM, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    variants = std::make_unique<ProgramVariants>(
        device, sceneLayout, pass, targetPass(VK_FORMAT_R16G16B16A16_SFLOAT, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL),
        shaders, *cache, context->hasCreationFeedback);
    *tonePipeline.out(device) = makePipeline(device, sceneLayout, pass, vert, toned, Blend::none);
    *steamUpPipeline.out(device) = makePipeline(device, sceneLayout, pass, vert, steamUp, Blend::premultipliedOver);

    // The pre-mix passes: one source texture, four floats of push constants.
    MixBuilder::Resources mix;
    *mix.sampler.out(device) =
        makeSampler(device, VK_FILTER_NEAREST, VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE, false, 1.0f);
    VkDescriptorSetLayoutBinding src{};
    src.binding = 0;
    src.descriptorType = VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER;
    src.descriptorCount = 1;
    src.stageFlags = VK_SHADER_STAGE_FRAGMENT_BIT;
    src.pImmutableSamplers = mix.sampler.ptr();
    VkDescriptorSetLayoutCreateInfo mslci{VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO};
    mslci.bindingCount = 1;
    mslci.pBindings = &src;
    vkCheck(vkCreateDescriptorSetLayout(device, &mslci, nullptr, mix.setLayout.out(device)),
            "vkCreateDescriptorSetLayout");
    VkPushConstantRange push{VK_SHADER_STAGE_FRAGMENT_BIT, 0, 16};
    VkPipelineLayoutCreateInfo mplci{VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO};
    mplci.setLayoutCount = 1;
    mplci.pSetLayouts = mix.setLayout.ptr();
    mplci.pushConstantRangeCount = 1;
    mplci.pPushConstantRanges = &push;
    vkCheck(vkCreatePipelineLayout(device, &mplci, nullptr, mix.layout.out(device)), "vkCreatePipelineLayout");
    const VkFormat acc = VK_FORMAT_R16G16B16A16_SFLOAT;
    *mix.clearPass.out(device) = makeRenderPass(device, acc, VK_ATTACHMENT_LOAD_OP_CLEAR, VK_IMAGE_LAYOUT_UNDEFINED,
                                                VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
    *mix.loadPass.out(device) =
        makeRenderPass(device, acc, VK_ATTACHMENT_LOAD_OP_LOAD, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                       VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
    *mix.accumulate.out(device) = makePipeline(device, mix.layout, mix.clearPass, vert, accumulated, Blend::additive);
    *mix.accumulateAlpha.out(device) = makePipeline(device, mix.layout, mix.clearPass, vert, alpha, Blend::additive);
    std::vector<VkFormat> formats{lightTextureFormat};
    if (lightTextureFormat != acc) formats.push_back(acc);
    for (VkFormat f : formats) {
        *mix.resultPass[f].out(device) =
            makeRenderPass(device, f, VK_ATTACHMENT_LOAD_OP_DONT_CARE, VK_IMAGE_LAYOUT_UNDEFINED,
                           VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
        *mix.convert[f].out(device) = makePipeline(device, mix.layout, mix.resultPass[f], vert, converted, Blend::none);
    }
    builder = std::make_shared<MixBuilder>(context, std::move(mix));
    cache->save();
    Log::write(QStringLiteral("Vulkan: %1 pipelines em %2 s; %3")
                   .arg(made)
                   .arg(timer.elapsed() / 1000.0, 0, 'f', 2)
                   .arg(!context->hasCreationFeedback ? QStringLiteral("o driver não diz quantos vieram do cache")
                        : cached == made
                            ? QStringLiteral("todos do cache, nenhum compilado")
                            : QStringLiteral("%1 do cache, %2 compilados").arg(cached).arg(made - cached)));
}

void SceneRenderer::makeFallbacks()
{
    // Transparent black and full white.
    empty = context->createTexture(VK_FORMAT_R16G16B16A16_SFLOAT, 1, 1,
                                   VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT);
    const uint16_t zeros[4] = {0, 0, 0, 0};
    context->upload(*empty, zeros, 8);
    white =
        context->createTexture(VK_FORMAT_R8_UNORM, 1, 1, VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT);
    const uint8_t full = 255;
    context->upload(*white, &full, 1);

    const VkDeviceSize align = std::max<VkDeviceSize>(context->properties.limits.minStorageBufferOffsetAlignment, 16);
    uniformStride = (sizeof(SceneUniforms) + align - 1) / align * align;
}

void SceneRenderer::makeFrameSlots()
{
    VkDevice device = context->device;
    for (size_t i = 0; i < framesInFlight; ++i) {
        auto slot = std::make_unique<FrameSlot>();
        slot->device = device;
        VkCommandPoolCreateInfo pci{VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
        pci.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
        pci.queueFamilyIndex = context->queueFamily;
        vkCheck(vkCreateCommandPool(device, &pci, nullptr, slot->pool.out(device)), "vkCreateCommandPool");
        VkCommandBufferAllocateInfo ai{VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
        ai.commandPool = slot->pool;
        ai.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
        ai.commandBufferCount = 1;
        vkCheck(vkAllocateCommandBuffers(device, &ai, &slot->cmd), "vkAllocateCommandBuffers");
        VkFenceCreateInfo fci{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
        vkCheck(vkCreateFence(device, &fci, nullptr, slot->fence.out(device)), "vkCreateFence");
        VkDescriptorPoolSize sizes[3] = {{VK_DESCRIPTOR_TYPE_STORAGE_BUFFER_DYNAMIC, 2},
                                         {VK_DESCRIPTOR_TYPE_SAMPLER, 6},
                                         {VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE, 2 * SceneTextures::slotCount}};
        VkDescriptorPoolCreateInfo dpci{VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO};
        dpci.maxSets = 2;
        dpci.poolSizeCount = 3;
        dpci.pPoolSizes = sizes;
        vkCheck(vkCreateDescriptorPool(device, &dpci, nullptr, slot->descriptors.out(device)),
                "vkCreateDescriptorPool");
        VkDescriptorSetLayout setLayouts[2] = {sceneSetLayout, sceneSetLayout};
        VkDescriptorSetAllocateInfo dai{VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO};
        dai.descriptorPool = slot->descriptors;
        dai.descriptorSetCount = 2;
        dai.pSetLayouts = setLayouts;
        vkCheck(vkAllocateDescriptorSets(device, &dai, slot->sets), "vkAllocateDescriptorSets");
        if (context->timestampValidBits > 0) {
            VkQueryPoolCreateInfo qci{VK_STRUCTURE_TYPE_QUERY_POOL_CREATE_INFO};
            qci.queryType = VK_QUERY_TYPE_TIMESTAMP;
            qci.queryCount = 2;
            vkCheck(vkCreateQueryPool(device, &qci, nullptr, slot->queries.out(device)), "vkCreateQueryPool");
        }
        slot->uniforms = context->createHostBuffer(uniformStride * 8, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT);
        frameSlots.push_back(std::move(slot));
    }
}

SceneRenderer::~SceneRenderer()
{
    if (!context) return;
    // The handles go after this, the device last: nothing may still run on them.
    vkDeviceWaitIdle(context->device);
    frameSlots.clear();
}

VkRenderPass SceneRenderer::targetPass(VkFormat format, VkImageLayout finalLayout, bool loaded)
{
    const auto key = std::tuple{format, finalLayout, loaded};
    auto it = targetPasses.find(key);
    if (it != targetPasses.end()) return it->second;
    VkRenderPass pass =
        makeRenderPass(context->device, format, loaded ? VK_ATTACHMENT_LOAD_OP_LOAD : VK_ATTACHMENT_LOAD_OP_DONT_CARE,
                       loaded ? VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL : VK_IMAGE_LAYOUT_UNDEFINED, finalLayout);
    targetPasses.emplace(key, RenderPassHandle(context->device, pass));
    return pass;
}

void SceneRenderer::harvest(FrameSlot &slot)
{
    if (!slot.submitted) return;
    vkWaitForFences(context->device, 1, slot.fence.ptr(), VK_TRUE, UINT64_MAX);
    slot.submitted = false;
    double seconds = 0;
    if (slot.queries) {
        uint64_t stamps[2] = {0, 0};
        if (vkGetQueryPoolResults(context->device, slot.queries, 0, 2, sizeof(stamps), stamps, sizeof(uint64_t),
                                  VK_QUERY_RESULT_64_BIT) == VK_SUCCESS &&
            stamps[1] >= stamps[0])
            seconds = double(stamps[1] - stamps[0]) * double(context->properties.limits.timestampPeriod) * 1e-9;
    }
    clock.add(seconds);
    slot.releaseFramebuffers();
}

bool SceneRenderer::busy() const
{
    const FrameSlot &slot = *frameSlots[nextSlot];
    return slot.submitted && vkGetFenceStatus(context->device, slot.fence) == VK_NOT_READY;
}

void SceneRenderer::waitIdle()
{
    for (auto &slot : frameSlots) harvest(*slot);
}

// The slot's two sets (composite, steam) are rewritten only when the textures change; passes of
// a kind differ only in their uniform offset.
void SceneRenderer::bindTextures(FrameSlot &slot, const SceneTextures &textures)
{
    VkDevice device = context->device;
    std::array<VkDescriptorImageInfo, SceneTextures::slotCount> images{};
    std::array<const GpuTexture *, SceneTextures::slotCount> used{};
    for (int s = 0; s < SceneTextures::slotCount; ++s) {
        const GpuTexture *t = textures.slot(s);
        if (!t && s == 31) t = textures.artNew.get();
        if (!t && s == 32) t = textures.artOld.get();
        if (!t) t = (s >= 12 && s <= 15) ? white.get() : empty.get();
        images[s] = {VK_NULL_HANDLE, t->view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL};
        used[s] = t;
    }
    if (used != slot.bound || slot.boundUniforms != slot.uniforms->buffer) {
        VkDescriptorBufferInfo sceneBuffer{slot.uniforms->buffer, 0, sizeof(SceneUniforms)};
        VkDescriptorBufferInfo steamBuffer{slot.uniforms->buffer, 0, sizeof(SteamUniforms)};
        VkWriteDescriptorSet writes[4]{};
        for (int k = 0; k < 2; ++k) {
            writes[2 * k] = {VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET};
            writes[2 * k].dstSet = slot.sets[k];
            writes[2 * k].dstBinding = 0;
            writes[2 * k].descriptorCount = 1;
            writes[2 * k].descriptorType = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER_DYNAMIC;
            writes[2 * k].pBufferInfo = k == 0 ? &sceneBuffer : &steamBuffer;
            writes[2 * k + 1] = {VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET};
            writes[2 * k + 1].dstSet = slot.sets[k];
            writes[2 * k + 1].dstBinding = 4;
            writes[2 * k + 1].descriptorCount = SceneTextures::slotCount;  // consecutive bindings
            writes[2 * k + 1].descriptorType = VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE;
            writes[2 * k + 1].pImageInfo = images.data();
        }
        vkUpdateDescriptorSets(device, 4, writes, 0, nullptr);
        slot.bound = used;
        slot.boundUniforms = slot.uniforms->buffer;
        slot.keepAlive = textures;
    }
}

// The base's pixels under a layer at (x, y), copied into the layer's image, which is left in
// colour-attachment layout for a pass that loads it. Parts beyond the base stay as they were.
void SceneRenderer::copyUnder(VkCommandBuffer cmd, const GpuTexture &base, int32_t x, int32_t y,
                              const TargetImage &image)
{
    // Written by an earlier frame's pass: its writes become visible to this copy.
    transitionImage(cmd, base.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
    transitionImage(cmd, image.image, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
    const int32_t left = std::max(x, 0), top = std::max(y, 0);
    const int32_t right = std::min<int32_t>(x + int32_t(image.width), int32_t(base.width));
    const int32_t bottom = std::min<int32_t>(y + int32_t(image.height), int32_t(base.height));
    if (right > left && bottom > top) {
        VkImageCopy region{};
        region.srcSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.srcOffset = {left, top, 0};
        region.dstSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.dstOffset = {left - x, top - y, 0};
        region.extent = {uint32_t(right - left), uint32_t(bottom - top), 1};
        vkCmdCopyImage(cmd, base.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, image.image,
                       VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &region);
    }
    transitionImage(cmd, image.image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL);
}

// One pass into `step.target`, its uniforms at the slot's next offset, with the steam laid over it
// when `step.over` is given. A target with no image this frame is skipped.
void SceneRenderer::encode(FrameSlot &slot, uint32_t &uniformIndex, const Step &step)
{
    VkDevice device = context->device;
    if (!step.target) return;
    std::optional<TargetImage> image = step.target->acquire();
    if (!image) return;  // no image this frame: the pass is skipped
    const uint32_t offset = uint32_t(uniformStride * uniformIndex++);
    char *uniforms = static_cast<char *>(slot.uniforms->mapped) + offset;
    std::memcpy(uniforms, step.bytes, step.size);
    const bool copied = step.under && image->copyable;
    if (step.shadeOverCopy) {
        // The moving parts' shader leaves alone what they do not reach only where the finished
        // still was copied in first.
        reinterpret_cast<SceneUniforms *>(uniforms)->origin[2] = copied ? 1.0f : 0.0f;
    }
    if (copied) copyUnder(slot.cmd, *step.under, step.underAt.x, step.underAt.y, *image);
    const VkRenderPass renderPass = targetPass(image->format, image->finalLayout, copied);
    VkFramebuffer fb = image->framebuffer ? *image->framebuffer : VK_NULL_HANDLE;
    if (!fb) {
        VkFramebufferCreateInfo fci{VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO};
        fci.renderPass = renderPass;
        fci.attachmentCount = 1;
        fci.pAttachments = &image->view;
        fci.width = image->width;
        fci.height = image->height;
        fci.layers = 1;
        vkCheck(vkCreateFramebuffer(device, &fci, nullptr, &fb), "vkCreateFramebuffer");
        if (image->framebuffer)
            *image->framebuffer = fb;
        else
            slot.framebuffers.emplace_back(device, fb);
    }
    VkRenderPassBeginInfo rbi{VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    rbi.renderPass = renderPass;
    rbi.framebuffer = fb;
    rbi.renderArea = {{0, 0}, {image->width, image->height}};
    vkCmdBeginRenderPass(slot.cmd, &rbi, VK_SUBPASS_CONTENTS_INLINE);
    VkViewport vp{0, 0, float(image->width), float(image->height), 0, 1};
    VkRect2D sc{{0, 0}, {image->width, image->height}};
    vkCmdSetViewport(slot.cmd, 0, 1, &vp);
    vkCmdSetScissor(slot.cmd, 0, 1, &sc);
    const bool byRegions = step.byRegions && copied;
    if (!byRegions && (!copied || step.shadeOverCopy)) {
        // A moving layer that could not take its still's copy is shaded whole, with every part.
        const VkPipeline whole = step.byRegions ? variants->get(Program::moving, step.variant) : step.pipeline;
        vkCmdBindPipeline(slot.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, whole);
        vkCmdBindDescriptorSets(slot.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, sceneLayout, 0, 1, &step.set, 1, &offset);
        vkCmdDraw(slot.cmd, 3, 1, 0, 0);
    }
    if (byRegions || step.armOver) {
        // Over a finished still, with origin.z 0: every pixel of a region is written, the arm or
        // the room.
        vkCmdBindDescriptorSets(slot.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, sceneLayout, 0, 1, &step.set, 1, &offset);
        const MovingRegions regions(*static_cast<const SceneUniforms *>(step.bytes), image->width, image->height,
                                    step.armOver ? ShaderVariant::armParts : ShaderVariant::allParts, step.heldParts);
        for (const MovingRegions::Region &r : regions) {
            ShaderVariant v = step.variant;
            v.parts = r.parts;
            vkCmdBindPipeline(slot.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, variants->get(Program::moving, v));
            const VkRect2D rect{{r.x, r.y}, {r.width, r.height}};
            vkCmdSetScissor(slot.cmd, 0, 1, &rect);
            vkCmdDraw(slot.cmd, 3, 1, 0, 0);
        }
        vkCmdSetScissor(slot.cmd, 0, 1, &sc);
    }
    if (step.over) {
        const uint32_t steamOffset = uint32_t(uniformStride * uniformIndex++);
        std::memcpy(static_cast<char *>(slot.uniforms->mapped) + steamOffset, step.over, sizeof(SteamUniforms));
        vkCmdBindPipeline(slot.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, step.overPipeline);
        vkCmdBindDescriptorSets(slot.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, sceneLayout, 0, 1, &slot.sets[1], 1,
                                &steamOffset);
        vkCmdDraw(slot.cmd, 3, 1, 0, 0);
    }
    vkCmdEndRenderPass(slot.cmd);
    presented.push_back(step.target);
    if (image->acquired) {
        waits.push_back(image->acquired);
        waitStages.push_back(VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT);
    }
    if (image->rendered) doneSemaphores.push_back(image->rendered);
}

// A layer's passes: its still room first when it changed, its steam at half resolution, then the
// layer itself.
void SceneRenderer::encodeLayer(FrameSlot &slot, uint32_t &uniformIndex, const Pass &layer)
{
    const SteamUniforms *over = layer.steamOver ? &*layer.steamOver : nullptr;
    SteamUniforms half;
    if (over && layer.steamHalf) {
        half = *over;
        half.origin[2] = 2;  // each pixel of the half-size target covers two of the layer's
        encode(slot, uniformIndex,
               Step{layer.steamHalf, variants->get(Program::steam, ShaderVariant::of(half)), slot.sets[1], &half,
                    sizeof(SteamUniforms)});
    }
    const VkPipeline overPipeline = !over             ? VK_NULL_HANDLE
                                    : layer.steamHalf ? steamUpPipeline.get()
                                                      : variants->get(Program::steamOver, ShaderVariant::of(*over));
    const ShaderVariant variant = ShaderVariant::of(layer.uniforms);
    const int32_t x = int32_t(layer.uniforms.origin[0]), y = int32_t(layer.uniforms.origin[1]);
    if (!layer.still) {
        Step step{layer.target,          variants->get(Program::composite, variant),
                  slot.sets[0],          &layer.uniforms,
                  sizeof(SceneUniforms), over,
                  overPipeline};
        step.under = layer.under;
        step.underAt = {x - layer.underX, y - layer.underY};
        encode(slot, uniformIndex, step);
        return;
    }
    // The still is drawn at its own place on the screen, which may reach beyond this layer.
    SceneUniforms onStill = layer.uniforms;
    onStill.stillOrigin = {float(layer.still->x()), float(layer.still->y()), 0, 0};
    using Redraw = LayerStill::Redraw;
    const uint32_t held = layer.still->holdsArm() ? uint32_t(ShaderVariant::armParts) : 0u;
    if (layer.redrawStill != Redraw::none) {
        SceneUniforms still = onStill;
        still.origin = {onStill.stillOrigin[0], onStill.stillOrigin[1], 0, 0};
        if (layer.redrawStill == Redraw::all)
            encode(slot, uniformIndex,
                   Step{&layer.still->linear(), variants->get(Program::still, variant), slot.sets[0], &still,
                        sizeof(SceneUniforms)});
        Step finished{&layer.still->finished(), tonePipeline, slot.sets[0], &still, sizeof(SceneUniforms)};
        finished.armOver = held != 0;
        finished.variant = variant;
        encode(slot, uniformIndex, finished);
    }
    Step step{layer.target, VK_NULL_HANDLE, slot.sets[0], &onStill, sizeof(SceneUniforms), over, overPipeline};
    step.under = layer.still->finished().texture().get();
    step.underAt = {x - layer.still->x(), y - layer.still->y()};
    step.shadeOverCopy = true;
    step.byRegions = true;
    step.variant = variant;
    step.heldParts = held;
    encode(slot, uniformIndex, step);
}

void SceneRenderer::draw(const std::optional<Pass> &base, const std::vector<Pass> &layers,
                         const std::optional<SteamPass> &steam, const SceneTextures &textures)
{
    if (!base && layers.empty() && !steam) return;
    variants->evictIdle();
    VkDevice device = context->device;
    FrameSlot &slot = *frameSlots[nextSlot];
    nextSlot = (nextSlot + 1) % frameSlots.size();
    harvest(slot);

    try {
        size_t passes = (base ? 1 : 0) + layers.size() + (steam ? 1 : 0);
        if (base && base->steamOver) ++passes;
        for (const Pass &l : layers)
            passes += (l.steamOver ? 1 + (l.steamHalf ? 1 : 0) : 0) + (l.still ? int(l.redrawStill) : 0);
        if (slot.uniforms->size < uniformStride * passes) {
            slot.uniforms = context->createHostBuffer(uniformStride * passes, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT);
            slot.boundUniforms = VK_NULL_HANDLE;
        }
        vkCheck(vkResetFences(device, 1, slot.fence.ptr()), "vkResetFences");
        vkCheck(vkResetCommandBuffer(slot.cmd, 0), "vkResetCommandBuffer");

        bindTextures(slot, textures);

        VkCommandBufferBeginInfo bi{VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
        bi.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
        vkCheck(vkBeginCommandBuffer(slot.cmd, &bi), "vkBeginCommandBuffer");
        // Images this frame draws into may still be read by copies of earlier frames (a base
        // shown in a window, the room under the steam): those reads end before any drawing starts.
        vkCmdPipelineBarrier(slot.cmd, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT, 0,
                             0, nullptr, 0, nullptr, 0, nullptr);
        if (slot.queries) {
            vkCmdResetQueryPool(slot.cmd, slot.queries, 0, 2);
            vkCmdWriteTimestamp(slot.cmd, VK_PIPELINE_STAGE_TOP_OF_PIPE_BIT, slot.queries, 0);
        }

        presented.clear();
        waits.clear();
        doneSemaphores.clear();
        waitStages.clear();
        uint32_t uniformIndex = 0;
        if (base)
            encode(slot, uniformIndex,
                   Step{base->target, variants->get(Program::composite, ShaderVariant::of(base->uniforms)),
                        slot.sets[0], &base->uniforms, sizeof(SceneUniforms),
                        base->steamOver ? &*base->steamOver : nullptr,
                        base->steamOver ? variants->get(Program::steamOver, ShaderVariant::of(*base->steamOver))
                                        : VK_NULL_HANDLE});
        for (const Pass &layer : layers) encodeLayer(slot, uniformIndex, layer);
        if (steam)
            encode(slot, uniformIndex,
                   Step{steam->target, variants->get(Program::steam, ShaderVariant::of(steam->uniforms)), slot.sets[1],
                        &steam->uniforms, sizeof(SteamUniforms)});

        if (slot.queries) vkCmdWriteTimestamp(slot.cmd, VK_PIPELINE_STAGE_BOTTOM_OF_PIPE_BIT, slot.queries, 1);
        vkCheck(vkEndCommandBuffer(slot.cmd), "vkEndCommandBuffer");
        if (presented.empty()) return;

        VkSubmitInfo si{VK_STRUCTURE_TYPE_SUBMIT_INFO};
        si.waitSemaphoreCount = uint32_t(waits.size());
        si.pWaitSemaphores = waits.data();
        si.pWaitDstStageMask = waitStages.data();
        si.commandBufferCount = 1;
        si.pCommandBuffers = &slot.cmd;
        si.signalSemaphoreCount = uint32_t(doneSemaphores.size());
        si.pSignalSemaphores = doneSemaphores.data();
        vkCheck(context->submit(si, slot.fence), "vkQueueSubmit");
        slot.submitted = true;
        for (RenderTarget *t : presented) t->present();
    } catch (const VulkanError &) {
        // No command buffer this frame: the frame is skipped and the next tick tries again.
        slot.releaseFramebuffers();
        for (const Pass &layer : layers)
            if (layer.still && layer.redrawStill != LayerStill::Redraw::none) layer.still->invalidate();
    }
}
