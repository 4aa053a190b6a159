#include "render/LayerStill.h"

#include <cstring>

namespace {

// The uniforms with the parts that move every frame (the record's turn, the arm, the strobe, the
// rain's time, the front layers laid over them) set to their defaults.
SceneUniforms stillPart(const SceneUniforms &u)
{
    const SceneUniforms none;
    SceneUniforms s = u;
    s.label = none.label;
    s.armInv = none.armInv;
    s.armRects = none.armRects;
    s.shadowRects = none.shadowRects;
    s.armWeights = none.armWeights;
    s.reflRects = none.reflRects;
    s.frontRects = none.frontRects;
    s.frontWeights = none.frontWeights;
    s.strobe = none.strobe;
    s.rain[0] = 0;
    s.armCount = 0;
    s.frontCount = 0;
    return s;
}

}  // namespace

LayerStill::LayerStill(std::shared_ptr<VulkanContext> context, int32_t x, int32_t y, uint32_t width, uint32_t height)
    : left(x)
    , top(y)
    , linearTarget(context, width, height, VK_FORMAT_R16G16B16A16_SFLOAT, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
    , finishedTarget(context, width, height)
{
}

bool LayerStill::changed(const SceneUniforms &uniforms, const SceneTextures &textures)
{
    const SceneUniforms still = stillPart(uniforms);
    // Only the textures the still room reads: the arm's, the labels', the strobe's and the front
    // layers' are the moving parts'.
    const auto same = [&](const TextureRef &a, const TextureRef &b) { return a.get() == b.get(); };
    bool texturesSame =
        same(textures.coverMask, lastTextures.coverMask) && same(textures.artNew, lastTextures.artNew) &&
        same(textures.artOld, lastTextures.artOld) && same(textures.stackUV, lastTextures.stackUV) &&
        same(textures.stackArt, lastTextures.stackArt) && same(textures.glass, lastTextures.glass) &&
        same(textures.recordMask, lastTextures.recordMask) && same(textures.dustCover, lastTextures.dustCover);
    for (size_t i = 0; i < textures.mixes.size(); ++i) texturesSame &= same(textures.mixes[i], lastTextures.mixes[i]);
    for (size_t i = 0; i < textures.bounce.size(); ++i)
        texturesSame &= same(textures.bounce[i], lastTextures.bounce[i]);
    for (size_t i = 0; i < textures.record.size(); ++i)
        texturesSame &= same(textures.record[i], lastTextures.record[i]);
    // SceneUniforms is plain floats and integers with no padding of its own, so bytes compare.
    const bool result = !drawn || !texturesSame || std::memcmp(&still, &lastUniforms, sizeof still) != 0;
    lastUniforms = still;
    lastTextures = textures;
    drawn = true;
    return result;
}
