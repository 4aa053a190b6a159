#pragma once

#include "render/SceneUniforms.h"

#include <vulkan/vulkan.h>

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>

// The counts a composite or steam pipeline is compiled for (its specialization constants): the
// parts a frame does not use are compiled out, since a software device runs every branch.
struct ShaderVariant {
    // The moving parts, bits of `parts`.
    enum Part : uint32_t {
        drops = 1,
        specks = 2,
        label = 4,
        strobe = 8,
        arm = 16,
        front = 32,
        armShadow = 64,
        armReflection = 128,
        allParts = 255,
        armParts = arm | armShadow | armReflection
    };

    uint32_t mixes = 4;
    uint32_t arms = 4;
    uint32_t fronts = 2;
    VkBool32 rain = VK_TRUE;
    uint32_t parts = allParts;  // of the moving layer's shader; the others draw them all
    VkBool32 wrap = VK_FALSE;   // steam within an hour's first seconds, blended with the hour before

    static ShaderVariant of(const SceneUniforms &u)
    {
        return {std::min(u.mixCount, 4u), std::min(u.armCount, 4u), std::min(u.frontCount, 2u),
                u.rain[3] > 0.0f && u.glassRect[2] > 0.0f ? VK_TRUE : VK_FALSE, allParts};
    }
    // Steam reads the light only.
    static ShaderVariant of(const SteamUniforms &u)
    {
        return {
            std::min(u.mixCount, 4u), 0, 0, VK_FALSE, 0, u.params[0] < 10.0f && u.params[3] > 0 ? VK_TRUE : VK_FALSE};
    }

    // Valid while this variant lives: constant_id 0…5 of the shader.
    VkSpecializationInfo info() const;

    auto operator<=>(const ShaderVariant &) const = default;
};

inline VkSpecializationInfo ShaderVariant::info() const
{
    static constexpr std::array<VkSpecializationMapEntry, 6> entries{{
        {0, offsetof(ShaderVariant, mixes), sizeof(uint32_t)},
        {1, offsetof(ShaderVariant, arms), sizeof(uint32_t)},
        {2, offsetof(ShaderVariant, fronts), sizeof(uint32_t)},
        {3, offsetof(ShaderVariant, rain), sizeof(VkBool32)},
        {4, offsetof(ShaderVariant, parts), sizeof(uint32_t)},
        {5, offsetof(ShaderVariant, wrap), sizeof(VkBool32)},
    }};
    return {uint32_t(entries.size()), entries.data(), sizeof(ShaderVariant), this};
}
