#pragma once

#include "core/lighting/LightMixer.h"
#include "core/turntable/RecordGrooves.h"
#include "render/SceneTextures.h"
#include "render/SceneUniforms.h"
#include "scene/PlateGeometry.h"

#include <optional>

class CoverArt;
struct LoadedScene;

// One frame's inputs turned into uniforms: the single path from clock, player, arm, cover and
// effects to the composite, used by the desktop view and by the offline render alike, so the
// two pictures cannot drift apart. Main thread.
namespace SceneFrame {

struct Inputs {
    const Blend *blend = nullptr;  // required
    double mediaTime = 0;
    bool playing = false;
    RecordSpin spin;
    double armYaw = 0;
    double armLift = 0;             // 0 = needle down … 1 = fully lifted
    const CoverArt *art = nullptr;  // required
    int fps = 30;
    bool motionBlur = true;
};

// Uniforms and textures of the whole screen; a layer differs only in `origin`.
void fill(LoadedScene &scene, const Inputs &in, const PlateGeometry::Mat3 &screenToPlate, SceneUniforms &u,
          SceneTextures &t);

// Where the arm should rest for what plays: the band of the playing track at `progress` (0…1)
// when the record effects are on, else the lead-in, run-out or rest. 0 without a tonearm.
double armGoal(const LoadedScene &scene, bool playing, double progress, bool recordEffects);

// The steam region in plate pixels: a column above the cup; none without a cup.
std::optional<Float4> steamRect(const LoadedScene &scene);

// Steam over the frame's light. `origin`: the drawable's corner in screen pixels and its scale
// to screen pixels; `seconds`: time since the steam clock started.
SteamUniforms steam(const SceneUniforms &u, const Float4 &rect, const Float4 &origin, double seconds);

// A plate rectangle on the screen, rounded outwards and clipped to the screen; empty when it
// falls outside.
QRect plateRectOnScreen(const Float4 &plateRect, const PlateGeometry::Mat3 &screenToPlate, const QSize &screen);

}  // namespace SceneFrame
