#pragma once

#include "app/DesktopPresence.h"
#include "app/DesktopRoom.h"
#include "scene/RoomScene.h"
#include "scene/SceneView.h"
#include "scene/WindowLayerStack.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <vector>

class QScreen;
class QWindow;
class TurntableView;

// The room's desktop windows: one on the main screen, or one per screen with "screens" =
// "all". Windows of screens that stay are kept across rebuilds; a window whose screen went away
// is destroyed. One device and one loaded room serve every screen; each window hosts a scene
// view of it, or the plain turntable when the room cannot be shown. Main thread; one per process.
class DesktopWindowController : public QObject, public DesktopPresence {
    Q_OBJECT
public:
    // How the platform makes a window a desktop window and keeps it in its place. All optional.
    struct Platform {
        std::function<void(QWindow *)> prepare;  // before the window is first shown
        std::function<void(QWindow *)> added;    // the window is shown (keep it in the stack)
        std::function<void(QWindow *)> removed;  // the window is about to be destroyed
        // Where set, a software device shows the still room as a window's background (the window
        // system keeps it) instead of through a swapchain that would hold copies of it here.
        WindowLayerStack::BackgroundPainter paintBackground;
    };

    using Services = DesktopServices;

    DesktopWindowController(const Services &services, Platform platform, QObject *parent = nullptr);
    ~DesktopWindowController() override;

    void rebuildSurfaces() override;
    void show() override;
    void hide() override;
    void loadScene() override;
    void watchPlates() override;
    void weatherChanged(const WeatherService::Now &now) override;

    bool isVisible() const override { return visible; }

private:
    struct Surface {
        QString screenName;
        QPointer<QScreen> screen;
        std::unique_ptr<QWindow> window;
        std::unique_ptr<SceneView> scene;
        std::unique_ptr<TurntableView> fallback;
    };
    void attach(Surface &surface);
    void useFallback(Surface &surface);
    void roomUnavailable();
    void dropScene(Surface &surface);
    void placeWindow(Surface &surface);
    void watchScreen(QScreen *screen);

    Services services;
    Platform platform;
    DesktopRoom room;
    std::vector<std::unique_ptr<Surface>> surfaces;
    bool visible = false;
};
