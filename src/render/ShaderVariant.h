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
    uint32_t mixes = 4;
    uint32_t arms = 4;
    uint32_t fronts = 2;
    VkBool32 rain = VK_TRUE;

    static ShaderVariant of(const SceneUniforms &u)
    {
        return {std::min(u.mixCount, 4u), std::min(u.armCount, 4u), std::min(u.frontCount, 2u),
                u.rain[3] > 0.0f && u.glassRect[2] > 0.0f ? VK_TRUE : VK_FALSE};
    }
    // Steam reads the light only.
    static ShaderVariant of(const SteamUniforms &u) { return {std::min(u.mixCount, 4u), 0, 0, VK_FALSE}; }

    // Valid while this variant lives: constant_id 0…3 of the shader.
    VkSpecializationInfo info() const;

    auto operator<=>(const ShaderVariant &) const = default;
};

inline VkSpecializationInfo ShaderVariant::info() const
{
    static constexpr std::array<VkSpecializationMapEntry, 4> entries{{
        {0, offsetof(ShaderVariant, mixes), sizeof(uint32_t)},
        {1, offsetof(ShaderVariant, arms), sizeof(uint32_t)},
        {2, offsetof(ShaderVariant, fronts), sizeof(uint32_t)},
        {3, offsetof(ShaderVariant, rain), sizeof(VkBool32)},
    }};
    return {uint32_t(entries.size()), entries.data(), sizeof(ShaderVariant), this};
}
