#include "scene/SceneEffects.h"

#include "core/scene/ImageDecoder.h"
#include "core/app/Log.h"
#include "vulkan/TextureUpload.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <cmath>

using namespace PlateGeometry;

namespace {

Float4 rectOf(const std::array<float, 4> &r) { return {r[0], r[1], r[2], r[3]}; }

// The two strongest presets of a blend, with weights normalised to their sum.
TwoStrongest strongest(const Blend &blend)
{
    TwoStrongest s(blend);
    double sum = 0;
    for (const auto &e : s) sum += e.second;
    for (size_t i = 0; i < s.count; ++i) s.entries[i].second = sum > 0 ? s.entries[i].second / sum : 0;
    return s;
}

}  // namespace

SceneEffects::SceneEffects(const PlateManifest &manifest, const QString &framingName, const QString &dir,
                           const LightMixer &lights, SceneRenderer &r,
                           std::function<void(const QString &)> onPresetReady, QObject *parent)
    : QObject(parent)
    , framing(manifest.framings.at(framingName))
    , framingDir(dir)
    , renderer(r)
{
    for (const auto &[preset, keys] : manifest.presets) {
        auto it = keys.find("record_light");
        if (it == keys.end() || !(it->second.isNested() || it->second.isObject())) continue;
        RecordLight l;
        if (it->second.isObject()) {
            const auto &o = it->second.object();
            if (o.count("azimuth_deg")) l.azimuthDeg = o.at("azimuth_deg");
            if (o.count("elevation_deg")) l.elevationDeg = o.at("elevation_deg");
        } else {
            const auto &n = it->second.nested();
            if (n.count("azimuth_deg") && n.at("azimuth_deg").isNumber()) l.azimuthDeg = n.at("azimuth_deg").number();
            if (n.count("elevation_deg") && n.at("elevation_deg").isNumber())
                l.elevationDeg = n.at("elevation_deg").number();
            if (n.count("color") && n.at("color").isVector() && n.at("color").vector().size() >= 3) {
                const auto &c = n.at("color").vector();
                l.color = std::array<double, 3>{c[0], c[1], c[2]};
            }
        }
        recordLights[preset] = l;
    }

    const auto &vk = renderer.vulkan();
    if (framing.record) {
        const auto &rec = *framing.record;
        recordInv = discFromPlate(rec.corners);
        if (auto c = projectWorld(framing.camera, rec.centerWorld))
            labelCentreUv = {float((*c)[0] / framing.size[0]), float((*c)[1] / framing.size[1])};
        recordMask = loadMask(rec.mask, "disco");
        const QString recordDir = QDir(dir).filePath("record");
        if (!QFileInfo(recordDir).isDir()) {
            logApproximate(QStringLiteral("sem pasta record"));
        } else {
            recordMixes = std::make_unique<PresetMixes>(
                "disco", renderer.mixBuilder(), recordDir, lights, int(rec.bbox[2]), int(rec.bbox[3]),
                VK_FORMAT_R16G16B16A16_SFLOAT, PresetMixes::TermRule::recordPasses, this);
            recordMixes->onReady = [onPresetReady](const QString &p) {
                if (onPresetReady) onPresetReady(p);
            };
            // A failed build leaves only its preset without passes: blends of the presets that built
            // keep the full record.
            recordMixes->onFailure = [this](const QString &e) { logApproximate(e); };
        }
        setGrooves(RecordGrooves::forTrack(std::nullopt, rec.grooveOuterMm, rec.grooveInnerMm));
    }
    if (framing.bounce) {
        const QString bounceDir = QDir(dir).filePath("bounce");
        if (!QFileInfo(bounceDir).isDir()) {
            Log::write(QStringLiteral("Rebatimento da capa indisponível: sem pasta bounce"));
        } else {
            bounceMixes = std::make_unique<PresetMixes>("rebatimento", renderer.mixBuilder(), bounceDir, lights,
                                                        int(framing.bounce->bbox[2]), int(framing.bounce->bbox[3]),
                                                        renderer.lightFormat(), PresetMixes::TermRule::asIs, this);
            bounceMixes->onReady = [onPresetReady](const QString &p) {
                if (onPresetReady) onPresetReady(p);
            };
            bounceMixes->onFailure = [](const QString &e) {
                Log::write(QStringLiteral("Rebatimento da capa indisponível: ") + e);
            };
        }
    }
    if (framing.panel && framing.panel->strobe) strobeMap = loadMask(framing.panel->strobe->mask, "strobe");
    if (framing.window) {
        glass = loadMask(framing.window->glassMask, "vidro");
        if (framing.window->dustCoverMask) dustCover = loadMask(*framing.window->dustCoverMask, "tampa");
    }
    if (framing.stack) stackUV = loadMask(framing.stack->artUv, "pilha");
    Q_UNUSED(vk);
}

