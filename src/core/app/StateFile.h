#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QString>
#include <optional>

// The files Turnelo keeps its own state in (history index, catalog cache, download and
// installation records). A crash or a lost power supply may stop any write at any byte, and a
// disk or a hand may damage a file; the next start must still come up with what was complete.
// Any thread; no two writers of one path at a time.
namespace StateFile {

// Writes `bytes` into a temporary file beside `path`, flushes it to disk and renames it over
// `path`: whoever reads finds the old contents or the new, never a mix. A symbolic link at `path`
// is replaced by the new file; what it pointed to stays as it was. On failure the old file stays
// and `error` (when given) holds the reason.
bool write(const QString &path, const QByteArray &bytes, QString *error = nullptr);

// The JSON in `path`; nothing when the file is absent or empty. A file that does not parse is
// logged ("Estado: …"), copied beside itself as "<name>.bad" so that nothing is thrown away, and
// what its leading complete members or items hold is given back (see salvage()); nothing when
// not even that is left.
std::optional<QJsonDocument> readJson(const QString &path);

// The longest leading part of a damaged JSON object or array that parses once closed: every
// member or item up to the last complete one. Nothing when the text is not an object or array
// or holds no complete member. One pass over the text finds where members end; a search by
// halves then parses O(log n) closed prefixes, counted into `parses` when given.
std::optional<QJsonDocument> salvage(const QByteArray &bytes, int *parses = nullptr);

// Logs the damage and keeps a copy of `path` as "<path>.bad" (used by readJson(), and by the
// settings format, which reads through its own device).
void reportDamaged(const QString &path, const QString &reason, bool recovered);

}  // namespace StateFile
