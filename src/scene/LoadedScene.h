#pragma once

#include "core/lighting/LightMixer.h"
#include "core/scene/PlateManifest.h"
#include "render/PresetMixes.h"
#include "render/SceneRenderer.h"
#include "scene/PlateGeometry.h"
#include "scene/SceneEffects.h"
#include "scene/TonearmSprites.h"

#include <QString>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

// A texture and the plate rectangle it covers (the shader's mask rectangles).
struct CroppedTexture {
    TextureRef texture;
    Float4 rect{};
};

// A scene assembled for one framing: light families, sprites, masks, matrices, tone map and
// probes. Assembled on a worker thread (SceneLoader), handed to the main thread with
// `moveToThread` and used only there from then on; owns its GPU resources.
struct LoadedScene {
    QString framingName;
    PlateManifest::Framing framing;
    LightMixer lights;
    std::unique_ptr<PresetMixes> mixes;
    std::unique_ptr<TonearmSprites> sprites;  // none without a tonearm
    std::vector<CroppedTexture> fronts;       // at most two
    std::optional<CroppedTexture> coverMask, labelMask;
    PlateGeometry::Mat3 coverInv = PlateGeometry::identity();
    PlateGeometry::Mat3 labelInv = PlateGeometry::identity();
    Float4 plateSize{};
    Float4 dynPlateRect{};  // the animated area in plate pixels
    double contrast = 1.0, toneOffset = 0.0, toneGamma = 1.0;
    std::array<double, 3> showcase{0, 1, 0};  // floor, maximum gain, art floor
    double darkArtMaxGain = 1.0;
    std::array<Float4, 3> probes{};  // five sleeve points and the stack's centre, as uv
    std::unique_ptr<SceneEffects> effects;

    // The uniforms and textures that do not depend on motion: matrices, tone, light of the
    // blend (the ready pre-mixes, strongest first, their weights scaled to the blend's total),
    // masks and front layers.
    void fillStatic(SceneUniforms &u, SceneTextures &t, const PlateGeometry::Mat3 &screenToPlate, const Float4 &origin,
                    const Blend &blend) const;
    // Hands the scene's thread-bound objects (families, sprites, effects) to `thread`. A scene is
    // assembled off the main thread and handed back with this before it is used.
    void moveToThread(QThread *thread);
    // Presets of a blend whose light mix is not ready yet.
    std::set<QString> missingMixes(const Blend &blend) const;
};

namespace SceneAssembly {

// Loads the framing's masks and front layers and creates the families and sprites (their
// builds start when asked). A framing the manifest lacks falls back to the first of
// `sortedFramings`. Returns the scene or the reason it cannot be shown.
std::variant<std::unique_ptr<LoadedScene>, QString> load(SceneRenderer &renderer, const QString &sceneRoot,
                                                         const PlateManifest &manifest, const QString &framing,
                                                         std::function<void(const QString &)> onPresetReady = {});

// Framings in the preferred order: "wide", "mid", "close", "top", then the others by name.
QStringList sortedFramings(const PlateManifest &manifest);

}  // namespace SceneAssembly
