#include "scene/SceneView.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/music/HistoryStore.h"
#include "core/music/PlayerState.h"
#include "core/scene/SceneFiles.h"
#include "core/scene/SceneLocation.h"
#include "core/scene/SceneStatus.h"
#include "core/scheduling/FrameScheduler.h"
#include "render/SwapchainTarget.h"
#include "render/TextureUpload.h"
#include "scene/BaseSurface.h"
#include "scene/LayerWindow.h"
#include "scene/LoadedScene.h"
#include "scene/SceneFrame.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFutureWatcher>
#include <QThread>
#include <QtConcurrent>
#include <QFileInfo>
#include <QVulkanInstance>
#include <QWindow>
#include <cmath>

namespace {

int megabytes(size_t bytes) { return int(bytes / (1024 * 1024)); }

QString blendText(const Blend &blend) {
    QStringList parts;
    for (const auto &[preset, weight] : blend) parts << QStringLiteral("%1 %2").arg(preset).arg(weight, 0, 'f', 2);
    return parts.join(QStringLiteral(", "));
}

}  // namespace

SceneView::SceneView(const Services &services, std::unique_ptr<SceneRenderer> r, QWindow *hostWindow, QObject *parent)
    : QObject(parent), s(services), renderer(std::move(r)), host(hostWindow) {
    Settings &settings = *s.settings;
    baseFps = settings.fps();
    motionBlur = settings.labelMotionBlur().value_or(true);
    simulateNoMusic = settings.debugSimulateNoMusic();
    steamClock = PlayerState::mediaTime();
    ecoOn = s.power->ecoActive();

    auto vk = renderer->vulkan();
    cover = std::make_unique<CoverArt>([vk](const QImage &rgba) -> CoverArt::Texture {
        return TextureUpload::art(*vk, rgba);
    });

    GPUClock &clock = renderer->gpuClock();
    scheduler = std::make_unique<FrameScheduler>(
        // Frames run on the media clock that the player, the cross-fades and the spin use.
        baseFps, [&clock] { return clock.take(); }, [this](double) { frame(PlayerState::mediaTime()); });
    scheduler->describeState = [this] { return describeState(); };
    scheduler->animatedArea = [this] { return animatedArea(); };
    scheduler->attach(s.windows, s.session);

    // The Vulkan instance of this renderer, wrapped so that Qt makes the windows' surfaces.
    vulkan = std::make_unique<QVulkanInstance>();
    vulkan->setVkInstance(vk->instance);
    if (!vulkan->create()) {
        failed = true;
    } else if (host) {
        baseWindow = std::make_unique<LayerWindow>(host, vulkan.get());
        baseWindow->setGeometry(QRect(QPoint(0, 0), host->size()));
        baseWindow->onExposed = [this] {
            if (base && base->hasShown() && !baseDirty) base->reshow();
            else if (loaded) frame(PlayerState::mediaTime());
        };
        baseWindow->create();
        baseWindow->show();
        VkSurfaceKHR surface = QVulkanInstance::surfaceForWindow(baseWindow.get());
        if (surface) {
            baseTarget = std::make_unique<SwapchainTarget>(vk, surface, uint32_t(host->width()), uint32_t(host->height()));
            base = std::make_unique<BaseSurface>(vk, baseTarget.get());
        } else {
            failed = true;
        }
    }

    clockTimer.setInterval(30'000);
    connect(&clockTimer, &QTimer::timeout, this, &SceneView::clockTick);
    clockTimer.start();

    PlayerState *state = s.state;
    observations.push_back(connect(state, &PlayerState::trackChanged, this, &SceneView::playerChanged));
    observations.push_back(connect(state, &PlayerState::playingChanged, this, &SceneView::playerChanged));
    observations.push_back(connect(state, &PlayerState::positionChanged, this, &SceneView::retargetArm));
    observations.push_back(connect(state, &PlayerState::artworkChanged, this, &SceneView::artworkChanged));
    for (auto signal : {&Settings::fxRecordChanged, &Settings::fxBounceChanged, &Settings::fxWeatherChanged,
                        &Settings::fxStackChanged, &Settings::fxPanelChanged})
        observations.push_back(connect(s.settings, signal, this, &SceneView::effectsChanged));
    observations.push_back(connect(s.settings, &Settings::steamChanged, this, &SceneView::steamChanged));
    observations.push_back(connect(s.settings, &Settings::lightPresetChanged, this, &SceneView::lightChanged));
    observations.push_back(connect(s.settings, &Settings::framingChanged, this, &SceneView::load));
    observations.push_back(connect(s.power, &PowerMonitor::ecoActiveChanged, this, &SceneView::ecoChanged));
    if (s.history) observations.push_back(connect(s.history, &HistoryStore::changed, this, &SceneView::historyChanged));
    if (host) {
        observations.push_back(connect(host, &QWindow::widthChanged, this, &SceneView::relayout));
        observations.push_back(connect(host, &QWindow::heightChanged, this, &SceneView::relayout));
        observations.push_back(connect(host, &QWindow::visibleChanged, this, [this](bool visible) {
            scheduler->setOccluded(!visible);
        }));
        scheduler->setOccluded(!host->isVisible());
    }
}

SceneView::~SceneView() {
    teardown();
    // An assembly in flight uses the renderer: let it finish and drop its scene first.
    if (assembling) {
        assembling->waitForFinished();
        delete assembling.data();
    }
    if (renderer) renderer->waitIdle();
    loaded.reset();
    base.reset();
    destroyLayers();
    baseTarget.reset();
    baseWindow.reset();
}

void SceneView::teardown() {
    if (scheduler) scheduler->invalidate();
    clockTimer.stop();
    for (const auto &c : observations) disconnect(c);
    observations.clear();
}

void SceneView::unavailable(SceneStatus::Reason reason, const QString &detail) {
    Log::write(QStringLiteral("Cena indisponível: ") + detail);
    s.status->setProblem(SceneStatus::Problem{reason, detail});
    scheduler->setWantsFrames(false);
    if (onUnavailable) onUnavailable(detail);
}

void SceneView::load() {
    if (failed) {
        unavailable(SceneStatus::Reason::gpu, QStringLiteral("sem superfície Vulkan para a janela"));
        return;
    }
    const auto found = SceneLocation::resolve();
    if (!found) {
        unavailable(SceneStatus::Reason::noScene, QStringLiteral("nenhuma cena instalada em ") + SceneLocation::installedRoot());
        return;
    }
    const QStringList framings = SceneAssembly::sortedFramings(found->manifest);
    if (framings.isEmpty()) {
        unavailable(SceneStatus::Reason::badManifest, QStringLiteral("manifest sem enquadramentos"));
        return;
    }
    const QString wanted = s.settings->framing();
    const QString framing = framings.contains(wanted) ? wanted : framings.first();
    s.status->setScene(framings, SceneFiles::installed(found->root, found->manifest, framings), framing, found->root, found->manifest);
    sceneName = found->manifest.scenario.value_or(QFileInfo(found->root).fileName());
    Log::write(QStringLiteral("Cena: carregando ") + sceneName);
    const int generation = ++loadGeneration;
    // A load in progress finishes on a later turn of the event loop; a newer load wins.
    QTimer::singleShot(0, this, [this, generation, root = found->root, framing] { assemble(generation, root, framing); });
}

void SceneView::assemble(int generation, const QString &root, const QString &framing) {
    if (generation != loadGeneration) return;
    scheduler->setWantsFrames(false);
    drewFirstFrame = false;
    if (renderer) renderer->waitIdle();
    loaded.reset();
    destroyLayers();

    const auto resolved = SceneLocation::resolve();
    if (!resolved || resolved->root != root) {
        unavailable(SceneStatus::Reason::noScene, QStringLiteral("nenhuma cena instalada em ") + SceneLocation::installedRoot());
        return;
    }
    // Masks, front layers and effect passes are decoded and uploaded on a worker thread; the
    // assembled scene comes back to this thread, where a newer load makes it stale.
    QThread *home = thread();
    SceneRenderer *r = renderer.get();
    QPointer<SceneView> self(this);
    auto onReady = [self, generation](const QString &preset) {
        if (self && generation == self->loadGeneration) self->presetReady(preset);
    };
    using Outcome = std::shared_ptr<std::variant<std::unique_ptr<LoadedScene>, QString>>;
    auto *watcher = new QFutureWatcher<std::pair<Outcome, double>>(this);
    assembling = watcher;
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, generation, root] {
        watcher->deleteLater();
        auto [outcome, seconds] = watcher->result();
        if (generation != loadGeneration) return;  // a newer load is on its way
        if (auto *why = std::get_if<QString>(outcome.get())) {
            unavailable(SceneStatus::Reason::damagedPlates, *why);
            return;
        }
        finishLoad(std::move(std::get<std::unique_ptr<LoadedScene>>(*outcome)), root, seconds);
    });
    watcher->setFuture(QtConcurrent::run([r, root, manifest = resolved->manifest, framing, onReady, home] {
        QElapsedTimer timer;
        timer.start();
        auto outcome = std::make_shared<std::variant<std::unique_ptr<LoadedScene>, QString>>(
            SceneAssembly::load(*r, root, manifest, framing, onReady));
        if (auto *scene = std::get_if<std::unique_ptr<LoadedScene>>(outcome.get())) (*scene)->moveToThread(home);
        return std::make_pair(Outcome(outcome), timer.elapsed() / 1000.0);
    }));
}

