#include "scene/LayerWindow.h"

#include <QVulkanInstance>

LayerWindow::LayerWindow(QWindow *parent, QVulkanInstance *vulkan)
    : QWindow(parent)
{
    setSurfaceType(QSurface::VulkanSurface);
    setVulkanInstance(vulkan);
    setFlags(Qt::FramelessWindowHint | Qt::WindowTransparentForInput | Qt::WindowDoesNotAcceptFocus);
}

void LayerWindow::exposeEvent(QExposeEvent *)
{
    if (isExposed() && onExposed) onExposed();
}
