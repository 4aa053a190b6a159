#include "scene/TonearmSprites.h"

#include "core/scene/ImageDecoder.h"
#include "core/app/Log.h"
#include "core/turntable/TonearmMotion.h"
#include "vulkan/TextureUpload.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QtConcurrent>
#include <cmath>

using namespace PlateGeometry;

namespace {

Vec3 normalized(Vec3 v)
{
    const double n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (n < 1e-12) return {0, 0, 1};
    return {v[0] / n, v[1] / n, v[2] / n};
}

// Rotation by `deg` about the unit axis (right-hand rule), as a 3×3 matrix.
Mat3 rotation(const Vec3 &a, double deg)
{
    const double t = deg * M_PI / 180, c = std::cos(t), s = std::sin(t), k = 1 - c;
    return {{{c + a[0] * a[0] * k, a[0] * a[1] * k - a[2] * s, a[0] * a[2] * k + a[1] * s},
             {a[1] * a[0] * k + a[2] * s, c + a[1] * a[1] * k, a[1] * a[2] * k - a[0] * s},
             {a[2] * a[0] * k - a[1] * s, a[2] * a[1] * k + a[0] * s, c + a[2] * a[2] * k}}};
}

Vec3 times(const Mat3 &m, const Vec3 &v)
{
    return {m[0][0] * v[0] + m[0][1] * v[1] + m[0][2] * v[2], m[1][0] * v[0] + m[1][1] * v[1] + m[1][2] * v[2],
            m[2][0] * v[0] + m[2][1] * v[1] + m[2][2] * v[2]};
}

Float4 rectOf(const std::array<float, 4> &r) { return {r[0], r[1], r[2], r[3]}; }

}  // namespace

size_t TonearmSprites::Frame::bytes() const
{
    size_t b = 0;
    for (const TextureRef &t : {texture, shadow, reflection})
        if (t) b += size_t(t->allocatedSize);
    return b;
}

TonearmSprites::TonearmSprites(PlateManifest::Tonearm i, PlateManifest::Camera cam, std::shared_ptr<VulkanContext> ctx,
                               QString d, QObject *parent)
    : QObject(parent)
    , info(std::move(i))
    , camera(cam)
    , context(std::move(ctx))
    , dir(std::move(d))
{
    pivot = info.pivot;
    yawAxis = normalized(info.yawAxis);
    liftAxis = normalized(info.liftAxis);
    planeOrigin = {pivot[0], pivot[1], info.planeZ.value_or(pivot[2])};
    // The plane through the arm: horizontal at the record plane, spanned by two world axes.
    e1 = {1, 0, 0};
    e2 = {0, 1, 0};
}

TonearmSprites::~TonearmSprites()
{
    for (auto &f : work) f.waitForFinished();
}

std::pair<int, double> TonearmSprites::neighbors(double yaw) const
{
    return TonearmMotion::neighbors(info.yawSamples, yaw);
}

std::set<TonearmSprites::Key> TonearmSprites::keysFor(const std::set<QString> &presets, double yaw, double goal) const
{
    std::set<Key> keys;
    if (info.yawSamples.empty()) return keys;
    const int last = int(info.yawSamples.size()) - 1;
    for (double y : {yaw, goal}) {
        const int k = neighbors(y).first;
        for (const QString &p : presets)
            for (int i : {k, std::min(k + 1, last)}) keys.insert({p, i});
    }
    return keys;
}

std::optional<TonearmSprites::Frame> TonearmSprites::load(const Key &key) const
{
    const QString nn = QStringLiteral("%1").arg(key.second, 2, 10, QChar('0'));
    const QString base = QDir(dir).filePath(key.first);
    const ImageDecoder::Origin origin{float(info.bbox[0]), float(info.bbox[1])};
    try {
        Frame f;
        auto arm = ImageDecoder::cropSprite(ImageDecoder::decodeEXR(base + "/arm_" + nn + ".exr"), origin);
        if (!arm) return std::nullopt;
        f.texture = TextureUpload::half(*context, arm->image);
        f.rect = rectOf(arm->rect);
        if (info.shadow.value_or(false)) {
            const QString path = base + "/shadow_" + nn + ".png";
            if (QFileInfo::exists(path)) {
                if (auto s = ImageDecoder::cropShadow(ImageDecoder::decodeGray(path), origin)) {
                    f.shadow = TextureUpload::gray(*context, s->image);
                    f.shadowRect = rectOf(s->rect);
                }
            }
        }
        if (info.reflection.value_or(false) && info.reflectionBbox) {
            const QString path = base + "/reflection_" + nn + ".exr";
            if (QFileInfo::exists(path)) {
                const auto &rb = *info.reflectionBbox;
                if (auto r = ImageDecoder::cropAdditive(ImageDecoder::decodeEXR(path), {float(rb[0]), float(rb[1])})) {
                    f.reflection = TextureUpload::half(*context, r->image);
                    f.reflectionRect = rectOf(r->rect);
                }
            }
        }
        return f;
    } catch (const SceneError &e) {
        Log::write(QStringLiteral("Cena: braço ") + key.first + " " + nn + ": " + e.description());
    } catch (const std::exception &e) {
        Log::write(QStringLiteral("Cena: braço ") + key.first + " " + nn + ": " + QString::fromUtf8(e.what()));
    }
    return std::nullopt;
}

void TonearmSprites::ensureNow(const std::set<QString> &presets, double yaw, double goal)
{
    for (const Key &k : keysFor(presets, yaw, goal))
        if (!cache.count(k)) cache[k] = load(k);
}

