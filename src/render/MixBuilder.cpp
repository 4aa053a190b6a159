#include "render/MixBuilder.h"

#include "core/scene/ImageDecoder.h"
#include "core/app/Log.h"
#include "render/VulkanCheck.h"

#include <QDir>
#include <QFileInfo>
#include <cstring>

MixBuilder::MixBuilder(std::shared_ptr<VulkanContext> ctx, Resources resources)
    : context(std::move(ctx)), res(std::move(resources)) {}

MixBuilder::~MixBuilder() {
    VkDevice d = context->device;
    vkDeviceWaitIdle(d);
    for (auto &[f, p] : res.convert) vkDestroyPipeline(d, p, nullptr);
    for (auto &[f, p] : res.resultPass) vkDestroyRenderPass(d, p, nullptr);
    if (res.accumulate) vkDestroyPipeline(d, res.accumulate, nullptr);
    if (res.accumulateAlpha) vkDestroyPipeline(d, res.accumulateAlpha, nullptr);
    if (res.clearPass) vkDestroyRenderPass(d, res.clearPass, nullptr);
    if (res.loadPass) vkDestroyRenderPass(d, res.loadPass, nullptr);
    if (res.layout) vkDestroyPipelineLayout(d, res.layout, nullptr);
    if (res.setLayout) vkDestroyDescriptorSetLayout(d, res.setLayout, nullptr);
    if (res.sampler) vkDestroySampler(d, res.sampler, nullptr);
}

namespace {

// The per-build Vulkan objects, released whatever way the build ends.
struct BuildScope {
    VkDevice device;
    VkCommandPool pool = VK_NULL_HANDLE;
    VkDescriptorPool descriptors = VK_NULL_HANDLE;
    VkFence fence = VK_NULL_HANDLE;
    std::vector<VkFramebuffer> framebuffers;
    ~BuildScope() {
        for (VkFramebuffer f : framebuffers) vkDestroyFramebuffer(device, f, nullptr);
        if (fence) vkDestroyFence(device, fence, nullptr);
        if (descriptors) vkDestroyDescriptorPool(device, descriptors, nullptr);
        if (pool) vkDestroyCommandPool(device, pool, nullptr);
    }
};

const QString commandBufferFailure = QStringLiteral("falhou o command buffer do pré-mix");

bool outOfMemory(VkResult r) { return r == VK_ERROR_OUT_OF_DEVICE_MEMORY || r == VK_ERROR_OUT_OF_HOST_MEMORY; }

}  // namespace

