#pragma once

#include "core/environment/PowerSource.h"

#include <QDBusConnection>
#include <QStringList>
#include <QVariantMap>

class QDBusObjectPath;

// The power source on Linux, from system services: UPower's OnBattery, a battery being any
// UPower device of the battery kind that powers the machine, and power-profiles-daemon's
// "power-saver" profile as Low Power Mode (under its current name or the older
// net.hadess one).
//
// Every call is a blocking call on the main thread of at most callTimeoutMs, so a missing or
// stuck service costs little; a missing UPower reads as no power information. The services'
// PropertiesChanged, UPower's device list and the services appearing or vanishing on the bus
// are the notifications.
class UPowerPowerSource : public PowerSource {
    Q_OBJECT
public:
    static constexpr int callTimeoutMs = 500;

    explicit UPowerPowerSource(const QDBusConnection &bus = QDBusConnection::systemBus(), QObject *parent = nullptr);

    std::optional<Reading> read() override;
    bool lowPowerMode() override;

private slots:
    void upowerPropertiesChanged(const QString &interface, const QVariantMap &changed, const QStringList &invalidated);
    void profilesPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                   const QStringList &invalidated);
    void devicesChanged(const QDBusObjectPath &device);
    void nameOwnerChanged(const QString &name, const QString &oldOwner, const QString &newOwner);

private:
    bool anyBattery();

    QDBusConnection bus;
};
