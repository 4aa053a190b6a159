#include "app/DesktopWindowController.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/scene/SceneStatus.h"
#include "core/scene/PlatesWatcher.h"
#include "render/SceneRenderer.h"
#include "scene/TurntableView.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWindow>

namespace {

// The main screen first (the primary one), then the others in the system's order.
QList<QScreen *> orderedScreens()
{
    QList<QScreen *> screens = QGuiApplication::screens();
    if (QScreen *primary = QGuiApplication::primaryScreen()) {
        screens.removeAll(primary);
        screens.prepend(primary);
    }
    return screens;
}

}  // namespace

DesktopWindowController::DesktopWindowController(const Services &s, Platform p, QObject *parent)
    : QObject(parent)
    , services(s)
    , platform(std::move(p))
{
    auto rebuild = [this] { rebuildSurfaces(); };
    connect(qGuiApp, &QGuiApplication::screenAdded, this, [this, rebuild](QScreen *screen) {
        watchScreen(screen);
        rebuild();
    });
    connect(qGuiApp, &QGuiApplication::screenRemoved, this, rebuild);
    connect(qGuiApp, &QGuiApplication::primaryScreenChanged, this, rebuild);
    for (QScreen *screen : QGuiApplication::screens()) watchScreen(screen);
}

DesktopWindowController::~DesktopWindowController()
{
    watcher.reset();
    for (auto &surface : surfaces) {
        dropScene(*surface);
        if (platform.removed) platform.removed(surface->window.get());
    }
    surfaces.clear();
    roomScene.reset();
}

void DesktopWindowController::watchScreen(QScreen *screen)
{
    connect(screen, &QScreen::geometryChanged, this, [this] { rebuildSurfaces(); });
}

void DesktopWindowController::rebuildSurfaces()
{
    QList<QScreen *> screens = orderedScreens();
    if (!services.room.settings->allScreens() && screens.size() > 1) screens = screens.mid(0, 1);

    // Surfaces whose screen went away: their view is torn down and their window destroyed.
    for (auto it = surfaces.begin(); it != surfaces.end();) {
        Surface &surface = **it;
        const bool kept = std::any_of(screens.begin(), screens.end(), [&](QScreen *s) {
            return s == surface.screen && s->name() == surface.screenName;
        });
        if (kept) {
            ++it;
            continue;
        }
        dropScene(surface);
        if (platform.removed) platform.removed(surface.window.get());
        it = surfaces.erase(it);
    }

    for (QScreen *screen : screens) {
        auto found = std::find_if(surfaces.begin(), surfaces.end(), [&](const auto &s) { return s->screen == screen; });
        if (found != surfaces.end()) {
            placeWindow(**found);  // same screen: only its frame follows
            continue;
        }
        auto surface = std::make_unique<Surface>();
        surface->screen = screen;
        surface->screenName = screen->name();
        surface->window = std::make_unique<QWindow>(screen);
        surface->window->setFlags(Qt::FramelessWindowHint | Qt::WindowTransparentForInput |
                                  Qt::WindowDoesNotAcceptFocus);
        surface->window->setTitle(QStringLiteral("Turnelo"));
        surface->window->setGeometry(screen->geometry());
        surface->window->create();
        if (platform.prepare) platform.prepare(surface->window.get());
        Surface &added = *surface;
        surfaces.push_back(std::move(surface));
        attach(added);
        if (visible) {
            added.window->show();
            if (platform.added) platform.added(added.window.get());
        }
    }
    if (!roomScene && !deviceFailed && !surfaces.empty()) loadScene();
}

void DesktopWindowController::placeWindow(Surface &surface)
{
    if (!surface.screen) return;
    surface.window->setGeometry(surface.screen->geometry());
    if (surface.fallback) surface.fallback->setGeometry(QRect(QPoint(0, 0), surface.window->size()));
}

void DesktopWindowController::show()
{
    visible = true;
    for (auto &surface : surfaces) {
        surface->window->show();
        if (platform.added) platform.added(surface->window.get());
    }
}

void DesktopWindowController::hide()
{
    visible = false;
    for (auto &surface : surfaces) surface->window->hide();
}

void DesktopWindowController::loadScene()
{
    if (!renderer && !deviceFailed) {
        // One device for every screen, made once: a second screen shares its textures.
        renderer = SceneRenderer::create();
        deviceFailed = !renderer;
        if (renderer) {
            roomScene = std::make_unique<RoomScene>(services.room, renderer);
            connect(roomScene.get(), &RoomScene::unavailable, this, [this] {
                // Later, not inside the room's own call: the fallback destroys the views.
                QMetaObject::invokeMethod(this, &DesktopWindowController::roomUnavailable, Qt::QueuedConnection);
            });
        }
    }
    roomFailed = false;
    for (auto &surface : surfaces) attach(*surface);
    if (roomScene) roomScene->load();
    watchPlates();
}

void DesktopWindowController::roomUnavailable()
{
    if (!roomScene || !roomScene->services().status->problem()) return;  // a newer load got through
    roomFailed = true;
    for (auto &surface : surfaces) useFallback(*surface);
}

void DesktopWindowController::watchPlates()
{
    watcher.reset();
    QPointer<DesktopWindowController> self(this);
    watcher = std::make_unique<PlatesWatcher>([self] {
        if (self) self->loadScene();
    });
}

void DesktopWindowController::weatherChanged(const WeatherService::Now &now)
{
    if (roomScene) roomScene->weatherChanged(now);
}

void DesktopWindowController::dropScene(Surface &surface)
{
    if (surface.scene) {
        surface.scene->teardown();
        surface.scene.reset();
    }
}

void DesktopWindowController::attach(Surface &surface)
{
    if (surface.scene) return;
    if (!roomScene || roomFailed) {
        // No room yet: the first load comes; without a device or a room, the plain turntable.
        if (deviceFailed || roomFailed) useFallback(surface);
        return;
    }
    surface.fallback.reset();
    SceneView::Services perScreen{services.windows, services.session, services.room.clock};
    surface.scene = std::make_unique<SceneView>(*roomScene, perScreen, surface.window.get());
    if (surface.scene->failed()) {
        Log::write(QStringLiteral("Cena indisponível: sem superfície Vulkan para a janela da tela ") +
                   surface.screenName);
        useFallback(surface);
    }
}

void DesktopWindowController::useFallback(Surface &surface)
{
    dropScene(surface);
    surface.fallback = std::make_unique<TurntableView>(*services.room.state, surface.window.get());
    surface.fallback->setGeometry(QRect(QPoint(0, 0), surface.window->size()));
    surface.fallback->show();
}
