#pragma once

#include "core/environment/WeatherService.h"
#include "core/lighting/LightMixer.h"
#include "core/scene/SceneStatus.h"
#include "core/scheduling/MediaClock.h"
#include "core/turntable/RecordGrooves.h"
#include "core/turntable/TonearmMotion.h"
#include "render/SceneTextures.h"
#include "render/SceneUniforms.h"
#include "scene/PlateGeometry.h"

#include <QObject>
#include <QTimer>
#include <memory>
#include <optional>
#include <set>
#include <vector>

class CoverArt;
class HistoryStore;
class PlayerState;
class PowerMonitor;
class SceneLoader;
class SceneRenderer;
class Settings;
class SessionSignals;
struct LoadedScene;

// The room's one live state, shared by every screen that shows it: the loaded framing and its
// light, the cover, the record's spin, the arm, the effects, and their reactions to the player,
// the clock, the weather, the battery saver and the settings. Screens draw it (SceneView); this
// decides what they draw. Main thread.
class RoomScene : public QObject {
    Q_OBJECT
public:
    // Shared objects and services, owned by the application; all outlive the room.
    struct Services {
        PlayerState *state = nullptr;
        SceneStatus *status = nullptr;
        PowerMonitor *power = nullptr;
        Settings *settings = nullptr;
        HistoryStore *history = nullptr;    // optional
        WeatherService *weather = nullptr;  // optional
        MediaClock clock;
        SessionSignals *session = nullptr;  // optional: a wake refreshes the weather
    };

    RoomScene(const Services &services, std::shared_ptr<SceneRenderer> renderer, QObject *parent = nullptr);
    ~RoomScene() override;

    // (Re)loads the installed scene; what is on screen stays until the new one is assembled.
    void load();
    void weatherChanged(const WeatherService::Now &now);

    // Moves the light, the cover, the record and the arm to media time t, the arm's goal worked
    // out afresh from the player's position. Allocation-free once settled; a second call for
    // the same t (another screen's frame) does nothing.
    void advance(double t);
    // The uniforms and textures of the whole screen at the last advanced time.
    void fill(const PlateGeometry::Mat3 &screenToPlate, int fps, SceneUniforms &u, SceneTextures &t);
    // The light of the last advanced time.
    const Blend &blend() const;
    double coverFade() const { return fadeNow; }

    // A scene is loaded and its first light is built: frames can be drawn.
    bool ready() const { return loaded && lightBuilt; }
    const LoadedScene *scene() const { return loaded.get(); }
    // Something moves at the last advanced time: the record turns or the arm travels.
    bool moving() const;
    bool rainDrawn() const;
    // Weather on and battery saver off: the one rule for asking about and drawing the weather.
    bool weatherShown() const;
    bool steamShown() const { return steamOn && steamPlateRect.has_value(); }
    const std::optional<Float4> &steamRect() const { return steamPlateRect; }
    std::optional<Float4> glassRect() const;
    double steamSeconds(double t) const { return t - steamClock; }
    bool eco() const { return ecoOn; }
    int baseFps() const { return fps; }
    // Counts changes that the still room shows (player, cover, stack, weather, sprites): a
    // screen whose base was drawn at another revision draws it again.
    quint64 revision() const { return changes; }
    // A screen presented its first base picture of this load.
    void basePresented();

    SceneRenderer &renderer() { return *gpu; }
    const Services &services() const { return s; }
    QString describe() const;

    const CoverArt &coverArt() const { return *cover; }
    // Test hooks: the arm as it stands.
    const TonearmMotion &armState() const { return arm; }
    double armGoalNow() const { return armGoal; }

signals:
    // A new scene replaced the old one: screens lay their layers out again.
    void sceneChanged();
    // The steam or the rain came or went: screens lay their layers out again.
    void layersChanged();
    // The first light of a load is built: screens draw and start their frames.
    void lightReady();
    // Something will move or changed: screens run their frames (after a coverage probe).
    void wantsFrames();
    void unavailable(const SceneStatus::Problem &problem);

private:
    void fail(const SceneStatus::Problem &problem);
    void finishLoad(std::unique_ptr<LoadedScene> scene, const QString &root, double seconds);
    void presetReady();
    void settleLight();
    void ensurePresets();
    void clockTick();
    void lightChanged();
    void effectsChanged();
    void steamChanged();
    void ecoChanged(bool on);
    void playerChanged();
    void artworkChanged();
    void historyChanged();
    void updateGrooves();
    void touch();
    double goalAt(double t) const;
    QImage debugArt() const;
    QImage debugLabel() const;

    Services s;
    std::shared_ptr<SceneRenderer> gpu;
    std::unique_ptr<SceneLoader> loader;
    std::unique_ptr<CoverArt> cover;
    std::unique_ptr<LoadedScene> loaded;

    RecordSpin spin;
    TonearmMotion arm;
    double armGoal = 0;
    bool playing = false;
    bool recordFx = true;
    bool lightBuilt = false;
    bool announced = false;
    quint64 changes = 0;
    double advancedTo = -1;
    double fadeNow = 1;
    Blend fading;  // the light while a cross-fade runs
    std::optional<Float4> steamPlateRect;
    bool steamOn = true;
    double steamClock = 0;
    double rainIntensity = 0;
    bool ecoOn = false;
    int fps = 30;
    bool motionBlur = true;
    bool simulateNoMusic = false;
    QString lastAlbum;
    std::optional<QString> stackShown;  // which history cover the stack shows; none before the first
    QTimer clockTimer;
    std::vector<QMetaObject::Connection> observations;
    std::set<QString> spriteKeys;
};
