#pragma once

#include "core/scene/PlateManifest.h"

#include <QString>
#include <optional>
#include <utility>

// Where scenes live, in the order they win: the development folder ("TURNELO_SCENES_DIR", "~"
// expanded), the scene the installer installed, then the room that ships with the program
// ("turnelo/scenes/room" under each $XDG_DATA_DIRS entry, or the source tree's "scenes/room" for a
// program run from its build folder), unless a development folder is set, which stands in for it.
// The shipped room is read in place and never written: a
// newer room or an extra framing goes to the installed scene, which then wins.
namespace SceneLocation {

enum class Origin { development, installed, bundled };

// $XDG_DATA_HOME (default ~/.local/share) + "/Turnelo[ Dev]", computed once per process.
// Holds "Scenes", "Downloads" and "history".
QString supportDirectory();
// supportDirectory() + "/Scenes".
QString installedRoot();
std::optional<QString> development();
bool usesDevelopmentScenes();
// The rooms that ship with the program, most specific first: each $XDG_DATA_DIRS entry
// (default /usr/local/share:/usr/share), then, for a program in a build folder (one holding
// CMakeCache.txt), the source tree's room beside it.
QStringList bundled();
// The first bundled room that holds a manifest; none when no room ships or a development folder
// is set.
std::optional<QString> bundledRoom();

struct Candidate {
    QString root;
    Origin origin;
};
// The development root and the installed root, or the installed root and the bundled rooms.
QList<Candidate> candidates();

struct Resolved {
    QString root;
    PlateManifest manifest;
    Origin origin = Origin::installed;
};
// The first candidate with a readable, valid manifest. An invalid one is logged as
// "Cena: manifest inválido em <path>: <error>" and skipped.
std::optional<Resolved> resolve();

// Which candidate `root` is, without reading it; none when it is none of them.
std::optional<Origin> originOf(const QString &root);

// For the log: "desenvolvimento", "instalada" or "embutida".
QString originWord(Origin origin);

}  // namespace SceneLocation
