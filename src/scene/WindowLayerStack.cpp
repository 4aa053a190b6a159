#include "scene/WindowLayerStack.h"

#include "render/SceneRenderer.h"
#include "vulkan/SwapchainTarget.h"
#include "scene/BaseSurface.h"
#include "scene/LayerWindow.h"

#include <QScreen>
#include <QVulkanInstance>
#include <QWindow>
#include <cmath>

WindowLayerStack::WindowLayerStack(SceneRenderer &r, QWindow *hostWindow, BackgroundPainter paintBackground)
    : renderer(r)
    , host(hostWindow)
{
    // The device's instance, wrapped so that Qt makes the windows' surfaces on it.
    const auto &vk = renderer.vulkan();
    vulkan = std::make_unique<QVulkanInstance>();
    vulkan->setVkInstance(vk->instance);
    if (!vulkan->create() || !host) return;
    baseWindow = std::make_unique<LayerWindow>(host, vulkan.get());
    baseWindow->setGeometry(QRect(QPoint(0, 0), host->size()));
    baseWindow->onExposed = [this] {
        if (onBaseExposed) onBaseExposed();
    };
    baseWindow->create();
    baseWindow->show();
    auto resized = [this] { hostResized(); };
    hostConnections.push_back(QObject::connect(host, &QWindow::widthChanged, resized));
    hostConnections.push_back(QObject::connect(host, &QWindow::heightChanged, resized));
    hostConnections.push_back(QObject::connect(host, &QWindow::visibleChanged, [this](bool shown) {
        if (onShownChanged) onShownChanged(shown);
    }));
    if (paintBackground) {
        base = std::make_unique<BaseSurface>(vk, [this, paint = std::move(paintBackground)](const QImage &pixels) {
            return paint(baseWindow.get(), pixels);
        });
        return;
    }
    VkSurfaceKHR surface = QVulkanInstance::surfaceForWindow(baseWindow.get());
    if (!surface) return;
    const QSize pixels = pixelSize();
    baseTarget = std::make_unique<SwapchainTarget>(vk, surface, uint32_t(pixels.width()), uint32_t(pixels.height()));
    base = std::make_unique<BaseSurface>(vk, baseTarget.get());
}

WindowLayerStack::~WindowLayerStack()
{
    for (const auto &c : hostConnections) QObject::disconnect(c);
    renderer.waitIdle();
    base.reset();
    for (Slot &slot : layerSlots) drop(slot);
    baseTarget.reset();
    baseWindow.reset();
}

SurfaceScale WindowLayerStack::scale() const
{
    return SurfaceScale::fractional(int(std::lround(host->devicePixelRatio() * 120)));
}

QSize WindowLayerStack::pixelSize() const { return host ? scale().pixels(host->size()) : QSize(); }

QRect WindowLayerStack::toWindowList(const QRect &pixels) const
{
    if (!host) return {};
    // Qt scales global positions about the screen's corner, which it leaves where the X server has it.
    const QPoint origin = host->screen() ? host->screen()->geometry().topLeft() : QPoint();
    const QPoint corner = origin + (host->mapToGlobal(QPoint(0, 0)) - origin) * host->devicePixelRatio();
    return pixels.translated(corner);
}

bool WindowLayerStack::isShown() const { return host && host->isVisible(); }

void WindowLayerStack::hostResized()
{
    if (!host || !baseWindow) return;
    baseWindow->setGeometry(QRect(QPoint(0, 0), host->size()));
    const QSize pixels = pixelSize();
    if (baseTarget) baseTarget->resize(uint32_t(pixels.width()), uint32_t(pixels.height()));
    if (onResized) onResized();
}

void WindowLayerStack::drop(Slot &slot)
{
    if (slot.target || slot.window) renderer.waitIdle();
    slot.target.reset();
    slot.window.reset();
    slot.rect = QRect();
}

void WindowLayerStack::clear()
{
    for (Slot &slot : layerSlots) drop(slot);
}

void WindowLayerStack::place(Layer layer, const QRect &asked)
{
    Slot &slot = layerSlots[size_t(layer)];
    const QRect wanted = host ? scale().snap(asked, pixelSize()) : QRect();
    if (wanted == slot.rect && (wanted.isEmpty() || slot.window)) return;
    if (wanted.isEmpty() || !host || !baseWindow) {
        drop(slot);
        return;
    }
    slot.rect = wanted;
    const QRect logical = scale().toLogical(wanted);
    if (slot.window) {
        slot.window->setGeometry(logical);
        if (slot.target) slot.target->resize(uint32_t(wanted.width()), uint32_t(wanted.height()));
        return;
    }
    slot.window = std::make_unique<LayerWindow>(baseWindow.get(), vulkan.get());
    slot.window->setGeometry(logical);
    slot.window->onExposed = [this] {
        if (onLayerExposed) onLayerExposed();
    };
    slot.window->create();
    VkSurfaceKHR surface = QVulkanInstance::surfaceForWindow(slot.window.get());
    if (!surface) {
        drop(slot);
        return;
    }
    slot.target = std::make_unique<SwapchainTarget>(renderer.vulkan(), surface, uint32_t(wanted.width()),
                                                    uint32_t(wanted.height()));
}

void WindowLayerStack::showDrawn()
{
    // Mapped over a base that is not on screen yet, a layer keeps what lay there (black) until its next frame.
    if (base && !base->hasShown()) return;
    for (Slot &slot : layerSlots)
        if (slot.window && slot.target && !slot.window->isVisible()) slot.window->show();
}