void SceneView::finishLoad(std::unique_ptr<LoadedScene> scene, const QString &root, double seconds) {
    loaded = std::move(scene);
    if (loaded->sprites) loaded->sprites->onLoaded = [this] { baseDirty = true; };

    const double now = PlayerState::mediaTime();
    s.status->setProblem(std::nullopt);
    playing = s.state->isPlaying() && !simulateNoMusic;
    spin = RecordSpin{};
    spin.set(playing, now - 60);
    arm = TonearmMotion{};
    steamPlateRect = SceneFrame::steamRect(*loaded);
    cover->set(s.state->artwork(), QImage(), now - 10);  // no fade on load
    loaded->lights.startCrossFade(loaded->lights.modeBlend(s.settings->lightPreset(), QDateTime::currentDateTime()), now);
    updateGrooves();
    retargetArm();
    arm.yaw = armGoal;  // a fresh room shows the arm where it belongs
    lastAlbum = s.state->track() ? s.state->track()->album : QString();
    historyChanged();
    effectsChanged();
    steamChanged();  // lays the layers out for the first frame
    baseDirty = true;

    QStringList sorted = loaded->lights.wantedPresets(s.settings->lightPreset(), QDateTime::currentDateTime());
    sorted.sort();
    Log::write(QStringLiteral("Cena: %1 %2×%3, máscaras em %4 s; montando presets %5")
                   .arg(QFileInfo(root).fileName())
                   .arg(double(loaded->plateSize[0]), 0, 'f', 0)
                   .arg(double(loaded->plateSize[1]), 0, 'f', 0)
                   .arg(seconds, 0, 'f', 2)
                   .arg(sorted.join(',')));
    ensurePresets();
    firstFrameIfNeeded();
}

