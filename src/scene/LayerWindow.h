#pragma once

#include <QWindow>
#include <functional>

class QVulkanInstance;

// A child window that one Vulkan swapchain draws into: the base picture of the room or one of
// its small moving layers. It takes no input (clicks fall through to the desktop) and tells
// its owner when the window system needs its pixels again. Main thread.
class LayerWindow : public QWindow {
    Q_OBJECT
public:
    LayerWindow(QWindow *parent, QVulkanInstance *vulkan);

    // Called when the window is shown or uncovered and its contents must be drawn again.
    std::function<void()> onExposed;

protected:
    void exposeEvent(QExposeEvent *event) override;
};
