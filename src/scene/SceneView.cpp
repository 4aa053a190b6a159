#include "scene/SceneView.h"

#include "core/scheduling/FrameScheduler.h"
#include "vulkan/SwapchainTarget.h"
#include "scene/BaseSurface.h"
#include "scene/WindowLayerStack.h"
#include "scene/LoadedScene.h"
#include "scene/RoomScene.h"
#include "scene/SceneFrame.h"

#include <QWindow>
#include <cmath>
#include <utility>

namespace {

int megabytes(size_t bytes) { return int(bytes / (1024 * 1024)); }

// The share of a core the software device may take: it draws on the processor the user works on.
constexpr double kSoftwareShare = 0.5;

}  // namespace

SceneView::SceneView(RoomScene &r, const Services &services, QWindow *host, QObject *parent)
    : SceneView(r, services, std::make_unique<WindowLayerStack>(r.renderer(), host), parent)
{
}

SceneView::SceneView(RoomScene &r, const Services &services, std::unique_ptr<LayerStack> stack, QObject *parent)
    : QObject(parent)
    , room(r)
    , s(services)
    , layers(std::move(stack))
{
    SceneRenderer &renderer = room.renderer();
    if (BaseSurface *base = layers->baseSurface()) base->onPaintFailed = [this] { baseDirty = true; };
    layers->onBaseExposed = [this] {
        BaseSurface *base = layers->baseSurface();
        if (base && base->hasShown() && !baseDirty)
            base->reshow();
        else if (room.ready())
            frame(s.clock.now());
    };
    layers->onLayerExposed = [this] {
        if (drewFirstFrame) frame(s.clock.now());
    };

    GPUClock &gpuClock = renderer.gpuClock();
    scheduler = std::make_unique<FrameScheduler>(
        room.baseFps(), s.clock, [&gpuClock] { return gpuClock.take(); }, [this](double t) { frame(t); });
    scheduler->describeState = [this] { return describeState(); };
    scheduler->animatedArea = [this] { return animatedArea(); };
    scheduler->mayDraw = [this] { return !layers->holdsFrame(); };
    scheduler->attach(s.windows, s.session);
    layers->onFrameReleased = [this] { scheduler->release(); };
    layers->onResized = [this] { relayout(); };
    layers->onShownChanged = [this](bool shown) { scheduler->setOccluded(!shown); };

    observations.push_back(connect(&room, &RoomScene::sceneChanged, this, &SceneView::sceneChanged));
    observations.push_back(connect(&room, &RoomScene::layersChanged, this, &SceneView::relayout));
    observations.push_back(connect(&room, &RoomScene::lightReady, this, &SceneView::startFrames));
    observations.push_back(connect(&room, &RoomScene::wantsFrames, this, [this] {
        if (drewFirstFrame) wantFrames();
    }));
    observations.push_back(connect(&room, &RoomScene::unavailable, this, [this] { scheduler->setWantsFrames(false); }));
    scheduler->setOccluded(!layers->isShown());
    if (room.scene()) sceneChanged();
    if (room.ready()) startFrames();
}

void SceneView::startFrames()
{
    frame(s.clock.now());
    drewFirstFrame = true;
    wantFrames();
}

SceneView::~SceneView()
{
    teardown();
    layers.reset();
}

bool SceneView::failed() const { return !layers->ok(); }

void SceneView::teardown()
{
    if (scheduler) scheduler->invalidate();
    for (const auto &c : observations) disconnect(c);
    observations.clear();
    if (BaseSurface *base = layers->baseSurface()) base->onPaintFailed = nullptr;
    layers->onBaseExposed = nullptr;
    layers->onLayerExposed = nullptr;
    layers->onResized = nullptr;
    layers->onShownChanged = nullptr;
    layers->onFrameReleased = nullptr;
}

void SceneView::sceneChanged()
{
    scheduler->setWantsFrames(false);
    drewFirstFrame = false;
    layers->clear();
    relayout();
}

void SceneView::wantFrames()
{
    if (!room.ready()) return;
    if (!scheduler->wantsFrames()) scheduler->probeCoverage(true);
    scheduler->setWantsFrames(true);
}

QRect SceneView::onScreen(const Float4 &plateRect) const
{
    return SceneFrame::plateRectOnScreen(plateRect, screenToPlate, screenSize);
}