void SceneView::ensurePresets() {
    if (!loaded) return;
    const QStringList presets = loaded->lights.wantedPresets(s.settings->lightPreset(), QDateTime::currentDateTime());
    std::set<QString> wanted(presets.begin(), presets.end());
    loaded->mixes->ensure(wanted);
    loaded->effects->ensure(wanted);
}

void SceneView::presetReady(const QString &) {
    baseDirty = true;
    firstFrameIfNeeded();
}

void SceneView::firstFrameIfNeeded() {
    if (!loaded || drewFirstFrame) return;
    const QStringList presets = loaded->lights.wantedPresets(s.settings->lightPreset(), QDateTime::currentDateTime());
    for (const QString &p : presets)
        if (!loaded->mixes->ready(p)) return;
    Log::write(QStringLiteral("Cena pronta: luz %1 MB, Vulkan total %2 MB")
                   .arg(megabytes(loaded->mixes->memoryBytes()))
                   .arg(megabytes(renderer->vulkan()->allocatedBytes())));
    frame(PlayerState::mediaTime());
    drewFirstFrame = true;
    wantFrames();
}

void SceneView::wantFrames() {
    if (!loaded) return;
    if (!scheduler->wantsFrames()) scheduler->probeCoverage(true);
    scheduler->setWantsFrames(true);
}