SceneEffects::~SceneEffects() = default;

std::vector<RecordGrooves::Band> SceneEffects::drawnBands(const std::vector<RecordGrooves::Band> &bands)
{
    if (bands.size() <= maxBands) return bands;
    std::vector<RecordGrooves::Band> runs;
    const size_t n = bands.size();
    for (size_t g = 0; g < maxBands; ++g) {
        const size_t first = g * n / maxBands, last = (g + 1) * n / maxBands - 1;
        runs.push_back({bands[first].outer, bands[last].inner});
    }
    return runs;
}

void SceneEffects::setGrooves(const RecordGrooves &g)
{
    grooves = g;
    drawn = drawnBands(g.bands);
}

void SceneEffects::logApproximate(const QString &reason)
{
    Log::write(QStringLiteral("Disco ao vivo sem passes (") + reason + QStringLiteral("): modo aproximado"));
}

// Grey masks become a cropped R8 texture; colour maps (strobe, stack uv) keep their channels,
// cropped to where their coverage channel is set.
std::optional<std::pair<TextureRef, Float4>> SceneEffects::loadMask(const QString &file, const char *what) const
{
    const QString path = QDir(framingDir).filePath(file);
    try {
        QImage probe(path);
        if (probe.isNull()) throw SceneError(SceneError::Kind::badPlate, QStringLiteral("não achei ") + path);
        if (QString(what) == "strobe" || QString(what) == "pilha") {
            const QImage rgba = probe.convertToFormat(QImage::Format_RGBA8888);
            const int channel = QString(what) == "strobe" ? 1 : 2;
            int x0 = rgba.width(), y0 = rgba.height(), x1 = -1, y1 = -1;
            for (int y = 0; y < rgba.height(); ++y) {
                const uchar *row = rgba.constScanLine(y);
                for (int x = 0; x < rgba.width(); ++x)
                    if (row[x * 4 + channel]) {
                        x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
                    }
            }
            if (x1 < 0) return std::nullopt;
            x0 = std::max(x0 - 1, 0), y0 = std::max(y0 - 1, 0);
            x1 = std::min(x1 + 1, rgba.width() - 1), y1 = std::min(y1 + 1, rgba.height() - 1);
            const QImage crop = rgba.copy(x0, y0, x1 - x0 + 1, y1 - y0 + 1);
            return std::make_pair(TextureUpload::map(*renderer.vulkan(), crop),
                                  Float4{float(x0), float(y0), float(crop.width()), float(crop.height())});
        }
        auto cropped = ImageDecoder::cropMask(ImageDecoder::decodeGray(path));
        if (!cropped) return std::nullopt;
        return std::make_pair(TextureUpload::gray(*renderer.vulkan(), cropped->image), rectOf(cropped->rect));
    } catch (const SceneError &e) {
        Log::write(QStringLiteral("Cena: máscara ") + what + QStringLiteral(" indisponível: ") + e.description());
    } catch (const std::exception &e) {
        Log::write(QStringLiteral("Cena: máscara ") + what + QStringLiteral(" indisponível: ") +
                   QString::fromUtf8(e.what()));
    }
    return std::nullopt;
}

