#pragma once

#include "core/scene/PlateManifest.h"

#include <QString>
#include <optional>
#include <utility>

// Where scenes live. The development folder ("TURNELO_SCENES_DIR", "~" expanded) wins over
// the installed scene when it holds a valid manifest.
namespace SceneLocation {

// $XDG_DATA_HOME (default ~/.local/share) + "/Turnelo[ Dev]", computed once per process.
// Holds "Scenes", "Downloads" and "history".
QString supportDirectory();
// supportDirectory() + "/Scenes".
QString installedRoot();
std::optional<QString> development();
bool usesDevelopmentScenes();
// The development root (if set), then the installed root.
QStringList candidates();

struct Resolved {
    QString root;
    PlateManifest manifest;
};
// The first candidate with a readable, valid manifest. An invalid one is logged as
// "Cena: manifest inválido em <path>: <error>" and skipped.
std::optional<Resolved> resolve();

}  // namespace SceneLocation