void SceneView::relayout()
{
    const LoadedScene *scene = room.scene();
    if (!scene) return;
    screenSize = layers->pixelSize();
    if (screenSize.isEmpty()) return;
    screenToPlate =
        PlateGeometry::fitPlate(scene->plateSize[0], scene->plateSize[1], screenSize.width(), screenSize.height());

    // Each moving part is a small surface of its own: the record, arm and LEDs; the steam (the
    // room's pixels there with the steam laid over them, since a child window cannot be
    // translucent over its parent); the rain on the glass.
    using Layer = LayerStack::Layer;
    layers->place(Layer::moving, onScreen(scene->dynPlateRect));
    layers->place(Layer::steam, room.steamShown() ? onScreen(*room.steamRect()) : QRect());
    layers->place(Layer::rain, room.rainDrawn() ? onScreen(*room.glassRect()) : QRect());
    baseDirty = true;
    if (drewFirstFrame) frame(s.clock.now());
}

std::optional<QRect> SceneView::animatedArea() const
{
    const QRect moving = layers->rect(LayerStack::Layer::moving);
    if (moving.isEmpty()) return std::nullopt;
    return layers->toWindowList(moving);
}

void SceneView::frame(double t)
{
    if (!room.ready() || screenSize.isEmpty()) return;
    SceneRenderer &renderer = room.renderer();
    // The device is still on earlier frames (a software device compiling its shaders at the
    // first ones, say): this tick is dropped rather than holding the main thread.
    if (renderer.busy()) return;
    room.advance(t);
    // The still room follows the light, the cover and what plays until they settle: the base is
    // drawn again whenever one differs from what it shows.
    const Blend &blend = room.blend();
    if (blend != baseBlend || room.coverFade() != baseFade || room.revision() != baseRevision) baseDirty = true;

    uniforms = SceneUniforms{};
    textures = SceneTextures{};
    room.fill(screenToPlate, scheduler->rate(), uniforms, textures);

    BaseSurface *base = layers->baseSurface();
    if (base && base->hasShown() && base->canPresent()) room.basePresented();  // its copy is on screen
    using Layer = LayerStack::Layer;
    layerPasses.clear();
    if (baseDirty && base && base->canPresent()) {
        if (OffscreenTarget *target = base->nextTarget(uint32_t(screenSize.width()), uint32_t(screenSize.height()))) {
            // A base that keeps no image leaves the room under the steam's layer for it to copy.
            const QRect steamRect = room.steamShown() && !base->keepsImage() ? layers->rect(Layer::steam) : QRect();
            if (steamRect.isEmpty()) {
                steamUnder.reset();
            } else {
                if (!steamUnder || steamUnder->width() != uint32_t(steamRect.width()) ||
                    steamUnder->height() != uint32_t(steamRect.height()))
                    steamUnder = std::make_unique<OffscreenTarget>(renderer.vulkan(), uint32_t(steamRect.width()),
                                                                   uint32_t(steamRect.height()));
                SceneRenderer::Pass keep{steamUnder.get(), uniforms, std::nullopt, target->texture().get()};
                keep.uniforms.origin = {float(steamRect.x()), float(steamRect.y()), 0, 0};
                layerPasses.push_back(keep);
            }
            // A pipeline still compiling on its worker: the next tick tries again.
            const std::optional<SceneRenderer::Pass> basePass = SceneRenderer::Pass{target, uniforms, std::nullopt};
            if (renderer.ready(basePass, layerPasses, std::nullopt)) {
                renderer.draw(basePass, layerPasses, std::nullopt, textures);
                steamUnderRect = steamRect;
                baseDirty = !base->present();
                baseBlend = blend;
                baseFade = room.coverFade();
                baseRevision = room.revision();
            }
            layerPasses.clear();
        }
    }

    SwapchainTarget *moving = layers->target(Layer::moving);
    SwapchainTarget *steam = room.steamShown() ? layers->target(Layer::steam) : nullptr;
    const QRect movingRect = moving ? layers->rect(Layer::moving) : QRect();
    // Where the steam's layer overlaps the record's, it shows the record's moving parts too; there,
    // or with no base image to copy, it takes its room from the same still instead of shading it.
    const GpuTexture *steamRoom = !base                ? nullptr
                                  : base->shownImage() ? base->shownImage()
                                  : steamUnder && steamUnderRect == layers->rect(Layer::steam)
                                      ? steamUnder->texture().get()
                                      : nullptr;
    const bool steamOnStill = steam && (!steamRoom || layers->rect(Layer::steam).intersects(movingRect));
    const QRect wanted = steamOnStill ? movingRect.united(layers->rect(Layer::steam)) : movingRect;
    LayerStill::Redraw redrawStill = LayerStill::Redraw::none;
    if (!wanted.isEmpty()) {
        if (!still || stillRect != wanted) {
            still = std::make_unique<LayerStill>(renderer.vulkan(), wanted.x(), wanted.y(), uint32_t(wanted.width()),
                                                 uint32_t(wanted.height()));
            stillRect = wanted;
        }
        textures.still = still->linear().texture();
        SceneUniforms at = uniforms;
        at.origin = {float(wanted.x()), float(wanted.y()), 0, 0};
        redrawStill = still->changed(at, textures);
        if (still->holdsArm()) still->holdArm(uniforms);
    }
    // The first layer on the still draws it.
    const auto onStill = [&](SceneRenderer::Pass &pass) {
        pass.still = still.get();
        pass.redrawStill = std::exchange(redrawStill, LayerStill::Redraw::none);
    };
    if (moving) {
        SceneRenderer::Pass pass{moving, uniforms, std::nullopt};
        pass.uniforms.origin = {float(movingRect.x()), float(movingRect.y()), 0, 0};
        onStill(pass);
        layerPasses.push_back(pass);
    }
    if (steam) {
        SceneRenderer::Pass pass{steam, uniforms, std::nullopt};
        const QRect &r = layers->rect(Layer::steam);
        pass.uniforms.origin = {float(r.x()), float(r.y()), 0, 0};
        pass.steamOver =
            SceneFrame::steam(uniforms, *room.steamRect(), {float(r.x()), float(r.y()), 1, 0}, room.steamSeconds(t));
        const uint32_t halfWidth = uint32_t(r.width() + 1) / 2, halfHeight = uint32_t(r.height() + 1) / 2;
        if (!steamHalf || steamHalf->width() != halfWidth || steamHalf->height() != halfHeight)
            steamHalf =
                std::make_unique<OffscreenTarget>(renderer.vulkan(), halfWidth, halfHeight, VK_FORMAT_B8G8R8A8_UNORM,
                                                  VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
        textures.steam = steamHalf->texture();
        pass.steamHalf = steamHalf.get();
        // Elsewhere the room under the steam is the finished base's (or what was kept of it),
        // copied rather than shaded again.
        if (steamOnStill)
            onStill(pass);
        else
            pass.under = steamRoom;
        if (steamUnder && pass.under == steamUnder->texture().get()) {
            pass.underX = r.x();
            pass.underY = r.y();
        }
        layerPasses.push_back(pass);
    }
    const bool rain = room.rainDrawn();
    if (SwapchainTarget *target = layers->target(Layer::rain); target && rain) {
        SceneRenderer::Pass pass{target, uniforms, std::nullopt};
        const QRect &r = layers->rect(Layer::rain);
        pass.uniforms.origin = {float(r.x()), float(r.y()), 0, 0};
        layerPasses.push_back(pass);
    }
    if (!layerPasses.empty() && !renderer.ready(std::nullopt, layerPasses, std::nullopt)) {
        // Skipped until its pipelines are made; the still it was to draw is drawn then.
        for (const SceneRenderer::Pass &pass : layerPasses)
            if (pass.still && pass.redrawStill != LayerStill::Redraw::none) pass.still->invalidate();
    } else if (!layerPasses.empty()) {
        // The frame callback rides on the moving layer's commit; a frame that presents nothing
        // there must not leave the next one waiting for a callback that never comes.
        SwapchainTarget *paced = layers->target(Layer::moving);
        const quint64 presentedBefore = paced ? paced->presentedCount() : 0;
        if (paced) layers->frameComing();
        renderer.draw(std::nullopt, layerPasses, std::nullopt, textures);
        if (paced && paced->presentedCount() == presentedBefore) layers->frameDropped();
        layers->showDrawn();
    }
    int rate = FrameScheduler::nextRate(room.moving(), rain, room.baseFps(), room.eco());
    if (renderer.vulkan()->properties.deviceType == VK_PHYSICAL_DEVICE_TYPE_CPU)
        rate = FrameScheduler::sustainedRate(rate, renderer.gpuClock().recent(), kSoftwareShare, scheduler->rate());
    scheduler->setRate(rate);
}

int SceneView::rate() const { return scheduler->rate(); }

QString SceneView::describeState() const
{
    QString text = room.describe();
    text += scheduler->isRunning() ? QStringLiteral(", visível a %1 fps").arg(scheduler->rate())
                                   : QStringLiteral(", oculta/bloqueada");
    BaseSurface *base = layers->baseSurface();
    text += QStringLiteral(", base %1 MB, Vulkan total %2 MB")
                .arg(megabytes(base ? base->memoryBytes() : 0))
                .arg(megabytes(room.renderer().vulkan()->allocatedBytes()));
    return text;
}
