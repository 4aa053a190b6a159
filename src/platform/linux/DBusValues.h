#pragma once

#include <QDBusArgument>
#include <QDBusVariant>
#include <QVariant>
#include <QVariantMap>

// Values read out of D-Bus replies and signals, whether QtDBus demarshalled them already or left
// them as argument streams.
namespace DBusValues {

inline QVariant plain(const QVariant &v)
{
    if (v.userType() == qMetaTypeId<QDBusVariant>()) return plain(v.value<QDBusVariant>().variant());
    return v;
}

inline QVariantMap mapOf(const QVariant &value)
{
    const QVariant v = plain(value);
    if (v.userType() == qMetaTypeId<QDBusArgument>()) return qdbus_cast<QVariantMap>(v.value<QDBusArgument>());
    return v.toMap();
}

}  // namespace DBusValues
