// Which pipelines a frame's passes use, as SceneRenderer::encode chooses them, so that a frame
// can wait for them without compiling on the thread that draws.

#include "render/SceneRenderer.h"

using Program = ProgramVariants::Program;

bool SceneRenderer::ready(const std::optional<Pass> &base, const std::vector<Pass> &layers,
                          const std::optional<SteamPass> &steam)
{
    bool all = true;
    const auto need = [&](Program program, const ShaderVariant &v) { all = variants->ready(program, v) && all; };
    const auto regions = [&](const SceneUniforms &u, uint32_t w, uint32_t h, uint32_t only, uint32_t held) {
        const ShaderVariant variant = ShaderVariant::of(u);
        for (const MovingRegions::Region &r : MovingRegions(u, w, h, only, held)) {
            ShaderVariant v = variant;
            v.parts = r.parts;
            need(Program::moving, v);
        }
    };
    // As encode() and encodeLayer() choose them.
    const auto steamOf = [&](const Pass &pass) {
        if (!pass.steamOver) return;
        if (pass.steamHalf) {
            SteamUniforms half = *pass.steamOver;
            half.origin[2] = 2;
            need(Program::steam, ShaderVariant::of(half));
        } else {
            need(Program::steamOver, ShaderVariant::of(*pass.steamOver));
        }
    };
    if (base) {
        need(Program::composite, ShaderVariant::of(base->uniforms));
        if (base->steamOver) need(Program::steamOver, ShaderVariant::of(*base->steamOver));
    }
    for (const Pass &layer : layers) {
        steamOf(layer);
        if (!layer.still || !layer.target) {
            need(Program::composite, ShaderVariant::of(layer.uniforms));
            continue;
        }
        const uint32_t held = layer.still->holdsArm() ? uint32_t(ShaderVariant::armParts) : 0u;
        if (layer.redrawStill == LayerStill::Redraw::all) need(Program::still, ShaderVariant::of(layer.uniforms));
        if (layer.redrawStill != LayerStill::Redraw::none && held) {
            SceneUniforms still = layer.uniforms;
            still.origin = {float(layer.still->x()), float(layer.still->y()), 0, 0};
            regions(still, layer.still->width(), layer.still->height(), ShaderVariant::armParts, 0);
        }
        regions(layer.uniforms, layer.target->width(), layer.target->height(), ShaderVariant::allParts, held);
    }
    if (steam) need(Program::steam, ShaderVariant::of(steam->uniforms));
    return all;
}
