#include "app/WaylandDesktopController.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/scene/SceneStatus.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandLayerStack.h"
#include "render/SceneRenderer.h"
#include "scene/SceneView.h"

#include <QPointer>
#include <algorithm>

WaylandDesktopController::WaylandDesktopController(const Services &s, WaylandConnection &c, QObject *parent)
    : QObject(parent)
    , services(s)
    , connection(c)
    , room(s.room)
{
    connect(&room, &DesktopRoom::unavailable, this, &WaylandDesktopController::roomUnavailable);
    // From the event loop: the outputs change inside the connection's event dispatch.
    connect(&connection, &WaylandConnection::outputsChanged, this, &WaylandDesktopController::rebuildSurfaces,
            Qt::QueuedConnection);
    connect(&connection, &WaylandConnection::lost, this, [this] {
        for (auto &surface : surfaces) drop(*surface);
        surfaces.clear();
    });
}

WaylandDesktopController::~WaylandDesktopController()
{
    for (auto &surface : surfaces) drop(*surface);
    surfaces.clear();
}

void WaylandDesktopController::rebuildSurfaces()
{
    std::vector<const WaylandConnection::Output *> outputs = connection.outputs();
    if (!services.room.settings->allScreens() && outputs.size() > 1) outputs.resize(1);
    // A closed output that is no longer listed may come back as a new one later.
    std::erase_if(closedOutputs, [&](uint32_t id) { return !connection.output(id); });
    if (!visible) outputs.clear();

    for (auto it = surfaces.begin(); it != surfaces.end();) {
        const uint32_t id = (*it)->output;
        const bool kept = std::any_of(outputs.begin(), outputs.end(), [id](const auto *o) { return o->id == id; });
        if (kept) {
            ++it;
            continue;
        }
        if (visible) Log::write(QStringLiteral("Wayland: saída ") + (*it)->name + QStringLiteral(" sem sala"));
        drop(**it);
        it = surfaces.erase(it);
    }
    for (const WaylandConnection::Output *o : outputs) {
        const uint32_t id = o->id;
        if (std::any_of(surfaces.begin(), surfaces.end(), [id](const auto &s) { return s->output == id; })) continue;
        if (std::find(closedOutputs.begin(), closedOutputs.end(), id) != closedOutputs.end()) continue;
        auto surface = std::make_unique<Surface>();
        surface->output = id;
        surface->name = o->name;
        Log::write(QStringLiteral("Wayland: sala na saída %1 (%2×%3, escala %4)")
                       .arg(o->name)
                       .arg(o->logical.width())
                       .arg(o->logical.height())
                       .arg(o->scale));
        Surface &added = *surface;
        surfaces.push_back(std::move(surface));
        attach(added);
    }
    if (!room.scene() && !room.deviceFailed() && !surfaces.empty()) loadScene();
}

void WaylandDesktopController::show()
{
    visible = true;
    rebuildSurfaces();
}

void WaylandDesktopController::hide()
{
    visible = false;
    rebuildSurfaces();
}

void WaylandDesktopController::loadScene()
{
    room.load(
        [this] {
            for (auto &surface : surfaces) attach(*surface);
        },
        [this] { loadScene(); });
}

void WaylandDesktopController::roomUnavailable()
{
    // Nothing to draw: the desktop's own background shows until a load succeeds.
    for (auto &surface : surfaces) drop(*surface);
}

void WaylandDesktopController::watchPlates()
{
    room.watch([this] { loadScene(); });
}

void WaylandDesktopController::weatherChanged(const WeatherService::Now &now) { room.weatherChanged(now); }

void WaylandDesktopController::attach(Surface &surface)
{
    if (surface.scene || !room.scene() || room.failed()) return;
    auto stack = std::make_unique<WaylandLayerStack>(room.scene()->renderer(), connection, surface.output);
    const uint32_t id = surface.output;
    stack->onClosed = [this, id] { surfaceClosed(id); };
    SceneView::Services perOutput{services.windows, services.session, services.room.clock};
    surface.scene = std::make_unique<SceneView>(*room.scene(), perOutput, std::move(stack));
    if (surface.scene->failed()) {
        Log::write(QStringLiteral("Cena indisponível: sem superfície Wayland para a saída ") + surface.name);
        drop(surface);
    }
}

void WaylandDesktopController::drop(Surface &surface)
{
    if (!surface.scene) return;
    surface.scene->teardown();
    surface.scene.reset();
}

void WaylandDesktopController::surfaceClosed(uint32_t output)
{
    closedOutputs.push_back(output);
    const auto it =
        std::find_if(surfaces.begin(), surfaces.end(), [output](const auto &s) { return s->output == output; });
    if (it == surfaces.end()) return;
    drop(**it);
    surfaces.erase(it);
}
