#include "scene/SceneFrame.h"

#include "core/music/CoverArt.h"
#include "core/turntable/TonearmMotion.h"
#include "scene/LoadedScene.h"

#include <QRect>
#include <QSize>
#include <algorithm>
#include <cmath>

namespace SceneFrame {

void fill(LoadedScene &scene, const Inputs &in, const PlateGeometry::Mat3 &screenToPlate, SceneUniforms &u,
          SceneTextures &t)
{
    scene.fillStatic(u, t, screenToPlate, Float4{0, 0, 0, 0}, *in.blend);
    const CoverArt &art = *in.art;
    u.cover = {float(art.fade(in.mediaTime)), 0, 0, 0};
    u.tone[1] = float(art.labelLuminance(in.mediaTime));
    t.artNew = std::static_pointer_cast<GpuTexture>(art.current().cover);
    t.labelNew = std::static_pointer_cast<GpuTexture>(art.current().label);
    t.artOld = art.previous().cover ? std::static_pointer_cast<GpuTexture>(art.previous().cover) : t.artNew;
    t.labelOld = art.previous().label ? std::static_pointer_cast<GpuTexture>(art.previous().label) : t.labelNew;
    const CoverArt::Color mean = art.mean(in.mediaTime);
    scene.effects->fill(u, t, *in.blend, in.mediaTime, in.spin, in.playing, {mean.r, mean.g, mean.b}, in.fps,
                        in.motionBlur);
    if (scene.sprites)
        if (auto pose = scene.sprites->pose(in.armYaw, scene.sprites->liftDegrees(in.armLift), *in.blend))
            pose->apply(u, t);
}

double armGoal(const LoadedScene &scene, bool playing, double progress, bool recordEffects)
{
    if (!scene.framing.tonearm) return 0;
    const auto &ta = *scene.framing.tonearm;
    TonearmMotion::Geometry g{ta.yawRest, ta.yawLeadIn, ta.yawRunOut, 0, 0};
    std::optional<std::pair<double, double>> band;
    if (scene.framing.record) {
        g.grooveOuter = scene.framing.record->grooveOuterMm;
        g.grooveInner = scene.framing.record->grooveInnerMm;
        const auto &grooves = scene.effects->currentGrooves();
        if (grooves.current >= 0 && grooves.current < int(grooves.bands.size())) {
            const auto &b = grooves.bands[size_t(grooves.current)];
            band = std::make_pair(b.outer, b.inner);
        }
    }
    return TonearmMotion::goal(g, playing, progress, recordEffects && scene.framing.record, band);
}

std::optional<Float4> steamRect(const LoadedScene &scene)
{
    if (!scene.framing.steam) return std::nullopt;
    const auto &pt = scene.framing.steam->pointPx;
    const float w = scene.plateSize[0] * 0.10f, h = scene.plateSize[1] * 0.30f;
    return Float4{float(pt[0]) - w * 0.5f, float(pt[1]) - h, w, h};
}

SteamUniforms steam(const SceneUniforms &u, const Float4 &rect, const Float4 &origin, double seconds)
{
    SteamUniforms s;
    s.screenToPlate = u.screenToPlate;
    s.plateSize = u.plateSize;
    s.origin = origin;
    s.rect = rect;
    // The loop's first seconds blend with the end of the hour before only once an hour was shown:
    // the program that blends is not needed at a start.
    s.params = {float(std::fmod(std::max(seconds, 0.0), 3600.0)), 0.3f, 3600, seconds >= 3600.0 ? 1.0f : 0.0f};
    s.mixWeights = u.mixWeights;
    s.mixCount = u.mixCount;
    return s;
}

QRect plateRectOnScreen(const Float4 &r, const PlateGeometry::Mat3 &screenToPlate, const QSize &screen)
{
    const auto toScreen = PlateGeometry::invert(screenToPlate);
    if (!toScreen || r[2] <= 0 || r[3] <= 0) return {};
    double x0 = 1e18, y0 = 1e18, x1 = -1e18, y1 = -1e18;
    for (const auto &c : {PlateGeometry::Vec2{r[0], r[1]}, PlateGeometry::Vec2{r[0] + r[2], r[1]},
                          PlateGeometry::Vec2{r[0], r[1] + r[3]}, PlateGeometry::Vec2{r[0] + r[2], r[1] + r[3]}}) {
        const auto p = PlateGeometry::apply(*toScreen, c);
        x0 = std::min(x0, p[0]);
        y0 = std::min(y0, p[1]);
        x1 = std::max(x1, p[0]);
        y1 = std::max(y1, p[1]);
    }
    const QRect out(QPoint(int(std::floor(x0)), int(std::floor(y0))),
                    QPoint(int(std::ceil(x1)) - 1, int(std::ceil(y1)) - 1));
    return out.intersected(QRect(QPoint(0, 0), screen));
}

}  // namespace SceneFrame