void SceneView::relayout() {
    if (!host || !loaded) return;
    const qreal dpr = host->devicePixelRatio();
    screenSize = QSize(int(std::lround(host->width() * dpr)), int(std::lround(host->height() * dpr)));
    if (screenSize.isEmpty()) return;
    screenToPlate = PlateGeometry::fitPlate(loaded->plateSize[0], loaded->plateSize[1], screenSize.width(),
                                            screenSize.height());
    if (baseWindow) baseWindow->setGeometry(QRect(QPoint(0, 0), host->size()));
    if (baseTarget) baseTarget->resize(uint32_t(screenSize.width()), uint32_t(screenSize.height()));

    // Each moving part is a small window of its own: the record, arm and LEDs; the steam
    // (the room's pixels there with the steam laid over them, since a child window cannot be
    // translucent over its parent); the rain on the glass.
    placeLayer(dynWindow, dynTarget, dynRect,
               SceneFrame::plateRectOnScreen(loaded->dynPlateRect, screenToPlate, screenSize));
    placeLayer(steamWindow, steamTarget, steamRect,
               steamOn && steamPlateRect ? SceneFrame::plateRectOnScreen(*steamPlateRect, screenToPlate, screenSize)
                                         : QRect());
    placeLayer(rainWindow, rainTarget, rainRect, rainDrawn() ? glassOnScreen() : QRect());
    baseDirty = true;
    if (drewFirstFrame) frame(PlayerState::mediaTime());
}

void SceneView::placeLayer(std::unique_ptr<LayerWindow> &window, std::unique_ptr<SwapchainTarget> &target,
                           QRect &current, const QRect &wanted) {
    if (wanted == current && (wanted.isEmpty() || window)) return;
    current = wanted;
    if (wanted.isEmpty()) {
        if (renderer) renderer->waitIdle();
        target.reset();
        window.reset();
    } else {
        makeLayer(window, target, wanted);
    }
}

void SceneView::makeLayer(std::unique_ptr<LayerWindow> &window, std::unique_ptr<SwapchainTarget> &target,
                          const QRect &rect) {
    const qreal dpr = host->devicePixelRatio();
    const QRect logical(QPoint(int(rect.x() / dpr), int(rect.y() / dpr)), QSize(int(std::ceil(rect.width() / dpr)),
                                                                                  int(std::ceil(rect.height() / dpr))));
    if (window) {
        window->setGeometry(logical);
        if (target) target->resize(uint32_t(rect.width()), uint32_t(rect.height()));
        return;
    }
    window = std::make_unique<LayerWindow>(baseWindow.get(), vulkan.get());
    window->setGeometry(logical);
    window->onExposed = [this] {
        if (drewFirstFrame) frame(PlayerState::mediaTime());
    };
    window->create();
    VkSurfaceKHR surface = QVulkanInstance::surfaceForWindow(window.get());
    if (!surface) {
        window.reset();
        return;
    }
    target = std::make_unique<SwapchainTarget>(renderer->vulkan(), surface, uint32_t(rect.width()), uint32_t(rect.height()));
    // Shown after its first frame: until then it would be a black box over the room.
    layerPasses.reserve(3);
}

