#pragma once

#include "core/delivery/DeliveryError.h"
#include "core/delivery/SceneCatalog.h"

#include <QString>
#include <stdexcept>

// Unpacks a scene package (a zip archive) into a folder, refusing anything that could write
// outside it: absolute names, ".." components, symbolic links whose target leaves the folder,
// hard links to names outside it, device files and FIFOs; and anything that could fill the disk
// or pass for what it is not: archives that unpack to more data than allowed, hold too many
// entries, or name one path twice (the second copy of a manifest would replace the first).
// libarchive's secure-extraction checks (no "..", never through a symbolic link) guard every
// write as well; the absolute-name rule is applied to the names as stored, since every entry is
// written below the folder's canonical path.
//
// Blocking; call from a worker thread for large packages. A refused archive may leave some
// entries in the folder: callers unpack into a staging folder and drop it on failure.
namespace SceneUnpacker {

// A package unpacks to at most this many times its size, and never to more than kMaxBytes:
// plates are compressed already, so a real package unpacks to about its own size.
inline constexpr qint64 kMaxRatio = 30;
inline constexpr qint64 kMaxBytes = qint64(2) << 30;
inline constexpr int kMaxEntries = 10000;

// Largest number of unpacked bytes allowed for a package: its declared "unpacked_size" when the
// catalog gives one, else 16 × its size + 64 MiB (room for raw test plates), within kMaxBytes.
// Throws DeliveryError (package) for a declared size that the bounds above rule out, so that a package claiming
// gigabytes from a few megabytes is refused before it is downloaded or unpacked.
qint64 limitFor(const SceneCatalog::Entry &entry);

// Returns the number of bytes written, never more than `maxBytes`. Throws DeliveryError (package).
qint64 unpack(const QString &archive, const QString &folder, qint64 maxBytes, int maxEntries = kMaxEntries);

}  // namespace SceneUnpacker
