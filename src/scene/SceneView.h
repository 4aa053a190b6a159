#pragma once

#include "core/scheduling/MediaClock.h"
#include "render/SceneRenderer.h"
#include "scene/PlateGeometry.h"
#include "core/lighting/LightMixer.h"

#include <QObject>
#include <QPointer>
#include <QRect>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class FrameScheduler;
class LayerStack;
class QWindow;
class RoomScene;
class SessionSignals;
class WindowList;

// The room on one screen: fits the shared room to its desktop window, keeps the still room as
// the base picture and redraws only the small layers that move, at the rate its own scheduler
// allows (nothing while this screen's moving area is covered, locked or asleep). Main thread.
class SceneView : public QObject {
    Q_OBJECT
public:
    struct Services {
        WindowList *windows = nullptr;      // optional: no coverage probe
        SessionSignals *session = nullptr;  // optional
        MediaClock clock;
    };

    // `room` and `host` (the desktop window the room fills) are not owned and outlive the view.
    SceneView(RoomScene &room, const Services &services, QWindow *host, QObject *parent = nullptr);
    // The room on surfaces the platform made (`layers`, owned from here on; its base surface
    // fills the screen). `room` is not owned and outlives the view.
    SceneView(RoomScene &room, const Services &services, std::unique_ptr<LayerStack> layers, QObject *parent = nullptr);
    ~SceneView() override;

    // Stops the frames and lets go of every observation.
    void teardown();
    // The screen changed size, or the room's layers changed.
    void relayout();
    // Draws one frame at media time `t`: the scheduler's ticks, exposures and changes call it.
    void frame(double t);
    // The screen's surface got no swapchain: this screen cannot show the room.
    bool failed() const;

    // The moving area on the screen, global pixels; none before a scene is loaded.
    std::optional<QRect> animatedArea() const;
    // Frames a second now: the wanted rate, lowered to what a software device sustains.
    int rate() const;
    QString describeState() const;

private:
    void sceneChanged();
    void startFrames();
    void wantFrames();
    QRect onScreen(const Float4 &plateRect) const;

    RoomScene &room;
    Services s;
    std::unique_ptr<FrameScheduler> scheduler;
    std::unique_ptr<LayerStack> layers;
    std::vector<QMetaObject::Connection> observations;

    QSize screenSize;
    PlateGeometry::Mat3 screenToPlate = PlateGeometry::identity();
    bool baseDirty = true;
    quint64 baseRevision = 0;  // the room's revision the base shows
    Blend baseBlend;           // the light the base shows
    double baseFade = -1;      // the cover cross-fade the base shows
    bool drewFirstFrame = false;

    // The moving layers' still room and the steam at half size, made again when their layers
    // move or change size.
    std::unique_ptr<LayerStill> still;
    QRect stillRect;
    // The room under the steam's layer, kept from the last base where the base keeps no image.
    std::unique_ptr<OffscreenTarget> steamUnder;
    QRect steamUnderRect;
    std::unique_ptr<OffscreenTarget> steamHalf;

    // Reused every frame so that a steady frame allocates nothing.
    SceneUniforms uniforms;
    SceneTextures textures;
    std::vector<SceneRenderer::Pass> layerPasses;
};
