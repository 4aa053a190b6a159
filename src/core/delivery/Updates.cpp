#include "core/delivery/Updates.h"

namespace Updates {

std::optional<QString> newerVersion(const SceneCatalog &catalog, const QString &running)
{
    std::optional<QString> best;
    for (const SceneCatalog::Entry &e : catalog.scenes) {
        if (!e.minAppVersion || SceneCatalog::compare(*e.minAppVersion, running) != SceneCatalog::Order::descending)
            continue;
        if (!best || SceneCatalog::compare(*e.minAppVersion, *best) == SceneCatalog::Order::descending)
            best = e.minAppVersion;
    }
    return best;
}

}  // namespace Updates
