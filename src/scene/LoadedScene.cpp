#include "scene/LoadedScene.h"

#include "core/scene/ImageDecoder.h"
#include "core/app/Log.h"
#include "vulkan/TextureUpload.h"

#include <QDir>
#include <QFileInfo>
#include <algorithm>

using namespace PlateGeometry;

namespace {

Float4 rectOf(const std::array<float, 4> &r) { return {r[0], r[1], r[2], r[3]}; }

void grow(std::array<double, 4> &box, double x0, double y0, double x1, double y1)
{
    box[0] = std::min(box[0], x0);
    box[1] = std::min(box[1], y0);
    box[2] = std::max(box[2], x1);
    box[3] = std::max(box[3], y1);
}

}  // namespace

QStringList SceneAssembly::sortedFramings(const PlateManifest &manifest)
{
    static const QStringList preferred{"wide", "mid", "close", "top"};
    QStringList names;
    for (const auto &[name, f] : manifest.framings) names << name;
    std::stable_sort(names.begin(), names.end(), [](const QString &a, const QString &b) {
        const int ia = preferred.indexOf(a), ib = preferred.indexOf(b);
        const int ra = ia < 0 ? int(preferred.size()) : ia, rb = ib < 0 ? int(preferred.size()) : ib;
        if (ra != rb) return ra < rb;
        return a < b;
    });
    return names;
}

std::variant<std::unique_ptr<LoadedScene>, QString>
SceneAssembly::load(SceneRenderer &renderer, const QString &sceneRoot, const PlateManifest &manifest,
                    const QString &framingName, std::function<void(const QString &)> onPresetReady)
{
    if (manifest.framings.empty()) return QStringLiteral("manifest sem enquadramentos");
    // A framing the scene lacks (a stale setting, another scene's name) gives the preferred one.
    const QString name = manifest.framings.count(framingName) ? framingName : sortedFramings(manifest).first();
    auto s = std::make_unique<LoadedScene>();
    s->framingName = name;
    s->framing = manifest.framings.at(name);
    const auto &f = s->framing;
    const QString dir = QDir(sceneRoot).filePath(name);
    const int w = int(f.size[0]), h = int(f.size[1]);
    if (w <= 0 || h <= 0) return QStringLiteral("tamanho de plate inválido");
    s->plateSize = {float(w), float(h), 1.0f / float(w), 1.0f / float(h)};
    s->lights = LightMixer(manifest);
    auto &vk = *renderer.vulkan();

    s->mixes = std::make_unique<PresetMixes>("luz", renderer.mixBuilder(), QDir(dir).filePath("light"), s->lights, w, h,
                                             renderer.lightFormat(), PresetMixes::TermRule::asIs);
    s->mixes->onReady = [onPresetReady](const QString &p) {
        if (onPresetReady) onPresetReady(p);
    };

    auto mask = [&](const QString &file) -> std::optional<CroppedTexture> {
        try {
            auto c = ImageDecoder::cropMask(ImageDecoder::decodeGray(QDir(dir).filePath(file)));
            if (!c) return std::nullopt;
            return CroppedTexture{TextureUpload::gray(vk, c->image), rectOf(c->rect)};
        } catch (const SceneError &e) {
            Log::write(QStringLiteral("Cena: máscara indisponível: ") + e.description());
        } catch (const std::exception &e) {
            Log::write(QStringLiteral("Cena: máscara indisponível: ") + QString::fromUtf8(e.what()));
        }
        return std::nullopt;
    };
    s->coverMask = mask(f.cover.mask);
    s->labelMask = mask(f.label.mask);
    if (auto m = artFromPlate(f.cover.corners)) s->coverInv = *m;
    if (auto m = discFromPlate(f.label.corners)) s->labelInv = *m;

    // Front layers: every ".exr" of "front/", at most two, in name order.
    const QStringList frontFiles = QDir(QDir(dir).filePath("front")).entryList({"*.exr"}, QDir::Files, QDir::Name);
    for (const QString &name : frontFiles) {
        if (s->fronts.size() == 2) break;
        try {
            auto c = ImageDecoder::cropSprite(ImageDecoder::decodeEXR(QDir(dir).filePath("front/" + name)));
            if (c) s->fronts.push_back({TextureUpload::half(vk, c->image), rectOf(c->rect)});
        } catch (const SceneError &e) {
            Log::write(QStringLiteral("Cena: camada da frente indisponível: ") + e.description());
        }
    }

    if (f.tonearm)
        s->sprites =
            std::make_unique<TonearmSprites>(*f.tonearm, f.camera, renderer.vulkan(), QDir(dir).filePath("tonearm"));

    if (manifest.tonemap) {
        s->contrast = manifest.tonemap->contrast.value_or(s->contrast);
        s->toneOffset = manifest.tonemap->offset.value_or(s->toneOffset);
        s->toneGamma = manifest.tonemap->gamma.value_or(s->toneGamma);
    }
    if (manifest.showcase) {
        s->showcase = {manifest.showcase->floor.value_or(0), manifest.showcase->maxGain.value_or(1),
                       manifest.showcase->artFloor.value_or(0)};
        s->darkArtMaxGain = manifest.showcase->darkMaxGain.value_or(s->showcase[1]);
    } else {
        s->darkArtMaxGain = s->showcase[1];
    }

    // Probes: the sleeve's centre and quadrant centres, and the middle of the stack's cover.
    if (auto inv = invert(s->coverInv)) {
        const Vec2 pts[5] = {{0.5, 0.5}, {0.25, 0.25}, {0.75, 0.25}, {0.25, 0.75}, {0.75, 0.75}};
        float uv[10];
        for (int i = 0; i < 5; ++i) {
            const Vec2 p = PlateGeometry::apply(*inv, pts[i]);
            uv[2 * i] = float(p[0] / w);
            uv[2 * i + 1] = float(p[1] / h);
        }
        s->probes[0] = {uv[0], uv[1], uv[2], uv[3]};
        s->probes[1] = {uv[4], uv[5], uv[6], uv[7]};
        s->probes[2] = {uv[8], uv[9], 0, 0};
    }
    if (f.stack) {
        const auto &b = f.stack->bbox;
        s->probes[2][2] = float((b[0] + b[2] * 0.5) / w);
        s->probes[2][3] = float((b[1] + b[3] * 0.5) / h);
    }

    s->effects = std::make_unique<SceneEffects>(manifest, name, dir, s->lights, renderer, onPresetReady);

    // Animated area: the record, the label, the arm and its reflection, the LEDs, the strobe.
    std::array<double, 4> box{1e18, 1e18, -1e18, -1e18};
    auto addRect = [&](const PlateManifest::Rect &r) { grow(box, r[0], r[1], r[0] + r[2], r[1] + r[3]); };
    if (f.record) addRect(f.record->bbox);
    for (const auto &c : f.label.corners) grow(box, c[0], c[1], c[0], c[1]);
    if (f.tonearm) {
        addRect(f.tonearm->bbox);
        if (f.tonearm->reflectionBbox) addRect(*f.tonearm->reflectionBbox);
    }
    if (f.panel)
        for (const auto &led : {f.panel->led33, f.panel->led45})
            if (led) {
                const double r = led->radiusPx * 6;
                grow(box, led->centerPx[0] - r, led->centerPx[1] - r, led->centerPx[0] + r, led->centerPx[1] + r);
            }
    if (auto r = s->effects->strobeRect()) grow(box, (*r)[0], (*r)[1], (*r)[0] + (*r)[2], (*r)[1] + (*r)[3]);
    if (box[2] > box[0]) {
        const double x0 = std::max(0.0, std::floor(box[0])), y0 = std::max(0.0, std::floor(box[1]));
        const double x1 = std::min(double(w), std::ceil(box[2])), y1 = std::min(double(h), std::ceil(box[3]));
        s->dynPlateRect = {float(x0), float(y0), float(x1 - x0), float(y1 - y0)};
    }

    return s;
}

