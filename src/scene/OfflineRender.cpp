#include "scene/OfflineRender.h"

#include "core/music/CoverArt.h"
#include "core/app/Log.h"
#include "core/music/PlayerState.h"
#include "core/turntable/RecordGrooves.h"
#include "core/turntable/TonearmMotion.h"
#include "vulkan/TextureUpload.h"
#include "scene/LoadedScene.h"
#include "scene/SceneFrame.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <cmath>

namespace OfflineRender {

namespace {

// A cover file, or a null image (logged when the file was named but unreadable).
QImage readCover(const QString &path)
{
    if (path.isEmpty()) return {};
    QImage image(path);
    if (image.isNull()) Log::write(QStringLiteral("Cena: capa ilegível: ") + path);
    return image;
}

// Runs the event loop until `done` or the time limit.
bool pump(const std::function<bool()> &done, int limitMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > limitMs) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

std::set<QString> keysOf(const Blend &b)
{
    std::set<QString> s;
    for (const auto &[k, w] : b) s.insert(k);
    return s;
}

}  // namespace

QString render(const Options &o)
{
    auto fail = [](const QString &why) {
        Log::write(QStringLiteral("Cena: render falhou: ") + why);
        return why;
    };
    QFile file(QDir(o.sceneDir).filePath("manifest.json"));
    if (!file.open(QIODevice::ReadOnly)) return fail(QStringLiteral("sem manifest.json em ") + o.sceneDir);
    PlateManifest manifest;
    try {
        manifest = PlateManifest::decode(file.readAll());
    } catch (const std::exception &e) {
        return fail(QStringLiteral("manifest inválido em ") + o.sceneDir + ": " + QString::fromUtf8(e.what()));
    }
    const QStringList framings = SceneAssembly::sortedFramings(manifest);
    if (framings.isEmpty()) return fail(QStringLiteral("manifest sem enquadramentos"));
    const QString framingName = o.framing.isEmpty() ? framings.first() : o.framing;

    auto renderer = SceneRenderer::create();
    if (!renderer) return fail(QStringLiteral("sem renderer Vulkan"));
    auto loaded = SceneAssembly::load(*renderer, o.sceneDir, manifest, framingName);
    if (auto *why = std::get_if<QString>(&loaded)) return fail(*why);
    LoadedScene &scene = *std::get<std::unique_ptr<LoadedScene>>(loaded);

    // Light.
    Blend blend = o.preset ? Blend{{*o.preset, 1.0}} : scene.lights.clockBlend(o.localTime);
    if (o.preset && !scene.lights.presets.count(*o.preset)) blend = scene.lights.clockBlend(o.localTime);
    const std::set<QString> wanted = keysOf(blend);

    // What plays.
    std::optional<Track> track;
    if (o.playing) {
        Track t;
        t.title = o.title;
        t.artist = o.artist;
        t.album = o.album;
        t.duration = o.duration;
        t.trackNumber = o.trackNumber;
        t.trackCount = o.trackCount;
        track = t;
    }
    SceneEffects &fx = *scene.effects;
    SceneEffects::Switches sw;
    sw.record = o.fxRecord;
    sw.bounce = o.fxBounce;
    sw.stack = o.fxStack;
    sw.panel = o.fxPanel;
    sw.weather = o.fxWeather;
    fx.setSwitches(sw, false);
    fx.setRain(o.rain);
    if (scene.framing.record)
        fx.setGrooves(
            RecordGrooves::forTrack(track, scene.framing.record->grooveOuterMm, scene.framing.record->grooveInnerMm));

    scene.mixes->ensure(wanted);
    fx.ensure(wanted);
    if (!pump([&] { return !scene.mixes->building() && scene.mixes->queue().empty() && !fx.building(); }, 600000))
        return fail(QStringLiteral("pré-mix não terminou"));
    if (scene.missingMixes(blend).size() == wanted.size()) return fail(QStringLiteral("nenhum pré-mix de luz"));

    // Cover art: the given image or the placeholder; the label is made from it.
    auto vk = renderer->vulkan();
    CoverArt art([vk](const QImage &rgba) -> CoverArt::Texture { return TextureUpload::art(*vk, rgba); });
    art.set(readCover(o.coverImage), QImage(), o.mediaTime - 10);  // no fade
    // The stack shows a cover played before; without one the placeholder stands in.
    if (o.fxStack) {
        const QImage given = readCover(o.stackCoverImage);
        const QImage previous = CoverArt::prepareCover(given.isNull() ? CoverArt::placeholderCover() : given);
        fx.setStackArt(TextureUpload::art(*vk, previous), CoverArt::luminance(CoverArt::meanLinear(previous)));
    }

    // Spin and arm at the media time: a record that plays has been spinning a while; the arm
    // sits at its goal.
    RecordSpin spin;
    if (o.playing) spin.set(true, o.mediaTime - 60);
    const double goal = SceneFrame::armGoal(scene, o.playing, o.duration > 0 ? o.position / o.duration : 0, o.fxRecord);
    if (scene.sprites) scene.sprites->ensureNow(wanted, goal, goal);

    // Uniforms for the whole screen, through the same path as the desktop's frames.
    const PlateGeometry::Mat3 fit = PlateGeometry::fitPlate(scene.plateSize[0], scene.plateSize[1], o.width, o.height);
    SceneFrame::Inputs in;
    in.blend = &blend;
    in.mediaTime = o.mediaTime;
    in.playing = o.playing;
    in.spin = spin;
    in.armYaw = goal;
    in.armLift = o.armLift;
    in.art = &art;
    in.fps = 30;
    in.motionBlur = true;
    SceneUniforms u;
    SceneTextures t;
    SceneFrame::fill(scene, in, fit, u, t);

    OffscreenTarget target(vk, uint32_t(o.width), uint32_t(o.height));
    std::optional<OffscreenTarget> steamTarget;
    std::optional<SceneRenderer::SteamPass> steamPass;
    if (o.steam)
        if (const auto region = SceneFrame::steamRect(scene)) {
            // Half resolution over the room, as a translucent layer would be.
            steamTarget.emplace(vk, uint32_t((o.width + 1) / 2), uint32_t((o.height + 1) / 2));
            steamPass =
                SceneRenderer::SteamPass{&*steamTarget, SceneFrame::steam(u, *region, {0, 0, 2, 0}, o.mediaTime)};
        }
    renderer->draw(SceneRenderer::Pass{&target, u}, {}, steamPass, t);
    renderer->waitIdle();
    QImage image = target.readback().convertToFormat(QImage::Format_RGB32);
    if (steamTarget) {
        // The steam layer is premultiplied already, at half resolution, over the room: relabel, never
        // convert, or its faint colour is multiplied by its low alpha a second time and vanishes.
        QImage steam = steamTarget->readback();
        steam.reinterpretAsFormat(QImage::Format_ARGB32_Premultiplied);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.drawImage(QRect(0, 0, o.width, o.height), steam);
    }
    if (!image.save(o.output, "PNG")) return fail(QStringLiteral("não gravei ") + o.output);
    return {};
}

}  // namespace OfflineRender
