#pragma once

#include <QSettings>

// A QSettings format that keeps value types across restarts: Boolean, integer, double, text
// and dictionary come back as they were stored (INI would turn them all into text).
// Stored as one JSON object; a double with an integral value is written as {"$real": n}
// because JSON readers give integral numbers back as integers.
namespace JsonSettingsFormat {

// Registered once per process; the same value every call.
QSettings::Format format();

// The file's bytes for `map`, as the format writes them.
QByteArray encode(const QSettings::SettingsMap &map);

QVariant fromJson(const QJsonValue &value);
QJsonValue toJson(const QVariant &value);

}  // namespace JsonSettingsFormat
