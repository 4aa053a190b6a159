#pragma once

#include "core/environment/WeatherService.h"
#include "core/lighting/LightMixer.h"
#include "core/music/CoverArt.h"
#include "core/scene/SceneStatus.h"
#include "core/turntable/RecordGrooves.h"
#include "core/turntable/TonearmMotion.h"
#include "render/SceneRenderer.h"
#include "scene/PlateGeometry.h"

#include <QObject>
#include <QPointer>
#include <QRect>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

class BaseSurface;
class FrameScheduler;
class HistoryStore;
class LayerWindow;
class PlayerState;
class PowerMonitor;
class QFutureWatcherBase;
class QVulkanInstance;
class QWindow;
class SessionSignals;
class Settings;
class SwapchainTarget;
class WindowList;
struct LoadedScene;

// The room in one desktop window: loads the installed scene for the chosen framing, keeps the
// still room as a base picture and redraws only the small layers that move (the record and
// arm, the rain on the glass, the steam), and reacts to the player, the clock, the weather,
// the battery saver and the settings. When the room cannot be shown it says why through
// `onUnavailable` and draws nothing. Main thread.
class SceneView : public QObject {
    Q_OBJECT
public:
    // Shared objects and services, owned by the application; all outlive the view.
    struct Services {
        PlayerState *state = nullptr;
        SceneStatus *status = nullptr;
        PowerMonitor *power = nullptr;
        Settings *settings = nullptr;
        HistoryStore *history = nullptr;      // optional
        WeatherService *weather = nullptr;    // optional
        WindowList *windows = nullptr;        // optional: no coverage probe
        SessionSignals *session = nullptr;    // optional
    };

    // `host`: the desktop window the room fills (not owned; outlives the view).
    SceneView(const Services &services, std::unique_ptr<SceneRenderer> renderer, QWindow *host,
              QObject *parent = nullptr);
    ~SceneView() override;

    // (Re)loads the installed scene. Results of an older load are dropped.
    void load();
    // Stops the frames and the timers and lets go of every observation.
    void teardown();
    // The weather service reported (the controller fans one service out to every view).
    void weatherChanged(const WeatherService::Now &now);
    // The host window changed size or screen.
    void relayout();
    // Draws one frame at media time `t`: the scheduler's ticks, exposures and changes call it.
    void frame(double t);

    std::function<void(const QString &reason)> onUnavailable;

    // The moving area on the screen, global pixels; none before a scene is loaded.
    std::optional<QRect> animatedArea() const;
    QString describeState() const;

private:
    void unavailable(SceneStatus::Reason reason, const QString &detail);
    void assemble(int generation, const QString &root, const QString &framing);
    void finishLoad(std::unique_ptr<LoadedScene> scene, const QString &root, double seconds);
    void presetReady(const QString &preset);
    void firstFrameIfNeeded();
    void wantFrames();
    void clockTick();
    void lightChanged();
    void effectsChanged();
    void steamChanged();
    void ecoChanged(bool on);
    void playerChanged();
    void artworkChanged();
    void updateGrooves();
    void historyChanged();
    void ensurePresets();
    void retargetArm();
    void placeLayer(std::unique_ptr<LayerWindow> &window, std::unique_ptr<SwapchainTarget> &target, QRect &current,
                    const QRect &wanted);
    void makeLayer(std::unique_ptr<LayerWindow> &window, std::unique_ptr<SwapchainTarget> &target, const QRect &rect);
    void destroyLayers();
    QRect glassOnScreen() const;
    bool rainDrawn() const;

    Services s;
    std::unique_ptr<SceneRenderer> renderer;
    QPointer<QWindow> host;
    std::unique_ptr<QVulkanInstance> vulkan;
    std::unique_ptr<FrameScheduler> scheduler;
    std::unique_ptr<CoverArt> cover;

    // Windows and their swapchains: targets go before their windows (the window owns the surface).
    std::unique_ptr<LayerWindow> baseWindow, dynWindow, steamWindow, rainWindow;
    std::unique_ptr<SwapchainTarget> baseTarget, dynTarget, steamTarget, rainTarget;
    std::unique_ptr<BaseSurface> base;
    QRect dynRect, steamRect, rainRect;  // in the host window, pixels

    std::unique_ptr<LoadedScene> loaded;
    QPointer<QFutureWatcherBase> assembling;  // the assembly on a worker thread, while one runs
    int loadGeneration = 0;
    QString sceneName;

    RecordSpin spin;
    TonearmMotion arm;
    double armGoal = 0;
    bool playing = false;
    bool baseDirty = true;
    Blend baseBlend;      // the light the base shows
    Blend fadingBlend;    // the light of this frame while a cross-fade runs
    double baseFade = -1; // the cover cross-fade the base shows
    QSize screenSize;
    PlateGeometry::Mat3 screenToPlate = PlateGeometry::identity();
    std::optional<Float4> steamPlateRect;
    bool steamOn = true;
    double steamClock = 0;
    double rainIntensity = 0;
    bool ecoOn = false;
    int baseFps = 30;
    bool motionBlur = true;
    bool simulateNoMusic = false;
    QString lastAlbum;
    QTimer clockTimer;
    bool drewFirstFrame = false;
    bool failed = false;
    std::vector<QMetaObject::Connection> observations;

    // Reused every frame so that a steady frame allocates nothing.
    SceneUniforms uniforms;
    SceneTextures textures;
    std::vector<SceneRenderer::Pass> layerPasses;
    std::set<QString> spriteKeys;
};
