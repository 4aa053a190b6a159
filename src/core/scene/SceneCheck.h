#pragma once

#include "core/scene/PlateManifest.h"

#include <QString>
#include <QStringList>
#include <map>
#include <stdexcept>

// What `turnelo-scene validate` reports on a scene folder, and what a package must pass before it
// replaces the installed room: a manifest that decodes, and for each framing the files it names
// that the folder lacks.
namespace SceneCheck {

struct Report {
    PlateManifest manifest;
    std::map<QString, QStringList> missing;  // framing → files it names that are not there, sorted

    // The framings with nothing missing, in key order: the ones that can be shown.
    QStringList wholeFramings() const;
};

// A manifest larger than this is no scene's: it is refused rather than read into memory.
inline constexpr qint64 kMaxManifestBytes = 16 << 20;

// Throws SceneError: noManifest, or badManifest when it does not decode.
PlateManifest readManifest(const QString &dir);
Report check(const QString &dir);

}  // namespace SceneCheck
