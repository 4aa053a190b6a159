#pragma once

#include "core/delivery/DeliveryError.h"
#include "core/delivery/SceneCatalog.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <stdexcept>

// The installed scene on disk and the moves that change it: a base package swapped in by two
// renames, a framing put in its place, and the recovery of whatever a crash left half done. At
// every moment either the old or the new scene is whole on disk. Any thread; the installer runs
// these off the main thread. Failures throw DeliveryError (disk) with the text to log.
namespace SceneDisk {

// Folders and files under the support folder ("root") and inside "Scenes".
inline const QString kScenes = QStringLiteral("Scenes");
inline const QString kIncoming = QStringLiteral("Scenes.incoming");
inline const QString kOld = QStringLiteral("Scenes.old");
inline const QString kFramingIncoming = QStringLiteral("Framing.incoming");
inline const QString kFramingOld = QStringLiteral("Framing.old");
inline const QString kDownloads = QStringLiteral("Downloads");
inline const QString kInstalledRecord = QStringLiteral(".installed.json");
inline const QString kFramingsRecord = QStringLiteral(".framings.json");
inline const QString kManifest = QStringLiteral("manifest.json");

void removeTree(const QString &path);
void renameOrThrow(const QString &from, const QString &to);
void writeJson(const QString &path, const QJsonObject &object);
// The package's SHA-256 against the catalog's.
void verifyDigest(const QString &path, const SceneCatalog::Entry &entry);
// Unpacks a verified base package into "Scenes.incoming", checks that it holds a room that can be
// shown (as `turnelo-scene validate` sees it), records it, and swaps it in for "Scenes".
void installBase(const QString &root, const QString &package, const SceneCatalog::Entry &entry);
// Moves the framing unpacked into "Framing.incoming" into "Scenes/<name>" and records its
// packages against the base they were made for.
void installFraming(const QString &root, const QString &name, const QList<SceneCatalog::Entry> &packages,
                    const QString &baseDigest);
// Puts back a whole scene after an interrupted install and removes the staging leftovers.
void recover(const QString &root);

}  // namespace SceneDisk
