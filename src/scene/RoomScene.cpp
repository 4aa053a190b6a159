#include "scene/RoomScene.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/music/CoverArt.h"
#include "core/music/HistoryStore.h"
#include "core/music/PlayerState.h"
#include "core/scheduling/SessionSignals.h"
#include "render/SceneRenderer.h"
#include "vulkan/TextureUpload.h"
#include "scene/LoadedScene.h"
#include "scene/SceneFrame.h"
#include "scene/SceneLoader.h"

#include <QDir>
#include <QFileInfo>
#include <QVariantMap>
#include <algorithm>

namespace {

int megabytes(size_t bytes) { return int(bytes / (1024 * 1024)); }

QString blendText(const Blend &blend)
{
    QStringList parts;
    for (const auto &[preset, weight] : blend) parts << QStringLiteral("%1 %2").arg(preset).arg(weight, 0, 'f', 2);
    return parts.join(QStringLiteral(", "));
}

}  // namespace

RoomScene::RoomScene(const Services &services, std::shared_ptr<SceneRenderer> r, QObject *parent)
    : QObject(parent)
    , s(services)
    , gpu(std::move(r))
{
    Settings &settings = *s.settings;
    fps = settings.fps();
    motionBlur = settings.labelMotionBlur().value_or(true);
    simulateNoMusic = settings.debugSimulateNoMusic();
    recordFx = settings.fxRecord();
    steamClock = s.clock.now();
    ecoOn = s.power->ecoActive();
    // Awake again: the weather may be hours old although the steady clock stood still.
    if (s.session)
        connect(s.session, &SessionSignals::asleepChanged, this, [this](bool asleep) {
            if (!asleep && s.weather && weatherShown()) s.weather->woke();
        });

    auto vk = gpu->vulkan();
    cover = std::make_unique<CoverArt>(
        [vk](const QImage &rgba) -> CoverArt::Texture { return TextureUpload::art(*vk, rgba); });

    loader = std::make_unique<SceneLoader>(*gpu, *s.status, settings);
    loader->onLoaded = [this](std::unique_ptr<LoadedScene> scene, const QString &root, double seconds) {
        finishLoad(std::move(scene), root, seconds);
    };
    loader->onUnavailable = [this](const SceneStatus::Problem &p) { fail(p); };
    loader->onPresetReady = [this](const QString &) { presetReady(); };

    clockTimer.setInterval(30'000);
    connect(&clockTimer, &QTimer::timeout, this, &RoomScene::clockTick);
    clockTimer.start();

    PlayerState *state = s.state;
    observations.push_back(connect(state, &PlayerState::trackChanged, this, &RoomScene::playerChanged));
    observations.push_back(connect(state, &PlayerState::playingChanged, this, &RoomScene::playerChanged));
    observations.push_back(connect(state, &PlayerState::positionChanged, this, &RoomScene::playerChanged));
    observations.push_back(connect(state, &PlayerState::artworkChanged, this, &RoomScene::artworkChanged));
    for (auto signal : {&Settings::fxRecordChanged, &Settings::fxBounceChanged, &Settings::fxWeatherChanged,
                        &Settings::fxStackChanged, &Settings::fxPanelChanged})
        observations.push_back(connect(s.settings, signal, this, &RoomScene::effectsChanged));
    observations.push_back(connect(s.settings, &Settings::steamChanged, this, &RoomScene::steamChanged));
    observations.push_back(connect(s.settings, &Settings::lightPresetChanged, this, &RoomScene::lightChanged));
    observations.push_back(connect(s.settings, &Settings::framingChanged, loader.get(), &SceneLoader::framingChanged));
    observations.push_back(connect(s.power, &PowerMonitor::ecoActiveChanged, this, &RoomScene::ecoChanged));
    if (s.history) observations.push_back(connect(s.history, &HistoryStore::changed, this, &RoomScene::historyChanged));
}

RoomScene::~RoomScene()
{
    clockTimer.stop();
    for (const auto &c : observations) disconnect(c);
    loader.reset();  // waits for an assembly in flight
    gpu->waitIdle();
    loaded.reset();
}

void RoomScene::load() { loader->load(); }

void RoomScene::fail(const SceneStatus::Problem &problem)
{
    Log::write(QStringLiteral("Cena indisponível: ") + problem.detail);
    s.status->setProblem(problem);
    emit unavailable(problem);
}

void RoomScene::touch() { ++changes; }

void RoomScene::finishLoad(std::unique_ptr<LoadedScene> scene, const QString &root, double seconds)
{
    // The old framing stayed on screen while the new one was assembled; it goes now.
    gpu->waitIdle();
    loaded = std::move(scene);
    lightBuilt = false;
    announced = false;
    advancedTo = -1;
    const int generation = loader->generation();
    QPointer<RoomScene> self(this);
    if (loaded->sprites) loaded->sprites->onLoaded = [this] { touch(); };
    // Without its light the room cannot be drawn at all: missing, damaged or wrong-sized plates.
    loaded->mixes->onFailure = [self, generation](const QString &error) {
        if (self && generation == self->loader->generation())
            self->fail(SceneStatus::Problem{SceneStatus::Reason::damagedPlates, error});
    };

    const double now = s.clock.now();
    s.status->setProblem(std::nullopt);
    if (const QVariant showcase = s.settings->showcase(); showcase.canConvert<QVariantMap>()) {
        // A developer's override of the manifest's showcase light, key by key.
        const QVariantMap m = showcase.toMap();
        auto number = [&](const char *key, double fallback) {
            bool ok = false;
            const double v = m.value(QLatin1String(key)).toDouble(&ok);
            return ok ? v : fallback;
        };
        loaded->showcase = {number("floor", loaded->showcase[0]), number("maxGain", loaded->showcase[1]),
                            number("artFloor", loaded->showcase[2])};
        loaded->darkArtMaxGain = number("darkMaxGain", loaded->darkArtMaxGain);
    }
    playing = s.state->isPlaying() && !simulateNoMusic;
    spin = RecordSpin{};
    spin.set(playing, now - 60);
    arm = TonearmMotion{};
    steamPlateRect = SceneFrame::steamRect(*loaded);
    cover->set(simulateNoMusic ? QImage() : debugArt(), debugLabel(), now - 10);  // no fade on load
    loaded->lights.aim(loaded->lights.modeBlend(s.settings->lightPreset(), QDateTime::currentDateTime()), false);
    updateGrooves();
    armGoal = goalAt(now);
    arm.yaw = armGoal;  // a fresh room shows the arm where it belongs
    spriteKeys.clear();
    if (loaded->sprites) {
        // The arm's sprites load beside the light, so the first frames have the arm.
        for (const auto &[preset, weight] : loaded->lights.to) spriteKeys.insert(preset);
        loaded->sprites->ensure(spriteKeys, arm.yaw, armGoal);
    }
    lastAlbum = s.state->track() ? s.state->track()->album : QString();
    stackShown.reset();
    historyChanged();
    effectsChanged();
    steamChanged();
    touch();

    QStringList sorted = loaded->lights.wantedPresets(s.settings->lightPreset(), QDateTime::currentDateTime());
    sorted.sort();
    Log::write(QStringLiteral("Cena: %1 %2×%3, máscaras em %4 s; montando presets %5")
                   .arg(QFileInfo(root).fileName())
                   .arg(double(loaded->plateSize[0]), 0, 'f', 0)
                   .arg(double(loaded->plateSize[1]), 0, 'f', 0)
                   .arg(seconds, 0, 'f', 2)
                   .arg(sorted.join(',')));
    emit sceneChanged();
    ensurePresets();
    presetReady();
}

QImage RoomScene::debugArt() const
{
    if (const auto path = s.settings->debugCoverArt()) {
        QImage image(*path);
        if (!image.isNull()) return image;
    }
    return s.state->artwork();
}

QImage RoomScene::debugLabel() const
{
    // A developer's label lies beside the developer's cover.
    const auto path = s.settings->debugCoverArt();
    return path ? QImage(QFileInfo(*path).dir().filePath(QStringLiteral("rotulo.png"))) : QImage();
}

void RoomScene::ensurePresets()
{
    if (!loaded) return;
    const QStringList presets = loaded->lights.wantedPresets(s.settings->lightPreset(), QDateTime::currentDateTime());
    std::set<QString> wanted(presets.begin(), presets.end());
    loaded->mixes->ensure(wanted);
    loaded->effects->ensure(wanted);
}

void RoomScene::settleLight()
{
    if (!loaded) return;
    const LoadedScene &scene = *loaded;
    if (loaded->lights.settle([&scene](const QString &p) { return scene.mixes->ready(p) != nullptr; }, s.clock.now())) {
        // Presets only the old light used are let go once the new one is on its way.
        ensurePresets();
        touch();
        emit wantsFrames();
    }
}

void RoomScene::presetReady()
{
    if (!loaded) return;
    settleLight();
    touch();
    if (lightBuilt) return;
    for (const auto &[preset, weight] : loaded->lights.current)
        if (!loaded->mixes->ready(preset)) return;
    if (loaded->lights.current.empty()) return;
    lightBuilt = true;
    emit lightReady();
    emit wantsFrames();
}

void RoomScene::basePresented()
{
    if (announced || !loaded) return;
    announced = true;
    Log::write(QStringLiteral("Cena pronta: luz %1 MB, Vulkan total %2 MB")
                   .arg(megabytes(loaded->mixes->memoryBytes()))
                   .arg(megabytes(gpu->vulkan()->allocatedBytes())));
}

double RoomScene::goalAt(double t) const
{
    const auto &track = s.state->track();
    const double progress = !simulateNoMusic && track && track->duration > 0
                                ? std::clamp(s.state->currentPosition(t) / track->duration, 0.0, 1.0)
                                : 0.0;
    return SceneFrame::armGoal(*loaded, playing, progress, recordFx);
}

void RoomScene::advance(double t)
{
    if (!loaded || t == advancedTo) return;
    advancedTo = t;
    LightMixer &lights = loaded->lights;
    if (t - lights.transitionStart < LightMixer::crossFadeSeconds) fading = lights.value(t);
    fadeNow = cover->fade(t);
    if (cover->releasePrevious(t)) touch();

    // The needle creeps through the track: its goal follows the position every frame.
    armGoal = goalAt(t);
    arm.advance(t, armGoal);
    if (loaded->sprites) {
        const Blend &light = blend();
        bool keysChanged = spriteKeys.size() != light.size();
        if (!keysChanged)
            for (const auto &[preset, weight] : light)
                if (!spriteKeys.count(preset)) keysChanged = true;
        if (keysChanged) {
            spriteKeys.clear();
            for (const auto &[preset, weight] : light) spriteKeys.insert(preset);
        }
        if (keysChanged || arm.moving(armGoal)) loaded->sprites->ensure(spriteKeys, arm.yaw, armGoal);
    }
}

const Blend &RoomScene::blend() const
{
    const LightMixer &lights = loaded->lights;
    return advancedTo - lights.transitionStart >= LightMixer::crossFadeSeconds ? lights.to : fading;
}

bool RoomScene::moving() const { return loaded && (spin.speed(advancedTo) > 0 || arm.moving(armGoal)); }

void RoomScene::fill(const PlateGeometry::Mat3 &screenToPlate, int rate, SceneUniforms &u, SceneTextures &t)
{
    SceneFrame::Inputs in;
    in.blend = &blend();
    in.mediaTime = advancedTo;
    in.playing = playing;
    in.spin = spin;
    in.armYaw = arm.yaw;
    in.armLift = arm.lift;
    in.art = cover.get();
    in.fps = rate;
    in.motionBlur = motionBlur;
    SceneFrame::fill(*loaded, in, screenToPlate, u, t);
}

std::optional<Float4> RoomScene::glassRect() const
{
    if (!loaded) return std::nullopt;
    return loaded->effects->glassRect();
}

bool RoomScene::rainDrawn() const
{
    return loaded && rainIntensity > 0 && weatherShown() && loaded->effects->glassRect();
}

bool RoomScene::weatherShown() const { return s.settings->fxWeather() && !ecoOn; }

void RoomScene::clockTick()
{
    if (s.weather && weatherShown()) s.weather->refreshIfStale();
    if (!loaded) return;
    const QString mode = s.settings->lightPreset();
    const QDateTime now = QDateTime::currentDateTime();
    if (mode == QStringLiteral("auto") || !loaded->lights.presets.count(mode)) {
        loaded->lights.tick(now);
    } else {
        const Blend target = loaded->lights.modeBlend(mode, now);
        if (LightMixer::distance(target, loaded->lights.pending.value_or(loaded->lights.to)) > 0.002)
            loaded->lights.aim(target, true);
    }
    ensurePresets();
    settleLight();
}

void RoomScene::lightChanged()
{
    if (!loaded) return;
    loaded->lights.aim(loaded->lights.modeBlend(s.settings->lightPreset(), QDateTime::currentDateTime()), true);
    // The fade starts once the new light's mixes are built; until then the old light stays.
    ensurePresets();
    settleLight();
}

void RoomScene::effectsChanged()
{
    if (!loaded) return;
    Settings &st = *s.settings;
    SceneEffects::Switches sw;
    sw.record = st.fxRecord();
    sw.bounce = st.fxBounce();
    sw.stack = st.fxStack();
    sw.panel = st.fxPanel();
    sw.weather = weatherShown();
    recordFx = sw.record;
    loaded->effects->setSwitches(sw, ecoOn);
    loaded->effects->setRain(sw.weather ? rainIntensity : 0);
    auto word = [](bool on) { return on ? QStringLiteral("sim") : QStringLiteral("não"); };
    Log::write(QStringLiteral("Cena: efeitos disco %1, rebatimento %2, painel %3, clima %4, pilha %5")
                   .arg(word(sw.record), word(sw.bounce), word(sw.panel), word(sw.weather), word(sw.stack)));
    ensurePresets();
    if (s.weather && sw.weather) s.weather->refreshIfStale();
    touch();
    emit layersChanged();
    emit wantsFrames();
}

void RoomScene::steamChanged()
{
    steamOn = s.settings->steam() && !ecoOn;
    Log::write(QStringLiteral("Cena: vapor ") + (steamOn ? QStringLiteral("ligado") : QStringLiteral("desligado")));
    emit layersChanged();
    emit wantsFrames();
}

void RoomScene::ecoChanged(bool on)
{
    if (on == ecoOn) return;
    ecoOn = on;
    Log::write(QStringLiteral("Cena: modo economia ") +
               (on ? QStringLiteral("ligado (15 fps, sem vapor e chuva)") : QStringLiteral("desligado")));
    steamChanged();
    effectsChanged();
}

void RoomScene::weatherChanged(const WeatherService::Now &now)
{
    Log::write(QStringLiteral("Cena: clima → ") + (now.raining ? QStringLiteral("chuva") : QStringLiteral("seco")));
    s.status->setWeather(SceneStatus::Weather{now.raining, now.intensity});
    rainIntensity = now.raining ? now.intensity : 0;
    if (!loaded) return;
    loaded->effects->setRain(weatherShown() ? rainIntensity : 0);
    touch();  // the rainy day cools the whole room
    emit layersChanged();
}

void RoomScene::playerChanged()
{
    if (!loaded) return;
    const double now = s.clock.now();
    const bool nowPlaying = s.state->isPlaying() && !simulateNoMusic;
    if (nowPlaying != playing) {
        playing = nowPlaying;
        spin.set(playing, now);
    }
    updateGrooves();
    // The stack shows the latest album other than this one: only a new album can change it.
    const QString album = s.state->track() ? s.state->track()->album : QString();
    if (album != lastAlbum) {
        lastAlbum = album;
        historyChanged();
    }
    touch();  // the bounce light and LEDs follow what plays
    emit wantsFrames();
}

void RoomScene::updateGrooves()
{
    if (!loaded->framing.record) return;
    const auto &rec = *loaded->framing.record;
    loaded->effects->setGrooves(RecordGrooves::forTrack(simulateNoMusic ? std::nullopt : s.state->track(),
                                                        rec.grooveOuterMm, rec.grooveInnerMm));
}

void RoomScene::artworkChanged()
{
    if (!loaded || s.settings->debugCoverArt()) return;
    cover->set(simulateNoMusic ? QImage() : s.state->artwork(), QImage(), s.clock.now());
    touch();
    emit wantsFrames();
}

void RoomScene::historyChanged()
{
    if (!loaded || !s.history) return;
    const QString album = s.state->track() ? s.state->track()->album : QString();
    // The same cover as shown is not decoded and uploaded again: a player changing album many
    // times a second would otherwise keep the GPU queue busy with one picture.
    QString key = QStringLiteral("-");
    for (const HistoryStore::Entry &e : s.history->entries()) {
        if (e.album == album) continue;
        const QFileInfo file(QDir(s.history->dir()).filePath(e.file));
        key = file.filePath() + QLatin1Char('@') + QString::number(file.lastModified().toMSecsSinceEpoch());
        break;
    }
    if (stackShown == key) return;
    stackShown = key;
    const QImage previous = s.history->previous(album);
    const QImage prepared = CoverArt::prepareCover(previous.isNull() ? CoverArt::placeholderCover() : previous);
    loaded->effects->setStackArt(TextureUpload::art(*gpu->vulkan(), prepared),
                                 CoverArt::luminance(CoverArt::meanLinear(prepared)));
    if (!previous.isNull()) Log::write(QStringLiteral("Cena: pilha ← capa anterior"));
    touch();
    emit wantsFrames();
}

QString RoomScene::describe() const
{
    QString text = playing ? QStringLiteral("tocando") : QStringLiteral("parado");
    if (!loaded) return text;
    text += QStringLiteral(", luz ") + blendText(loaded->lights.current);
    text += QStringLiteral("; luz %1 MB, braço %2 MB, efeitos %3 MB")
                .arg(megabytes(loaded->mixes->memoryBytes()))
                .arg(megabytes(loaded->sprites ? loaded->sprites->memoryBytes() : 0))
                .arg(megabytes(loaded->effects->memoryBytes()));
    return text;
}
