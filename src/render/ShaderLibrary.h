#pragma once

#include <cstdint>
#include <vector>

// SPIR-V of every entry point of shaders/scene.glsl, compiled at build time and embedded.
struct ShaderLibrary {
    std::vector<uint32_t> fullscreen, composite, compositeStill, compositeTone, compositeMoving, steam, steamUp,
        accumulate, accumulateAlpha, convertPlate;

    static const ShaderLibrary &embedded();
};
