#pragma once

#include "vulkan/VulkanContext.h"

#include <array>

// The textures of one composite draw, by the shader's fixed slots (0…35). Absent entries are
// bound to the renderer's fallbacks: `emptySprite` (reads transparent black), `whiteMask` for
// shadows (reads 1 = no shadow), the art itself for the labels.
struct SceneTextures {
    std::array<TextureRef, 4> mixes;        // 0–3
    TextureRef coverMask;                   // 4
    TextureRef labelMask;                   // 5
    TextureRef artNew;                      // 6
    TextureRef artOld;                      // 7
    std::array<TextureRef, 4> arm;          // 8–11
    std::array<TextureRef, 4> shadows;      // 12–15
    std::array<TextureRef, 2> fronts;       // 16–17
    std::array<TextureRef, 4> reflections;  // 18–21
    std::array<TextureRef, 2> bounce;       // 22–23
    TextureRef stackUV;                     // 24
    TextureRef stackArt;                    // 25
    TextureRef strobe;                      // 26
    TextureRef glass;                       // 27
    std::array<TextureRef, 2> record;       // 28–29
    TextureRef recordMask;                  // 30
    TextureRef labelNew;                    // 31
    TextureRef labelOld;                    // 32
    TextureRef dustCover;                   // 33
    TextureRef still;                       // 34: the moving layer's still room, linear (LayerStill)
    TextureRef steam;                       // 35: the steam at half the layer's resolution

    static constexpr int slotCount = 36;
    // The texture in a slot, or null when absent.
    const GpuTexture *slot(int index) const;
};
