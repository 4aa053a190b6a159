#pragma once

#include "core/environment/DesktopPreferences.h"

#include <QString>
#include <memory>

// The preference back end for the running desktop, from XDG_CURRENT_DESKTOP (a colon-separated
// list such as "XFCE" or "ubuntu:GNOME"); null when the desktop has none or its tools are
// missing, in which case the desktop cleaner touches nothing.
std::unique_ptr<DesktopPreferences> linuxDesktopPreferences(const QString &currentDesktop);
std::unique_ptr<DesktopPreferences> linuxDesktopPreferences();

// What the Desktop settings tell on a desktop whose icons the cleaner cannot hide although it
// has them (Plasma keeps them in its Folder View); empty for the others.
QString linuxDesktopCleanerNote(const QString &currentDesktop);
QString linuxDesktopCleanerNote();
