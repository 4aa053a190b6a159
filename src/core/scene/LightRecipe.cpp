#include "core/scene/LightRecipe.h"

#include <cmath>

namespace {

const JSONValue *find(const PlateManifest::Preset &keys, const QString &name)
{
    const auto it = keys.find(name);
    return it == keys.end() ? nullptr : &it->second;
}

double numberOr(const PlateManifest::Preset &keys, const QString &name, double fallback)
{
    const JSONValue *v = find(keys, name);
    return v && v->isNumber() ? v->number() : fallback;
}

std::optional<QString> textOf(const PlateManifest::Preset &keys, const QString &name)
{
    const JSONValue *v = find(keys, name);
    return v && v->isText() ? std::optional<QString>(v->text()) : std::nullopt;
}

LightRecipe build(const PlateManifest &m, const QString &name, const PlateManifest::Preset &keys)
{
    double scenario = 0;
    if (m.scenario) {
        const JSONValue *byScenario = find(keys, QStringLiteral("exposure_by_scenario"));
        if (byScenario && byScenario->isObject()) {
            const auto it = byScenario->object().find(*m.scenario);
            if (it != byScenario->object().end()) scenario = it->second;
        }
    }
    const double gain = std::exp2(numberOr(keys, QStringLiteral("exposure"), 0) + scenario);
    const QString sunKey = textOf(keys, QStringLiteral("sun_key")).value_or(m.sunKeys.value(0));

    const bool hasView = m.view.has_value();
    QStringList groups = m.groups;
    if (hasView && !groups.contains(QStringLiteral("view"))) groups.prepend(QStringLiteral("view"));
    const auto perPreset = [&](const QString &g) { return m.perPresetGroups && m.perPresetGroups->contains(g); };

    LightRecipe preset;
    for (const QString &g : groups) {
        const bool isView = g == QStringLiteral("view");
        const double d = perPreset(g) ? 1.0 : (isView ? (hasView ? 1.0 : 0.0) : 0.0);
        std::array<double, 3> rgb{d, d, d};
        if (const JSONValue *v = find(keys, g)) {
            if (v->isVector() && v->vector().size() >= 3)
                rgb = {v->vector()[0], v->vector()[1], v->vector()[2]};
            else if (v->isNumber())
                rgb = {v->number(), v->number(), v->number()};
        }
        if (rgb[0] == 0 && rgb[1] == 0 && rgb[2] == 0) continue;
        QString plate;
        if (g == QStringLiteral("sun"))
            plate = QStringLiteral("sun_") + sunKey;
        else if (perPreset(g) || (isView && hasView))
            plate = g + QLatin1Char('_') + textOf(keys, g + QStringLiteral("_key")).value_or(name);
        else
            plate = g;
        preset.terms.push_back({plate, {rgb[0] * gain, rgb[1] * gain, rgb[2] * gain}});
    }
    preset.vignette = numberOr(keys, QStringLiteral("vignette"), 0);
    preset.grain = numberOr(keys, QStringLiteral("grain"), 0);
    return preset;
}

}  // namespace

std::map<QString, LightRecipe> LightRecipe::of(const PlateManifest &manifest)
{
    std::map<QString, LightRecipe> recipes;
    for (const auto &[name, keys] : manifest.presets) recipes[name] = build(manifest, name, keys);
    return recipes;
}