void SceneView::destroyLayers() {
    if (renderer) renderer->waitIdle();
    dynTarget.reset();
    steamTarget.reset();
    rainTarget.reset();
    dynWindow.reset();
    steamWindow.reset();
    rainWindow.reset();
    dynRect = steamRect = rainRect = QRect();
}

std::optional<QRect> SceneView::animatedArea() const {
    if (!host || dynRect.isEmpty()) return std::nullopt;
    const qreal dpr = host->devicePixelRatio();
    const QPoint corner = host->mapToGlobal(QPoint(0, 0));
    return QRect(corner.x() + int(dynRect.x() / dpr), corner.y() + int(dynRect.y() / dpr), int(dynRect.width() / dpr),
                 int(dynRect.height() / dpr));
}


QRect SceneView::glassOnScreen() const {
    if (!loaded) return {};
    const auto glass = loaded->effects->glassRect();
    if (!glass) return {};
    return SceneFrame::plateRectOnScreen(*glass, screenToPlate, screenSize);
}

bool SceneView::rainDrawn() const {
    return loaded && rainIntensity > 0 && !ecoOn && s.settings->fxWeather() && loaded->effects->glassRect();
}

void SceneView::frame(double t) {
    if (!loaded || screenSize.isEmpty()) return;
    // The device is still on earlier frames (a software device compiling its shaders at the
    // first ones, say): this tick is dropped rather than holding the main thread.
    if (renderer->busy()) return;
    // Settled light is the target itself: no new blend is made for a steady frame.
    const bool settled = t - loaded->lights.transitionStart >= LightMixer::crossFadeSeconds;
    if (!settled) fadingBlend = loaded->lights.value(t);
    const Blend &blend = settled ? loaded->lights.to : fadingBlend;
    // The still room follows the light and the cover until both settle: the base is drawn again
    // whenever either differs from what it shows, the settled values included.
    const double fade = cover->fade(t);
    if (blend != baseBlend || fade != baseFade) baseDirty = true;
    if (cover->releasePrevious(t)) baseDirty = true;

    arm.advance(t, armGoal);
    const bool armMoving = arm.moving(armGoal);
    if (loaded->sprites) {
        bool keysChanged = spriteKeys.size() != blend.size();
        if (!keysChanged)
            for (const auto &[preset, weight] : blend)
                if (!spriteKeys.count(preset)) keysChanged = true;
        if (keysChanged) {
            spriteKeys.clear();
            for (const auto &[preset, weight] : blend) spriteKeys.insert(preset);
        }
        if (keysChanged || armMoving) loaded->sprites->ensure(spriteKeys, arm.yaw, armGoal);
    }

    SceneFrame::Inputs in;
    in.blend = &blend;
    in.mediaTime = t;
    in.playing = playing;
    in.spin = spin;
    in.armYaw = arm.yaw;
    in.armLift = arm.lift;
    in.art = cover.get();
    in.fps = scheduler->rate();
    in.motionBlur = motionBlur;
    uniforms = SceneUniforms{};
    textures = SceneTextures{};
    SceneFrame::fill(*loaded, in, screenToPlate, uniforms, textures);

    if (baseDirty && base && base->canPresent()) {
        if (OffscreenTarget *target = base->nextTarget(uint32_t(screenSize.width()), uint32_t(screenSize.height()))) {
            renderer->draw(SceneRenderer::Pass{target, uniforms, std::nullopt}, {}, std::nullopt, textures);
            baseDirty = !base->present();
            baseBlend = blend;
            baseFade = fade;
        }
    }

    layerPasses.clear();
    if (dynTarget) {
        SceneRenderer::Pass pass{dynTarget.get(), uniforms, std::nullopt};
        pass.uniforms.origin = {float(dynRect.x()), float(dynRect.y()), 0, 0};
        layerPasses.push_back(pass);
    }
    if (steamTarget && steamOn && steamPlateRect) {
        SceneRenderer::Pass pass{steamTarget.get(), uniforms, std::nullopt};
        pass.uniforms.origin = {float(steamRect.x()), float(steamRect.y()), 0, 0};
        pass.steamOver =
            SceneFrame::steam(uniforms, *steamPlateRect, {float(steamRect.x()), float(steamRect.y()), 1, 0}, t - steamClock);
        layerPasses.push_back(pass);
    }
    const bool rain = rainDrawn();
    if (rain && rainTarget) {
        SceneRenderer::Pass pass{rainTarget.get(), uniforms, std::nullopt};
        pass.uniforms.origin = {float(rainRect.x()), float(rainRect.y()), 0, 0};
        layerPasses.push_back(pass);
    }
    if (!layerPasses.empty()) {
        renderer->draw(std::nullopt, layerPasses, std::nullopt, textures);
        for (LayerWindow *w : {dynWindow.get(), steamWindow.get(), rainWindow.get()})
            if (w && !w->isVisible()) w->show();
    }

    const bool moving = spin.speed(t) > 0 || armMoving;
    scheduler->setRate(FrameScheduler::nextRate(moving, rain, baseFps, ecoOn));
}

