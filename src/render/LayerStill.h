#pragma once

#include "render/RenderTarget.h"
#include "render/SceneTextures.h"
#include "render/SceneUniforms.h"

#include <memory>

// What a moving layer shows that holds still while the record turns: the room there in linear
// light (with the record's coverage in alpha), and the same finished for the screen. Drawn again
// only when what it is made of changes; each frame starts from the finished copy and shades only
// the pixels a moving part reaches. Main thread.
class LayerStill {
public:
    LayerStill(std::shared_ptr<VulkanContext> context, uint32_t width, uint32_t height);

    uint32_t width() const { return linearTarget.width(); }
    uint32_t height() const { return linearTarget.height(); }
    OffscreenTarget &linear() { return linearTarget; }
    OffscreenTarget &finished() { return finishedTarget; }

    // Whether a layer drawn with these uniforms and textures needs the still drawn again: true
    // the first time and whenever anything but the moving parts differs from the last call.
    bool changed(const SceneUniforms &uniforms, const SceneTextures &textures);
    // The next changed() answers true (the still was not drawn after all).
    void invalidate() { drawn = false; }

private:
    OffscreenTarget linearTarget;
    OffscreenTarget finishedTarget;
    SceneUniforms lastUniforms;
    SceneTextures lastTextures;
    bool drawn = false;
};
