#pragma once

#include <QString>

// Who this build is. A development build keeps its data, log and settings apart from the
// released one by appending " Dev" to every name the user can see on disk.
namespace AppIdentity {

bool isRelease();
// "Turnelo" or "Turnelo Dev".
QString appName();
// Application version, "0.1.0".
QString version();
// An XDG base folder: the variable's value, or the home folder + `fallback` when it is unset.
QString xdgFolder(const char *variable, const QString &fallback);

}  // namespace AppIdentity
