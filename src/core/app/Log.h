#pragma once

#include <QString>

// The diagnostic log: one UTF-8 line per message, prefixed by an ISO 8601 UTC timestamp with
// milliseconds. Messages carry text from outside (titles, file names, server replies), so each
// is made one line first (SafeText::oneLine: controls and bidi controls written out, cut past
// maxLineLength). Past maxBytes the file becomes "<name>.1", replacing the one before, and a new
// file starts: a flood of lines costs at most about twice maxBytes on disk. Writing never fails
// visibly and never retries. Callers are on the main thread or accept interleaving of whole lines.
namespace Log {

inline constexpr qsizetype maxLineLength = 8192;
inline constexpr qint64 maxBytes = 1024 * 1024;

// $XDG_STATE_HOME (default ~/.local/state) + "/Turnelo[ Dev].log", computed once per process.
QString path();

void write(const QString &message);

}  // namespace Log
