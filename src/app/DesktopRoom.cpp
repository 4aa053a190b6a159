#include "app/DesktopRoom.h"

#include "core/scene/PlatesWatcher.h"
#include "core/scene/SceneStatus.h"
#include "render/SceneRenderer.h"

#include <QPointer>

DesktopRoom::DesktopRoom(const RoomScene::Services &services, QObject *parent)
    : QObject(parent)
    , roomServices(services)
{
}

DesktopRoom::~DesktopRoom()
{
    watcher.reset();
    roomScene.reset();
}

void DesktopRoom::load(const std::function<void()> &attachSurfaces, std::function<void()> reload)
{
    if (!renderer && !noDevice) {
        // One device for every screen, made once: a second screen shares its textures.
        renderer = SceneRenderer::create();
        noDevice = !renderer;
        if (renderer) {
            roomScene = std::make_unique<RoomScene>(roomServices, renderer);
            connect(roomScene.get(), &RoomScene::unavailable, this, [this] {
                // Later, not inside the room's own call: the surfaces' views may go.
                QMetaObject::invokeMethod(this, &DesktopRoom::roomUnavailable, Qt::QueuedConnection);
            });
        }
    }
    loadFailed = false;
    if (attachSurfaces) attachSurfaces();
    if (roomScene) roomScene->load();
    watch(std::move(reload));
}

void DesktopRoom::watch(std::function<void()> reload)
{
    watcher.reset();
    QPointer<DesktopRoom> self(this);
    watcher = std::make_unique<PlatesWatcher>([self, reload = std::move(reload)] {
        if (self && reload) reload();
    });
}

void DesktopRoom::roomUnavailable()
{
    if (!roomScene || !roomServices.status->problem()) return;  // a newer load got through
    loadFailed = true;
    emit unavailable();
}

void DesktopRoom::weatherChanged(const WeatherService::Now &now)
{
    if (roomScene) roomScene->weatherChanged(now);
}
