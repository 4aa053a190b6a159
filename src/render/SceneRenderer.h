#pragma once

#include "vulkan/GPUClock.h"
#include "render/LayerStill.h"
#include "render/MovingRegions.h"
#include "render/MixBuilder.h"
#include "vulkan/PipelineCache.h"
#include "render/ProgramVariants.h"
#include "vulkan/RenderTarget.h"
#include "render/SceneTextures.h"
#include "render/SceneUniforms.h"
#include "render/ShaderLibrary.h"
#include "render/ShaderVariant.h"
#include "vulkan/VulkanContext.h"
#include "vulkan/VulkanHandle.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

// Owns the device, the queue, the pipelines of the composite, steam and pre-mix passes and the
// two fallback textures, and encodes a frame (base image, dynamic layers, steam layer) into one
// command buffer. Main thread, except the shared `mixBuilder` and `context`.
class SceneRenderer {
public:
    struct Pass {
        RenderTarget *target = nullptr;  // not owned
        SceneUniforms uniforms;
        // Steam laid over this pass's pixels in the same render pass (premultiplied "over"): a
        // window layer cannot be translucent over its parent without a compositor.
        std::optional<SteamUniforms> steamOver = {};
        // With steam over it: the room's pixels are copied from this finished base (same size as
        // the screen, in transfer-source layout) at the pass's origin instead of being shaded, so
        // only the steam costs shading. A target that cannot take a copy is shaded as usual.
        const GpuTexture *under = nullptr;
        int32_t underX = 0, underY = 0;  // where `under`'s top-left lies on the screen
        // With `steamOver`: the steam is drawn here first, at half the layer's resolution (bound
        // as SceneTextures::steam), and filtered up over the layer.
        OffscreenTarget *steamHalf = nullptr;
        // A layer over the record: only its moving parts are shaded each frame, over its part of
        // the still room (bound as SceneTextures::still, which holds the layer), which is drawn
        // first as `redrawStill` says. The still may hold the arm (its uniforms must then be the
        // held arm's).
        LayerStill *still = nullptr;
        LayerStill::Redraw redrawStill = LayerStill::Redraw::none;
    };
    struct SteamPass {
        RenderTarget *target = nullptr;  // not owned
        SteamUniforms uniforms;
    };

    // None when there is no device, queue, shader or pipeline; the reason is logged: "Cena: sem
    // dispositivo Vulkan: ", "Cena: dispositivo Vulkan falhou: " or "Cena: shader não compilou: ".
    // Compiled pipelines are kept in `pipelineCache` (a file; empty: none) for the next start.
    static std::unique_ptr<SceneRenderer> create(const ShaderLibrary &shaders = ShaderLibrary::embedded(),
                                                 const QString &pipelineCache = PipelineCache::defaultPath());
    ~SceneRenderer();

    // One frame in one command buffer, submitted and presented; it finishes later (waitIdle
    // waits for it). Work submitted after it on the queue, such as copying a base into a
    // window, sees its pixels, so the caller need not wait to show a base.
    void draw(const std::optional<Pass> &base, const std::vector<Pass> &layers, const std::optional<SteamPass> &steam,
              const SceneTextures &textures);
    // Whether every pipeline the draw of these passes uses is made; those that are not are
    // compiled on a worker thread meanwhile, so a caller that skips the frame until then never
    // waits for a compile. Allocates nothing once they are made.
    bool ready(const std::optional<Pass> &base, const std::vector<Pass> &layers, const std::optional<SteamPass> &steam);
    // A draw now would first wait for the device to finish an earlier frame.
    bool busy() const;
    // Waits for every submitted frame and books its GPU time.
    void waitIdle();

    GPUClock &gpuClock() { return clock; }
    // The composite and steam programs compiled and kept now; those idle for long go as frames are drawn.
    ProgramVariants &programs() { return *variants; }
    const std::shared_ptr<VulkanContext> &vulkan() const { return context; }
    const std::shared_ptr<MixBuilder> &mixBuilder() const { return builder; }
    const TextureRef &emptySprite() const { return empty; }
    const TextureRef &whiteMask() const { return white; }
    // The format of the finished light textures: B10G11R11 where the device renders into it,
    // RGBA16F otherwise.
    VkFormat lightFormat() const { return lightTextureFormat; }

private:
    SceneRenderer() = default;
    void build(const ShaderLibrary &shaders, const QString &pipelineCache);
    void makeSceneLayout();
    void makePipelines(const ShaderLibrary &shaders, const QString &pipelineCache);
    void makeFallbacks();
    void makeFrameSlots();
    struct FrameSlot;
    void harvest(FrameSlot &slot);
    void bindTextures(FrameSlot &slot, const SceneTextures &textures);
    struct Step {
        RenderTarget *target = nullptr;
        VkPipeline pipeline = VK_NULL_HANDLE;
        VkDescriptorSet set = VK_NULL_HANDLE;
        const void *bytes = nullptr;
        size_t size = 0;
        // Laid over in the same render pass with `overPipeline`.
        const SteamUniforms *over = nullptr;
        VkPipeline overPipeline = VK_NULL_HANDLE;
        // Copied into the target first from `underAt` in it; then nothing is shaded, or all of it
        // with `shadeOverCopy` (a shader that leaves what it does not change).
        const GpuTexture *under = nullptr;
        VkOffset2D underAt{};
        bool shadeOverCopy = false;
        // Instead of `pipeline`, the moving program of `variant`: over a copy, only the regions the
        // moving parts reach, each compiled for its parts; without one, all of it with every part.
        // `heldParts` are in the copy already.
        bool byRegions = false;
        ShaderVariant variant{};
        uint32_t heldParts = 0;
        // After `pipeline`, the regions of the arm's parts drawn over with the moving program of
        // `variant` (a finished still that holds the arm).
        bool armOver = false;
    };
    void encode(FrameSlot &slot, uint32_t &uniformIndex, const Step &step);
    void encodeLayer(FrameSlot &slot, uint32_t &uniformIndex, const Pass &layer);
    void copyUnder(VkCommandBuffer cmd, const GpuTexture &base, int32_t x, int32_t y, const TargetImage &image);
    // `loaded`: the pass keeps what the image holds (copied in, in colour-attachment layout).
    VkRenderPass targetPass(VkFormat format, VkImageLayout finalLayout, bool loaded = false);

    std::shared_ptr<VulkanContext> context;
    GPUClock clock;
    std::shared_ptr<MixBuilder> builder;
    VkFormat lightTextureFormat = VK_FORMAT_B10G11R11_UFLOAT_PACK32;

    SamplerHandle lin, art, sprite;
    SetLayoutHandle sceneSetLayout;
    PipelineLayoutHandle sceneLayout;
    std::map<std::tuple<VkFormat, VkImageLayout, bool>, RenderPassHandle> targetPasses;
    using Program = ProgramVariants::Program;
    std::unique_ptr<PipelineCache> cache;
    std::unique_ptr<ProgramVariants> variants;
    PipelineHandle tonePipeline, steamUpPipeline;
    TextureRef empty, white;

    std::vector<std::unique_ptr<FrameSlot>> frameSlots;
    // Per-frame lists, kept so that a steady frame allocates nothing.
    std::vector<RenderTarget *> presented;
    std::vector<VkSemaphore> waits, doneSemaphores;
    std::vector<VkPipelineStageFlags> waitStages;
    size_t nextSlot = 0;
    VkDeviceSize uniformStride = 0;
};