void LoadedScene::moveToThread(QThread *thread)
{
    if (mixes) mixes->moveToThread(thread);
    if (sprites) sprites->moveToThread(thread);
    if (effects) effects->moveToThreadWithFamilies(thread);
}

std::set<QString> LoadedScene::missingMixes(const Blend &blend) const
{
    std::set<QString> missing;
    for (const auto &[p, w] : blend)
        if (!mixes->ready(p)) missing.insert(p);
    return missing;
}

void LoadedScene::fillStatic(SceneUniforms &u, SceneTextures &t, const Mat3 &screenToPlate, const Float4 &origin,
                             const Blend &blend) const
{
    u.screenToPlate = toUniform(screenToPlate);
    u.coverInv = toUniform(coverInv);
    u.labelInv = toUniform(labelInv);
    u.plateSize = plateSize;
    u.origin = origin;
    u.look = {float(lights.vignette(blend)), float(contrast), float(lights.grain(blend)), float(toneOffset)};
    u.tone[0] = float(toneGamma);
    u.tone[2] = float(darkArtMaxGain);
    u.showcase = {float(showcase[0]), float(showcase[1]), float(showcase[2]), u.showcase[3]};
    u.probes = probes;
    // Light: the strongest ready presets, at most four. While a preset builds, the ready ones
    // stand in for it with its share of the weight, so the room keeps its brightness.
    // Picked in place, strongest first, so a frame allocates nothing here.
    std::array<std::pair<double, TextureRef>, 4> best{};
    uint32_t n = 0;
    double total = 0;
    for (const auto &[p, w] : blend) {
        total += w;
        TextureRef tex = mixes->ready(p);
        if (!tex || (n == 4 && w <= best[3].first)) continue;
        uint32_t at = n < 4 ? n++ : 3;
        for (; at > 0 && best[at - 1].first < w; --at) best[at] = std::move(best[at - 1]);
        best[at] = {w, std::move(tex)};
    }
    double drawn = 0;
    for (uint32_t i = 0; i < n; ++i) {
        t.mixes[i] = best[i].second;
        u.mixWeights[i] = float(best[i].first);
        drawn += best[i].first;
    }
    for (uint32_t i = 0; i < n && drawn > 0; ++i) u.mixWeights[i] = float(u.mixWeights[i] * total / drawn);
    u.mixCount = n;
    if (coverMask) {
        u.coverMaskRect = coverMask->rect;
        t.coverMask = coverMask->texture;
    }
    if (labelMask) {
        u.labelMaskRect = labelMask->rect;
        t.labelMask = labelMask->texture;
    }
    u.frontCount = uint32_t(fronts.size());
    for (size_t i = 0; i < fronts.size(); ++i) {
        u.frontRects[i] = fronts[i].rect;
        u.frontWeights[i] = 1;
        t.fronts[i] = fronts[i].texture;
    }
}
