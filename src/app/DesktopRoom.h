#pragma once

#include "core/environment/WeatherService.h"
#include "scene/RoomScene.h"

#include <QObject>
#include <functional>
#include <memory>

class PlatesWatcher;
class SceneRenderer;
class SessionSignals;
class WindowList;

// What the room and its views on every screen use, owned by the application.
struct DesktopServices {
    RoomScene::Services room;
    WindowList *windows = nullptr;      // optional: no coverage probe
    SessionSignals *session = nullptr;  // optional
};

// The one room that every screen's surfaces show, whatever the window system: the device, made
// at the first load and shared by all screens, the room loaded on it, and a watch on its plates
// on disk that loads it again when they change. Main thread; one per process.
class DesktopRoom : public QObject {
    Q_OBJECT
public:
    explicit DesktopRoom(const RoomScene::Services &services, QObject *parent = nullptr);
    ~DesktopRoom() override;

    // Makes the device the first time, lets `attachSurfaces` give each surface a view of the
    // room, then loads the room again and watches its plates anew (a change calls `reload`).
    void load(const std::function<void()> &attachSurfaces, std::function<void()> reload);
    // Watches the plates on disk (again): a change calls `reload`.
    void watch(std::function<void()> reload);
    void weatherChanged(const WeatherService::Now &now);

    // None before the first load and when there is no device.
    RoomScene *scene() const { return roomScene.get(); }
    // There is no device: the room will never show.
    bool deviceFailed() const { return noDevice; }
    // The last load failed: the room is unavailable until the next load.
    bool failed() const { return loadFailed; }
    const RoomScene::Services &services() const { return roomServices; }

signals:
    // The last load failed (after the room's own call, so that views may be destroyed).
    void unavailable();

private:
    void roomUnavailable();

    RoomScene::Services roomServices;
    std::shared_ptr<SceneRenderer> renderer;
    std::unique_ptr<RoomScene> roomScene;
    std::unique_ptr<PlatesWatcher> watcher;
    bool noDevice = false;
    bool loadFailed = false;
};
