#pragma once

#include "render/RenderTarget.h"
#include "render/SceneTextures.h"
#include "render/SceneUniforms.h"

#include <memory>

// What the moving layers show that holds still while the record turns: the room there in linear
// light (with the record's coverage in alpha), and the same finished for the screen. Drawn again
// only when what it is made of changes; each frame a layer starts from its part of the finished
// copy and shades only the pixels a moving part reaches. One still may serve several layers that
// overlap (the steam's and the record's): it covers a rectangle of the screen that holds them.
// Main thread.
class LayerStill {
public:
    // x, y: its top-left on the screen, in the pixels of the layers' origins.
    LayerStill(std::shared_ptr<VulkanContext> context, int32_t x, int32_t y, uint32_t width, uint32_t height);

    int32_t x() const { return left; }
    int32_t y() const { return top; }
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
    int32_t left = 0, top = 0;
    OffscreenTarget linearTarget;
    OffscreenTarget finishedTarget;
    SceneUniforms lastUniforms;
    SceneTextures lastTextures;
    bool drawn = false;
};