void SceneEffects::setSwitches(const Switches &s, bool batterySaver)
{
    on = s;
    saver = batterySaver;
    if (saver) on.weather = false;
}

void SceneEffects::setStackArt(TextureRef art, double luminance)
{
    stackArt = std::move(art);
    stackLuminance = luminance;
}

void SceneEffects::ensure(const std::set<QString> &presets)
{
    if (recordMixes && on.record) recordMixes->ensure(presets);
    if (bounceMixes && on.bounce) bounceMixes->ensure(presets);
}

bool SceneEffects::building() const
{
    return (recordMixes && (recordMixes->building() || !recordMixes->queue().empty())) ||
           (bounceMixes && (bounceMixes->building() || !bounceMixes->queue().empty()));
}

size_t SceneEffects::memoryBytes() const
{
    size_t b = (recordMixes ? recordMixes->memoryBytes() : 0) + (bounceMixes ? bounceMixes->memoryBytes() : 0);
    for (const auto *m : {&recordMask, &strobeMap, &glass, &dustCover, &stackUV})
        if (*m) b += size_t((*m)->first->allocatedSize);
    return b;
}

void SceneEffects::fill(SceneUniforms &u, SceneTextures &t, const Blend &blend, double now, const RecordSpin &spin,
                        bool playing, const std::array<double, 3> &artMean, int fps, bool motionBlur)
{
    const auto top = strongest(blend);
    u.artMean = {float(artMean[0]), float(artMean[1]), float(artMean[2]), 0};
    const double angle = spin.angle(now);
    const double speed = spin.speed(now);
    u.label[0] = float(angle);
    // Motion blur: the arc the label turns in one frame, sampled about every 0.05 rad.
    const double arc = motionBlur && fps > 0 ? std::abs(speed) / fps : 0.0;
    u.label[1] = float(arc);
    u.label[2] = float(std::clamp(std::ceil(arc / 0.05), 1.0, 16.0));

    // Live record.
    if (framing.record && on.record && recordInv) {
        const auto &rec = *framing.record;
        u.recordInv = toUniform(*recordInv);
        u.recordGeo = {float(rec.radiusMm), float(rec.labelRadiusMm), float(rec.grooveOuterMm),
                       float(rec.grooveInnerMm)};
        double dx = 0, dy = 0, strength = 0;
        std::array<double, 3> colour{0, 0, 0};
        double givenWeight = 0;
        for (const auto &[preset, w] : top) {
            auto it = recordLights.find(*preset);
            const RecordLight l = it == recordLights.end() ? RecordLight{} : it->second;
            dx += w * std::cos(l.azimuthDeg * M_PI / 180);
            dy += w * std::sin(l.azimuthDeg * M_PI / 180);
            // A low light grazes the grooves: a stronger, narrower streak.
            strength += w * (0.25 + 0.5 * std::cos(l.elevationDeg * M_PI / 180));
            if (l.color) {
                givenWeight += w;
                for (int c = 0; c < 3; ++c) colour[c] += w * (*l.color)[c];
            }
        }
        const double n = std::hypot(dx, dy);
        u.recordLight = {float(n > 0 ? dx / n : 1), float(n > 0 ? dy / n : 0), float(strength), 1};
        // The manifest's colour wins while the presets that give one carry most of the blend; the
        // rest of the time the shader estimates the colour from the irradiance.
        if (givenWeight >= 0.5) {
            u.recordColor = {float(colour[0] / givenWeight), float(colour[1] / givenWeight),
                             float(colour[2] / givenWeight), 1};
        } else {
            u.recordColor = {0, 0, 0, 0};
        }
        if (recordMask) {
            u.recordMaskRect = recordMask->second;
            t.recordMask = recordMask->first;
        }
        u.recordMisc = {labelCentreUv[0], labelCentreUv[1], 0, 0};
        bool passes = recordMixes && !top.empty();
        for (size_t i = 0; passes && i < top.size(); ++i)
            if (!recordMixes->ready(*top[i].first)) passes = false;
        if (passes) {
            u.recordRect = {float(rec.bbox[0]), float(rec.bbox[1]), float(rec.bbox[2]), float(rec.bbox[3])};
            for (size_t i = 0; i < top.size(); ++i) {
                t.record[i] = recordMixes->ready(*top[i].first);
                u.recordMisc[2 + i] = float(top[i].second);
            }
        }
        for (size_t b = 0; b < drawn.size(); ++b) {
            u.bands[b / 2][(b % 2) * 2] = float(drawn[b].outer);
            u.bands[b / 2][(b % 2) * 2 + 1] = float(drawn[b].inner);
        }
        u.bandCount = uint32_t(drawn.size());
    }

    // Cover bounce.
    if (framing.bounce && on.bounce && bounceMixes && !top.empty()) {
        bool ready = true;
        for (const auto &e : top) ready = ready && bounceMixes->ready(*e.first);
        if (ready) {
            const auto &b = framing.bounce->bbox;
            u.bounceRect = {float(b[0]), float(b[1]), float(b[2]), float(b[3])};
            for (size_t i = 0; i < top.size(); ++i) {
                t.bounce[i] = bounceMixes->ready(*top[i].first);
                u.bounceWeights[i] = float(top[i].second);
            }
        }
    }

    // Record stack.
    if (framing.stack && on.stack && stackUV && stackArt) {
        u.stackRect = stackUV->second;
        t.stackUV = stackUV->first;
        t.stackArt = stackArt;
        u.showcase[3] = float(stackLuminance);
    }

    // Speed LEDs: the 33 lamp follows the motor, easing in about a tenth of a second.
    const double target = playing ? 1.0 : 0.0;
    if (!ledTime)
        ledLevel = target;
    else
        ledLevel += (target - ledLevel) * (1 - std::exp(-std::max(now - *ledTime, 0.0) / 0.12));
    ledTime = now;
    if (framing.panel && on.panel) {
        if (const auto &l = framing.panel->led33) {
            u.led33 = {float(l->centerPx[0]), float(l->centerPx[1]), float(l->radiusPx), float(ledLevel)};
            u.led33Color = {float(l->color[0]), float(l->color[1]), float(l->color[2]), 0};
        }
        if (const auto &l = framing.panel->led45) {
            u.led45 = {float(l->centerPx[0]), float(l->centerPx[1]), float(l->radiusPx), 0};
            u.led45Color = {float(l->color[0]), float(l->color[1]), float(l->color[2]), 0};
        }
        if (framing.panel->strobe && strobeMap) {
            const auto &s = *framing.panel->strobe;
            // In step with the platter at 33⅓ the dots stand still; off speed they slide and blur.
            const double phase = std::fmod(RecordSpin::playSpeed * now - angle, 2 * M_PI);
            const double slip = std::abs(speed - RecordSpin::playSpeed) / RecordSpin::playSpeed;
            u.strobe = {float(s.dots), float(phase), float(std::exp(-slip * 25)), float(ledLevel)};
            u.strobeColor = {float(s.color[0]), float(s.color[1]), float(s.color[2]), 0};
            u.strobeRect = strobeMap->second;
            t.strobe = strobeMap->first;
        }
    }

    // Rain: the whole room takes the cold, diffuse light of a rainy day; drops run down the
    // window only where the framing has a glass mask.
    const double rain = on.weather ? std::clamp(rainIntensity, 0.0, 1.0) : 0.0;
    if (rain > 0) u.rain = {float(std::fmod(now, 3600.0)), float(rain), float(0.6 * rain), 0};
    if (rain > 0 && framing.window && glass) {
        u.rain[3] = 1;
        u.glassRect = glass->second;
        t.glass = glass->first;
        if (dustCover) {
            u.dustRect = dustCover->second;
            t.dustCover = dustCover->first;
            u.dust = {float(framing.window->dustCoverTransmission.value_or(1.0)), 1, 0, 0};
        } else {
            u.dust = {float(framing.window->dustCoverTransmission.value_or(1.0)), 0, 0, 0};
        }
    }
}
