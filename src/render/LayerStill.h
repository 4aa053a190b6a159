#pragma once

#include "vulkan/RenderTarget.h"
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

    // As many passes as the redraw takes.
    enum class Redraw { none = 0, finished = 1, all = 2 };
    // What of the still a layer drawn with these uniforms and textures needs drawn again: all of
    // it the first time and whenever anything but the moving parts differs from the last call;
    // the finished copy alone when the arm comes to stand, or leaves where it stood in it.
    Redraw changed(const SceneUniforms &uniforms, const SceneTextures &textures);
    // Whether the finished copy holds the arm (its sprites, shadow and reflection) where it
    // stands: frames then draw it as held there (holdArm) and shade it only where another moving
    // part reaches. An arm that stands moves less than `standing` sprite pixels from one frame to
    // the next; one that creeps on through a track is drawn again once it is that far from where
    // it is held.
    bool holdsArm() const { return held; }
    void holdArm(SceneUniforms &uniforms) const;
    static constexpr float standing = 0.2f;
    // The next changed() answers `all` (the still was not drawn after all).
    void invalidate()
    {
        drawn = false;
        held = false;
    }

private:
    int32_t left = 0, top = 0;
    OffscreenTarget linearTarget;
    OffscreenTarget finishedTarget;
    SceneUniforms lastUniforms;
    SceneTextures lastTextures;
    bool drawn = false;
    // The arm as the last call had it, and as the finished copy holds it.
    struct Arm {
        SceneUniforms uniforms;
        std::array<TextureRef, 4> sprites, shadows, reflections;
        Arm() = default;
        Arm(const SceneUniforms &u, const SceneTextures &t);
        // Drawn the same to within `standing`.
        bool near(const Arm &other) const;
        // Anything of it is drawn.
        bool drawn() const;
    };
    Arm lastArm, heldArm;
    bool held = false;
};
