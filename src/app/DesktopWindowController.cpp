#include "app/DesktopWindowController.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/scene/SceneStatus.h"
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
    , room(s.room)
{
    connect(&room, &DesktopRoom::unavailable, this, &DesktopWindowController::roomUnavailable);
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
    for (auto &surface : surfaces) {
        dropScene(*surface);
        if (platform.removed) platform.removed(surface->window.get());
    }
    surfaces.clear();
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
    if (!room.scene() && !room.deviceFailed() && !surfaces.empty()) loadScene();
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
    room.load(
        [this] {
            for (auto &surface : surfaces) attach(*surface);
        },
        [this] { loadScene(); });
}

void DesktopWindowController::roomUnavailable()
{
    for (auto &surface : surfaces) useFallback(*surface);
}

void DesktopWindowController::watchPlates()
{
    room.watch([this] { loadScene(); });
}

void DesktopWindowController::weatherChanged(const WeatherService::Now &now) { room.weatherChanged(now); }

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
    if (!room.scene() || room.failed()) {
        // No room yet: the first load comes; without a device or a room, the plain turntable.
        if (room.deviceFailed() || room.failed()) useFallback(surface);
        return;
    }
    surface.fallback.reset();
    SceneView::Services perScreen{services.windows, services.session, services.room.clock};
    if (platform.paintBackground &&
        room.scene()->renderer().vulkan()->properties.deviceType == VK_PHYSICAL_DEVICE_TYPE_CPU)
        surface.scene =
            std::make_unique<SceneView>(*room.scene(), perScreen,
                                        std::make_unique<WindowLayerStack>(
                                            room.scene()->renderer(), surface.window.get(), platform.paintBackground));
    else
        surface.scene = std::make_unique<SceneView>(*room.scene(), perScreen, surface.window.get());
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
