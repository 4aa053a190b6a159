#pragma once

#include <QString>

// The login item on Linux: a desktop entry in $XDG_CONFIG_HOME/autostart, which session
// managers start at login. Present and not hidden means on.
namespace XdgAutostart {

QString entryPath();
bool isEnabled();
// Writes the entry (launching `program`) or removes it. False when the file could not be
// written or removed.
bool setEnabled(bool on, const QString &program);
// The start-up log line's word: "ativo" or "desligado".
QString word();

}  // namespace XdgAutostart
