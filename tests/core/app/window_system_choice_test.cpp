#include "core/app/WindowSystemChoice.h"

#include <gtest/gtest.h>

using WindowSystemChoice::choose;
using WindowSystemChoice::Kind;

// Fields: TURNELO_PLATFORM, Wayland reachable, layer shell offered, $DISPLAY set.
TEST(WindowSystemChoice, FollowsTheSessionUnlessTold)
{
    // sway, Hyprland, KWin: layer shell, and Xwayland's DISPLAY does not matter.
    EXPECT_EQ(choose({"", true, true, true}), Kind::wayland);
    // GNOME on Wayland: no room and no stray Xwayland window either.
    EXPECT_EQ(choose({"", true, false, true}), Kind::waylandWithoutBackground);
    // An X11 session, or a WAYLAND_DISPLAY nobody answers at.
    EXPECT_EQ(choose({"", false, false, true}), Kind::x11);
    EXPECT_EQ(choose({"", false, false, false}), Kind::none);
    // TURNELO_PLATFORM wins, but cannot make a display appear; other values are ignored.
    EXPECT_EQ(choose({"x11", true, true, true}), Kind::x11);
    EXPECT_EQ(choose({"x11", true, true, false}), Kind::none);
    EXPECT_EQ(choose({"wayland", false, false, true}), Kind::none);
    EXPECT_EQ(choose({"quartz", false, false, true}), Kind::x11);
}
