#include "render/ShaderLibrary.h"

#include <cstddef>
#include <cstdint>

#include "shaders/accumulate.spv.h"
#include "shaders/accumulateAlpha.spv.h"
#include "shaders/composite.spv.h"
#include "shaders/compositeMoving.spv.h"
#include "shaders/compositeStill.spv.h"
#include "shaders/compositeTone.spv.h"
#include "shaders/convertPlate.spv.h"
#include "shaders/fullscreen.spv.h"
#include "shaders/steam.spv.h"
#include "shaders/steamUp.spv.h"

template <std::size_t N> static std::vector<uint32_t> words(const uint32_t (&code)[N])
{
    return std::vector<uint32_t>(code, code + N);
}

const ShaderLibrary &ShaderLibrary::embedded()
{
    static const ShaderLibrary library{
        words(spirv_fullscreen),      words(spirv_composite),   words(spirv_compositeStill), words(spirv_compositeTone),
        words(spirv_compositeMoving), words(spirv_steam),       words(spirv_steamUp),        words(spirv_accumulate),
        words(spirv_accumulateAlpha), words(spirv_convertPlate)};
    return library;
}
