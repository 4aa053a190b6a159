#pragma once

#include "core/delivery/SceneCatalog.h"

#include <QString>
#include <optional>

// What the content service says about the application itself: a package that needs a later
// version than the one running means a newer Turnelo exists. The package manager installs it;
// the application only tells.
namespace Updates {

// The highest `min_app_version` in the catalog above `running`, or none.
std::optional<QString> newerVersion(const SceneCatalog &catalog, const QString &running);

}  // namespace Updates
