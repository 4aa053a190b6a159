#pragma once

#include "core/lighting/LightMixer.h"
#include "core/scene/PlateManifest.h"
#include "core/turntable/RecordGrooves.h"
#include "render/PresetMixes.h"
#include "render/SceneRenderer.h"
#include "scene/PlateGeometry.h"

#include <QObject>
#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <set>

// Fills, each frame, the uniform groups of the live record, the cover bounce, the record stack,
// the speed LEDs and strobe, the rain and the dust cover, from the framing's manifest entry, the
// blend, the spin and the effect switches. Holds the record-pass ("disco") and bounce
// ("rebatimento") pre-mix families. A missing pass or mask switches its effect off with a log
// line; nothing here fails a frame. Main thread.
class SceneEffects : public QObject {
    Q_OBJECT
public:
    struct Switches {
        bool record = true;   // "fxRecord"
        bool bounce = true;   // "fxBounce"
        bool stack = true;    // "fxStack"
        bool panel = true;    // "fxPanel"
        bool weather = true;  // "fxWeather"; forced off by the battery saver
    };
    struct RecordLight {
        double azimuthDeg = 0, elevationDeg = 45;
        std::optional<std::array<double, 3>> color;  // none: the shader estimates it from the irradiance
    };
    // The uniform holds 16 bands; a longer side is drawn as 16 runs of neighbouring tracks (each
    // from the first one's outer edge to the last one's inner edge), so every track, the playing
    // one included, lies inside a drawn band.
    static constexpr size_t maxBands = 16;
    static std::vector<RecordGrooves::Band> drawnBands(const std::vector<RecordGrooves::Band> &bands);

    // `framingDir`: the framing's folder. `onPresetReady` fires when a family finishes a preset.
    SceneEffects(const PlateManifest &manifest, const QString &framingName, const QString &framingDir,
                 const LightMixer &lights, SceneRenderer &renderer, std::function<void(const QString &)> onPresetReady,
                 QObject *parent = nullptr);
    ~SceneEffects() override;

    void setSwitches(const Switches &s, bool batterySaver);
    const Switches &switches() const { return on; }
    // Rain intensity 0…1 of the current weather; 0 = dry.
    void setRain(double intensity) { rainIntensity = intensity; }
    void setStackArt(TextureRef art, double luminance);
    void setGrooves(const RecordGrooves &g);
    const RecordGrooves &currentGrooves() const { return grooves; }
    bool hasRecord() const { return framing.record.has_value(); }
    // The plate rectangle of the strobe map, when it loaded.
    std::optional<Float4> strobeRect() const
    {
        return strobeMap ? std::optional<Float4>(strobeMap->second) : std::nullopt;
    }
    // Asks the families for the presets' passes.
    void ensure(const std::set<QString> &presets);
    bool building() const;

    // Fills the effect groups of `u` and their texture slots in `t`.
    void fill(SceneUniforms &u, SceneTextures &t, const Blend &blend, double mediaTime, const RecordSpin &spin,
              bool playing, const std::array<double, 3> &artMean, int fps, bool motionBlur);

    size_t memoryBytes() const;
    // Hands this object and its light families to another thread (a scene assembled off the
    // main thread is handed back to it). Call from the thread the object lives in.
    void moveToThreadWithFamilies(QThread *thread)
    {
        moveToThread(thread);
        for (PresetMixes *m : {recordMixes.get(), bounceMixes.get()})
            if (m) m->moveToThread(thread);
    }
    // The window glass the rain runs down, in plate pixels; none without a glass mask.
    std::optional<Float4> glassRect() const { return glass ? std::optional<Float4>(glass->second) : std::nullopt; }

private:
    void logApproximate(const QString &reason);
    std::optional<std::pair<TextureRef, Float4>> loadMask(const QString &file, const char *what) const;

    PlateManifest::Framing framing;
    QString framingDir;
    SceneRenderer &renderer;
    Switches on;
    bool saver = false;
    std::map<QString, RecordLight> recordLights;
    std::unique_ptr<PresetMixes> recordMixes;
    std::unique_ptr<PresetMixes> bounceMixes;
    std::optional<PlateGeometry::Mat3> recordInv;
    std::array<float, 2> labelCentreUv{};
    RecordGrooves grooves;
    std::vector<RecordGrooves::Band> drawn;  // the bands the uniform holds, made when the grooves change
    std::optional<std::pair<TextureRef, Float4>> recordMask, strobeMap, glass, dustCover, stackUV;
    TextureRef stackArt;
    double stackLuminance = 0;
    double ledLevel = 0;
    std::optional<double> ledTime;
    double rainIntensity = 0;
};
