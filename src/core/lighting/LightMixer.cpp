#include "core/lighting/LightMixer.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace {

constexpr double keepAbove = 0.0001;

double smoothstep(double u) { return u * u * (3.0 - 2.0 * u); }

void prune(Blend &blend)
{
    for (auto it = blend.begin(); it != blend.end();) it = it->second > keepAbove ? std::next(it) : blend.erase(it);
}

// "6:30" → 390; anything that does not leave exactly two numbers is no keyframe.
std::optional<double> minuteOf(const QString &time)
{
    std::vector<double> parts;
    for (const QString &piece : time.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        bool ok = false;
        const double n = piece.toDouble(&ok);
        if (ok) parts.push_back(n);
    }
    if (parts.size() != 2) return std::nullopt;
    return parts[0] * 60 + parts[1];
}

}  // namespace

LightMixer::LightMixer(const PlateManifest &manifest)
{
    for (auto &[name, recipe] : LightRecipe::of(manifest))
        presets[name] = Preset{std::move(recipe.terms), recipe.vignette, recipe.grain};
    order = manifest.presetOrder();
    for (const QStringList &entry : manifest.clock) {
        if (entry.size() != 2 || !presets.count(entry[1])) continue;
        if (const auto minute = minuteOf(entry[0])) keyframes.push_back({*minute, entry[1]});
    }
    std::stable_sort(keyframes.begin(), keyframes.end(),
                     [](const Keyframe &a, const Keyframe &b) { return a.minute < b.minute; });
}

Blend LightMixer::clockBlend(const QDateTime &date) const
{
    if (keyframes.empty()) {
        if (order.isEmpty()) return {};
        return {{order.first(), 1.0}};
    }
    const QTime time = date.toLocalTime().time();
    const double t = time.hour() * 60.0 + time.minute() + time.second() / 60.0;

    const Keyframe &first = keyframes.front();
    const Keyframe &last = keyframes.back();
    QString from = last.preset, to = first.preset;
    double span = first.minute + 1440 - last.minute;
    double elapsed = (last.minute <= t ? t : t + 1440) - last.minute;
    for (size_t i = 0; i + 1 < keyframes.size(); ++i) {
        if (keyframes[i].minute <= t && t < keyframes[i + 1].minute) {
            from = keyframes[i].preset;
            to = keyframes[i + 1].preset;
            span = keyframes[i + 1].minute - keyframes[i].minute;
            elapsed = t - keyframes[i].minute;
        }
    }
    const double u = span > 0 ? std::clamp(elapsed / span, 0.0, 1.0) : 1.0;
    const double s = smoothstep(u);
    Blend blend;
    blend[from] += 1 - s;
    blend[to] += s;
    prune(blend);
    return blend;
}

Blend LightMixer::value(double t) const
{
    const double u = std::clamp((t - transitionStart) / crossFadeSeconds, 0.0, 1.0);
    const double s = smoothstep(u);
    Blend result;
    for (const auto &[k, w] : from) result[k] += (1 - s) * w;
    for (const auto &[k, w] : to) result[k] += s * w;
    prune(result);
    return result;
}

double LightMixer::weighted(const Blend &blend, double Preset::*field) const
{
    double sum = 0;
    for (const auto &[name, w] : blend)
        if (const auto it = presets.find(name); it != presets.end()) sum += w * it->second.*field;
    return sum;
}

double LightMixer::vignette(const Blend &blend) const { return weighted(blend, &Preset::vignette); }
double LightMixer::grain(const Blend &blend) const { return weighted(blend, &Preset::grain); }

double LightMixer::distance(const Blend &a, const Blend &b)
{
    double largest = 0;
    for (const auto &[k, w] : a) {
        const auto it = b.find(k);
        largest = std::max(largest, std::abs(w - (it == b.end() ? 0.0 : it->second)));
    }
    for (const auto &[k, w] : b)
        if (!a.count(k)) largest = std::max(largest, std::abs(w));
    return largest;
}

Blend LightMixer::modeBlend(const QString &mode, const QDateTime &now) const
{
    if (presets.count(mode)) return {{mode, 1.0}};
    return clockBlend(now);
}

void LightMixer::startCrossFade(const Blend &target, double t)
{
    if (!current.empty()) {
        from = value(t);
        to = target;
        transitionStart = t;
    } else {
        from = to = target;
        transitionStart = -std::numeric_limits<double>::infinity();
    }
    // The blend in effect is the destination; the old presets stay wanted through `from`.
    current = target;
}

void LightMixer::aim(const Blend &target, bool fade)
{
    if (current.empty()) {
        startCrossFade(target, 0);
        pending.reset();
        return;
    }
    pending = target;
    pendingFade = fade;
}

bool LightMixer::settle(const std::function<bool(const QString &)> &ready, double t)
{
    if (!pending) return false;
    for (const auto &[preset, weight] : *pending)
        if (!ready(preset)) return false;
    if (pendingFade) {
        startCrossFade(*pending, t);
    } else {
        from = to = current = *pending;
        transitionStart = -std::numeric_limits<double>::infinity();
    }
    pending.reset();
    return true;
}

bool LightMixer::tick(const QDateTime &now)
{
    const Blend fresh = clockBlend(now);
    if (distance(fresh, pending ? *pending : current) <= 0.002) return false;
    aim(fresh, false);
    return true;
}

QStringList LightMixer::wantedPresets(const QString &mode, const QDateTime &now) const
{
    std::set<QString> names;
    for (const Blend *b : {&current, &from, &to})
        for (const auto &[k, w] : *b) names.insert(k);
    if (!presets.count(mode))
        for (const auto &[k, w] : clockBlend(now.addSecs(600))) names.insert(k);
    if (pending)
        for (const auto &[k, w] : *pending) names.insert(k);
    return QStringList(names.begin(), names.end());
}

namespace LightPresets {

QString name(const QString &preset)
{
    static const std::map<QString, QString> known{{QStringLiteral("manha"), QStringLiteral("Morning")},
                                                  {QStringLiteral("dia"), QStringLiteral("Day")},
                                                  {QStringLiteral("tarde"), QStringLiteral("Afternoon")},
                                                  {QStringLiteral("noite"), QStringLiteral("Night")}};
    if (const auto it = known.find(preset); it != known.end()) return it->second;
    return PlateManifest::framingDisplayName(preset);  // same capitalisation rule
}

QString current(const std::optional<PlateManifest> &manifest, const QString &mode, const QDateTime &date)
{
    if (PlateManifest::canonicalPresets().contains(mode)) return mode;
    if (!manifest) return QStringLiteral("tarde");
    QString best = QStringLiteral("tarde");
    double bestWeight = -1;
    for (const auto &[k, w] : LightMixer(*manifest).clockBlend(date)) {
        if (w > bestWeight) {
            best = k;
            bestWeight = w;
        }
    }
    return best;
}

std::optional<double> position(const std::optional<PlateManifest> &manifest, const QDateTime &date)
{
    if (!manifest) return std::nullopt;
    const Blend blend = LightMixer(*manifest).clockBlend(date);
    if (blend.empty()) return std::nullopt;
    const bool wraps = blend.count(QStringLiteral("noite")) && blend.count(QStringLiteral("manha"));
    double sum = 0;
    for (const auto &[k, w] : blend) {
        const qsizetype index = PlateManifest::canonicalPresets().indexOf(k);
        if (index < 0) continue;
        sum += w * (index == 0 && wraps ? 4.0 : double(index));
    }
    double p = (sum + 0.5) * 0.25;
    if (p >= 1) p -= 1;  // the night-to-morning fade wraps the dial
    return p;
}

}  // namespace LightPresets
