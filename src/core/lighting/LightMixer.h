#pragma once

#include "core/scene/LightRecipe.h"
#include "core/scene/PlateManifest.h"

#include <QDateTime>
#include <QString>
#include <array>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <vector>

// Preset name → weight; never holds weights of 0.0001 or less.
using Blend = std::map<QString, double>;

// The two strongest presets of a blend, strongest first (equal weights keep name order), as
// pointers into the blend: picked in place, since every frame asks.
struct TwoStrongest {
    std::array<std::pair<const QString *, double>, 2> entries{};
    size_t count = 0;

    explicit TwoStrongest(const Blend &blend)
    {
        for (const auto &[preset, weight] : blend) {
            if (count == 2 && weight <= entries[1].second) continue;
            size_t at = count < 2 ? count++ : 1;
            for (; at > 0 && entries[at - 1].second < weight; --at) entries[at] = entries[at - 1];
            entries[at] = {&preset, weight};
        }
    }
    auto begin() const { return entries.begin(); }
    auto end() const { return entries.begin() + count; }
    size_t size() const { return count; }
    bool empty() const { return count == 0; }
    const std::pair<const QString *, double> &operator[](size_t i) const { return entries[i]; }
};

// The light of the room as a weighted sum of presets: recipes per preset, the day's keyframes,
// the clock blend and the 1.5 s cross-fade between blends. A plain value built once per loaded
// scene; `value(at:)` runs every frame and stays a few map operations.
class LightMixer {
public:
    using Term = LightRecipe::Term;
    struct Preset {
        std::vector<Term> recipe;
        double vignette = 0;
        double grain = 0;
    };
    struct Keyframe {
        double minute = 0;  // after local midnight
        QString preset;
    };

    LightMixer() = default;
    explicit LightMixer(const PlateManifest &manifest);

    std::map<QString, Preset> presets;
    QStringList order;
    std::vector<Keyframe> keyframes;
    static constexpr double crossFadeSeconds = 1.5;

    Blend current, from, to;
    double transitionStart = -std::numeric_limits<double>::infinity();
    // A move of the light that waits for its pre-mixes: what is shown stays, and stays wanted,
    // until every preset of the target is ready.
    std::optional<Blend> pending;
    bool pendingFade = false;

    // Weights for a wall-clock instant, in the date's own time zone.
    Blend clockBlend(const QDateTime &date) const;
    // The cross-faded blend at media time t (seconds).
    Blend value(double t) const;
    double vignette(const Blend &blend) const;
    double grain(const Blend &blend) const;
    // Largest per-key difference, a missing key counting as 0; 0 for two empty maps.
    static double distance(const Blend &a, const Blend &b);

    // What the room should show for the "lightPreset" mode: the named preset if the scene has
    // it, the clock blend otherwise (including "auto").
    Blend modeBlend(const QString &mode, const QDateTime &now) const;
    // Starts a cross-fade to `target` at media time t; the first light is shown without a fade.
    void startCrossFade(const Blend &target, double t);
    // Aims the light at `target`: cross-faded when `fade`, else at once (clock drift). The first
    // light is taken at once; any later one becomes `pending` until `settle` finds it ready.
    void aim(const Blend &target, bool fade);
    // Starts the pending move once `ready` holds for each of its presets. Returns whether the
    // light changed.
    bool settle(const std::function<bool(const QString &)> &ready, double t);
    // The 30-second tick in "auto": aims at the clock blend when it drifted above 0.002 from
    // what is shown. Returns whether it aimed.
    bool tick(const QDateTime &now);
    // Presets whose pre-mixes should be ready: what is shown, the pending move and, following
    // the clock, the blend ten minutes ahead.
    QStringList wantedPresets(const QString &mode, const QDateTime &now) const;

private:
    // Σ weight × the preset's field; names the scene lacks add nothing.
    double weighted(const Blend &blend, double Preset::*field) const;
};

// Small queries for the light section of the menu. Pure.
namespace LightPresets {

QString name(const QString &preset);
QString current(const std::optional<PlateManifest> &manifest, const QString &mode, const QDateTime &date);
std::optional<double> position(const std::optional<PlateManifest> &manifest, const QDateTime &date);

}  // namespace LightPresets
