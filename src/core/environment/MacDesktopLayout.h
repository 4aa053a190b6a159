#pragma once

#include "core/environment/DesktopPreferences.h"

// The macOS desktop settings: Finder draws the icons, WindowManager the widgets and the
// click-to-show-desktop behaviour; both reread their defaults when restarted by killall.
// Data only, so that the Apple back end and the tests on any platform share one table.
const DesktopPreferences::Layout &macDesktopLayout();
