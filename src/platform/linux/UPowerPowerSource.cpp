#include "platform/linux/UPowerPowerSource.h"
#include "platform/linux/DBusValues.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>

namespace {

using DBusValues::mapOf;
using DBusValues::plain;

const QString kUPowerService = QStringLiteral("org.freedesktop.UPower");
const QString kUPowerPath = QStringLiteral("/org/freedesktop/UPower");
const QString kUPowerInterface = QStringLiteral("org.freedesktop.UPower");
const QString kDeviceInterface = QStringLiteral("org.freedesktop.UPower.Device");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kBusService = QStringLiteral("org.freedesktop.DBus");
const QString kBusPath = QStringLiteral("/org/freedesktop/DBus");
const QString kActiveProfile = QStringLiteral("ActiveProfile");

constexpr uint kBatteryKind = 2;  // UP_DEVICE_KIND_BATTERY

// power-profiles-daemon, by its current name first; releases before 0.20 only own the older one.
struct ProfilesService {
    QString service, path, interface;
};
const ProfilesService kProfilesServices[] = {
    {QStringLiteral("org.freedesktop.UPower.PowerProfiles"), QStringLiteral("/org/freedesktop/UPower/PowerProfiles"),
     QStringLiteral("org.freedesktop.UPower.PowerProfiles")},
    {QStringLiteral("net.hadess.PowerProfiles"), QStringLiteral("/net/hadess/PowerProfiles"),
     QStringLiteral("net.hadess.PowerProfiles")},
};

std::optional<QVariant> call(const QDBusConnection &bus, QDBusMessage message)
{
    const QDBusMessage reply = bus.call(message, QDBus::Block, UPowerPowerSource::callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return std::nullopt;
    return reply.arguments().constFirst();
}

std::optional<QVariant> propertyOf(const QDBusConnection &bus, const QString &service, const QString &path,
                                   const QString &interface, const QString &name)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, kPropertiesInterface, QStringLiteral("Get"));
    message << interface << name;
    const std::optional<QVariant> value = call(bus, message);
    if (!value) return std::nullopt;
    return plain(*value);
}

}  // namespace

UPowerPowerSource::UPowerPowerSource(const QDBusConnection &bus, QObject *parent)
    : PowerSource(parent)
    , bus(bus)
{
    this->bus.connect(kUPowerService, kUPowerPath, kPropertiesInterface, QStringLiteral("PropertiesChanged"), this,
                      SLOT(upowerPropertiesChanged(QString, QVariantMap, QStringList)));
    this->bus.connect(kUPowerService, kUPowerPath, kUPowerInterface, QStringLiteral("DeviceAdded"), this,
                      SLOT(devicesChanged(QDBusObjectPath)));
    this->bus.connect(kUPowerService, kUPowerPath, kUPowerInterface, QStringLiteral("DeviceRemoved"), this,
                      SLOT(devicesChanged(QDBusObjectPath)));
    for (const ProfilesService &p : kProfilesServices)
        this->bus.connect(p.service, p.path, kPropertiesInterface, QStringLiteral("PropertiesChanged"), this,
                          SLOT(profilesPropertiesChanged(QString, QVariantMap, QStringList)));
    // A service starting or stopping changes the answers as much as a property does. Matched
    // on the name so that the rest of the system bus's traffic never wakes us.
    QStringList names{kUPowerService};
    for (const ProfilesService &p : kProfilesServices) names.append(p.service);
    for (const QString &name : names)
        this->bus.connect(kBusService, kBusPath, kBusService, QStringLiteral("NameOwnerChanged"), {name}, QString(),
                          this, SLOT(nameOwnerChanged(QString, QString, QString)));
}

std::optional<PowerSource::Reading> UPowerPowerSource::read()
{
    const std::optional<QVariant> onBattery =
        propertyOf(bus, kUPowerService, kUPowerPath, kUPowerInterface, QStringLiteral("OnBattery"));
    if (!onBattery || onBattery->typeId() != QMetaType::Bool) return std::nullopt;
    return Reading{onBattery->toBool(), anyBattery()};
}

bool UPowerPowerSource::anyBattery()
{
    const std::optional<QVariant> devices =
        call(bus, QDBusMessage::createMethodCall(kUPowerService, kUPowerPath, kUPowerInterface,
                                                 QStringLiteral("EnumerateDevices")));
    if (!devices || devices->userType() != qMetaTypeId<QDBusArgument>()) return false;
    const auto paths = qdbus_cast<QList<QDBusObjectPath>>(devices->value<QDBusArgument>());
    for (const QDBusObjectPath &path : paths) {
        QDBusMessage message =
            QDBusMessage::createMethodCall(kUPowerService, path.path(), kPropertiesInterface, QStringLiteral("GetAll"));
        message << kDeviceInterface;
        const std::optional<QVariant> all = call(bus, message);
        if (!all) continue;
        const QVariantMap properties = mapOf(*all);
        const QVariant kind = plain(properties.value(QStringLiteral("Type")));
        const QVariant supply = plain(properties.value(QStringLiteral("PowerSupply")));
        if (kind.typeId() == QMetaType::UInt && kind.toUInt() == kBatteryKind && supply.typeId() == QMetaType::Bool &&
            supply.toBool())
            return true;
    }
    return false;
}

bool UPowerPowerSource::lowPowerMode()
{
    for (const ProfilesService &p : kProfilesServices) {
        const std::optional<QVariant> profile = propertyOf(bus, p.service, p.path, p.interface, kActiveProfile);
        if (profile) return profile->toString() == QLatin1String("power-saver");
    }
    return false;
}

void UPowerPowerSource::upowerPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                                const QStringList &invalidated)
{
    const QString onBattery = QStringLiteral("OnBattery");
    if (interface == kUPowerInterface && (changed.contains(onBattery) || invalidated.contains(onBattery)))
        emit this->changed();
}

void UPowerPowerSource::profilesPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                                  const QStringList &invalidated)
{
    for (const ProfilesService &p : kProfilesServices)
        if (interface == p.interface && (changed.contains(kActiveProfile) || invalidated.contains(kActiveProfile))) {
            emit lowPowerModeChanged();
            return;
        }
}

void UPowerPowerSource::devicesChanged(const QDBusObjectPath &) { emit changed(); }

void UPowerPowerSource::nameOwnerChanged(const QString &name, const QString &, const QString &)
{
    if (name == kUPowerService) {
        emit changed();
        return;
    }
    for (const ProfilesService &p : kProfilesServices)
        if (name == p.service) {
            emit lowPowerModeChanged();
            return;
        }
}
