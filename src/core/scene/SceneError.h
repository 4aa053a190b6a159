#pragma once

#include "core/app/KindedError.h"

enum class SceneErrorKind {
    noManifest,   // the folder has no manifest.json
    badManifest,  // it does not decode, or it is too large to be one
    badPlate,     // a plate or mask is missing, unreadable, damaged or of the wrong size
};

// The scene layer's one error: what is wrong with a room on disk.
struct SceneError : KindedError<SceneErrorKind> {
    using KindedError::KindedError;
};
