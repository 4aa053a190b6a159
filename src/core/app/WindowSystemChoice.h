#pragma once

#include <QString>

// Which window system the room goes on. Main thread, before the application object exists.
namespace WindowSystemChoice {

enum class Kind {
    x11,                       // desktop windows through $DISPLAY
    wayland,                   // layer surfaces on the compositor at $WAYLAND_DISPLAY
    waylandWithoutBackground,  // a Wayland desktop that lets no program draw its background (GNOME)
    none,                      // no display at all
};

struct Environment {
    QString forced;                 // TURNELO_PLATFORM: "x11" or "wayland"; anything else is ignored
    bool waylandReachable = false;  // a compositor answered at $WAYLAND_DISPLAY
    bool layerShell = false;        // and it offers layer surfaces
    bool x11Display = false;        // $DISPLAY is set
};

// TURNELO_PLATFORM wins when it names one; otherwise a reachable Wayland compositor decides
// (with layer shell the room goes there, without it there is no room and no stray window, even
// where Xwayland offers $DISPLAY), then $DISPLAY.
Kind choose(const Environment &environment);

// The log's word for the choice.
QString word(Kind kind);

}  // namespace WindowSystemChoice