void SceneView::clockTick() {
    if (s.weather && s.settings->fxWeather() && !ecoOn) s.weather->refreshIfStale();
    if (!loaded) return;
    const QString mode = s.settings->lightPreset();
    const QDateTime now = QDateTime::currentDateTime();
    bool changed = false;
    if (mode == QStringLiteral("auto") || !loaded->lights.presets.count(mode)) {
        changed = loaded->lights.tick(now);
    } else {
        const Blend target = loaded->lights.modeBlend(mode, now);
        if (LightMixer::distance(target, loaded->lights.to) > 0.002) {
            loaded->lights.startCrossFade(target, PlayerState::mediaTime());
            changed = true;
        }
    }
    ensurePresets();
    if (changed) baseDirty = true;
}

void SceneView::lightChanged() {
    if (!loaded) return;
    const Blend target = loaded->lights.modeBlend(s.settings->lightPreset(), QDateTime::currentDateTime());
    loaded->lights.startCrossFade(target, PlayerState::mediaTime());
    ensurePresets();
    baseDirty = true;
}

void SceneView::effectsChanged() {
    if (!loaded) return;
    Settings &st = *s.settings;
    SceneEffects::Switches sw;
    sw.record = st.fxRecord();
    sw.bounce = st.fxBounce();
    sw.stack = st.fxStack();
    sw.panel = st.fxPanel();
    sw.weather = st.fxWeather() && !ecoOn;
    loaded->effects->setSwitches(sw, ecoOn);
    loaded->effects->setRain(sw.weather ? rainIntensity : 0);
    auto word = [](bool on) { return on ? QStringLiteral("sim") : QStringLiteral("não"); };
    Log::write(QStringLiteral("Cena: efeitos disco %1, rebatimento %2, painel %3, clima %4, pilha %5")
                   .arg(word(sw.record), word(sw.bounce), word(sw.panel), word(sw.weather), word(sw.stack)));
    ensurePresets();
    if (s.weather && sw.weather) s.weather->refreshIfStale();
    retargetArm();
    relayout();
}

void SceneView::steamChanged() {
    steamOn = s.settings->steam() && !ecoOn;
    Log::write(QStringLiteral("Cena: vapor ") + (steamOn ? QStringLiteral("ligado") : QStringLiteral("desligado")));
    relayout();
    if (drewFirstFrame) wantFrames();
}

void SceneView::ecoChanged(bool on) {
    if (on == ecoOn) return;
    ecoOn = on;
    Log::write(QStringLiteral("Cena: modo economia ") +
               (on ? QStringLiteral("ligado (15 fps, sem vapor e chuva)") : QStringLiteral("desligado")));
    steamChanged();
    effectsChanged();
}

