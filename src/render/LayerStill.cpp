#include "render/LayerStill.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// The arm's part of the uniforms, from one to the other.
void copyArm(const SceneUniforms &from, SceneUniforms &to)
{
    to.armInv = from.armInv;
    to.armRects = from.armRects;
    to.shadowRects = from.shadowRects;
    to.reflRects = from.reflRects;
    to.armWeights = from.armWeights;
    to.armCount = from.armCount;
}

// The uniforms with the parts that move every frame (the record's turn, the arm, the strobe, the
// rain's time, the front layers laid over them) set to their defaults.
SceneUniforms stillPart(const SceneUniforms &u)
{
    const SceneUniforms none;
    SceneUniforms s = u;
    s.label = none.label;
    copyArm(none, s);
    s.frontRects = none.frontRects;
    s.frontWeights = none.frontWeights;
    s.strobe = none.strobe;
    s.rain[0] = 0;
    s.frontCount = 0;
    return s;
}

// Where a warp takes a point, as the shader's project().
std::array<float, 2> project(const Float3x3 &m, float x, float y)
{
    const float h[3] = {m.at(0, 0) * x + m.at(0, 1) * y + m.at(0, 2), m.at(1, 0) * x + m.at(1, 1) * y + m.at(1, 2),
                        m.at(2, 0) * x + m.at(2, 1) * y + m.at(2, 2)};
    return {h[0] / h[2], h[1] / h[2]};
}

}  // namespace

LayerStill::Arm::Arm(const SceneUniforms &u, const SceneTextures &t)
    : uniforms(u)
    , sprites(t.arm)
    , shadows(t.shadows)
    , reflections(t.reflections)
{
}

// The same sprites at weights within 1/256, and warps that take the corners of each sprite and
// shadow less than `standing` apart. The corners, in sprite pixels, stand in for the arm's own
// plate pixels: a warp near its sample moves them little.
bool LayerStill::Arm::near(const Arm &other) const
{
    const SceneUniforms &a = uniforms, &b = other.uniforms;
    if (a.armCount != b.armCount) return false;
    for (size_t j = 0; j < 4; ++j) {
        if (sprites[j] != other.sprites[j] || shadows[j] != other.shadows[j] ||
            reflections[j] != other.reflections[j] || a.armRects[j] != b.armRects[j] ||
            a.shadowRects[j] != b.shadowRects[j] || a.reflRects[j] != b.reflRects[j] ||
            std::abs(a.armWeights[j] - b.armWeights[j]) > 1.0f / 256)
            return false;
        if (a.armWeights[j] == 0) continue;
        for (const Float4 &r : {a.armRects[j], a.shadowRects[j]}) {
            if (r[2] <= 0) continue;
            for (float x : {r[0], r[0] + r[2]})
                for (float y : {r[1], r[1] + r[3]}) {
                    const auto p = project(a.armInv[j >> 1], x, y), q = project(b.armInv[j >> 1], x, y);
                    if (!(std::hypot(p[0] - q[0], p[1] - q[1]) < standing)) return false;
                }
        }
    }
    return true;
}

LayerStill::LayerStill(std::shared_ptr<VulkanContext> context, int32_t x, int32_t y, uint32_t width, uint32_t height)
    : left(x)
    , top(y)
    , linearTarget(context, width, height, VK_FORMAT_R16G16B16A16_SFLOAT, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL)
    , finishedTarget(context, width, height)
{
}

bool LayerStill::Arm::drawn() const
{
    for (size_t j = 0; j < std::min<size_t>(uniforms.armCount, 4); ++j)
        if (uniforms.armWeights[j] != 0) return true;
    return false;
}

LayerStill::Redraw LayerStill::changed(const SceneUniforms &uniforms, const SceneTextures &textures)
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
    Redraw redraw =
        !drawn || !texturesSame || std::memcmp(&still, &lastUniforms, sizeof still) != 0 ? Redraw::all : Redraw::none;
    // The finished copy is drawn again when the arm it shows changes: one comes to stand, or
    // the one held there moves on (a held arm with nothing to draw shows nothing).
    const Arm arm(uniforms, textures);
    if (!held || !arm.near(heldArm)) {
        const bool shown = held && heldArm.drawn();
        held = drawn && arm.near(lastArm);
        if (held) heldArm = arm;
        if (shown || (held && arm.drawn())) redraw = std::max(redraw, Redraw::finished);
    }
    lastArm = arm;
    lastUniforms = still;
    lastTextures = textures;
    drawn = true;
    return redraw;
}

void LayerStill::holdArm(SceneUniforms &u) const { copyArm(heldArm.uniforms, u); }
