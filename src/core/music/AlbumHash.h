#pragma once

#include <QString>
#include <QtGlobal>

// The 64-bit hash of an album title: FNV-1a over the UTF-8 bytes. It names the cover files of
// the record stack and seeds the made-up groove layout, so the same title always gives the same
// file and the same grooves, across launches and platforms. The empty text gives the offset basis.
quint64 albumHash(const QString &text);

// "%016llx.jpg" of the album's hash: the cover file of the record stack.
QString albumCoverFileName(const QString &album);