void TonearmSprites::ensure(const std::set<QString> &presets, double yaw, double goal)
{
    const std::set<Key> wanted = keysFor(presets, yaw, goal);
    for (const Key &k : wanted) {
        if (cache.count(k) || loading.count(k)) continue;
        loading.insert(k);
        QPointer<TonearmSprites> self(this);
        work.push_back(QtConcurrent::run([this, self, k] {
            std::optional<Frame> f = load(k);
            QMetaObject::invokeMethod(
                this,
                [self, k, f] {
                    if (!self) return;
                    self->loading.erase(k);
                    self->cache[k] = f;
                    if (self->onLoaded) self->onLoaded();
                },
                Qt::QueuedConnection);
        }));
    }
    // Once everything wanted is here, samples the arm left behind and presets out of the light
    // are let go, so the cache holds a few sprites however far the arm has travelled.
    if (loading.empty())
        for (auto it = cache.begin(); it != cache.end();)
            it = wanted.count(it->first) ? std::next(it) : cache.erase(it);
    // Finished futures need no keeping.
    work.erase(std::remove_if(work.begin(), work.end(), [](const QFuture<void> &f) { return f.isFinished(); }),
               work.end());
}

const TonearmSprites::Frame *TonearmSprites::frameNear(const QString &preset, int index) const
{
    // The nearest loaded sample stands in for a missing one.
    const int n = int(info.yawSamples.size());
    for (int d = 0; d < n; ++d)
        for (int i : {index - d, index + d}) {
            if (i < 0 || i >= n) continue;
            auto it = cache.find({preset, i});
            if (it != cache.end() && it->second) return &*it->second;
        }
    return nullptr;
}

Float3x3 TonearmSprites::warp(int index, double yaw, double liftDegrees) const
{
    const double sampleYaw = info.yawSamples.empty() ? 0 : info.yawSamples[size_t(index)];
    // Arm pose (yaw, lift) = R_yaw(yaw) · R_lift(lift) about the pivot; the sample is R_yaw(sampleYaw).
    const Mat3 motion =
        multiply(multiply(rotation(yawAxis, yaw), rotation(liftAxis, liftDegrees)), rotation(yawAxis, -sampleYaw));
    auto planeToPlate = [&](bool moved) {
        Mat3 m{};
        const Vec3 cols[3] = {e1, e2, planeOrigin};
        for (int c = 0; c < 3; ++c) {
            Vec3 X = cols[c];
            const bool isPoint = c == 2;
            if (moved) {
                if (isPoint) {
                    const Vec3 rel{X[0] - pivot[0], X[1] - pivot[1], X[2] - pivot[2]};
                    const Vec3 r = times(motion, rel);
                    X = {r[0] + pivot[0], r[1] + pivot[1], r[2] + pivot[2]};
                } else {
                    X = times(motion, X);
                }
            }
            const auto &P = camera.P;
            for (int r = 0; r < 3; ++r)
                m[r][c] = P[r][0] * X[0] + P[r][1] * X[1] + P[r][2] * X[2] + (isPoint ? P[r][3] : 0.0);
        }
        return m;
    };
    const auto finalInv = invert(planeToPlate(true));
    if (!finalInv) return Float3x3::identity();
    return toUniform(multiply(planeToPlate(false), *finalInv));
}

std::optional<TonearmSprites::Pose> TonearmSprites::pose(double yaw, double liftDegrees, const Blend &blend) const
{
    if (info.yawSamples.empty()) return std::nullopt;
    const TwoStrongest ranked(blend);
    double total = 0;
    for (const auto &[preset, weight] : ranked) total += weight;
    if (total <= 0) return std::nullopt;

    const auto [k, f] = neighbors(yaw);
    const int last = int(info.yawSamples.size()) - 1;
    Pose pose;
    const int samples[2] = {k, std::min(k + 1, last)};
    const double sampleWeights[2] = {1 - f, f};
    for (int s = 0; s < 2; ++s) {
        pose.warps[s] = warp(samples[s], yaw, liftDegrees);
        for (size_t r = 0; r < 2; ++r) {
            Slot slot;
            slot.warp = s;
            if (r < ranked.size()) {
                slot.frame = frameNear(*ranked[r].first, samples[s]);
                slot.weight = float(sampleWeights[s] * ranked[r].second / total);
            }
            pose.slotList.push_back(slot);
        }
    }
    // Trailing empty slotList are dropped; a slot kept for its position carries weight 0.
    while (!pose.slotList.empty() && (!pose.slotList.back().frame || pose.slotList.back().weight <= 0))
        pose.slotList.pop_back();
    bool any = false;
    for (const Slot &s : pose.slotList)
        if (s.frame && s.weight > 0) any = true;
    if (!any) return std::nullopt;
    for (const Slot &s : pose.slotList) pose.weight += s.frame ? s.weight : 0;
    return pose;
}

void TonearmSprites::Pose::apply(SceneUniforms &u, SceneTextures &t) const
{
    u.armInv = warps;
    u.armCount = uint32_t(slotList.size());
    for (size_t j = 0; j < 4; ++j) {
        const Slot *s = j < slotList.size() ? &slotList[j] : nullptr;
        const Frame *f = s ? s->frame : nullptr;
        u.armWeights[j] = f ? s->weight : 0;
        u.armRects[j] = f ? f->rect : Float4{0, 0, 1, 1};
        u.shadowRects[j] = f && f->shadow ? f->shadowRect : Float4{};
        u.reflRects[j] = f && f->reflection ? f->reflectionRect : Float4{};
        t.arm[j] = f ? f->texture : nullptr;
        t.shadows[j] = f ? f->shadow : nullptr;
        t.reflections[j] = f ? f->reflection : nullptr;
    }
}

size_t TonearmSprites::memoryBytes() const
{
    size_t b = 0;
    for (const auto &[k, f] : cache)
        if (f) b += f->bytes();
    return b;
}
