#pragma once

#include "core/scene/PlateManifest.h"

#include <QString>
#include <array>
#include <map>
#include <vector>

// What one preset of a scene sums for its light: which plates of a framing's light folder, each
// with its linear RGB factor (exposure included), and the preset's vignette and grain. Read from
// the manifest's preset keys; the files a scene needs and the light mixer both come from here.
struct LightRecipe {
    struct Term {
        QString plate;                   // plate file name without directory
        std::array<double, 3> weight{};  // linear RGB factor
    };
    std::vector<Term> terms;
    double vignette = 0;
    double grain = 0;

    // Every preset's recipe, by preset name.
    static std::map<QString, LightRecipe> of(const PlateManifest &manifest);
};