TextureRef MixBuilder::build(const std::vector<Term> &terms, const QString &dir, int width, int height,
                             VkFormat format, Stats *stats) const {
    VkDevice device = context->device;
    if (width <= 0 || height <= 0 || !res.convert.count(format))
        throw std::invalid_argument(QStringLiteral("pré-mix de %1×%2 no formato %3: tamanho ou formato sem suporte")
                                        .arg(width)
                                        .arg(height)
                                        .arg(int(format))
                                        .toStdString());
    const uint32_t w = uint32_t(width), h = uint32_t(height);

    TextureRef accumulator, band, result;
    std::unique_ptr<HostBuffer> staging;
    try {
        accumulator = context->createTexture(VK_FORMAT_R16G16B16A16_SFLOAT, w, h,
                                             VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT);
        band = context->createTexture(VK_FORMAT_R16G16B16A16_SFLOAT, w, bandRows,
                                      VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT);
        result = context->createTexture(format, w, h,
                                        VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT | VK_IMAGE_USAGE_SAMPLED_BIT |
                                            VK_IMAGE_USAGE_TRANSFER_SRC_BIT);
        staging = context->createHostBuffer(VkDeviceSize(w) * bandRows * 8, VK_BUFFER_USAGE_TRANSFER_SRC_BIT);
    } catch (const VulkanError &e) {
        throw VulkanError(outOfMemory(e.result) ? QStringLiteral("sem memória de GPU pro pré-mix")
                                                : QStringLiteral("texturas do pré-mix não criadas"),
                          e);
    }

    BuildScope scope{device};
    VkCommandBuffer cmd = VK_NULL_HANDLE;
    VkDescriptorSet bandSet = VK_NULL_HANDLE, accSet = VK_NULL_HANDLE;
    VkFramebuffer loadFb = VK_NULL_HANDLE, resultFb = VK_NULL_HANDLE;
    try {
        VkCommandPoolCreateInfo pci{VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO};
        pci.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
        pci.queueFamilyIndex = context->queueFamily;
        vkCheck(vkCreateCommandPool(device, &pci, nullptr, &scope.pool), "vkCreateCommandPool");
        VkCommandBufferAllocateInfo ai{VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO};
        ai.commandPool = scope.pool;
        ai.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
        ai.commandBufferCount = 1;
        vkCheck(vkAllocateCommandBuffers(device, &ai, &cmd), "vkAllocateCommandBuffers");
        VkFenceCreateInfo fci{VK_STRUCTURE_TYPE_FENCE_CREATE_INFO};
        vkCheck(vkCreateFence(device, &fci, nullptr, &scope.fence), "vkCreateFence");
        VkDescriptorPoolSize size{VK_DESCRIPTOR_TYPE_COMBINED_IMAGE_SAMPLER, 2};
        VkDescriptorPoolCreateInfo dpci{VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO};
        dpci.maxSets = 2;
        dpci.poolSizeCount = 1;
        dpci.pPoolSizes = &size;
        vkCheck(vkCreateDescriptorPool(device, &dpci, nullptr, &scope.descriptors), "vkCreateDescriptorPool");
        VkDescriptorSetLayout layouts[2] = {res.setLayout, res.setLayout};
        VkDescriptorSetAllocateInfo dai{VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO};
        dai.descriptorPool = scope.descriptors;
        dai.descriptorSetCount = 2;
        dai.pSetLayouts = layouts;
        VkDescriptorSet sets[2];
        vkCheck(vkAllocateDescriptorSets(device, &dai, sets), "vkAllocateDescriptorSets");
        bandSet = sets[0];
        accSet = sets[1];
        VkDescriptorImageInfo infos[2] = {{VK_NULL_HANDLE, band->view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL},
                                          {VK_NULL_HANDLE, accumulator->view, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL}};
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
        fbi.pAttachments = &accumulator->view;
        fbi.width = w;
        fbi.height = h;
        fbi.layers = 1;
        vkCheck(vkCreateFramebuffer(device, &fbi, nullptr, &loadFb), "vkCreateFramebuffer");
        scope.framebuffers.push_back(loadFb);
        fbi.renderPass = res.resultPass.at(format);
        fbi.pAttachments = &result->view;
        vkCheck(vkCreateFramebuffer(device, &fbi, nullptr, &resultFb), "vkCreateFramebuffer");
        scope.framebuffers.push_back(resultFb);
    } catch (const VulkanError &e) {
        throw VulkanError(commandBufferFailure, e);
    }

    auto submitAndWait = [&] {
        vkCheck(vkEndCommandBuffer(cmd), "vkEndCommandBuffer");
        VkSubmitInfo si{VK_STRUCTURE_TYPE_SUBMIT_INFO};
        si.commandBufferCount = 1;
        si.pCommandBuffers = &cmd;
        vkCheck(vkResetFences(device, 1, &scope.fence), "vkResetFences");
        vkCheck(context->submit(si, scope.fence), "vkQueueSubmit");
        vkCheck(vkWaitForFences(device, 1, &scope.fence, VK_TRUE, UINT64_MAX), "vkWaitForFences");
    };
    auto begin = [&] {
        vkCheck(vkResetCommandBuffer(cmd, 0), "vkResetCommandBuffer");
        VkCommandBufferBeginInfo bi{VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO};
        bi.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
        vkCheck(vkBeginCommandBuffer(cmd, &bi), "vkBeginCommandBuffer");
    };

    const QString dirName = QFileInfo(dir).fileName();
    bool first = true;
    Stats local;
    for (const Term &term : terms) {
        const QString path = QDir(dir).filePath(term.file + QStringLiteral(".exr"));
        if (!QFileInfo::exists(path)) {
            // A deleted plate only removes its share of the light.
            Log::write(QStringLiteral("Cena: sem ") + dirName + "/" + term.file + QStringLiteral(".exr (parcela apagada)"));
            continue;
        }
        // Scoped so each decoded plate is released before the next is read.
        HalfImage plate = ImageDecoder::decodeEXR(path);
        if (plate.width != width || plate.height != height)
            throw ImageDecoder::Failure(term.file + QStringLiteral(".exr tem ") + QString::number(plate.width) +
                                        QStringLiteral("×") + QString::number(plate.height) +
                                        QStringLiteral(", manifest diz ") + QString::number(width) +
                                        QStringLiteral("×") + QString::number(height));
        const float push[4] = {float(term.weight[0]), float(term.weight[1]), float(term.weight[2]), 0};
        try {
            for (uint32_t row = 0; row < h; row += bandRows) {
                const uint32_t rows = std::min(bandRows, h - row);
                std::memcpy(staging->mapped, plate.pixels.data() + size_t(row) * w * 4, size_t(rows) * w * 8);
                begin();
                transitionImage(cmd, band->image, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL);
                VkBufferImageCopy region{};
                region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
                region.imageExtent = {w, rows, 1};
                vkCmdCopyBufferToImage(cmd, staging->buffer, band->image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1,
                                       &region);
                transitionImage(cmd, band->image, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                                VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
                VkClearValue clear{};
                VkRenderPassBeginInfo rbi{VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
                rbi.renderPass = first ? res.clearPass : res.loadPass;
                rbi.framebuffer = loadFb;  // both passes are compatible with it
                rbi.renderArea = {{0, 0}, {w, h}};
                rbi.clearValueCount = 1;
                rbi.pClearValues = &clear;
                vkCmdBeginRenderPass(cmd, &rbi, VK_SUBPASS_CONTENTS_INLINE);
                vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS,
                                  term.toAlpha ? res.accumulateAlpha : res.accumulate);
                vkCmdBindDescriptorSets(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, res.layout, 0, 1, &bandSet, 0, nullptr);
                float bandPush[4] = {push[0], push[1], push[2], float(row)};
                vkCmdPushConstants(cmd, res.layout, VK_SHADER_STAGE_FRAGMENT_BIT, 0, sizeof(bandPush), bandPush);
                VkViewport vp{0, float(row), float(w), float(rows), 0, 1};
                VkRect2D sc{{0, int32_t(row)}, {w, rows}};
                vkCmdSetViewport(cmd, 0, 1, &vp);
                vkCmdSetScissor(cmd, 0, 1, &sc);
                vkCmdDraw(cmd, 3, 1, 0, 0);
                vkCmdEndRenderPass(cmd);
                submitAndWait();  // the band texture is reused by the next band
                first = false;
                ++local.bands;
            }
        } catch (const VulkanError &e) {
            throw VulkanError(commandBufferFailure, e);
        }
        ++local.termsDrawn;
    }
    if (local.termsDrawn == 0)
        throw ImageDecoder::Failure(QStringLiteral("nenhuma plate de luz em ") + dir);

    try {
        begin();
        transitionImage(cmd, accumulator->image, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL,
                        VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
        VkRenderPassBeginInfo rbi{VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO};
        rbi.renderPass = res.resultPass.at(format);
        rbi.framebuffer = resultFb;
        rbi.renderArea = {{0, 0}, {w, h}};
        vkCmdBeginRenderPass(cmd, &rbi, VK_SUBPASS_CONTENTS_INLINE);
        vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, res.convert.at(format));
        vkCmdBindDescriptorSets(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, res.layout, 0, 1, &accSet, 0, nullptr);
        const float zero[4] = {0, 0, 0, 0};
        vkCmdPushConstants(cmd, res.layout, VK_SHADER_STAGE_FRAGMENT_BIT, 0, sizeof(zero), zero);
        VkViewport vp{0, 0, float(w), float(h), 0, 1};
        VkRect2D sc{{0, 0}, {w, h}};
        vkCmdSetViewport(cmd, 0, 1, &vp);
        vkCmdSetScissor(cmd, 0, 1, &sc);
        vkCmdDraw(cmd, 3, 1, 0, 0);
        vkCmdEndRenderPass(cmd);
        submitAndWait();
    } catch (const VulkanError &e) {
        throw VulkanError(commandBufferFailure, e);
    }
    if (stats) *stats = local;
    // The accumulator, band and staging memory go back at once when these references drop.
    return result;
}
