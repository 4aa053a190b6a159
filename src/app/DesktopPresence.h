#pragma once

#include "core/environment/WeatherService.h"

// The room on the desktop, whatever the window system under it: X11 desktop windows
// (DesktopWindowController) or Wayland layer surfaces (WaylandDesktopController). The launch
// sequence, the tray and the settings reach it through this. Main thread.
class DesktopPresence {
public:
    virtual ~DesktopPresence() = default;

    // Matches the room's surfaces to the screens and the "screens" choice.
    virtual void rebuildSurfaces() = 0;
    virtual void show() = 0;
    virtual void hide() = 0;
    // Loads the installed scene again on every screen, then watches it anew.
    virtual void loadScene() = 0;
    virtual void watchPlates() = 0;
    // The weather service reported: every view hears it.
    virtual void weatherChanged(const WeatherService::Now &now) = 0;
    virtual bool isVisible() const = 0;
};
