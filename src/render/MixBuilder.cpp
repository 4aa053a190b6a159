#include "render/MixBuilder.h"

#include "core/scene/ImageDecoder.h"
#include "core/app/Log.h"
#include "vulkan/VulkanCheck.h"

#include <QDir>
#include <QFileInfo>
#include <cstring>

MixBuilder::MixBuilder(std::shared_ptr<VulkanContext> ctx, Resources resources)
    : context(std::move(ctx))
    , res(std::move(resources))
{
}

// The device may still run a build's last pass when the renderer goes.
MixBuilder::~MixBuilder() { vkDeviceWaitIdle(context->device); }

namespace {

const QString commandBufferFailure = QStringLiteral("falhou o command buffer do pré-mix");

bool outOfMemory(VkResult r) { return r == VK_ERROR_OUT_OF_DEVICE_MEMORY || r == VK_ERROR_OUT_OF_HOST_MEMORY; }

// The images of one build: the half-float accumulator, the band a plate is uploaded through and
// the finished texture, and the band's staging memory.
struct Targets {
    TextureRef accumulator, band, result;
    std::unique_ptr<HostBuffer> staging;
};

// The per-build Vulkan objects, released whatever way the build ends.
struct Pass {
    VkDevice device = VK_NULL_HANDLE;
    CommandPoolHandle pool;
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    FenceHandle fence;
    DescriptorPoolHandle descriptors;
    VkDescriptorSet bandSet = VK_NULL_HANDLE, accSet = VK_NULL_HANDLE;
    FramebufferHandle accumulate, result;
};

Targets allocate(VulkanContext &vk, uint32_t w, uint32_t h, VkFormat format)
{
    Targets t;
    try {
        t.accumulator = vk.createTexture(VK_FORMAT_R16G16B16A16_SFLOAT, w, h,
                                         VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT);
        t.band = vk.createTexture(VK_FORMAT_R16G16B16A16_SFLOAT, w, MixBuilder::bandRows,
                                  VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT);
        t.result = vk.createTexture(format, w, h,
                                    VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT |
                                        VK_IMAGE_USAGE_TRANSFER_SRC_BIT);
        t.staging = vk.createHostBuffer(VkDeviceSize(w) * MixBuilder::bandRows * 8, VK_BUFFER_USAGE_TRANSFER_SRC_BIT);
    } catch (const VulkanError &e) {
        throw VulkanError(outOfMemory(e.result) ? QStringLiteral("sem memória de GPU pro pré-mix")
                                                : QStringLiteral("texturas do pré-mix não criadas"),
                          e);
    }
    return t;
}

void prepare(VulkanContext &vk, const MixBuilder::Resources &res, const Targets &t, VkFormat format, uint32_t w,
             uint32_t h, Pass &p)
{
    VkDevice device = vk.device;
    p.device = device;
    VkCommandPoolCreateInfo pci{VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
    pci.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    pci.queueFamilyIndex = vk.queueFamily;
    vkCheck(vkCreateCommandPool(device, &pci, nullptr, p.pool.out(device)), "vkCreateCommandPool");
    VkCommandBufferAllocateInfo ai{VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
    ai.commandPool = p.pool;
    ai.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    ai.commandBufferCount = 1;
    vkCheck(vkAllocateCommandBuffers(device, &ai, &p.cmd), "vkAllocateCommandBuffers");
    VkFenceCreateInfo fci{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
    vkCheck(vkCreateFence(device, &fci, nullptr, p.fence.out(device)), "vkCreateFence");
    VkDescriptorPoolSize size{VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER, 2};
    VkDescriptorPoolCreateInfo dpci{VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO};
    dpci.maxSets = 2;
    dpci.poolSizeCount = 1;
    dpci.pPoolSizes = &size;
    vkCheck(vkCreateDescriptorPool(device, &dpci, nullptr, p.descriptors.out(device)), "vkCreateDescriptorPool");
    VkDescriptorSetLayout layouts[2] = {res.setLayout, res.setLayout};
    VkDescriptorSetAllocateInfo dai{VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO};
    dai.descriptorPool = p.descriptors;
    dai.descriptorSetCount = 2;
    dai.pSetLayouts = layouts;
    VkDescriptorSet sets[2];
    vkCheck(vkAllocateDescriptorSets(device, &dai, sets), "vkAllocateDescriptorSets");
    p.bandSet = sets[0];
    p.accSet = sets[1];
    VkDescriptorImageInfo infos[2] = {{VK_NULL_HANDLE, t.band->view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL},
                                      {VK_NULL_HANDLE, t.accumulator->view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL}};
    VkWriteDescriptorSet writes[2]{};
    for (int k = 0; k < 2; ++k) {
        writes[k] = {VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET};
        writes[k].dstSet = sets[k];
        writes[k].descriptorCount = 1;
        writes[k].descriptorType = VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER;
        writes[k].pImageInfo = &infos[k];
    }
    vkUpdateDescriptorSets(device, 2, writes, 0, nullptr);
    VkFramebufferCreateInfo fbi{VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO};
    fbi.renderPass = res.loadPass;
    fbi.attachmentCount = 1;
    fbi.pAttachments = &t.accumulator->view;
    fbi.width = w;
    fbi.height = h;
    fbi.layers = 1;
    vkCheck(vkCreateFramebuffer(device, &fbi, nullptr, p.accumulate.out(device)), "vkCreateFramebuffer");
    fbi.renderPass = res.resultPass.at(format);
    fbi.pAttachments = &t.result->view;
    vkCheck(vkCreateFramebuffer(device, &fbi, nullptr, p.result.out(device)), "vkCreateFramebuffer");
}

void begin(Pass &p)
{
    vkCheck(vkResetCommandBuffer(p.cmd, 0), "vkResetCommandBuffer");
    VkCommandBufferBeginInfo bi{VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
    bi.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    vkCheck(vkBeginCommandBuffer(p.cmd, &bi), "vkBeginCommandBuffer");
}

void submitAndWait(VulkanContext &vk, Pass &p)
{
    vkCheck(vkEndCommandBuffer(p.cmd), "vkEndCommandBuffer");
    VkSubmitInfo si{VK_STRUCTURE_TYPE_SUBMIT_INFO};
    si.commandBufferCount = 1;
    si.pCommandBuffers = &p.cmd;
    vkCheck(vkResetFences(p.device, 1, p.fence.ptr()), "vkResetFences");
    vkCheck(vk.submit(si, p.fence), "vkQueueSubmit");
    vkCheck(vkWaitForFences(p.device, 1, p.fence.ptr(), VK_TRUE, UINT64_MAX), "vkWaitForFences");
}

// Draws a full-screen triangle over `area` of the pass's target with `pipeline`, reading `set`.
void drawPass(const MixBuilder::Resources &res, Pass &p, VkRenderPass pass, VkFramebuffer target, VkPipeline pipeline,
              VkDescriptorSet set, const float push[4], VkRect2D area, uint32_t w, uint32_t h)
{
    VkClearValue clear{};
    VkRenderPassBeginInfo rbi{VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
    rbi.renderPass = pass;
    rbi.framebuffer = target;
    rbi.renderArea = {{0, 0}, {w, h}};
    rbi.clearValueCount = 1;
    rbi.pClearValues = &clear;
    vkCmdBeginRenderPass(p.cmd, &rbi, VK_SUBPASS_CONTENTS_INLINE);
    vkCmdBindPipeline(p.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
    vkCmdBindDescriptorSets(p.cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, res.layout, 0, 1, &set, 0, nullptr);
    vkCmdPushConstants(p.cmd, res.layout, VK_SHADER_STAGE_FRAGMENT_BIT, 0, 4 * sizeof(float), push);
    VkViewport vp{
        float(area.offset.x), float(area.offset.y), float(area.extent.width), float(area.extent.height), 0, 1};
    vkCmdSetViewport(p.cmd, 0, 1, &vp);
    vkCmdSetScissor(p.cmd, 0, 1, &area);
    vkCmdDraw(p.cmd, 3, 1, 0, 0);
    vkCmdEndRenderPass(p.cmd);
}

// Adds one weighted plate into the accumulator, a band of rows at a time.
void addPlate(VulkanContext &vk, const MixBuilder::Resources &res, Targets &t, Pass &p, const HalfImage &plate,
              const MixBuilder::Term &term, bool first, MixBuilder::Stats &stats)
{
    constexpr uint32_t bandRows = MixBuilder::bandRows;
    const uint32_t w = uint32_t(plate.width), h = uint32_t(plate.height);
    for (uint32_t row = 0; row < h; row += bandRows) {
        const uint32_t rows = std::min(bandRows, h - row);
        std::memcpy(t.staging->mapped, plate.pixels.data() + size_t(row) * w * 4, size_t(rows) * w * 8);
        begin(p);
        transitionImage(p.cmd, t.band->image, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
        VkBufferImageCopy region{};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.imageExtent = {w, rows, 1};
        vkCmdCopyBufferToImage(p.cmd, t.staging->buffer, t.band->image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1,
                               &region);
        transitionImage(p.cmd, t.band->image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                        VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
        const float push[4] = {float(term.weight[0]), float(term.weight[1]), float(term.weight[2]), float(row)};
        // The first band of the build clears the accumulator; both passes fit its framebuffer.
        drawPass(res, p, first && row == 0 ? res.clearPass : res.loadPass, p.accumulate,
                 term.toAlpha ? res.accumulateAlpha : res.accumulate, p.bandSet, push, {{0, int32_t(row)}, {w, rows}},
                 w, h);
        submitAndWait(vk, p);  // the band texture is reused by the next band
        ++stats.bands;
    }
}

}  // namespace

TextureRef MixBuilder::build(const std::vector<Term> &terms, const QString &dir, int width, int height, VkFormat format,
                             Stats *stats) const
{
    if (width <= 0 || height <= 0 || !res.convert.count(format))
        throw std::invalid_argument(QStringLiteral("pré-mix de %1×%2 no formato %3: tamanho ou formato sem suporte")
                                        .arg(width)
                                        .arg(height)
                                        .arg(int(format))
                                        .toStdString());
    const uint32_t w = uint32_t(width), h = uint32_t(height);
    Targets targets = allocate(*context, w, h, format);
    Pass pass;
    try {
        prepare(*context, res, targets, format, w, h, pass);
    } catch (const VulkanError &e) {
        throw VulkanError(commandBufferFailure, e);
    }

    const QString dirName = QFileInfo(dir).fileName();
    Stats local;
    for (const Term &term : terms) {
        const QString path = QDir(dir).filePath(term.file + QStringLiteral(".exr"));
        if (!QFileInfo::exists(path)) {
            // A deleted plate only removes its share of the light.
            Log::write(QStringLiteral("Cena: sem ") + dirName + "/" + term.file +
                       QStringLiteral(".exr (parcela apagada)"));
            continue;
        }
        // Scoped so each decoded plate is released before the next is read.
        const HalfImage plate = ImageDecoder::decodeEXR(path);
        if (plate.width != width || plate.height != height)
            throw SceneError(SceneError::Kind::badPlate,
                             term.file + QStringLiteral(".exr tem ") + QString::number(plate.width) +
                                 QStringLiteral("×") + QString::number(plate.height) +
                                 QStringLiteral(", manifest diz ") + QString::number(width) + QStringLiteral("×") +
                                 QString::number(height));
        try {
            addPlate(*context, res, targets, pass, plate, term, local.termsDrawn == 0, local);
        } catch (const VulkanError &e) {
            throw VulkanError(commandBufferFailure, e);
        }
        ++local.termsDrawn;
    }
    if (local.termsDrawn == 0)
        throw SceneError(SceneError::Kind::badPlate, QStringLiteral("nenhuma plate de luz em ") + dir);

    try {
        begin(pass);
        transitionImage(pass.cmd, targets.accumulator->image, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                        VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
        const float zero[4] = {0, 0, 0, 0};
        drawPass(res, pass, res.resultPass.at(format), pass.result, res.convert.at(format), pass.accSet, zero,
                 {{0, 0}, {w, h}}, w, h);
        submitAndWait(*context, pass);
    } catch (const VulkanError &e) {
        throw VulkanError(commandBufferFailure, e);
    }
    if (stats) *stats = local;
    // The accumulator, band and staging memory go back at once when these references drop.
    return targets.result;
}
