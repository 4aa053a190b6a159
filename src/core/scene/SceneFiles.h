#pragma once

#include "core/scene/PlateManifest.h"

#include <QString>
#include <QStringList>

// Where each picture of a scene lies, relative to the scene root. The one place that knows the
// folder layout of a framing (docs/scene-format.md), shared by the loader, the tools and tests.
namespace SceneFiles {

enum class SpriteKind { arm, shadow, reflection };

// "<framing>/light/<plate>.exr"
QString lightPlate(const QString &framing, const QString &plate);
// "<framing>/record" and "<framing>/bounce": the pass families' plate folders.
QString recordDir(const QString &framing);
QString bounceDir(const QString &framing);
// "<framing>/tonearm/<preset>/arm_07.exr", "shadow_07.png", "reflection_07.exr"
QString tonearmSprite(const QString &framing, const QString &preset, int index, SpriteKind kind);
// "<framing>/front"
QString frontDir(const QString &framing);
// A file named by a manifest field of the framing ("masks/cover.png" → "<framing>/masks/cover.png").
QString framingFile(const QString &framing, const QString &name);

// Every file the manifest and its light recipes refer to for one framing, sorted.
QStringList referenced(const PlateManifest &manifest, const QString &framing);
// The files a framing cannot be shown without (its light plates and the sleeve's and label's
// masks) that are not under `root`; the other files only switch an effect off when missing.
QStringList missing(const QString &root, const PlateManifest &manifest, const QString &framing);
// The manifest's framings with nothing `missing` under `root`, in the order of `framings`.
QStringList installed(const QString &root, const PlateManifest &manifest, const QStringList &framings);
// The optional sections the framing has, in manifest order.
QStringList sections(const PlateManifest::Framing &framing);

}  // namespace SceneFiles
