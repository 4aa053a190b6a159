#pragma once

#include <QString>

// The diagnostic log: one UTF-8 line per message, prefixed by an ISO 8601 UTC timestamp with
// milliseconds. Writing never fails visibly and never retries; there is no rotation.
// Callers are on the main thread or accept interleaving of whole lines.
namespace Log {

// $XDG_STATE_HOME (default ~/.local/state) + "/Turnelo[ Dev].log", computed once per process.
QString path();

void write(const QString &message);

}  // namespace Log
