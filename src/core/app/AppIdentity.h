#pragma once

#include <QString>

// Who this build is. A development build keeps its data, log and settings apart from the
// released one by appending " Dev" to every name the user can see on disk.
namespace AppIdentity {

bool isRelease();
// "Turnelo" or "Turnelo Dev".
QString appName();
// Application name of the settings store (organisation "quelt"): "turnelo" for a release build,
// "turnelo-dev" for a development one, as their bundle identifiers would keep them apart.
QString settingsName(bool release);
// Application version, "0.1.0".
QString version();
// An XDG base folder: the variable's value, or the home folder + `fallback` when it is unset.
QString xdgFolder(const char *variable, const QString &fallback);

}  // namespace AppIdentity