void SceneView::weatherChanged(const WeatherService::Now &now) {
    Log::write(QStringLiteral("Cena: clima → ") + (now.raining ? QStringLiteral("chuva") : QStringLiteral("seco")));
    s.status->setWeather(SceneStatus::Weather{now.raining, now.intensity});
    rainIntensity = now.raining ? now.intensity : 0;
    if (!loaded) return;
    loaded->effects->setRain(s.settings->fxWeather() && !ecoOn ? rainIntensity : 0);
    baseDirty = true;  // the rainy day cools the whole room
    relayout();
}

void SceneView::playerChanged() {
    if (!loaded) return;
    const double now = PlayerState::mediaTime();
    const bool nowPlaying = s.state->isPlaying() && !simulateNoMusic;
    if (nowPlaying != playing) {
        playing = nowPlaying;
        spin.set(playing, now);
    }
    updateGrooves();
    retargetArm();
    // The stack shows the latest album other than this one: only a new album can change it.
    const QString album = s.state->track() ? s.state->track()->album : QString();
    if (album != lastAlbum) {
        lastAlbum = album;
        historyChanged();
    }
    baseDirty = true;  // the bounce light and LEDs follow what plays
    if (drewFirstFrame) wantFrames();
}

void SceneView::updateGrooves() {
    if (!loaded->framing.record) return;
    const auto &rec = *loaded->framing.record;
    loaded->effects->setGrooves(RecordGrooves::forTrack(simulateNoMusic ? std::nullopt : s.state->track(),
                                                        rec.grooveOuterMm, rec.grooveInnerMm));
}

void SceneView::artworkChanged() {
    if (!loaded) return;
    cover->set(simulateNoMusic ? QImage() : s.state->artwork(), QImage(), PlayerState::mediaTime());
    baseDirty = true;
}

void SceneView::retargetArm() {
    if (!loaded) return;
    const auto &track = s.state->track();
    const double progress = track && track->duration > 0
                                ? std::clamp(s.state->currentPosition(PlayerState::mediaTime()) / track->duration, 0.0, 1.0)
                                : 0.0;
    armGoal = SceneFrame::armGoal(*loaded, playing, progress, s.settings->fxRecord());
    if (drewFirstFrame && arm.moving(armGoal)) wantFrames();
}

void SceneView::historyChanged() {
    if (!loaded || !s.history) return;
    const QString album = s.state->track() ? s.state->track()->album : QString();
    const QImage previous = s.history->previous(album);
    const QImage prepared = CoverArt::prepareCover(previous.isNull() ? CoverArt::placeholderCover() : previous);
    loaded->effects->setStackArt(TextureUpload::art(*renderer->vulkan(), prepared),
                                 CoverArt::luminance(CoverArt::meanLinear(prepared)));
    if (!previous.isNull()) Log::write(QStringLiteral("Cena: pilha ← capa anterior"));
    baseDirty = true;
    if (drewFirstFrame) {
        scheduler->probeCoverage(true);
        wantFrames();
    }
}

QString SceneView::describeState() const {
    QString text = playing ? QStringLiteral("tocando") : QStringLiteral("parado");
    text += scheduler->isRunning() ? QStringLiteral(", visível") : QStringLiteral(", oculta/bloqueada");
    if (loaded) {
        text += QStringLiteral(", luz ") + blendText(loaded->lights.current);
        text += QStringLiteral("; luz %1 MB, base %2 MB, braço %3 MB, efeitos %4 MB")
                    .arg(megabytes(loaded->mixes->memoryBytes()))
                    .arg(megabytes(base ? base->memoryBytes() : 0))
                    .arg(megabytes(loaded->sprites ? loaded->sprites->memoryBytes() : 0))
                    .arg(megabytes(loaded->effects->memoryBytes()));
    }
    text += QStringLiteral(", Vulkan total %1 MB").arg(megabytes(renderer->vulkan()->allocatedBytes()));
    return text;
}
