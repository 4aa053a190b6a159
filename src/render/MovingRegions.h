#pragma once

#include "render/SceneUniforms.h"
#include "render/ShaderVariant.h"

#include <array>
#include <cstdint>

// Where in a moving layer each moving part can reach, as rectangles of the layer's pixels, each
// with the parts that reach into it: the layer is shaded only there, each rectangle by a shader
// compiled with just its parts, over the still room copied in first. The record's specks are
// found one by one and come last, each with every part of the layer; drawn in order, the last
// rectangle over a pixel has every part that reaches it.
class MovingRegions {
public:
    struct Region {
        int32_t x = 0, y = 0;
        uint32_t width = 0, height = 0;
        uint32_t parts = 0;
    };

    // The regions of a layer `width`×`height` whose uniforms are `u` (its origin included), for
    // the parts in `only`. The `held` parts are in the still already: they join the regions of
    // the other parts they overlap, and make none of their own. Allocates nothing.
    MovingRegions(const SceneUniforms &u, uint32_t width, uint32_t height, uint32_t only = ShaderVariant::allParts,
                  uint32_t held = 0);

    const Region *begin() const { return regions.data(); }
    const Region *end() const { return regions.data() + count; }
    size_t size() const { return count; }

    static constexpr size_t maxParts = 10;
    // More specks than this in view: the whole record is shaded for them instead.
    static constexpr size_t maxSpecks = 160;
    // The record's cells (rings per millimetre, sectors), and whether one holds a speck: as the
    // shader's speckCell.
    static constexpr float ringsPerMm = 1.3f;
    static constexpr uint32_t sectors = 260;
    static bool speckCell(uint32_t ring, uint32_t sector);

private:
    struct Box {
        int32_t x0, y0, x1, y1;
        uint32_t part;
    };
    void cut(uint32_t held);

    std::array<Box, maxParts> boxes{};
    size_t boxCount = 0;
    std::array<Box, maxSpecks> speckBoxes{};
    size_t speckCount = 0;
    std::array<Region, (2 * maxParts + 1) * (2 * maxParts + 1) + maxSpecks> regions{};
    size_t count = 0;
};
