#pragma once

#include "app/DesktopPresence.h"
#include "app/DesktopRoom.h"
#include "scene/RoomScene.h"

#include <QObject>
#include <QString>
#include <memory>
#include <vector>

class SceneView;
class SessionSignals;
class WaylandConnection;
class WindowList;

// The room on a Wayland desktop: a layer surface on the background of the main output, or of
// every output with "screens" = "all", each with a scene view of the one shared room. Outputs
// that come get a surface, outputs that go (or whose surface the compositor closes) lose theirs.
// Hiding the room takes the surfaces away (a layer surface cannot simply be unmapped and shown
// again); the loaded room and its textures stay. Where the room cannot be drawn the surfaces go
// and the desktop's own background shows. Main thread; one per process.
class WaylandDesktopController : public QObject, public DesktopPresence {
    Q_OBJECT
public:
    using Services = DesktopServices;

    // `connection` offers layer shell and outlives the controller.
    WaylandDesktopController(const Services &services, WaylandConnection &connection, QObject *parent = nullptr);
    ~WaylandDesktopController() override;

    void rebuildSurfaces() override;
    void show() override;
    void hide() override;
    void loadScene() override;
    void watchPlates() override;
    void weatherChanged(const WeatherService::Now &now) override;
    bool isVisible() const override { return visible; }

private:
    struct Surface {
        uint32_t output = 0;
        QString name;
        std::unique_ptr<SceneView> scene;
    };
    void attach(Surface &surface);
    void drop(Surface &surface);
    void surfaceClosed(uint32_t output);
    void roomUnavailable();

    Services services;
    WaylandConnection &connection;
    DesktopRoom room;
    std::vector<std::unique_ptr<Surface>> surfaces;
    std::vector<uint32_t> closedOutputs;  // the compositor closed their surface: none again
    bool visible = false;
};
